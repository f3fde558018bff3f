// The update cycle for growing numbers of keys.

#include <benchmark/benchmark.h>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

// Buffers are cleared, with their memory kept, after so many samples per key: long enough to be
// hot, short enough for 100 000 keys.
constexpr int kCyclesPerFill = 100;

void perKey(benchmark::State& state, int keyCount) {
  state.counters["per_key_ns"] = benchmark::Counter(
      static_cast<double>(keyCount) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void cycleOurs(benchmark::State& state) {
  int const keyCount = static_cast<int>(state.range(0));
  WatcherHost host(keyCount);
  for (int i = 0; i < kCyclesPerFill; ++i) KXMemoryWatcherForTest::updateData(host.watcher());
  host.watcher().clearBuffer();
  int filled = 0;
  for (auto _ : state) {
    if (filled++ == kCyclesPerFill) {
      state.PauseTiming();
      host.watcher().clearBuffer();
      filled = 0;
      state.ResumeTiming();
    }
    KXMemoryWatcherForTest::updateData(host.watcher());
  }
  perKey(state, keyCount);
}

void cycleFloor(benchmark::State& state) {
  int const keyCount = static_cast<int>(state.range(0));
  FloorBuffers floor(keyCount);
  for (int i = 0; i < kCyclesPerFill; ++i) floor.cycle();
  floor.clear();
  int filled = 0;
  for (auto _ : state) {
    if (filled++ == kCyclesPerFill) {
      state.PauseTiming();
      floor.clear();
      filled = 0;
      state.ResumeTiming();
    }
    floor.cycle();
    benchmark::ClobberMemory();
  }
  perKey(state, keyCount);
}

BENCHMARK(cycleOurs)->Name("cycle/ours")->RangeMultiplier(10)->Range(100, 100'000);
BENCHMARK(cycleFloor)->Name("cycle/floor")->RangeMultiplier(10)->Range(100, 100'000);

}  // namespace
}  // namespace KX::bench
