#include <memorywatcher/kxgates.hpp>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using boost::posix_time::hours;
using boost::posix_time::microsec_clock;
using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

ptime now() {
  return microsec_clock::universal_time();
}

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

TEST(SleepGate, IsUnlockedAtFirst) {
  KXSleepGate gate;

  EXPECT_TRUE(gate.lockUntil(now() + hours(1)));
}

TEST(SleepGate, CanBeLockedOnce) {
  KXSleepGate gate;
  gate.lock();
  Caller second([&] { gate.lock(); });

  EXPECT_TRUE(second.isParked());
  gate.unlock();
}

TEST(SleepGate, UnlockingLetsTheNextOneIn) {
  KXSleepGate gate;
  gate.lock();
  Caller second([&] { gate.lock(); });
  ASSERT_TRUE(second.isParked());

  gate.unlock();

  EXPECT_FALSE(second.isParked());
  EXPECT_TRUE(second.isDone());
}

TEST(SleepGate, GivesUpAtOnceWhenTheDeadlineHasPassed) {
  KXSleepGate gate;
  gate.lock();

  EXPECT_FALSE(gate.lockUntil(now() - milliseconds(1)));
}

TEST(SleepGate, TakesADeadlineFromBeforeTheMachineStarted) {
  KXSleepGate gate;
  gate.lock();

  EXPECT_NO_THROW(EXPECT_FALSE(gate.lockUntil(now() - hours(50 * 365 * 24))));
}

TEST(SleepGate, GivenUpIsStillLocked) {
  KXSleepGate gate;
  gate.lock();
  ASSERT_FALSE(gate.lockUntil(now() - milliseconds(1)));

  EXPECT_FALSE(gate.lockUntil(now() - milliseconds(1)));
}

TEST(SleepGate, UnlockedBeforeIsTakenEvenAfterTheDeadline) {
  KXSleepGate gate;
  gate.lock();
  gate.unlock();

  EXPECT_TRUE(gate.lockUntil(now() - milliseconds(1)));
}

TEST(SleepGate, AnotherThreadInterruptsTheSleep) {
  KXSleepGate gate;
  gate.lock();
  bool wasLocked = false;
  Caller sleeper([&] { wasLocked = gate.lockUntil(now() + hours(1)); });
  ASSERT_TRUE(sleeper.isParked());

  gate.unlock();

  sleeper.join();
  EXPECT_TRUE(wasLocked);
}

TEST(SleepGate, IsHeldAgainAfterAnInterruption) {
  KXSleepGate gate;
  gate.lock();
  Caller sleeper([&] { gate.lockUntil(now() + hours(1)); });
  ASSERT_TRUE(sleeper.isParked());
  gate.unlock();
  sleeper.join();

  EXPECT_FALSE(gate.lockUntil(now() - milliseconds(1)));
}

TEST(SleepGate, UnlockedOftenLetsOneIn) {
  KXSleepGate gate;
  for (int i = 0; i < 3; ++i) gate.unlock();

  EXPECT_TRUE(gate.lockUntil(now() - milliseconds(1)));
  EXPECT_FALSE(gate.lockUntil(now() - milliseconds(1)));
}

TEST(TimingSleepGate, EndsAtTheDeadlineAndNotBefore) {
  KXSleepGate gate;
  gate.lock();
  for (int ms : {1, 20, 150}) {
    SCOPED_TRACE(ms);
    ptime const deadline = now() + milliseconds(ms);

    EXPECT_FALSE(gate.lockUntil(deadline));

    EXPECT_GE(now(), deadline);
    EXPECT_LT(now(), deadline + milliseconds(100));
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
