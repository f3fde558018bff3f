// The watch on a clock that the test moves: every cycle is told to the millisecond.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/simulatedclock.hpp>

namespace KX {

/// A clock that does, before it tells the wall time, what the test wants.
class HookedClock : public SimulatedClock {
 public:
  ka::os::timeval wallTime() override {
    std::function<void()> hook;
    {
      std::lock_guard const lock(mMutex);
      hook = mHook;
    }
    if (hook) hook();
    if (gettid() == mFollowed) ++mReadings;
    return SimulatedClock::wallTime();
  }
  void onWallTime(std::function<void()> hook) {
    std::lock_guard const lock(mMutex);
    mHook = std::move(hook);
  }
  /// From now on counts how often that thread reads the wall time, from none.
  void follow(int threadId) {
    mFollowed = threadId;
    mReadings = 0;
  }
  int readings() const { return mReadings; }

 private:
  std::mutex mMutex;
  std::function<void()> mHook;  // guarded by mMutex
  std::atomic<int> mFollowed{0};
  std::atomic<int> mReadings{0};
};

/// What the module's loop uses: made before the module, and gone after it.
struct SimulatedTime {
  using Moments = std::vector<std::int64_t>;

  HookedClock mClock;
  mutable std::mutex mReadsMutex;
  std::function<void(int)> mInCycle;  // guarded by mReadsMutex, as the next
  Moments mReads;
  std::int64_t mStartMs = 0;  // written while no loop runs
};

/// The module under timed or cycle pacing in simulated time. Keeps when each batch read began, in
/// milliseconds since the start.
class SimulatedTimeTest : protected SimulatedTime, public WatcherTest {
 protected:
  explicit SimulatedTimeTest(Pacing pacing = Pacing::Timed) : WatcherTest(pacing, mClock) {
    mMemory->setHook("getListData", [this](FakeMemory::Call const&, KXValue&) {
      int cycle = 0;
      std::function<void(int)> hook;
      // However the hook ends: what the loop reads of the clock after it is its look at both.
      mClock.follow(0);
      auto const follow = [](HookedClock* clock) {
        clock->follow(gettid());
      };
      std::unique_ptr<HookedClock, decltype(follow)> const following(&mClock, follow);
      {
        std::lock_guard const lock(mReadsMutex);
        mReads.push_back(mClock.nowMs() - mStartMs);
        cycle = static_cast<int>(mReads.size());
        hook = mInCycle;
      }
      if (hook) hook(cycle);
    });
  }

  /// What is done on the loop's thread, in each batch read; cycles are counted from 1.
  void inCycle(std::function<void(int cycle)> hook) {
    std::lock_guard const lock(mReadsMutex);
    mInCycle = std::move(hook);
  }
  void start(int periodMs) {
    {
      std::lock_guard const lock(mReadsMutex);
      mReads.clear();
      mStartMs = mClock.nowMs();
    }
    call("startWatching", periodMs);
  }
  Moments reads() const {
    std::lock_guard const lock(mReadsMutex);
    return mReads;
  }
  std::int64_t sinceStartMs() { return mClock.nowMs() - mStartMs; }
  /// Lets periods pass in either pacing, each with its cycle; between two hardware cycles lie 10
  /// ms.
  bool passPeriods(int count, int periodMs) {
    if (mVsm == nullptr) return mClock.advanceByMs(std::int64_t{count} * periodMs);
    for (int period = 0; period < count; ++period) {
      std::size_t const before = reads().size();
      for (int cycle = 0; cycle < periodMs / 10; ++cycle) {
        mClock.jumpByMs(10);
        mVsm->cycle();
      }
      if (!waitForReads(before + 1)) return false;
    }
    return waitForLoop();
  }
  /// Waits until the loop has done its cycle and has looked at the clock; false after 30 s. Under
  /// cycle pacing it may still have to log what it saw there.
  bool waitForLoop() {
    if (mVsm == nullptr) return mClock.waitUntilParked();
    if (!xWaitFor([this] { return mClock.readings() > 0; })) return false;
    ForTest::nextWakeTime(*mWatcher);  // waits for the look itself
    return true;
  }
  /// Starts, and waits until the first cycle is over.
  bool startAndWait(int periodMs) {
    start(periodMs);
    return waitForReads(1) && waitForLoop();
  }
  bool waitForReads(std::size_t count) {
    return xWaitFor([&] { return reads().size() >= count; });
  }

  static std::vector<std::int64_t> multiples(std::int64_t periodMs, std::int64_t count) {
    std::vector<std::int64_t> moments;
    for (std::int64_t i = 0; i < count; ++i) moments.push_back(i * periodMs);
    return moments;
  }

 private:
  template <class Condition>
  static bool xWaitFor(Condition condition) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
};

struct SimulatedTimed : SimulatedTimeTest {
  SimulatedTimed() : SimulatedTimeTest(Pacing::Timed) {}
};
struct SimulatedCycle : SimulatedTimeTest {
  SimulatedCycle() : SimulatedTimeTest(Pacing::Cycle) {}
};
using SimulatedPacings = ::testing::Types<SimulatedTimed, SimulatedCycle>;

/// What the module says when the wall clock was set.
inline LogLine wallClockSet(std::int64_t byMs) {
  std::string const direction = byMs > 0 ? "forward" : "back";
  return {3,
          "KXMemoryWatcher",
          "",
          "xFollowClock",
          0,
          "the wall clock was set " + direction + " by " + std::to_string(byMs > 0 ? byMs : -byMs) +
              " ms; sampling keeps its rhythm"};
}

}  // namespace KX
