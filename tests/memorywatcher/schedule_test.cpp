// When cycles run under timed pacing, in simulated time: to the millisecond.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/simulatedtime.hpp>

namespace KX {
namespace {

using boost::posix_time::microseconds;
using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

class Schedule : public SimulatedTimeTest {
 protected:
  ptime now() {
    return ptime(boost::gregorian::date(1970, 1, 1)) + microseconds(micros(mClock.wallTime()));
  }
  ptime nextWakeTime() { return ForTest::nextWakeTime(*mWatcher); }
};

TEST_F(Schedule, FirstCycleRunsAtOnceAndEachFollowsAPeriodLater) {
  start(50);
  ASSERT_TRUE(mClock.waitUntilParked());
  EXPECT_EQ(reads(), Moments{0});

  ASSERT_TRUE(mClock.advanceByMs(49));
  EXPECT_EQ(reads(), Moments{0});
  ASSERT_TRUE(mClock.advanceByMs(1));
  EXPECT_EQ(reads(), (Moments{0, 50}));
  ASSERT_TRUE(mClock.advanceByMs(950));
  EXPECT_EQ(reads(), multiples(50, 21));
}

TEST_F(Schedule, DoesNotDriftWhateverACycleLasts) {
  inCycle([this](int cycle) { mClock.jumpByMs(cycle % 20); });
  start(20);

  ASSERT_TRUE(mClock.advanceByMs(20'000));

  EXPECT_EQ(reads(), multiples(20, static_cast<std::int64_t>(reads().size())));
  EXPECT_GE(reads().size(), 1000U);
}

// The schedule is 0, 50, 100, ... ms. Those due at 50, 100 and 150 follow at once.
TEST_F(Schedule, FirstCycleOf160MsIsFollowedByThreeAtOnce) {
  inCycle([this](int cycle) {
    if (cycle == 1) mClock.jumpByMs(160);
  });

  start(50);
  ASSERT_TRUE(mClock.waitUntilParked());
  EXPECT_EQ(reads(), (Moments{0, 160, 160, 160}));
  ASSERT_TRUE(mClock.advanceByMs(100));

  EXPECT_EQ(reads(), (Moments{0, 160, 160, 160, 200, 250}));
}

TEST_F(Schedule, CatchesUpUntilItIsBackInTime) {
  inCycle([this](int cycle) { mClock.jumpByMs(cycle <= 3 ? 100 : 10); });

  start(50);
  ASSERT_TRUE(mClock.waitUntilParked());
  ASSERT_TRUE(mClock.advanceByMs(60));

  // 300 ms for three cycles; then one every 10 ms until there is time to sleep.
  EXPECT_EQ(reads(), (Moments{0, 100, 200, 300, 310, 320, 330, 350, 400}));
}

TEST_F(Schedule, CycleThatEndsWithItsPeriodIsFollowedAtOnce) {
  inCycle([this](int cycle) {
    if (cycle == 1) mClock.jumpByMs(50);
  });

  start(50);
  ASSERT_TRUE(mClock.waitUntilParked());

  EXPECT_EQ(reads(), (Moments{0, 50}));
}

TEST_F(Schedule, DeadlineIsOnePeriodAfterTheStartAndAdvancesByOne) {
  ptime const started = now();
  std::vector<ptime> deadlines;
  inCycle([&](int) { deadlines.push_back(nextWakeTime()); });

  start(50);
  ASSERT_TRUE(mClock.advanceByMs(150));

  EXPECT_EQ(deadlines,
            (std::vector<ptime>{started + milliseconds(50), started + milliseconds(100),
                                started + milliseconds(150), started + milliseconds(200)}));
}

TEST_F(Schedule, FirstDeadlineGoesByTheCorrectedPeriod) {
  start(-100'000);
  ASSERT_TRUE(mClock.advanceByMs(30));

  EXPECT_EQ(reads(), multiples(10, 4));
}

TEST_F(Schedule, EachStartBeginsAnew) {
  start(50);
  ASSERT_TRUE(mClock.advanceByMs(70));
  call("stopWatching");
  mClock.jumpByMs(1234);

  start(30);
  ASSERT_TRUE(mClock.waitUntilParked());
  ASSERT_TRUE(mClock.advanceByMs(60));

  EXPECT_EQ(reads(), (Moments{0, 30, 60}));
}

// The deadline is UTC: it does not depend on where the robot is.
TEST_F(Schedule, FirstDeadlineIsUtcInEveryTimeZone) {
  for (char const* zone : {"UTC", "Asia/Kathmandu", "XYZ+11:30"}) {
    SCOPED_TRACE(zone);
    ::setenv("TZ", zone, 1);
    ::tzset();
    ptime const started = now();

    start(50);
    ASSERT_TRUE(mClock.waitUntilParked());

    EXPECT_EQ(nextWakeTime(), started + milliseconds(50));
    call("stopWatching");
  }
  ::unsetenv("TZ");
  ::tzset();
}

// ---- changes of the period

TEST_F(Schedule, LongerPeriodEndsThePendingSleep450MsLater) {
  start(50);
  ASSERT_TRUE(mClock.advanceByMs(130));  // the next one is due at 150

  call("setPeriodMs", 500);
  ASSERT_TRUE(mClock.waitUntilParkedForMs(600 - 130));
  ASSERT_TRUE(mClock.advanceByMs(1000));

  EXPECT_EQ(reads(), (Moments{0, 50, 100, 600, 1100}));
}

TEST_F(Schedule, ShorterPeriodEndsThePendingSleepEarlier) {
  start(500);
  ASSERT_TRUE(mClock.advanceByMs(550));  // the next one is due at 1000

  call("setPeriodMs", 200);
  ASSERT_TRUE(mClock.waitUntilParkedForMs(150));
  ASSERT_TRUE(mClock.advanceByMs(400));

  EXPECT_EQ(reads(), (Moments{0, 500, 700, 900}));
}

TEST_F(Schedule, DeadlineThatWouldLieInThePastIsNow) {
  start(500);
  ASSERT_TRUE(mClock.advanceByMs(130));

  call("setPeriodMs", 50);
  ASSERT_TRUE(waitForReads(2));
  ASSERT_TRUE(mClock.waitUntilParkedForMs(50));
  ASSERT_TRUE(mClock.advanceByMs(100));

  // From now on, with nothing made up for.
  EXPECT_EQ(reads(), (Moments{0, 130, 180, 230}));
}

TEST_F(Schedule, ChangesAddUp) {
  start(100);
  ASSERT_TRUE(mClock.advanceByMs(50));

  call("setPeriodMs", 300);
  call("setPeriodMs", 200);
  call("setPeriodMs", 400);
  ASSERT_TRUE(mClock.waitUntilParkedForMs(350));
  ASSERT_TRUE(mClock.advanceByMs(750));

  EXPECT_EQ(reads(), (Moments{0, 400, 800}));
}

TEST_F(Schedule, SamePeriodAgainChangesNothing) {
  start(50);
  ASSERT_TRUE(mClock.advanceByMs(30));
  ptime const planned = nextWakeTime();

  for (int i = 0; i < 10; ++i) call("setPeriodMs", 50);
  EXPECT_EQ(nextWakeTime(), planned);
  ASSERT_TRUE(mClock.advanceByMs(70));

  EXPECT_EQ(reads(), (Moments{0, 50, 100}));
}

TEST_F(Schedule, ChangeWithinACycleMovesTheDeadlineThatFollowsIt) {
  inCycle([this](int cycle) {
    if (cycle == 2) mWatcher->setPeriodMs(100);
    if (cycle == 4) mWatcher->setPeriodMs(10);
  });

  start(50);
  ASSERT_TRUE(mClock.advanceByMs(270));

  EXPECT_EQ(reads(), (Moments{0, 50, 150, 250, 260, 270}));
}

// Two clients at once: the deadline moves by the sum, and the last period is kept.
TEST_F(Schedule, OverlappingChangesLoseNone) {
  mMemory->block("getListData");
  start(100'000);
  ASSERT_TRUE(mMemory->waitUntilParked());
  ptime const started = nextWakeTime() - milliseconds(100'000);
  {
    auto const change = [this](int step) {
      for (int i = 0; i < 500; ++i) mWatcher->setPeriodMs(100'000 + (i * 7 + step) % 100 * 10);
    };
    Caller one([&] { change(1); });
    Caller other([&] { change(2); });
  }

  EXPECT_EQ(nextWakeTime(), started + milliseconds(ForTest::periodMs(*mWatcher)));
  mMemory->release("getListData");
}

// ---- interruptions

TEST_F(Schedule, InterruptedSleepGoesOnToItsDeadline) {
  start(50);
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(mClock.advanceByMs(5));
    call("setPeriodMs", 50);  // wakes the sleeper, and changes nothing
    ASSERT_TRUE(mClock.waitUntilParkedForMs(50 - sinceStartMs() % 50));
  }

  EXPECT_EQ(reads(), multiples(50, 5));
}

TEST_F(Schedule, StopEndsTheSleepWithoutAnotherCycle) {
  start(3'600'000);
  ASSERT_TRUE(mClock.advanceByMs(1000));

  call("stopWatching");

  EXPECT_EQ(reads(), Moments{0});
  mClock.jumpByMs(10'000'000);
  EXPECT_EQ(reads(), Moments{0});
}

// ---- a start that meets the end of the run before

// The loop that stopped the watch leaves after its cycle, and takes neither the next run's time
// nor its deadline.
TEST_F(Schedule, StartAfterAStopFromWithinTheCycleBeginsAtOnce) {
  std::atomic<bool> isFirst{true};
  inCycle([&](int) {
    if (!isFirst.exchange(false)) return;
    mWatcher->stopWatching();
    mWatcher->startWatching(100);
  });
  start(3'600'000);

  ASSERT_TRUE(waitForReads(2));
  ASSERT_TRUE(mClock.waitUntilParkedForMs(100));
  ASSERT_TRUE(mClock.advanceByMs(200));

  EXPECT_EQ(reads(), (Moments{0, 0, 100, 200}));
}

}  // namespace
}  // namespace KX
