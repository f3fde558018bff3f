// Runs the benchmarks and prints one table: figure, ours, floor, ratio, and what is demanded.
// The floor is the same work by hand, measured in the same run; options are Google Benchmark's.

#include <cstdio>
#include <string>

#include "bench/figures.hpp"
#include "bench/watcherbench.hpp"

namespace {

constexpr KX::bench::Figure kFigures[] = {
    {"periods lost in 60 s, 10000 keys, fetch each second", "",
     "loss/10000/1000/1/60/iterations:1:lost", "", 0, 0},
    {"... fetch every 100 ms", "", "loss/10000/100/1/60/iterations:1:lost", "", 0, 0},
    {"... four clients in turn, 20 s", "", "loss/10000/100/4/20/iterations:1:lost", "", 0, 0},
    {"... 100000 keys, fetch each second, 20 s", "", "loss/100000/1000/1/20/iterations:1:lost", "",
     0, 0},
    {"longest hold of the data mutex by a fetch", "us", "hold/iterations:1:us", "", 200, 50},
    {"update cycle, 100 keys", "ns", "cycle/ours/100", "cycle/floor/100", 2.5, 1.5},
    {"update cycle, 1000 keys", "ns", "cycle/ours/1000", "cycle/floor/1000", 0.9, 0.6},
    {"update cycle, 10000 keys", "ns", "cycle/ours/10000", "cycle/floor/10000", 0.3, 0.1},
    {"update cycle, 100000 keys", "ns", "cycle/ours/100000", "cycle/floor/100000", 0.8, 0.3},
    {"at 100 Hz, CPU per sample, 1000 keys", "ns",
     "pacing/1000/iterations:1:timed_cpu_ns_per_sample",
     "pacing/1000/iterations:1:floor_cpu_ns_per_sample", 1.0, 0.8},
    {"at 100 Hz, CPU per sample, 10000 keys", "ns",
     "pacing/10000/iterations:1:timed_cpu_ns_per_sample",
     "pacing/10000/iterations:1:floor_cpu_ns_per_sample", 0.5, 0.2},
    {"at 100 Hz, CPU per sample, 100000 keys", "ns",
     "pacing/100000/iterations:1:timed_cpu_ns_per_sample",
     "pacing/100000/iterations:1:floor_cpu_ns_per_sample", 0.5, 0.2},
    {"fetch of 1e5 samples, 1000 a key, build + free", "ms", "fetch/ours/100000/1000",
     "fetch/floor/100000/1000", 0.7, 0.25},
    {"fetch of 1e6 samples, 1000 a key", "ms", "fetch/ours/1000000/1000",
     "fetch/floor/1000000/1000", 0.7, 0.25},
    {"fetch of 1e5 samples, 100 a key", "ms", "fetch/ours/100000/100", "fetch/floor/100000/100",
     0.7, 0.25},
    {"fetch of 1e6 samples, 100 a key", "ms", "fetch/ours/1000000/100", "fetch/floor/1000000/100",
     0.7, 0.25},
    {"memory of a buffered number, 1 key", "B", "bufferedNumber/1/iterations:1:bytes", "", 80, 64},
    {"memory of a buffered number, 10 keys", "B", "bufferedNumber/10/iterations:1:bytes", "", 26,
     22},
    {"memory of a buffered number, 1000 keys", "B", "bufferedNumber/1000/iterations:1:bytes", "",
     18, 16.5},
    {"memory of a waiting event, 20-character key", "B", "waitingEvent/iterations:1:bytes", "", 96,
     80},
    {"memory after a peak of 1e7 samples", "x", "peak/iterations:1:ratio", "", 1.2, 1.05},
    {"event captured by _onEventNotify's member", "ns", "capture/ours", "capture/floor", 3, 1.5},
    {"event raised in the store until buffered", "ns", "raised/ours/real_time:per_item_ns",
     "capture/floor", 12, 8},
    {"call through the broker, typed", "ns", "call/typed/ours", "", 150, 60},
    {"call through the broker, as values", "ns", "call/generic/ours", "", 150, 60},
    {"lateness at 10 ms, timed pacing, p50", "us", "pacing/1000/iterations:1:timed_p50_us",
     "pacing/1000/iterations:1:floor_p50_us", 1.2, 0.7},
    {"lateness at 10 ms, timed pacing, p99", "us", "pacing/1000/iterations:1:timed_p99_us",
     "pacing/1000/iterations:1:floor_p99_us", 1.5, 0.9},
    {"lateness at 10 ms, cycle pacing, p50", "us", "pacing/1000/iterations:1:cycle_p50_us",
     "pacing/1000/iterations:1:floor_p50_us", 1.2, 0.7},
    {"lateness at 10 ms, cycle pacing, p99", "us", "pacing/1000/iterations:1:cycle_p99_us",
     "pacing/1000/iterations:1:floor_p99_us", 1.5, 0.9},
    {"batches in 60 s with the time of another", "",
     "loss/10000/1000/1/60/iterations:1:with_the_same_time", "", 0, 0},
};

constexpr int kGrowth[] = {100, 1000, 10'000, 100'000};

void printGrowth(KX::bench::Collector& collector) {
  std::printf("\n| keys   | ours, per key | floor, per key |\n|---|---|---|\n");
  for (int const keys : kGrowth) {
    double ours = 0;
    double floor = 0;
    std::string const suffix = std::to_string(keys);
    if (!collector.find("cycle/ours/" + suffix, ours)) continue;
    if (!collector.find("cycle/floor/" + suffix, floor)) continue;
    std::printf("| %6d | %10.2f ns | %11.2f ns |\n", keys, ours / keys, floor / keys);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "--after-peak") {
    std::printf("%f\n", KX::bench::afterPeak());
    return 0;
  }
  KX::bench::Collector collector;
  if (!KX::bench::runBenchmarks(argc, argv, collector)) return 2;
  KX::bench::printTable(collector, kFigures);
  printGrowth(collector);
  return 0;
}
