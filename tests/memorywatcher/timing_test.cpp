// The watch in real time, with the real store and the real hardware cycle. Every run is judged.
// Bounds on what must not happen early are exact; those on lateness leave room for a busy machine,
// and for a schedule that cannot be early they are a whole period.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// When each batch read began, in milliseconds since just before the start.
class TimingPacing : public WatcherTest {
 protected:
  explicit TimingPacing(Pacing pacing = Pacing::Timed) : WatcherTest(pacing) {
    mMemory->setHook("getListData", [this](FakeMemory::Call const&, KXValue&) {
      int cycle = 0;
      {
        std::lock_guard const lock(mMutex);
        mReads.push_back(Clock::now());
        cycle = static_cast<int>(mReads.size());
      }
      mHasRead.notify_all();
      if (mInCycle) mInCycle(cycle);
    });
  }
  ~TimingPacing() override { call("stopWatching"); }

  bool waitForReads(std::size_t count) {
    std::unique_lock lock(mMutex);
    return mHasRead.wait_for(lock, std::chrono::seconds(30),
                             [&] { return mReads.size() >= count; });
  }
  void start(int periodMs) {
    mStart = Clock::now();
    call("startWatching", periodMs);
  }
  std::vector<double> readsMs() {
    std::lock_guard const lock(mMutex);
    std::vector<double> reads;
    for (Clock::time_point const& read : mReads) {
      reads.push_back(std::chrono::duration<double, std::milli>(read - mStart).count());
    }
    return reads;
  }

  std::function<void(int cycle)> mInCycle;

 private:
  std::mutex mMutex;
  std::condition_variable mHasRead;
  std::vector<Clock::time_point> mReads;
  Clock::time_point mStart;
};

// The schedule is 0, 50, 100, ... ms; the first cycle lasts 160 ms. Those due at 50, 100 and 150
// follow at once; the next one runs at 200.
TEST_F(TimingPacing, FirstCycleOf160MsIsFollowedByThreeAtOnce) {
  mInCycle = [](int cycle) {
    if (cycle == 1) std::this_thread::sleep_for(milliseconds(160));
  };

  start(50);
  ASSERT_TRUE(waitForReads(6));

  std::vector<double> const reads = readsMs();
  for (int cycle = 1; cycle <= 3; ++cycle) {
    SCOPED_TRACE(cycle);
    EXPECT_GE(reads[static_cast<std::size_t>(cycle)], 160);
    EXPECT_LT(reads[static_cast<std::size_t>(cycle)], 199);
  }
  EXPECT_GE(reads[4], 199);
  EXPECT_LT(reads[4], 250);
  EXPECT_GE(reads[5], 249);
}

TEST_F(TimingPacing, LongerPeriodEndsThePendingWait450MsLater) {
  start(50);
  ASSERT_TRUE(waitForReads(3));  // the next one is due at 150

  call("setPeriodMs", 500);
  ASSERT_TRUE(waitForReads(5));

  std::vector<double> const reads = readsMs();
  EXPECT_GE(reads[3], 599);
  EXPECT_LT(reads[3], 650);
  EXPECT_GE(reads[4] - reads[3], 450);
  EXPECT_LT(reads[4] - reads[3], 550);
}

TEST_F(TimingPacing, DeadlineInThePastMakesTheNextCycleRunAtOnce) {
  start(2000);
  ASSERT_TRUE(waitForReads(1));
  std::this_thread::sleep_for(milliseconds(100));

  auto const before = Clock::now();
  call("setPeriodMs", 10);
  ASSERT_TRUE(waitForReads(2));

  EXPECT_LT(Clock::now() - before, milliseconds(50));
}

TEST_F(TimingPacing, ScheduleDoesNotDrift) {
  start(20);
  ASSERT_TRUE(waitForReads(101));

  // A hundred periods of 20 ms; a schedule that counted from each waking would be later and later.
  EXPECT_GE(readsMs()[100], 1999);
  EXPECT_LT(readsMs()[100], 2020);
}

TEST_F(TimingPacing, CycleRunsOncePerPeriodAndNeverEarly) {
  start(30);
  ASSERT_TRUE(waitForReads(30));

  std::vector<double> const reads = readsMs();
  for (std::size_t i = 0; i < 30; ++i) {
    SCOPED_TRACE(i);
    EXPECT_GE(reads[i], 30.0 * static_cast<double>(i) - 1);
  }
}

// ---- the hardware cycle

class TimingCyclePacing : public TimingPacing {
 protected:
  TimingCyclePacing() : TimingPacing(Pacing::Cycle) {}
};

// Five periods pass while one cycle lasts: one follows at once, then the rhythm of the gate.
TEST_F(TimingCyclePacing, LongCycleIsFollowedByOneAtOnce) {
  std::atomic<bool> isStopping{false};
  Caller hardware([&] {
    auto next = Clock::now();
    while (!isStopping) {
      mVsm->cycle();
      std::this_thread::sleep_until(next += milliseconds(10));
    }
  });
  mInCycle = [](int cycle) {
    if (cycle == 3) std::this_thread::sleep_for(milliseconds(260));
  };

  start(50);
  ASSERT_TRUE(waitForReads(7));
  isStopping = true;

  std::vector<double> const reads = readsMs();
  EXPECT_LT(reads[3] - (reads[2] + 260), 49);  // at once: less than a period after the long one
  EXPECT_GT(reads[4] - reads[3], 1);           // and no burst
  EXPECT_GT(reads[5] - reads[4], 25);
  EXPECT_GT(reads[6] - reads[5], 25);
}

}  // namespace
}  // namespace KX
