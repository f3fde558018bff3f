// The value alone: a copy that comes and goes, an array of samples [[s, us], v] built and
// freed, and the rows of a fetch. The floor knows what it holds and needs no tag to find out:
// blocks with an atomic counter, one allocation per array.

#include <atomic>
#include <cstdint>
#include <new>
#include <string>
#include <utility>

#include <benchmark/benchmark.h>

#include <kxvalue/kxrows.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX::bench {
namespace {

constexpr int kSamples = 100'000;

struct FloorText {
  std::atomic<int> references{1};
  std::string text;
};

struct FloorValue {
  std::uint64_t kind;
  union {
    std::int64_t number;
    void* block;
  };
};

template <int Size>
struct FloorArray {
  std::atomic<int> references{1};
  int size = Size;
  FloorValue elements[static_cast<std::size_t>(Size)];

  static void drop(void* block) {
    auto* const array = static_cast<FloorArray*>(block);
    if (array->references.load(std::memory_order_acquire) == 1) delete array;
  }
};
using FloorPair = FloorArray<2>;
using FloorSamples = FloorArray<kSamples>;

void copyNumberOurs(benchmark::State& state) {
  KXValue value(5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    KXValue copy(value);
    benchmark::DoNotOptimize(copy);
  }
}

void copyNumberFloor(benchmark::State& state) {
  FloorValue value{3, {5}};
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    FloorValue copy(value);
    benchmark::DoNotOptimize(copy);
  }
}

void copyTextOurs(benchmark::State& state) {
  KXValue value("text");
  for (auto _ : state) {
    benchmark::DoNotOptimize(value);
    KXValue copy(value);
    benchmark::DoNotOptimize(copy);
  }
}

void copyTextFloor(benchmark::State& state) {
  auto* text = new FloorText{{1}, "text"};
  for (auto _ : state) {
    benchmark::DoNotOptimize(text);
    text->references.fetch_add(1, std::memory_order_relaxed);
    FloorText* copy = text;
    benchmark::DoNotOptimize(copy);
    if (copy->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete copy;
  }
  delete text;
}

void samplesOurs(benchmark::State& state) {
  for (auto _ : state) {
    KXValue samples;
    samples.arrayReserve(kSamples);
    for (int i = 0; i < kSamples; ++i) {
      samples.arrayPush(KXValue::arrayOf(KXValue::arrayOf(i, 5), 2.5));
    }
    benchmark::DoNotOptimize(samples);
  }
}

void samplesFloor(benchmark::State& state) {
  for (auto _ : state) {
    auto* samples = new FloorSamples;
    for (int i = 0; i < kSamples; ++i) {
      auto* const time = new FloorPair{{1}, 2, {{3, {i}}, {3, {5}}}};
      auto* const sample = new FloorPair{{1}, 2, {{1, {}}, {4, {25}}}};
      sample->elements[0].block = time;
      samples->elements[i] = FloorValue{1, {}};
      samples->elements[i].block = sample;
    }
    benchmark::DoNotOptimize(samples);
    for (FloorValue const& each : samples->elements) {
      FloorPair::drop(static_cast<FloorPair*>(each.block)->elements[0].block);
      FloorPair::drop(each.block);
    }
    FloorSamples::drop(samples);
  }
}

// A fetch: for each key an array of [time, value] rows, the times those of all keys.
void rowsOurs(benchmark::State& state) {
  auto const keyCount = static_cast<std::size_t>(state.range(0));
  auto const rowCount = static_cast<std::size_t>(state.range(1));
  for (auto _ : state) {
    KXRows times(rowCount);
    for (std::size_t i = 0; i < rowCount; ++i) times.push(static_cast<int>(i), 5);
    KXValue const shared = times.take();
    KXValue result;
    result.arrayReserve(static_cast<int>(keyCount));
    for (std::size_t key = 0; key < keyCount; ++key) {
      KXRows rows(rowCount, shared);
      for (std::size_t i = 0; i < rowCount; ++i) rows.pushShared(i, 2.5);
      result.arrayPush(rows.take());
    }
    benchmark::DoNotOptimize(result);
  }
  state.counters["per row"] =
      benchmark::Counter(static_cast<double>(state.iterations() * keyCount * rowCount),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(copyNumberOurs)->Name("value/copy number/ours");
BENCHMARK(copyNumberFloor)->Name("value/copy number/floor");
BENCHMARK(copyTextOurs)->Name("value/copy text/ours");
BENCHMARK(copyTextFloor)->Name("value/copy text/floor");
BENCHMARK(samplesOurs)->Name("value/samples/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(rowsOurs)
    ->Name("value/rows/ours")
    ->ArgNames({"keys", "rows"})
    ->Args({1000, 1000})
    ->Args({10'000, 100})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(samplesFloor)->Name("value/samples/floor")->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KX::bench
