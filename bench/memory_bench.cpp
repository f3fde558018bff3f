// What buffered numbers and waiting events take, and what stays after a peak.

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

// All that malloc has given out, its own overhead included.
double allocatedBytes() {
  struct mallinfo2 const info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

double residentBytes() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void bufferedNumber(benchmark::State& state) {
  int const keyCount = static_cast<int>(state.range(0));
  int const cycles = 200'000 / keyCount;
  for (auto _ : state) {
    WatcherHost host(keyCount);
    KXMemoryWatcherForTest::updateData(host.watcher());
    double const before = allocatedBytes();
    for (int i = 0; i < cycles; ++i) KXMemoryWatcherForTest::updateData(host.watcher());
    state.counters["bytes"] =
        (allocatedBytes() - before) / (static_cast<double>(cycles) * keyCount);
  }
}

void waitingEvent(benchmark::State& state) {
  constexpr int kEvents = 50'000;
  std::string const key = "Device/Hand/Touched1";
  for (auto _ : state) {
    WatcherHost host(0);
    KXMemoryWatcherForTest::setWatching(host.watcher(), true);
    double const before = allocatedBytes();
    for (int i = 0; i < kEvents; ++i) host.watcher().onEventNotify(key, KXValue(i), KXValue());
    state.counters["bytes"] = (allocatedBytes() - before) / kEvents;
    KXMemoryWatcherForTest::setWatching(host.watcher(), false);
  }
}

// In a process of its own: what other benchmarks left free would hide what this one leaves.
void peak(benchmark::State& state) {
  for (auto _ : state) {
    std::string const program = std::filesystem::read_symlink("/proc/self/exe").string();
    std::FILE* const child = popen(("'" + program + "' --after-peak").c_str(), "r");
    double ratio = 0;
    if (child == nullptr || std::fscanf(child, "%lf", &ratio) != 1) {
      return state.SkipWithError("the process did not answer");
    }
    pclose(child);
    state.counters["ratio"] = ratio;
  }
}

BENCHMARK(bufferedNumber)->Arg(1)->Arg(10)->Arg(1000)->Iterations(1)->Repetitions(1);
BENCHMARK(waitingEvent)->Iterations(1)->Repetitions(1);
BENCHMARK(peak)->Iterations(1)->Repetitions(1);

}  // namespace

double afterPeak() {
  constexpr int kKeys = 10'000;
  WatcherHost host(kKeys);
  KXMemoryWatcherForTest::updateData(host.watcher());
  double const before = residentBytes();
  for (int i = 0; i < 10'000'000 / kKeys; ++i) KXMemoryWatcherForTest::updateData(host.watcher());
  benchmark::DoNotOptimize(host.watcher().getData());
  return residentBytes() / before;
}

}  // namespace KX::bench
