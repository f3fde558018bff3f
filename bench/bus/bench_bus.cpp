// Runs the benchmarks of the bus: this process, a server and a peer. Options are Google
// Benchmark's.

#include <string>

#include "bench/bus/busbench.hpp"
#include "bench/figures.hpp"

namespace {

constexpr KX::bench::Figure kFigures[] = {
    {"call with one text, p50", "us", "bus/call/iterations:1:ours_p50_us",
     "bus/call/iterations:1:raw_p50_us", 1.4, 1.15},
    {"batch read of 10 keys, p50", "us", "bus/read/10/iterations:1:ours_p50_us",
     "bus/read/10/iterations:1:raw_p50_us", 1.4, 1.15},
    {"batch read of 100 keys, p50", "us", "bus/read/100/iterations:1:ours_p50_us",
     "bus/read/100/iterations:1:raw_p50_us", 1.4, 1.15},
    {"batch read of 1000 keys, p50", "us", "bus/read/1000/iterations:1:ours_p50_us",
     "bus/read/1000/iterations:1:raw_p50_us", 1.4, 1.15},
    {"batch read of 10000 keys, p50", "us", "bus/read/10000/iterations:1:ours_p50_us",
     "bus/read/10000/iterations:1:raw_p50_us", 1.4, 1.15},
    {"1000 keys at 100 Hz, CPU of all per sample", "ns", "bus/cpu/iterations:1:ours_ns",
     "bus/cpu/iterations:1:raw_ns", 1.4, 1.1},
    {"event of 100 bytes, sustained, time for each", "ns", "bus/events/iterations:1:ours_ns",
     "bus/events/iterations:1:raw_ns", 2.0, 1.0},
    {"event at a steady 100 000/s, p99", "us", "bus/paced/10000/500000/iterations:1:ours_p99_us",
     "", 10'000, 3000},
    {"event each 3 ms, p50", "us", "bus/paced/3000000/2000/iterations:1:ours_p50_us",
     "bus/paced/3000000/2000/iterations:1:raw_p50_us", 1.3, 1.1},
    {"event each 3 ms, p99", "us", "bus/paced/3000000/2000/iterations:1:ours_p99_us",
     "bus/paced/3000000/2000/iterations:1:raw_p99_us", 1.5, 1.2},
    {"fetch of 1e6 samples, encoded", "ms", "wire/encode/ours", "wire/encode/hand", 2.0, 1.3},
    {"fetch of 1e6 samples, decoded", "ms", "wire/decode/ours", "wire/decode/hand", 1.3, 1.0},
    {"periods lost of 6000, beside fetches and 20 000 events/s", "",
     "bus/loss/60/iterations:1:lost", "", 0, 0},
    {"... lateness p99 against that without them", "us", "bus/loss/60/iterations:1:busy_p99_us",
     "bus/loss/60/iterations:1:alone_p99_us", 0, 1.5},
    {"50 robots: CPU per sample", "ns", "bus/fleet/50/iterations:1:cpu_ns_per_sample", "", 0, 0},
    {"100 robots: CPU per sample", "ns", "bus/fleet/100/iterations:1:cpu_ns_per_sample", "", 0, 0},
    {"200 robots: CPU per sample", "ns", "bus/fleet/200/iterations:1:cpu_ns_per_sample", "", 0, 0},
    {"200 robots: memory of each, host and watcher", "MB",
     "bus/fleet/200/iterations:1:mb_per_robot", "", 0, 0},
    {"200 robots: batches missing of 20 000", "", "bus/fleet/200/iterations:1:batches_missing", "",
     0, 0},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--peer") KX::bench::servePeer(argv[2]);
  KX::bench::Collector collector;
  if (!KX::bench::runBenchmarks(argc, argv, collector)) return 2;
  KX::bench::printTable(collector, kFigures);
  return 0;
}
