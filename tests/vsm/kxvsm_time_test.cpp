// The hardware cycle in simulated time: to the millisecond.
#if defined(__GNUC__) && !defined(__clang__)
// With sanitizers, g++ 12 takes an optional inside Boost's signals for uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include <host/vsm/kxvsm.hpp>
#include <kxcommon/kxbroker.hpp>
#include <tests/support/simulatedclock.hpp>

namespace KX {
namespace {

class VsmTime : public ::testing::Test {
 protected:
  using Moments = std::vector<std::int64_t>;

  VsmTime() {
    mVsm->cycleSignal().connect([this] {
      int cycle = 0;
      {
        std::lock_guard const lock(mMutex);
        mCycles.push_back(mClock.nowMs() - mStartMs);
        mDeadlines.push_back(mVsm->getDeadlineNs() / 1'000'000 - mStartMs);
        cycle = static_cast<int>(mCycles.size());
      }
      if (inCycle) inCycle(cycle);
    });
  }
  ~VsmTime() override {
    mVsm.reset();
    mBroker->shutdown();
  }

  Moments cycles() {
    std::lock_guard const lock(mMutex);
    return mCycles;
  }
  Moments deadlines() {
    std::lock_guard const lock(mMutex);
    return mDeadlines;
  }

  SimulatedClock mClock;
  std::int64_t const mStartMs = mClock.nowMs();
  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("test");
  boost::shared_ptr<KXVsm> mVsm = KXModule::createModule<KXVsm>(mBroker, mClock);
  /// Set before time passes.
  std::function<void(int cycle)> inCycle;

 private:
  std::mutex mMutex;
  Moments mCycles;
  Moments mDeadlines;
};

TEST_F(VsmTime, RaisesACycleEveryTenMilliseconds) {
  ASSERT_TRUE(mClock.advanceByMs(55));

  EXPECT_EQ(cycles(), (Moments{10, 20, 30, 40, 50}));
  EXPECT_EQ(deadlines(), cycles());
  EXPECT_EQ(mVsm->getCycleCount(), 5);
  EXPECT_EQ(mVsm->getMissedCycleCount(), 0);
}

TEST_F(VsmTime, DoesNotDrift) {
  inCycle = [this](int cycle) {
    mClock.jumpByMs(cycle % 10);
  };

  ASSERT_TRUE(mClock.advanceByMs(10'000));

  Moments const all = cycles();
  ASSERT_GE(all.size(), 1000U);
  for (std::size_t i = 0; i < all.size(); ++i) {
    ASSERT_EQ(all[i], static_cast<std::int64_t>(i + 1) * 10);
  }
  EXPECT_EQ(mVsm->getMissedCycleCount(), 0);
}

TEST_F(VsmTime, SkipsWhatALongSlotMissesAndReturnsToTheGrid) {
  inCycle = [this](int cycle) {
    if (cycle == 3) mClock.jumpByMs(45);
  };

  ASSERT_TRUE(mClock.advanceByMs(100));

  EXPECT_EQ(cycles(), (Moments{10, 20, 30, 80, 90, 100}));
  EXPECT_EQ(mVsm->getCycleCount(), 6);
  EXPECT_EQ(mVsm->getMissedCycleCount(), 4);
}

TEST_F(VsmTime, SlotThatEndsJustWhenTheNextIsDueMissesNothing) {
  inCycle = [this](int cycle) {
    if (cycle == 2) mClock.jumpByMs(10);
  };

  ASSERT_TRUE(mClock.advanceByMs(40));

  EXPECT_EQ(cycles(), (Moments{10, 20, 30, 40}));
  EXPECT_EQ(mVsm->getMissedCycleCount(), 0);
}

// A process that was stopped, or a machine that slept.
TEST_F(VsmTime, SkipsWhatItMissedWhileItSlept) {
  ASSERT_TRUE(mClock.advanceByMs(20));
  mClock.jumpByMs(3000);
  ASSERT_TRUE(mClock.waitUntilParked());
  ASSERT_TRUE(mClock.advanceByMs(20));

  // One late cycle, for the deadline at 30; then on the grid again.
  EXPECT_EQ(cycles(), (Moments{10, 20, 3020, 3020, 3030, 3040}));
  EXPECT_EQ(deadlines(), (Moments{10, 20, 30, 3020, 3030, 3040}));
  EXPECT_EQ(mVsm->getMissedCycleCount(), 298);
}

TEST_F(VsmTime, WallClockIsNoneOfItsBusiness) {
  for (std::int64_t const stepMs : {-3'600'000, 60'000, 86'400'000}) {
    mClock.stepWallByMs(stepMs);
    ASSERT_TRUE(mClock.advanceByMs(20));
  }

  EXPECT_EQ(cycles(), (Moments{10, 20, 30, 40, 50, 60}));
}

// The clock stands still: who waits for the next cycle waits for ever.
TEST_F(VsmTime, ExitEndsTheSleep) {
  ASSERT_TRUE(mClock.waitUntilParked());

  mVsm->exit();

  mClock.jumpByMs(1000);
  EXPECT_EQ(cycles(), Moments{});
  EXPECT_EQ(mVsm->getCycleCount(), 0);
}

TEST_F(VsmTime, DestructionEndsTheSleep) {
  ASSERT_TRUE(mClock.waitUntilParked());
  boost::weak_ptr<KXVsm> const observed = mVsm;

  mVsm.reset();
  mBroker->removeModule("VSM");

  EXPECT_TRUE(observed.expired());
}

}  // namespace
}  // namespace KX
