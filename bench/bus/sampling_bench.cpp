// Sampling a store in another process, alone and beside everything else, and many robots at once.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <binding/kxproxycall.hpp>
#include <host/bus/kxwire.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>

#include "bench/bus/busbench.hpp"

namespace KX::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPeriodMs = 10;

// The times of a key's samples, in microseconds.
void appendTimes(KXValue const& fetched, std::string const& key, std::vector<std::int64_t>& times) {
  for (int i = 0; i < fetched.getSize(); ++i) {
    if (fetched[i][0] != KXValue(key)) continue;
    KXValue const& samples = fetched[i][1];
    for (int j = 0; j < samples.getSize(); ++j) {
      times.push_back(std::int64_t{static_cast<int>(samples[j][0][0])} * 1'000'000 +
                      static_cast<int>(samples[j][0][1]));
    }
  }
}

// A watch of the first `keyCount` keys, fetched every second for so long.
struct Run {
  std::vector<std::int64_t> timesUs;  // of the batches
  std::int64_t cpuNs = 0;
};
Run watchFor(int seconds, int keyCount) {
  auto const host = World::get().join();
  auto const watcher = KXModule::createModule<KXMemoryWatcher>(host->getBroker());
  std::vector<std::string> const names = keyNames(keyCount);
  watcher->addListeners(names);
  Run run;
  std::int64_t const before = usedCpuNs();
  watcher->startWatching(kPeriodMs);
  Clock::time_point const start = Clock::now();
  for (int second = 1; second <= seconds; ++second) {
    std::this_thread::sleep_until(start + std::chrono::seconds(second));
    appendTimes(watcher->getData(), names[0], run.timesUs);
  }
  watcher->stopWatching();
  run.cpuNs = usedCpuNs() - before;
  appendTimes(watcher->getData(), names[0], run.timesUs);
  return run;
}

// The same work by the bare client: a request of the same bytes each period.
std::int64_t rawCpuNs(int seconds, int keyCount) {
  RawConnection raw(World::get().url());
  std::string const request = encodeValue(KXValue::arrayOf(KXValue(keyNames(keyCount))));
  std::size_t const replyBytes = 5 + 9 * static_cast<std::size_t>(keyCount);  // doubles
  std::string const subject = "rawecho." + std::to_string(replyBytes);
  std::int64_t const before = usedCpuNs();
  Clock::time_point due = Clock::now();
  for (int i = 0; i < seconds * 1000 / kPeriodMs; ++i) {
    due += std::chrono::milliseconds(kPeriodMs);
    std::this_thread::sleep_until(due);
    benchmark::DoNotOptimize(raw.request(subject, request));
  }
  return usedCpuNs() - before;
}

void cpu(benchmark::State& state) {
  constexpr int kSeconds = 10;
  constexpr int kKeys = 1000;
  for (auto _ : state) {
    Run const run = watchFor(kSeconds, kKeys);
    double const samples = static_cast<double>(run.timesUs.size()) * kKeys;
    state.counters["ours_ns"] = static_cast<double>(run.cpuNs) / samples;
    state.counters["raw_ns"] =
        static_cast<double>(rawCpuNs(kSeconds, kKeys)) / (kSeconds * 1000.0 / kPeriodMs * kKeys);
  }
}

// How late the batches are, against the first one plus whole periods.
double p99LatenessUs(std::vector<std::int64_t> const& timesUs) {
  std::vector<std::int64_t> late;
  for (std::size_t i = 0; i < timesUs.size(); ++i) {
    std::int64_t const due = timesUs.front() + static_cast<std::int64_t>(i) * kPeriodMs * 1000;
    late.push_back(std::abs(timesUs[i] - due));
  }
  return percentile(late, 0.99);
}

// While a client fetches a million samples again and again, and 20 000 events come each second.
void loss(benchmark::State& state) {
  int const seconds = static_cast<int>(state.range(0));
  for (auto _ : state) {
    double const aloneUs = p99LatenessUs(watchFor(seconds / 4, 1000).timesUs);

    auto const client = World::get().join();
    auto const subscriber = KXModule::createModule<Subscriber>(client->getBroker());
    KXMemoryProxy store(client->getBroker());
    store.subscribeToEvent(kEventKey, "BenchSubscriber", "onEvent");
    int const eventCount = 20'000 * seconds;
    subscriber->expect(static_cast<std::size_t>(eventCount));
    auto const bench = client->getBroker()->getProxy("Bench", 0);
    bench->call<void>("raise", "BenchSubscriber@" + client->getBroker()->getName(), eventCount,
                      50'000);
    std::atomic<bool> isOver{false};
    std::atomic<int> fetchCount{0};
    std::thread fetcher([&] {
      while (!isOver) {
        benchmark::DoNotOptimize(bench->genericCall("big", KXValue::arrayOf(), 60'000));
        ++fetchCount;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
      }
    });
    std::vector<std::int64_t> const times = watchFor(seconds, 1000).timesUs;
    isOver = true;
    fetcher.join();
    state.counters["events_missing"] = subscriber->wait() ? 0 : 1;
    store.unsubscribeToEvent(kEventKey, "BenchSubscriber");
    // A period is served late, or its read fails: then it has no batch.
    state.counters["lost"] =
        std::max(0.0, seconds * 1000.0 / kPeriodMs - static_cast<double>(times.size()));
    state.counters["fetches"] = fetchCount.load();
    state.counters["alone_p99_us"] = aloneUs;
    state.counters["busy_p99_us"] = p99LatenessUs(times);
  }
}

double residentMb() {
  std::ifstream file("/proc/self/statm");
  std::int64_t total = 0;
  std::int64_t resident = 0;
  file >> total >> resident;
  return static_cast<double>(resident) * 4096 / 1e6;
}

// Robots of 100 keys at 10 Hz on one server, all hosts and watchers in this process.
void fleet(benchmark::State& state) {
  int const robotCount = static_cast<int>(state.range(0));
  constexpr int kSeconds = 10;
  constexpr int kKeys = 100;
  std::vector<std::string> const names = keyNames(kKeys);
  struct Robot {
    std::unique_ptr<KXHost> host;
    std::unique_ptr<KXHost> watching;
    boost::shared_ptr<KXMemoryWatcher> watcher;
  };
  for (auto _ : state) {
    double const memoryBefore = residentMb();
    std::vector<Robot> robots;
    for (int i = 0; i < robotCount; ++i) {
      KXHost::Options options{.bus = KXBusOptions{}, .announced = KXHost::Announced::Everything};
      options.bus->url = World::get().url();
      options.bus->robot = "robot" + std::to_string(i);
      Robot robot{std::make_unique<KXHost>(options), nullptr, nullptr};
      robot.host->announce();
      auto const store = robot.host->getBroker()->getProxy("KXMemory", 0);
      for (std::string const& name : names) store->call<void>("insertData", name, KXValue(0.5));
      options.withStore = false;
      robot.watching = std::make_unique<KXHost>(options);
      robot.watcher = KXModule::createModule<KXMemoryWatcher>(robot.watching->getBroker());
      robot.watcher->addListeners(names);
      robots.push_back(std::move(robot));
    }
    std::int64_t const cpuBefore = usedCpuNs();
    for (Robot const& robot : robots) robot.watcher->startWatching(100);
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    for (Robot const& robot : robots) robot.watcher->stopWatching();
    std::int64_t const cpuNs = usedCpuNs() - cpuBefore;
    double samples = 0;
    double missing = 0;
    for (Robot const& robot : robots) {
      std::vector<std::int64_t> times;
      appendTimes(robot.watcher->getData(), names[0], times);
      samples += static_cast<double>(times.size()) * kKeys;
      missing += std::max(0.0, kSeconds * 10.0 - static_cast<double>(times.size()));
    }
    state.counters["cpu_ns_per_sample"] = static_cast<double>(cpuNs) / samples;
    state.counters["mb_per_robot"] = (residentMb() - memoryBefore) / robotCount;
    state.counters["batches_missing"] = missing;
    for (Robot& robot : robots) robot.watcher.reset();
  }
}

BENCHMARK(cpu)->Name("bus/cpu")->Iterations(1)->Repetitions(3);
BENCHMARK(loss)->Name("bus/loss")->Arg(60)->Iterations(1)->Repetitions(1);
BENCHMARK(fleet)->Name("bus/fleet")->Arg(50)->Arg(100)->Arg(200)->Iterations(1)->Repetitions(1);

}  // namespace
}  // namespace KX::bench
