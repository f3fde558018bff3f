// The watch in real time, at 10 ms: what it costs, how late it wakes, whether a period is missing.
// Ours and the floor take turns, so that both meet the same moods of the machine.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <host/vsm/kxvsm.hpp>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

constexpr int kPeriodMs = 10;
constexpr std::int64_t kPeriodUs = std::int64_t{kPeriodMs} * 1000;
constexpr int kTurns = 5;
constexpr std::chrono::seconds kTurn(3);

/// What the turns of one way of pacing add up to.
struct Tally {
  double cpuSeconds = 0;
  double samples = 0;
  std::vector<double> latenessUs;

  double percentileUs(double share) {
    if (latenessUs.empty()) return 0;
    auto const at = latenessUs.begin() +
                    static_cast<std::ptrdiff_t>(share * static_cast<double>(latenessUs.size() - 1));
    std::nth_element(latenessUs.begin(), at, latenessUs.end());
    return *at;
  }
};

double cpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::int64_t nowNs(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

void floorTurn(FloorBuffers& floor, Tally& tally) {
  double const before = cpuSeconds();
  std::thread([&] {
    std::int64_t deadlineNs = nowNs(CLOCK_MONOTONIC);
    for (int i = 0; i < std::chrono::milliseconds(kTurn).count() / kPeriodMs; ++i) {
      deadlineNs += kPeriodMs * 1'000'000LL;
      timespec const deadline{deadlineNs / 1'000'000'000, deadlineNs % 1'000'000'000};
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
      tally.latenessUs.push_back(static_cast<double>(nowNs(CLOCK_MONOTONIC) - deadlineNs) * 1e-3);
      floor.cycle();
    }
  }).join();
  tally.cpuSeconds += cpuSeconds() - before;
  for (auto const& buffer : floor.buffers) tally.samples += static_cast<double>(buffer.size());
  floor.clear();
}

/// The time of every batch: that of the first key's samples.
std::vector<std::int64_t> batchTimesUs(KXValue const& fetched) {
  std::vector<std::int64_t> times;
  KXValue const& samples = fetched[0][1];
  for (int i = 0; i < samples.getSize(); ++i) {
    times.push_back(static_cast<int>(samples[i][0][0]) * 1'000'000LL +
                    static_cast<int>(samples[i][0][1]));
  }
  return times;
}

/// Where in its period the schedule lies, on the wall clock.
std::int64_t phaseUs(WatcherHost& host, bool withVsm) {
  if (withVsm) {
    auto const vsm =
        boost::dynamic_pointer_cast<KXVsm>(host.broker()->getProxy("VSM", 0)->getModule());
    std::int64_t const offsetNs = nowNs(CLOCK_REALTIME) - nowNs(CLOCK_MONOTONIC);
    return (vsm->getDeadlineNs() + offsetNs) / 1000 % kPeriodUs;
  }
  static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  return (KXMemoryWatcherForTest::nextWakeTime(host.watcher()) - epoch).total_microseconds() %
         kPeriodUs;
}

void watchTurn(WatcherHost& host, bool withVsm, Tally& tally) {
  host.watcher().clearBuffer();
  double const before = cpuSeconds();
  host.watcher().startWatching(kPeriodMs);
  std::this_thread::sleep_for(kTurn);
  std::int64_t const phase = phaseUs(host, withVsm);
  host.watcher().stopWatching();
  tally.cpuSeconds += cpuSeconds() - before;
  KXValue const fetched = host.watcher().getData();
  for (int i = 0; i < fetched.getSize(); ++i) tally.samples += fetched[i][1].getSize();
  std::vector<std::int64_t> const times = batchTimesUs(fetched);
  // The first cycle runs at the start, not on the schedule.
  for (std::size_t i = 1; i < times.size(); ++i) {
    // The phase is known to a few microseconds only, and a time just before it is not a period
    // late.
    constexpr std::int64_t kBlurUs = 5;
    std::int64_t const sinceDueUs = (times[i] - phase + kPeriodUs + kBlurUs) % kPeriodUs - kBlurUs;
    tally.latenessUs.push_back(static_cast<double>(sinceDueUs));
  }
}

void report(benchmark::State& state, std::string const& name, Tally& tally) {
  state.counters[name + "_cpu_ns_per_sample"] = tally.cpuSeconds / tally.samples * 1e9;
  state.counters[name + "_p50_us"] = tally.percentileUs(0.5);
  state.counters[name + "_p99_us"] = tally.percentileUs(0.99);
}

void pacing(benchmark::State& state) {
  int const keyCount = static_cast<int>(state.range(0));
  WatcherHost timed(keyCount);
  FloorBuffers floor(keyCount);
  for (auto _ : state) {
    Tally floorTally;
    Tally timedTally;
    Tally cycledTally;
    // A first turn that does not count lets the buffers grow.
    for (int turn = 0; turn <= kTurns; ++turn) {
      if (turn == 1) floorTally = timedTally = Tally();
      floorTurn(floor, floorTally);
      watchTurn(timed, false, timedTally);
      // Made for the turn only: a cycle that ran on would cost the others time.
      WatcherHost cycled(keyCount, true);
      watchTurn(cycled, true, cycledTally);
    }
    report(state, "floor", floorTally);
    report(state, "timed", timedTally);
    report(state, "cycle", cycledTally);
  }
}

int countBatches(KXValue const& fetched) {
  return fetched[0][1].getSize();
}

// How many periods are missing, and how many batches carry the time of another: a watch at 10 ms,
// while clients take turns in fetching. Arguments: keys, milliseconds between two fetches, clients,
// seconds. The loop moves its deadline on by a period for each cycle that it runs or skips, so the
// deadline tells how many batches there should be.
void loss(benchmark::State& state) {
  WatcherHost host(static_cast<int>(state.range(0)));
  auto const between = std::chrono::milliseconds(state.range(1));
  int const clientCount = static_cast<int>(state.range(2));
  for (auto _ : state) {
    std::atomic<int> batches{0};
    std::atomic<double> worstFetchMs{0};
    std::mutex timesMutex;
    std::vector<std::int64_t> times;
    host.watcher().startWatching(kPeriodMs);
    auto const firstDeadline = KXMemoryWatcherForTest::nextWakeTime(host.watcher());
    auto const start = std::chrono::steady_clock::now();
    auto const end = start + std::chrono::seconds(state.range(3));
    auto const fetch = [&] {
      auto const before = std::chrono::steady_clock::now();
      KXValue const fetched = host.watcher().getData();
      std::chrono::duration<double, std::milli> const took =
          std::chrono::steady_clock::now() - before;
      worstFetchMs = std::max(worstFetchMs.load(), took.count());
      batches += countBatches(fetched);
      std::vector<std::int64_t> const fetchedTimes = batchTimesUs(fetched);
      std::lock_guard const lock(timesMutex);
      times.insert(times.end(), fetchedTimes.begin(), fetchedTimes.end());
    };
    std::vector<std::thread> clients;
    for (int client = 0; client < clientCount; ++client) {
      clients.emplace_back([&, client] {
        for (auto at = start + between * (client + 1); at < end; at += between * clientCount) {
          std::this_thread::sleep_until(at);
          fetch();
        }
      });
    }
    for (std::thread& client : clients) client.join();
    // In the midst of a period, so that it is certain which batch is the last.
    std::this_thread::sleep_until(end + std::chrono::milliseconds(kPeriodMs / 2));
    host.watcher().stopWatching();
    fetch();
    // With the one at the start.
    auto const periods = 1 + (KXMemoryWatcherForTest::nextWakeTime(host.watcher()) - firstDeadline)
                                     .total_microseconds() /
                                 kPeriodUs;
    std::set<std::int64_t> const different(times.begin(), times.end());
    state.counters["periods"] = static_cast<double>(periods);
    state.counters["lost"] = static_cast<double>(periods - batches);
    state.counters["with_the_same_time"] = static_cast<double>(times.size() - different.size());
    state.counters["worst_fetch_ms"] = worstFetchMs.load();
  }
}

// How long at the most a fetch of a million samples holds the data mutex: the longest time between
// two moments at which another thread, that tries all the time, finds it free. The middle of
// several fetches, since that thread's own interruptions count too.
void hold(benchmark::State& state) {
  constexpr int kKeys = 10'000;
  constexpr int kTries = 9;
  WatcherHost host(kKeys);
  for (auto _ : state) {
    std::vector<double> longestUs;
    for (int i = 0; i < kTries; ++i) {
      for (int k = 0; k < 1'000'000 / kKeys; ++k)
        KXMemoryWatcherForTest::updateData(host.watcher());
      std::atomic<bool> isFetching{true};
      double longest = 0;
      std::thread prober([&] {
        std::int64_t lastFree = nowNs(CLOCK_MONOTONIC);
        while (isFetching) {
          bool wasLocked = false;
          {
            KXCriticalTrueIfLocked const probe(KXMemoryWatcherForTest::dataMutex(host.watcher()),
                                               wasLocked);
          }
          std::int64_t const now = nowNs(CLOCK_MONOTONIC);
          longest = std::max(longest, static_cast<double>(now - lastFree) * 1e-3);
          if (!wasLocked) lastFree = now;
        }
      });
      benchmark::DoNotOptimize(host.watcher().getData());
      isFetching = false;
      prober.join();
      longestUs.push_back(longest);
    }
    std::sort(longestUs.begin(), longestUs.end());
    state.counters["us"] = longestUs[kTries / 2];
  }
}

BENCHMARK(pacing)->Arg(1000)->Arg(10'000)->Arg(100'000)->Iterations(1)->Repetitions(1)->Unit(
    benchmark::kSecond);
BENCHMARK(loss)
    ->Args({10'000, 1000, 1, 60})
    ->Args({10'000, 100, 1, 60})
    ->Args({10'000, 100, 4, 20})
    ->Args({100'000, 1000, 1, 20})
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kSecond);
BENCHMARK(hold)->Iterations(1)->Repetitions(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace KX::bench
