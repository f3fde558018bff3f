// Events from the store's raise to the subscriber's call in another process, against single
// messages of the bare client.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <binding/kxproxycall.hpp>
#include <kxproxies/kxmemoryproxy.hpp>

#include "bench/bus/busbench.hpp"

namespace KX::bench {
namespace {

struct RawReceiver {
  std::vector<std::int64_t> latenciesNs;
  std::atomic<int> count{0};
};

void onRawEvent(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                natsMsg* message, void* closure) {
  auto& receiver = *static_cast<RawReceiver*>(closure);
  std::string_view const text(natsMsg_GetData(message),
                              static_cast<std::size_t>(natsMsg_GetDataLength(message)));
  receiver.latenciesNs.push_back(steadyNs() - stampOf(text));
  natsMsg_Destroy(message);
  receiver.count.fetch_add(1, std::memory_order_release);
}

// What arrives of `count` messages: for how many it waits is up to the caller.
struct RawRun {
  std::vector<std::int64_t> latenciesNs;
  std::int64_t tookNs = 0;
};
RawRun runRaw(std::string const& how, int count, int gapNs) {
  RawConnection const connection(World::get().url());
  RawConnection asking(World::get().url());
  auto const receiver = std::make_unique<RawReceiver>();
  receiver->latenciesNs.reserve(static_cast<std::size_t>(count));
  natsSubscription* subscription = nullptr;
  natsConnection_Subscribe(&subscription, connection.get(), "rawevent", onRawEvent, receiver.get());
  natsSubscription_SetPendingLimits(subscription, -1, -1);
  natsConnection_Flush(connection.get());
  std::int64_t const start = steadyNs();
  asking.request(how + "." + std::to_string(count) + "." + std::to_string(gapNs), "");
  while (receiver->count.load(std::memory_order_acquire) < count &&
         steadyNs() - start < 120'000'000'000) {
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  RawRun run{receiver->latenciesNs, steadyNs() - start};
  natsSubscription_Drain(subscription);
  natsSubscription_WaitForDrainCompletion(subscription, 1000);
  natsSubscription_Destroy(subscription);
  return run;
}

// A subscriber in this process, and what makes the peer raise.
struct Watch {
  Watch() { store.subscribeToEvent(kEventKey, "BenchSubscriber", "onEvent"); }
  ~Watch() { store.unsubscribeToEvent(kEventKey, "BenchSubscriber"); }
  Watch(Watch const&) = delete;
  Watch& operator=(Watch const&) = delete;

  // How long it took until all had arrived; 0 if they did not.
  std::int64_t run(int count, int gapNs) {
    subscriber->expect(static_cast<std::size_t>(count));
    std::int64_t const start = steadyNs();
    host->getBroker()
        ->getProxy("Bench", 0)
        ->call<void>("raise", "BenchSubscriber@" + host->getBroker()->getName(), count, gapNs);
    return subscriber->wait() ? steadyNs() - start : 0;
  }

  std::unique_ptr<KXHost> const host = World::get().join();
  boost::shared_ptr<Subscriber> const subscriber =
      KXModule::createModule<Subscriber>(host->getBroker());
  KXMemoryProxy store{host->getBroker()};
};

void sustained(benchmark::State& state) {
  constexpr int kCount = 2'000'000;
  Watch watch;
  watch.run(10'000, 0);
  for (auto _ : state) {
    std::int64_t const oursNs = watch.run(kCount, 0);
    if (oursNs == 0) state.SkipWithError("events are missing");
    state.counters["ours_ns"] = static_cast<double>(oursNs) / kCount;
    state.counters["raw_ns"] =
        static_cast<double>(runRaw("rawgathered", kCount, 0).tookNs) / kCount;
  }
}

// At a steady rate: one each so many nanoseconds.
void paced(benchmark::State& state) {
  int const gapNs = static_cast<int>(state.range(0));
  int const count = static_cast<int>(state.range(1));
  Watch watch;
  watch.run(100, gapNs);
  for (auto _ : state) {
    if (watch.run(count, gapNs) == 0) state.SkipWithError("events are missing");
    std::vector<std::int64_t>& oursNs = watch.subscriber->latenciesNs();
    std::vector<std::int64_t> rawNs = runRaw("rawevents", count, gapNs).latenciesNs;
    state.counters["ours_p50_us"] = percentile(oursNs, 0.5) / 1000;
    state.counters["ours_p99_us"] = percentile(oursNs, 0.99) / 1000;
    state.counters["raw_p50_us"] = percentile(rawNs, 0.5) / 1000;
    state.counters["raw_p99_us"] = percentile(rawNs, 0.99) / 1000;
  }
}

BENCHMARK(sustained)->Name("bus/events")->Iterations(1)->Repetitions(3);
BENCHMARK(paced)
    ->Name("bus/paced")
    ->Args({10'000, 500'000})
    ->Args({3'000'000, 2000})
    ->Iterations(1)
    ->Repetitions(3);

}  // namespace
}  // namespace KX::bench
