// The watch on the machine's own clock; what a schedule is, schedule_test.cpp judges in simulated
// time. Every run counts. Bounds on what must not happen early are exact; those on lateness leave
// room for a busy machine, and for a schedule that cannot be early they are a whole period.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;

/// When each batch read began, in milliseconds since just before the start.
class TimingPacing : public WatcherTest {
 protected:
  TimingPacing() {
    mMemory->setHook("getListData", [this](FakeMemory::Call const&, KXValue&) {
      std::lock_guard const lock(mMutex);
      mReads.push_back(Clock::now());
      mHasRead.notify_all();
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

 private:
  std::mutex mMutex;
  std::condition_variable mHasRead;
  std::vector<Clock::time_point> mReads;
  Clock::time_point mStart;
};

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

}  // namespace
}  // namespace KX
