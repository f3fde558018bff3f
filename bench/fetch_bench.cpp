// A fetch of M samples: building the result and freeing it.

#include <atomic>
#include <cstdlib>
#include <new>

#include <benchmark/benchmark.h>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

// Arguments: samples in all, samples per key.
void fetchOurs(benchmark::State& state) {
  int const samplesPerKey = static_cast<int>(state.range(1));
  WatcherHost host(static_cast<int>(state.range(0)) / samplesPerKey);
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < samplesPerKey; ++i) KXMemoryWatcherForTest::updateData(host.watcher());
    state.ResumeTiming();
    benchmark::DoNotOptimize(host.watcher().getData());
  }
}

// By hand: a counted block per array, elements inside, nothing shared.
struct FloorBlock;
struct FloorValue {
  std::uint64_t kind;
  union {
    std::int64_t number;
    double real;
    FloorBlock* block;
  };
};
struct FloorBlock {
  std::atomic<int> references;
  int size;
  FloorValue* elements() { return reinterpret_cast<FloorValue*>(this + 1); }
};
constexpr std::uint64_t kArray = 1;

FloorValue makeArray(std::size_t size) {
  void* const memory = std::malloc(sizeof(FloorBlock) + size * sizeof(FloorValue));
  FloorBlock* const block = new (memory) FloorBlock{1, static_cast<int>(size)};
  FloorValue value{kArray, {}};
  value.block = block;
  return value;
}

void freeValue(FloorValue const& value) {
  if (value.kind != kArray) return;
  if (value.block->references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  for (int i = 0; i < value.block->size; ++i) freeValue(value.block->elements()[i]);
  std::free(value.block);
}

FloorValue integer(std::int64_t number) {
  FloorValue value{3, {}};
  value.number = number;
  return value;
}

FloorValue fetch(FloorBuffers const& floor) {
  FloorValue const result = makeArray(floor.buffers.size());
  FloorValue* perKey = result.block->elements();
  for (auto const& buffer : floor.buffers) {
    FloorValue const samples = makeArray(buffer.size());
    FloorValue* sample = samples.block->elements();
    for (FloorSample const& taken : buffer) {
      FloorValue const time = makeArray(2);
      time.block->elements()[0] = integer(taken.seconds);
      time.block->elements()[1] = integer(taken.microseconds);
      FloorValue const entry = makeArray(2);
      entry.block->elements()[0] = time;
      entry.block->elements()[1].kind = taken.kind;
      entry.block->elements()[1].real = taken.value;
      *sample++ = entry;
    }
    *perKey++ = samples;
  }
  return result;
}

void fetchFloor(benchmark::State& state) {
  int const samplesPerKey = static_cast<int>(state.range(1));
  FloorBuffers floor(static_cast<int>(state.range(0)) / samplesPerKey);
  for (auto _ : state) {
    state.PauseTiming();
    for (int i = 0; i < samplesPerKey; ++i) floor.cycle();
    state.ResumeTiming();
    FloorValue const result = fetch(floor);
    floor.clear();
    benchmark::DoNotOptimize(result.block);
    freeValue(result);
  }
}

BENCHMARK(fetchOurs)
    ->Name("fetch/ours")
    ->ArgsProduct({{100'000, 1'000'000}, {100, 1000}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fetchFloor)
    ->Name("fetch/floor")
    ->ArgsProduct({{100'000, 1'000'000}, {100, 1000}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KX::bench
