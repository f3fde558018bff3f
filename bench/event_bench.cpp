// An event: its capture alone, and its whole way from a client of the store into the buffer.

#include <sys/time.h>

#include <atomic>
#include <string>

#include <benchmark/benchmark.h>

#include <binding/kxproxycall.hpp>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

// Filed or dropped, outside the measured time, after so many events.
constexpr int kEventsPerFill = 20'000;
std::string const kKey = "Device/Hand/Touched";

void captureOurs(benchmark::State& state) {
  WatcherHost host(0);
  KXMemoryWatcherForTest::setWatching(host.watcher(), true);
  KXValue const value(1.5);
  KXValue const message("");
  int posted = 0;
  for (auto _ : state) {
    if (posted++ == kEventsPerFill) {
      state.PauseTiming();
      host.watcher().clearBuffer();
      posted = 0;
      state.ResumeTiming();
    }
    host.watcher().onEventNotify(kKey, value, message);
  }
  KXMemoryWatcherForTest::setWatching(host.watcher(), false);
}

struct FloorPost {
  FloorPost* next;
  std::int64_t seconds;
  std::int64_t microseconds;
  std::uint64_t kind;
  double value;
};

std::atomic<FloorPost*> newestPost{nullptr};

void postByHand(double value) {
  timeval now{};
  gettimeofday(&now, nullptr);
  auto* const post = new FloorPost{nullptr, now.tv_sec, now.tv_usec, 4, value};
  post->next = newestPost.load(std::memory_order_relaxed);
  while (!newestPost.compare_exchange_weak(post->next, post, std::memory_order_release,
                                           std::memory_order_relaxed)) {
  }
}

void dropPosts() {
  FloorPost* post = newestPost.exchange(nullptr, std::memory_order_acquire);
  while (post != nullptr) delete std::exchange(post, post->next);
}

void captureFloor(benchmark::State& state) {
  int posted = 0;
  for (auto _ : state) {
    if (posted++ == kEventsPerFill) {
      state.PauseTiming();
      dropPosts();
      posted = 0;
      state.ResumeTiming();
    }
    postByHand(1.5);
  }
  dropPosts();
}

int countSamples(KXValue const& fetched) {
  int count = 0;
  for (int i = 0; i < fetched.getSize(); ++i) count += fetched[i][1].getSize();
  return count;
}

// One client raises as fast as it can; the time ends when the last event is in the buffer.
void raisedOurs(benchmark::State& state) {
  constexpr int kRaises = 200'000;
  WatcherHost host(0);
  auto const store = host.broker()->getProxy("KXMemory", 0);
  store->call<void>("declareEvent", kKey);
  host.watcher().startWatching(1000);
  host.watcher().addListener(kKey);
  for (auto _ : state) {
    state.PauseTiming();
    host.watcher().getData();
    state.ResumeTiming();
    for (int i = 0; i < kRaises; ++i) store->call<void>("raiseEvent", kKey, KXValue(i));
    for (int arrived = 0; arrived < kRaises;) arrived += countSamples(host.watcher().getData());
  }
  host.watcher().stopWatching();
  state.SetItemsProcessed(state.iterations() * kRaises);
  state.counters["per_item_ns"] = benchmark::Counter(
      kRaises * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(captureOurs)->Name("capture/ours");
BENCHMARK(captureFloor)->Name("capture/floor");
BENCHMARK(raisedOurs)->Name("raised/ours")->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KX::bench
