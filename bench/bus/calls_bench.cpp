// Calls and batch reads of another process, against bare requests of the same bytes.

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <binding/kxproxycall.hpp>
#include <host/bus/kxwire.hpp>
#include <kxproxies/kxmemoryproxy.hpp>

#include "bench/bus/busbench.hpp"

namespace KX::bench {
namespace {

constexpr int kCalls = 2000;

// Ours and the bare client's take turns, each call timed by itself.
template <class Ours, class Raw>
void measure(benchmark::State& state, Ours ours, Raw raw) {
  for (int i = 0; i < 50; ++i) {
    ours();
    raw();
  }
  for (auto _ : state) {
    std::vector<std::int64_t> oursNs;
    std::vector<std::int64_t> rawNs;
    for (int i = 0; i < kCalls; ++i) {
      std::int64_t const start = steadyNs();
      ours();
      std::int64_t const middle = steadyNs();
      raw();
      oursNs.push_back(middle - start);
      rawNs.push_back(steadyNs() - middle);
    }
    state.counters["ours_p50_us"] = percentile(oursNs, 0.5) / 1000;
    state.counters["raw_p50_us"] = percentile(rawNs, 0.5) / 1000;
  }
}

void call(benchmark::State& state) {
  auto const host = World::get().join();
  auto const proxy = host->getBroker()->getProxy("Bench", 0);
  RawConnection raw(World::get().url());
  std::string const text = "Device/Joint1/Position";
  std::string const request = encodeValue(KXValue::arrayOf(text));
  std::string const subject = "rawecho." + std::to_string(encodeResult(KXValue(false)).size());
  measure(
      state, [&] { benchmark::DoNotOptimize(proxy->call<bool>("isLong", text)); },
      [&] { benchmark::DoNotOptimize(raw.request(subject, request)); });
}

void batchRead(benchmark::State& state) {
  auto const host = World::get().join();
  KXMemoryProxy proxy(host->getBroker());
  RawConnection raw(World::get().url());
  KXValue const names(keyNames(static_cast<int>(state.range(0))));
  std::string const request = encodeValue(KXValue::arrayOf(names));
  std::size_t const replyBytes = encodeResult(proxy.getListData(names)).size();
  std::string const subject = "rawecho." + std::to_string(replyBytes);
  measure(
      state, [&] { benchmark::DoNotOptimize(proxy.getListData(names)); },
      [&] { benchmark::DoNotOptimize(raw.request(subject, request)); });
}

BENCHMARK(call)->Name("bus/call")->Iterations(1)->Repetitions(3);
BENCHMARK(batchRead)
    ->Name("bus/read")
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(10'000)
    ->Iterations(1)
    ->Repetitions(3);

}  // namespace
}  // namespace KX::bench
