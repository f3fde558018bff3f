#include <memorywatcher/kxgates.hpp>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/simulatedclock.hpp>

namespace KX {
namespace {

// ---- the gate of the hardware cycle

TEST(CycleGate, IsOpenAtFirst) {
  KXCycleGate gate;
  Caller loop([&] { gate.lock(); });

  EXPECT_FALSE(loop.isParked());
}

TEST(CycleGate, IsClosedByAPass) {
  KXCycleGate gate;
  gate.lock();
  Caller loop([&] { gate.lock(); });

  EXPECT_TRUE(loop.isParked());
  gate.unlock();
}

TEST(CycleGate, OpeningWakesTheWaiter) {
  KXCycleGate gate;
  gate.lock();
  Caller loop([&] { gate.lock(); });
  ASSERT_TRUE(loop.isParked());

  gate.unlock();

  EXPECT_FALSE(loop.isParked());
  EXPECT_TRUE(loop.isDone());
}

TEST(CycleGate, OpenedWhileNobodyWaitsLetsOnePassThrough) {
  KXCycleGate gate;
  gate.lock();

  gate.unlock();

  gate.lock();
  Caller second([&] { gate.lock(); });
  EXPECT_TRUE(second.isParked());
  gate.unlock();
}

TEST(CycleGate, OpenedOftenLetsOnePassThrough) {
  KXCycleGate gate;
  for (int i = 0; i < 5; ++i) gate.unlock();

  gate.lock();

  Caller second([&] { gate.lock(); });
  EXPECT_TRUE(second.isParked());
  gate.unlock();
}

TEST(CycleGate, AllocatesNothing) {
  KXCycleGate gate;
  std::int64_t const count = Allocations::count();

  gate.lock();
  gate.unlock();
  gate.unlock();

  EXPECT_EQ(Allocations::count(), count);
}

TEST(StressCycleGate, NoOpeningIsMissed) {
  constexpr int kOpenings = 20'000;
  KXCycleGate gate;
  std::atomic<int> opened{0};
  std::vector<std::thread> threads;
  for (int id = 0; id < 2; ++id) {
    threads.emplace_back([&] {
      for (int i = 0; i < kOpenings; ++i) {
        ++opened;
        gate.unlock();
      }
    });
  }

  // Each count is written before its opening: the pass of the last opening sees them all.
  int passes = 0;
  while (opened < 2 * kOpenings) {
    gate.lock();
    ++passes;
  }

  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(passes, 2 * kOpenings + 1);
}

// ---- the interruptible sleep

class SleepGate : public ::testing::Test {
 protected:
  static constexpr std::int64_t kHourNs = 3'600'000'000'000;
  std::int64_t now() { return mClock.monotonicNs(); }

  SimulatedClock mClock;
  KXSleepGate mGate{mClock};
};

TEST_F(SleepGate, IsLockedByOneLoopAtATime) {
  mGate.lock();
  Caller second([&] { mGate.lock(); });
  EXPECT_TRUE(second.isParked());

  mGate.unlock();

  EXPECT_FALSE(second.isParked());
}

TEST_F(SleepGate, AnInterruptionLetsNoSecondLoopIn) {
  mGate.lock();
  Caller second([&] { mGate.lock(); });
  ASSERT_TRUE(second.isParked());

  mGate.interrupt();

  EXPECT_TRUE(second.isParked());
  mGate.unlock();
}

TEST_F(SleepGate, GivesUpAtOnceWhenTheDeadlineHasPassed) {
  mGate.lock();

  EXPECT_FALSE(mGate.sleepUntil(now()));
  EXPECT_FALSE(mGate.sleepUntil(now() - kHourNs));
}

TEST_F(SleepGate, SleepsUntilTheDeadlineAndNotBefore) {
  mGate.lock();
  bool wasInterrupted = true;
  Caller sleeper([&] { wasInterrupted = mGate.sleepUntil(now() + kHourNs); });
  ASSERT_TRUE(mClock.waitUntilParked());

  mClock.jumpByMs(kHourNs / 1'000'000 - 1);
  EXPECT_TRUE(sleeper.isParked());
  mClock.jumpByMs(1);

  sleeper.join();
  EXPECT_FALSE(wasInterrupted);
}

TEST_F(SleepGate, AnotherThreadInterruptsTheSleep) {
  mGate.lock();
  bool wasInterrupted = false;
  Caller sleeper([&] { wasInterrupted = mGate.sleepUntil(now() + kHourNs); });
  ASSERT_TRUE(mClock.waitUntilParked());

  mGate.interrupt();

  sleeper.join();
  EXPECT_TRUE(wasInterrupted);
}

TEST_F(SleepGate, AnInterruptionBeforeTheSleepEndsItAtOnce) {
  mGate.lock();
  mGate.interrupt();

  EXPECT_TRUE(mGate.sleepUntil(now() + kHourNs));
}

TEST_F(SleepGate, InterruptedOftenEndsOneSleep) {
  mGate.lock();
  for (int i = 0; i < 3; ++i) mGate.interrupt();

  EXPECT_TRUE(mGate.sleepUntil(now()));
  EXPECT_FALSE(mGate.sleepUntil(now()));
}

TEST_F(SleepGate, WhatInterruptedTheLoopBeforeDoesNotConcernTheNext) {
  mGate.interrupt();
  mGate.lock();
  mGate.interrupt();
  mGate.unlock();
  mGate.interrupt();

  mGate.lock();

  EXPECT_FALSE(mGate.sleepUntil(now()));
}

TEST(TimingSleepGate, EndsAtTheDeadlineAndNotBefore) {
  KXClock& clock = KXClock::system();
  KXSleepGate gate(clock);
  gate.lock();
  for (int ms : {1, 20, 150}) {
    SCOPED_TRACE(ms);
    std::int64_t const deadlineNs = clock.monotonicNs() + ms * 1'000'000;

    EXPECT_FALSE(gate.sleepUntil(deadlineNs));

    EXPECT_GE(clock.monotonicNs(), deadlineNs);
    EXPECT_LT(clock.monotonicNs(), deadlineNs + 100'000'000);
  }
}

// ---- the guard of a callback

TEST(CallbackGuard, LetsInUntilItIsClosed) {
  KXCallbackGuard guard;
  EXPECT_TRUE(guard.enter());
  guard.leave();

  guard.close();

  EXPECT_FALSE(guard.enter());
  EXPECT_FALSE(guard.enter());
}

TEST(CallbackGuard, ClosingWaitsForWhoeverIsInside) {
  KXCallbackGuard guard;
  ASSERT_TRUE(guard.enter());
  ASSERT_TRUE(guard.enter());
  Caller closer([&] { guard.close(); });
  EXPECT_TRUE(closer.isParked());

  guard.leave();
  EXPECT_TRUE(closer.isParked());

  guard.leave();
  EXPECT_FALSE(closer.isParked());
  EXPECT_TRUE(closer.isDone());
}

TEST(CallbackGuard, LetsNobodyInWhileClosing) {
  KXCallbackGuard guard;
  ASSERT_TRUE(guard.enter());
  Caller closer([&] { guard.close(); });
  ASSERT_TRUE(closer.isParked());

  EXPECT_FALSE(guard.enter());

  EXPECT_TRUE(closer.isParked());
  guard.leave();
}

TEST(CallbackGuard, ClosesTwice) {
  KXCallbackGuard guard;
  guard.close();

  Caller closer([&] { guard.close(); });

  EXPECT_FALSE(closer.isParked());
}

TEST(StressCallbackGuard, NobodyIsInsideAfterClosing) {
  for (int round = 0; round < 100; ++round) {
    KXCallbackGuard guard;
    std::atomic<int> inside{0};
    std::atomic<bool> hasStarted{false};
    std::vector<std::thread> threads;
    for (int id = 0; id < 2; ++id) {
      threads.emplace_back([&] {
        while (guard.enter()) {
          ++inside;
          hasStarted = true;
          --inside;
          guard.leave();
        }
      });
    }
    while (!hasStarted) std::this_thread::yield();

    guard.close();

    EXPECT_EQ(inside, 0);
    for (std::thread& thread : threads) thread.join();
  }
}

}  // namespace
}  // namespace KX
