// The wall clock is set while keys are watched: sampling keeps its rhythm on the monotonic clock,
// and says so once.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <memorywatcher/kxclockwatch.hpp>
#include <tests/memorywatcher/simulatedtime.hpp>
#include <tests/support/settableclock.hpp>

namespace KX {
namespace {

constexpr std::int64_t kHourMs = 3'600'000;
constexpr std::int64_t kStepsMs[] = {-kHourMs, -2000, 60'000, 24 * kHourMs};

// ---- what counts as a step

class ClockWatch : public ::testing::Test {
 protected:
  std::int64_t look(int periodMs = 50) { return mWatch.look(periodMs); }

  HookedClock mClock;
  KXClockWatch mWatch{mClock};
};

TEST_F(ClockWatch, FirstLookTellsNothing) {
  EXPECT_EQ(look(), 0);
}

TEST_F(ClockWatch, PassingTimeIsNoStep) {
  mWatch.restart();
  for (int ms : {0, 1, 50, 100'000}) {
    mClock.jumpByMs(ms);
    EXPECT_EQ(look(), 0) << ms;
  }
}

TEST_F(ClockWatch, TellsAStepOnceWithItsAmount) {
  mWatch.restart();
  for (std::int64_t const stepMs : kStepsMs) {
    mClock.stepWallByMs(stepMs);
    mClock.jumpByMs(17);
    EXPECT_EQ(look(), stepMs * 1000);
    EXPECT_EQ(look(), 0);
  }
}

TEST_F(ClockWatch, ToleratesAQuarterOfThePeriodAndFiveMilliseconds) {
  struct {
    int periodMs;
    std::int64_t toleratedMs;
  } const cases[] = {{10, 5}, {20, 5}, {40, 10}, {100, 25}, {1000, 250}};
  mWatch.restart();
  for (auto const& [periodMs, toleratedMs] : cases) {
    SCOPED_TRACE(periodMs);
    for (std::int64_t const sign : {1, -1}) {
      mClock.stepWallByMs(sign * toleratedMs);
      EXPECT_EQ(look(periodMs), 0);
      mClock.stepWallByMs(sign * (toleratedMs + 1));
      EXPECT_EQ(look(periodMs), sign * (toleratedMs + 1) * 1000);
    }
  }
}

TEST_F(ClockWatch, RestartForgetsAStepAndLooks) {
  mWatch.restart();
  mClock.stepWallByMs(5000);
  mWatch.restart();
  EXPECT_EQ(look(), 0);

  mClock.stepWallByMs(-5000);
  EXPECT_EQ(look(), -5'000'000);
}

// Somebody else had the processor between the two clocks, once.
TEST_F(ClockWatch, InterruptedReadingIsRepeated) {
  mWatch.restart();
  bool isFirst = true;
  mClock.onWallTime([&] {
    if (std::exchange(isFirst, false)) mClock.jumpByMs(300);
  });

  EXPECT_EQ(look(), 0);
  EXPECT_EQ(mWatch.moment().monotonicNs, mClock.monotonicNs());
}

TEST_F(ClockWatch, StepBehindATornReadingIsToldByTheNextGoodOne) {
  mWatch.restart();
  KXMoment const before = mWatch.moment();
  mClock.stepWallByMs(-kHourMs);
  mClock.onWallTime([this] { mClock.jumpByMs(2); });
  EXPECT_EQ(look(), 0);
  // Until then the wall clock goes on as it was, so nobody computes a deadline by a torn one.
  KXMoment const torn = mWatch.moment();
  EXPECT_EQ(torn.wallUs - before.wallUs, (torn.monotonicNs - before.monotonicNs) / 1000);

  mClock.onWallTime(nullptr);
  EXPECT_EQ(look(), -kHourMs * 1000);
}

// ---- both pacings

template <class P>
class ClockSteps : public P {
 protected:
  // The start, then five periods of 50 ms with the step in between, then five more.
  template <class Step>
  void expectTheRhythm(std::int64_t stepMs, Step step) {
    ASSERT_TRUE(this->startAndWait(50));
    ASSERT_TRUE(this->passPeriods(5, 50));
    step();
    ASSERT_TRUE(this->passPeriods(5, 50));

    this->call("stopWatching");
    EXPECT_EQ(this->reads(), this->multiples(50, 11));
    EXPECT_EQ(this->mLog.lines(), (std::vector<LogLine>{wallClockSet(stepMs)}));
    this->mLog.clear();
  }
};
TYPED_TEST_SUITE(ClockSteps, SimulatedPacings);

TYPED_TEST(ClockSteps, WithoutAStepThereIsNoWarning) {
  ASSERT_TRUE(this->startAndWait(50));
  ASSERT_TRUE(this->passPeriods(100, 50));

  this->call("stopWatching");
  EXPECT_EQ(this->reads(), this->multiples(50, 101));
  EXPECT_TRUE(this->mLog.lines().empty());
}

TYPED_TEST(ClockSteps, WhileTheLoopSleepsKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    this->expectTheRhythm(stepMs, [&] { this->mClock.stepWallByMs(stepMs); });
  }
}

TYPED_TEST(ClockSteps, WithinACycleKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    this->inCycle([&](int cycle) {
      if (cycle == 7) this->mClock.stepWallByMs(stepMs);
    });
    this->expectTheRhythm(stepMs, [] {});
  }
}

TYPED_TEST(ClockSteps, BeforeTheFirstSleepKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    this->inCycle([&](int cycle) {
      if (cycle == 1) this->mClock.stepWallByMs(stepMs);
    });
    this->expectTheRhythm(stepMs, [] {});
  }
}

TYPED_TEST(ClockSteps, WhileIdleAreNoneOfTheNextStartsBusiness) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    ASSERT_TRUE(this->startAndWait(50));
    ASSERT_TRUE(this->passPeriods(2, 50));
    this->call("stopWatching");
    this->mClock.stepWallByMs(stepMs);

    ASSERT_TRUE(this->startAndWait(50));
    ASSERT_TRUE(this->passPeriods(3, 50));

    this->call("stopWatching");
    EXPECT_EQ(this->reads(), this->multiples(50, 4));
    EXPECT_TRUE(this->mLog.lines().empty());
  }
}

TYPED_TEST(ClockSteps, AHundredBeyondTheToleranceAreAHundredWarnings) {
  std::vector<LogLine> warnings;
  ASSERT_TRUE(this->startAndWait(50));
  for (int i = 0; i < 100; ++i) {
    std::int64_t const stepMs = i % 3 == 0 ? 13 : -13;
    this->mClock.stepWallByMs(stepMs);
    warnings.push_back(wallClockSet(stepMs));
    ASSERT_TRUE(this->passPeriods(1, 50));
  }

  this->call("stopWatching");
  EXPECT_EQ(this->reads(), this->multiples(50, 101));
  EXPECT_EQ(this->mLog.lines(), warnings);
}

// The schedule follows the wall clock then, by no more than a quarter of a period at a time.
TYPED_TEST(ClockSteps, AHundredBelowTheToleranceAreNoWarning) {
  ASSERT_TRUE(this->startAndWait(50));
  for (int i = 0; i < 100; ++i) {
    this->mClock.stepWallByMs(i % 3 == 0 ? 12 : -12);
    if (this->mVsm != nullptr) {
      ASSERT_TRUE(this->passPeriods(1, 50));
    } else {
      std::size_t const cycles = this->reads().size();
      while (this->reads().size() == cycles) ASSERT_TRUE(this->mClock.advanceByMs(1));
    }
  }

  this->call("stopWatching");
  SimulatedTimeTest::Moments const reads = this->reads();
  ASSERT_EQ(reads.size(), 101U);
  for (std::size_t i = 1; i < reads.size(); ++i) {
    EXPECT_GE(reads[i] - reads[i - 1], 38) << i;
    EXPECT_LE(reads[i] - reads[i - 1], 62) << i;
  }
  EXPECT_TRUE(this->mLog.lines().empty());
}

TYPED_TEST(ClockSteps, TornReadingIsNoStep) {
  ASSERT_TRUE(this->startAndWait(50));
  ASSERT_TRUE(this->passPeriods(1, 50));
  std::atomic<int> looks{0};
  this->inCycle([&](int cycle) {
    if (cycle != 3) return;
    looks = 10;  // all tries of the look that follows
  });
  this->mClock.onWallTime([&] {
    if (looks > 0 && looks-- > 0) this->mClock.jumpByMs(2);
  });

  ASSERT_TRUE(this->passPeriods(3, 50));
  this->mClock.onWallTime(nullptr);
  this->call("stopWatching");

  EXPECT_EQ(looks, 0);
  EXPECT_TRUE(this->mLog.lines().empty());
}

// A thousand keys and events: nothing is missing, nothing twice, and each sample carries the wall
// clock as it then was.
TYPED_TEST(ClockSteps, SamplesAndEventsGoOnAndCarryTheTimeThatWasSet) {
  std::vector<std::string> keys;
  for (int i = 0; i < 1000; ++i) {
    keys.push_back("key" + std::to_string(1000 + i));
    this->mMemory->set(keys.back(), "Data", KXValue(i));
  }
  this->call("addListeners", keys);
  this->mMemory->set("raised", "Event", KXValue(0));
  this->add("raised");

  ASSERT_TRUE(this->startAndWait(50));
  std::vector<std::int64_t> batchTimes{micros(this->mClock.wallTime())};
  std::vector<std::int64_t> eventTimes;
  int event = 0;
  for (std::int64_t const stepMs : kStepsMs) {
    this->mClock.stepWallByMs(stepMs);
    for (int period = 0; period < 3; ++period) {
      eventTimes.push_back(micros(this->mClock.wallTime()));
      this->raise("raised", KXValue(event++));
      ASSERT_TRUE(this->passPeriods(1, 50));
      batchTimes.push_back(micros(this->mClock.wallTime()));
    }
  }
  this->call("stopWatching");

  KXValue const fetched = this->fetch();
  ASSERT_EQ(fetched.getSize(), 1001);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(timesOf(fetched[i][1]), batchTimes) << i;
  EXPECT_EQ(timesOf(fetched[1000][1]), eventTimes);
  std::vector<KXValue> numbers;
  for (int i = 0; i < event; ++i) numbers.emplace_back(i);
  EXPECT_EQ(valuesOf(fetched[1000][1]), numbers);
  EXPECT_EQ(this->mLog.lines().size(), std::size(kStepsMs));
}

// ---- timed pacing, where the deadline is told by the wall clock

class TimedClockSteps : public SimulatedTimeTest {};

TEST_F(TimedClockSteps, BetweenStartAndTheFirstCycleKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    std::atomic<int> left{1};  // the start's own reading; then comes that of the first batch
    mClock.onWallTime([&] {
      if (left-- == 0) mClock.stepWallByMs(stepMs);
    });
    start(50);
    ASSERT_TRUE(mClock.waitUntilParked());
    ASSERT_TRUE(mClock.advanceByMs(150));

    EXPECT_EQ(reads(), multiples(50, 4));
    EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{wallClockSet(stepMs)}));
    call("stopWatching");
    mLog.clear();
  }
}

TEST_F(TimedClockSteps, TogetherWithAChangeOfThePeriodKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    start(50);
    ASSERT_TRUE(mClock.advanceByMs(70));
    mClock.stepWallByMs(stepMs);

    call("setPeriodMs", 200);
    ASSERT_TRUE(mClock.waitUntilParkedForMs(180));
    ASSERT_TRUE(mClock.advanceByMs(380));

    EXPECT_EQ(reads(), (Moments{0, 50, 250, 450}));
    EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{wallClockSet(stepMs)}));
    call("stopWatching");
    mLog.clear();
  }
}

// At each reading of the clock that a change of the period makes, in turn.
TEST_F(TimedClockSteps, AmidAChangeOfThePeriodKeepTheRhythm) {
  for (std::int64_t const stepMs : kStepsMs) {
    for (int readings = 0; readings < 3; ++readings) {
      SCOPED_TRACE(std::to_string(stepMs) + " at reading " + std::to_string(readings));
      start(50);
      ASSERT_TRUE(mClock.advanceByMs(70));
      std::atomic<int> left{readings};
      mClock.onWallTime([&] {
        if (left-- == 0) mClock.stepWallByMs(stepMs);
      });

      call("setPeriodMs", 10);  // the deadline would lie in the past
      ASSERT_TRUE(waitForReads(3));
      ASSERT_TRUE(mClock.waitUntilParkedForMs(10));
      ASSERT_TRUE(mClock.advanceByMs(20));

      EXPECT_EQ(reads(), (Moments{0, 50, 70, 80, 90}));
      call("stopWatching");
      mClock.onWallTime(nullptr);
      EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{wallClockSet(stepMs)}));
      mLog.clear();
    }
  }
}

TEST_F(TimedClockSteps, WhileItIsLateItCatchesUpAsEver) {
  for (std::int64_t const stepMs : kStepsMs) {
    SCOPED_TRACE(stepMs);
    inCycle([&](int cycle) {
      if (cycle != 1) return;
      mClock.jumpByMs(80);
      mClock.stepWallByMs(stepMs);
      mClock.jumpByMs(80);
    });
    start(50);
    ASSERT_TRUE(mClock.waitUntilParked());
    ASSERT_TRUE(mClock.advanceByMs(90));

    EXPECT_EQ(reads(), (Moments{0, 160, 160, 160, 200, 250}));
    EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{wallClockSet(stepMs)}));
    call("stopWatching");
    mLog.clear();
  }
}

TEST_F(TimedClockSteps, TornReadingWithAStepEndsNoRhythm) {
  start(50);
  ASSERT_TRUE(mClock.advanceByMs(100));
  std::atomic<int> left{11};  // the batch's, then all tries of one look
  mClock.onWallTime([&] {
    int const reading = left--;
    if (reading == 11) mClock.stepWallByMs(-kHourMs);
    if (reading > 0 && reading < 11) mClock.jumpByMs(2);
  });

  ASSERT_TRUE(mClock.advanceByMs(50));
  ASSERT_TRUE(mClock.waitUntilParkedForMs(200 - sinceStartMs()));
  ASSERT_TRUE(mClock.advanceByMs(200 - sinceStartMs() + 50));
  mClock.onWallTime(nullptr);

  EXPECT_EQ(reads(), multiples(50, 6));
  EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{wallClockSet(-kHourMs)}));
}

// ---- in real time

struct HasSettableClock {
  SettableClock mClock;
};

class TimingClockSteps : protected HasSettableClock, public WatcherTest {
 protected:
  TimingClockSteps() : WatcherTest(Pacing::Timed, mClock) {
    mMemory->setHook("getListData", [this](FakeMemory::Call const&, KXValue&) {
      std::lock_guard const lock(mMutex);
      mReads.push_back(mClock.monotonicNs());
    });
  }
  std::vector<std::int64_t> reads() {
    std::lock_guard const lock(mMutex);
    return mReads;
  }

 private:
  std::mutex mMutex;
  std::vector<std::int64_t> mReads;
};

TEST_F(TimingClockSteps, NeitherSilenceNorBurst) {
  constexpr std::int64_t kPeriodNs = 100'000'000;
  call("startWatching", 100);
  int expected = 5;
  for (std::int64_t const stepMs : kStepsMs) {
    ASSERT_TRUE(mMemory->waitForCalls("getListData", expected));
    mClock.step(std::chrono::milliseconds(stepMs));
    expected += 5;
  }
  ASSERT_TRUE(mMemory->waitForCalls("getListData", expected));
  call("stopWatching");

  std::vector<std::int64_t> const all = reads();
  for (std::size_t i = 0; i < all.size(); ++i) {
    std::int64_t const lateNs = all[i] - all[0] - static_cast<std::int64_t>(i) * kPeriodNs;
    EXPECT_GT(lateNs, -kPeriodNs / 2) << i;
    EXPECT_LT(lateNs, kPeriodNs) << i;
  }
  EXPECT_EQ(mLog.lines().size(), std::size(kStepsMs));
}

}  // namespace
}  // namespace KX
