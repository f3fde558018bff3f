// The period and each way of pacing, driven by hand: the store is blocked or the cycle raised.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/waituntil.hpp>

namespace KX {
namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

// ---- period

struct PeriodCase {
  int asked;
  int kept;
};

class Period : public WatcherTest {};

TEST_F(Period, MultiplesOfTenAreKeptWithoutALogLine) {
  for (int const period : {10, 20, 30, 50, 100, 1000, 2147483640}) {
    SCOPED_TRACE(period);
    call("setPeriodMs", period);
    EXPECT_EQ(ForTest::periodMs(*mWatcher), period);
    EXPECT_EQ(ForTest::cyclesPerPeriod(*mWatcher), period / 10);
  }
  EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(Period, OthersAreRoundedDownOrSetToTenAndLogged) {
  for (PeriodCase const& period : std::vector<PeriodCase>{{15, 10},
                                                          {11, 10},
                                                          {19, 10},
                                                          {25, 20},
                                                          {99, 90},
                                                          {0, 10},
                                                          {1, 10},
                                                          {5, 10},
                                                          {9, 10},
                                                          {-7, 10},
                                                          {-20, 10},
                                                          {-2147483647 - 1, 10},
                                                          {2147483647, 2147483640}}) {
    SCOPED_TRACE(period.asked);
    mLog.clear();
    call("setPeriodMs", period.asked);
    EXPECT_EQ(ForTest::periodMs(*mWatcher), period.kept);
    EXPECT_EQ(ForTest::cyclesPerPeriod(*mWatcher), period.kept / 10);
    EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{corrected(period.kept)}));
  }
}

TEST_F(Period, DoesNotTouchTheDeadlineWhileIdle) {
  call("setPeriodMs", 500);

  EXPECT_TRUE(ForTest::nextWakeTime(*mWatcher).is_not_a_date_time());
}

// The loop is held inside the store, so that nothing but the call moves the deadline.
class PeriodWhileWatching : public WatcherTest {
 protected:
  void startBlocked(int period) {
    mMemory->block("getListData");
    call("startWatching", period);
    ASSERT_TRUE(mMemory->waitUntilParked());
  }
  ~PeriodWhileWatching() override { mMemory->release("getListData"); }
};

TEST_F(PeriodWhileWatching, LongerPeriodMovesTheDeadlineByTheDifference) {
  startBlocked(5000);
  ptime const planned = ForTest::nextWakeTime(*mWatcher);

  call("setPeriodMs", 50000);

  EXPECT_EQ(ForTest::nextWakeTime(*mWatcher), planned + milliseconds(45000));
  EXPECT_EQ(ForTest::periodMs(*mWatcher), 50000);
}

TEST_F(PeriodWhileWatching, ShorterPeriodBringsTheDeadlineForward) {
  startBlocked(50000);
  ptime const planned = ForTest::nextWakeTime(*mWatcher);

  call("setPeriodMs", 30000);

  EXPECT_EQ(ForTest::nextWakeTime(*mWatcher), planned - milliseconds(20000));
}

TEST_F(PeriodWhileWatching, ChangeInterruptsTheSleepAndTheNextCycleRunsAtOnce) {
  call("startWatching", 3'600'000);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  call("setPeriodMs", 10);  // an hour's sleep ends: the new deadline is 10 ms after the start

  EXPECT_TRUE(mMemory->waitForCalls("getListData", 5));
}

TEST_F(PeriodWhileWatching, LongerPeriodInterruptsTheSleepButRunsNoCycle) {
  call("startWatching", 3'600'000);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  call("setPeriodMs", 7'200'000);
  call("setPeriodMs", 7'300'000);
  call("stopWatching");

  EXPECT_EQ(mMemory->getCalls("getListData").size(), 1U);
}

class CyclePeriod : public CycleWatcherTest {};

TEST_F(CyclePeriod, ChangeWhileWatchingOnlyChangesTheCount) {
  call("startWatching", 50);

  call("setPeriodMs", 30);

  EXPECT_EQ(ForTest::cyclesPerPeriod(*mWatcher), 3);
  EXPECT_TRUE(ForTest::nextWakeTime(*mWatcher).is_not_a_date_time());
}

// ---- timed pacing alone

class TimedControl : public WatcherTest {};

TEST_F(TimedControl, StartRunsMainThreadAsAParallelCall) {
  call("startWatching", 50);

  int const taskId = ForTest::mainThreadTaskId(*mWatcher);
  EXPECT_GT(taskId, 0);
  EXPECT_TRUE(client()->isRunning(taskId));
  call("stopWatching");
  EXPECT_FALSE(client()->isRunning(taskId));
}

// It cannot wait for itself. That is no failure: the loop leaves at its next look.
TEST_F(TimedControl, StopFromWithinTheLoopThrowsNothing) {
  std::atomic<bool> hasThrown{false};
  std::atomic<bool> hasStopped{false};
  mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) {
    try {
      mWatcher->stopWatching();
    } catch (...) {
      hasThrown = true;
    }
    hasStopped = true;
  });
  call("startWatching", 10);
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!hasStopped && std::chrono::steady_clock::now() < end) std::this_thread::yield();

  EXPECT_TRUE(hasStopped);
  EXPECT_FALSE(hasThrown);
  EXPECT_EQ(ForTest::mainThreadTaskId(*mWatcher), 0);
  destroyWatcher();
}

TEST_F(TimedControl, ClientsOwnLoopWaitsForTheEndOfTheRunningOne) {
  call("startWatching", 3'600'000);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  Caller other([this] { call("_mainThread"); });
  EXPECT_TRUE(other.isParked());
  EXPECT_EQ(mMemory->getCalls("getListData").size(), 1U);

  call("stopWatching");
  other.join();
  EXPECT_EQ(mMemory->getCalls("getListData").size(), 1U);
}

// A client's own parallel call waits for the gate that the loop holds; the module may not go before
// it, although it owns nothing.
TEST_F(TimedControl, DestructionWaitsForParallelCallsThatClientsMade) {
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  int const other = client()->pCall("_mainThread");

  destroyWatcher();

  EXPECT_TRUE(mBroker->waitForTask(other, 30000));
}

// The broker's end without a shutdown: nobody can be asked any more whether the loop still runs.
TEST_F(TimedControl, ModuleOutlivesItsLoopWhenTheBrokerIsDropped) {
  auto broker = KXBroker::createBroker("dropped");
  KXModule::createModule<FakeLauncher>(broker);
  auto const memory = KXModule::createModule<FakeMemory>(broker);
  KXModule::createModule<KXMemoryWatcher>(broker);
  broker->getProxy("KXMemoryWatcher", 0)->call<void>("startWatching", 10);
  ASSERT_TRUE(memory->waitForCalls("getListData", 2));

  broker.reset();

  std::size_t const reads = memory->getCalls("getListData").size();
  EXPECT_FALSE(memory->getCalls().empty());
  EXPECT_EQ(memory->getCalls("getListData").size(), reads);
}

TEST_F(TimedControl, ForeignExceptionInAClientsOwnLoopLeavesTheGateOpen) {
  watch();
  mMemory->setHook("getListData", FakeMemory::throwingValue(5));

  EXPECT_THROW(call("_mainThread"), int);
  EXPECT_THROW(call("_mainThread"), int);  // would wait for ever if the first had kept the gate
  watch(false);
}

TEST_F(TimedControl, LoopLeavesWhenTheModuleCloses) {
  call("startWatching", 10);
  int const taskId = ForTest::mainThreadTaskId(*mWatcher);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 2));

  mWatcher->markClosing();

  EXPECT_TRUE(client()->wait(taskId, 30000));
}

// ---- cycle pacing alone

class CycleControl : public CycleWatcherTest {
 protected:
  // Starts, and keeps the loop in its first read: the gate is the test's. A distant store is waited
  // for as long as the period was when the read began.
  void startAndKeepLoop(int periodMs) {
    mMemory->block("getListData");
    call("startWatching", 3'600'000);
    ASSERT_TRUE(mMemory->waitUntilParked());
    call("setPeriodMs", periodMs);
  }
  // Stands at the gate in the loop's place: it opens with the last of these cycles, not before.
  void expectOpeningAfter(int cycles) {
    KXCycleGate& gate = ForTest::cycleGate(*mWatcher);
    Caller waiting([&gate] { gate.lock(); });
    if (cycles > 0) {
      mVsm->cycle(cycles - 1);
      EXPECT_TRUE(waiting.isParked());
      mVsm->cycle();
    }
    EXPECT_TRUE(testing::waitUntil([&] { return waiting.isDone(); }));
    // However many wait there by mistake, the test ends.
    while (!waiting.isDone()) gate.unlock();
  }
  // The loop reads once for each opening.
  void cycleAndExpectReads(int cycles, int reads) {
    mVsm->cycle(cycles);
    ASSERT_TRUE(mMemory->waitForCalls("getListData", reads));
    EXPECT_EQ(mMemory->getCalls("getListData").size(), static_cast<std::size_t>(reads));
  }
};

TEST_F(CycleControl, GateOpensOnEveryFifthCycleAtFiftyMs) {
  startAndKeepLoop(50);

  for (int i = 0; i < 3; ++i) expectOpeningAfter(5);
  mMemory->release("getListData");
}

TEST_F(CycleControl, LoopReadsOnceForEachOpeningOfTheGate) {
  call("startWatching", 50);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  for (int reads = 2; reads <= 4; ++reads) cycleAndExpectReads(5, reads);
}

TEST_F(CycleControl, CountRunsFromOneToTheCyclesOfAPeriod) {
  call("startWatching", 50);

  for (int cycle = 1; cycle <= 20; ++cycle) {
    EXPECT_EQ(ForTest::cycleCount(*mWatcher), (cycle - 1) % 5 + 1) << cycle;
    mVsm->cycle();
  }
}

// It runs on the hardware cycle's own thread.
TEST_F(CycleControl, CallbackAllocatesAndLogsNothing) {
  startAndKeepLoop(20);
  auto const allocationsOf = [](auto& signal) {
    std::int64_t const before = Allocations::count();
    for (int cycle = 0; cycle < 100; ++cycle) signal();
    return Allocations::count() - before;
  };
  std::remove_reference_t<decltype(mVsm->cycleSignal())> signalAlone;
  signalAlone.connect([] {});

  EXPECT_EQ(allocationsOf(mVsm->cycleSignal()), allocationsOf(signalAlone));
  EXPECT_TRUE(mLog.lines().empty());
  mMemory->release("getListData");
}

TEST_F(CycleControl, CallbackWaitsForNoLock) {
  startAndKeepLoop(20);
  std::unique_ptr<Caller> cycles;  // ends after the locks
  KXCriticalSection const control(ForTest::controlMutex(*mWatcher));
  KXCriticalSection const pacing(ForTest::pacingMutex(*mWatcher));
  KXCriticalSection const data(dataMutex());
  KXCriticalSection const events(eventMutex());

  cycles = std::make_unique<Caller>([this] { mVsm->cycle(5); });

  EXPECT_FALSE(cycles->isParked());  // over
  mMemory->release("getListData");
}

TEST_F(CycleControl, GateOpensOnEveryCycleAtTenMs) {
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  for (int reads = 2; reads <= 6; ++reads) cycleAndExpectReads(1, reads);
}

TEST_F(CycleControl, NewPeriodCountsFromTheNextCycleOn) {
  startAndKeepLoop(50);
  mVsm->cycle(3);

  call("setPeriodMs", 20);  // the fourth cycle is past the second already

  expectOpeningAfter(1);
  expectOpeningAfter(2);
  expectOpeningAfter(2);
  mMemory->release("getListData");
}

TEST_F(CycleControl, OverduePeriodsCoalesceIntoOneCycle) {
  startAndKeepLoop(10);

  mVsm->cycle(7);  // seven periods pass while the cycle lasts

  expectOpeningAfter(0);  // the seven as one
  expectOpeningAfter(1);
  mMemory->release("getListData");
}

TEST_F(CycleControl, AfterAnOverrunTheRhythmOfTheGateGoesOn) {
  startAndKeepLoop(30);

  mVsm->cycle(7);  // gate opens at 3 and 6, one cycle of the next period has passed

  expectOpeningAfter(0);  // the two as one
  expectOpeningAfter(2);
  expectOpeningAfter(3);
  mMemory->release("getListData");
}

TEST_F(CycleControl, LoopDoesNotAskWhetherTheModuleCloses) {
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  mWatcher->markClosing();

  cycleAndExpectReads(1, 2);
}

TEST_F(CycleControl, ConnectsOneSlotAndDisconnectsIt) {
  EXPECT_EQ(mVsm->getSlotCount(), 0);
  call("startWatching", 10);
  EXPECT_EQ(mVsm->getSlotCount(), 1);
  call("stopWatching");
  EXPECT_EQ(mVsm->getSlotCount(), 0);
}

TEST_F(CycleControl, SlotIsConnectedAtTheBack) {
  std::string order;
  auto const first = mVsm->cycleSignal().connect([&] { order += "first "; });
  call("startWatching", 10);
  mVsm->cycleSignal().connect([&] { order += "last"; });

  mVsm->cycle();

  EXPECT_EQ(order, "first last");
  EXPECT_EQ(mVsm->getSlotCount(), 3);
}

TEST_F(CycleControl, StopResetsTheCount) {
  call("startWatching", 50);
  mVsm->cycle(3);
  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 4);

  call("stopWatching");

  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 1);
}

// VSM has gone since the module was made: the failure reaches the caller, the flags stay as far
// as they were set, and only a stop clears them.
TEST_F(CycleControl, FailedStartStaysStartedUntilStopped) {
  mBroker->removeModule("VSM");

  EXPECT_THROW(call("startWatching", 10), KXError);

  EXPECT_TRUE(ForTest::isStarting(*mWatcher));
  EXPECT_TRUE(client()->call<bool>("isWatching"));
  call("startWatching", 30);  // ignored
  EXPECT_EQ(ForTest::periodMs(*mWatcher), 10);
  call("stopWatching");
  EXPECT_FALSE(client()->call<bool>("isWatching"));

  mVsm = KXModule::createModule<FakeVsm>(mBroker);
  call("startWatching", 30);
  EXPECT_TRUE(mMemory->waitForCalls("getListData", 1));
}

TEST(CyclePacing, NeedsTheHardwareCycleOfItsOwnProcess) {
  testing::JoinedBrokers joined;
  auto const& broker = joined.here.getBroker();
  KXModule::createModule<FakeLauncher>(broker);
  KXModule::createModule<FakeMemory>(broker);
  KXModule::createModule<FakeVsm>(broker);
  KXModule::createModule<KXMemoryWatcher>(broker);
  broker->removeModule("VSM");
  KXModule::createModule<FakeVsm>(joined.there.getBroker());
  joined.there.announce("VSM");

  try {
    broker->getProxy("KXMemoryWatcher", 0)->call<void>("startWatching", 10);
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "expected module 'VSM' in this process, it is in another one");
  }
}

}  // namespace
}  // namespace KX
