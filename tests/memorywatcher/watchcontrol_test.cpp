// Start, stop, period and pacing, driven by hand: the store is blocked or the cycle raised.

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

LogLine corrected(int period) {
  return {
      3,
      "KXMemoryWatcher",
      "",
      "setPeriodMs",
      0,
      "Period have to be multiple of 10 ms, Value will be truncated to " + std::to_string(period)};
}

ptime nowUtc() {
  return boost::posix_time::microsec_clock::universal_time();
}

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

TEST_F(PeriodWhileWatching, DeadlineThatWouldLieInThePastIsNow) {
  startBlocked(50000);
  // Time passes until 10 ms after the start are over.
  ptime const due = ForTest::nextWakeTime(*mWatcher) - milliseconds(50000) + milliseconds(10);
  while (nowUtc() <= due) std::this_thread::yield();
  ptime const before = nowUtc();

  call("setPeriodMs", 10);

  EXPECT_GE(ForTest::nextWakeTime(*mWatcher), before);
  EXPECT_LE(ForTest::nextWakeTime(*mWatcher), nowUtc());
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

// ---- start and stop, both pacings

struct TimedPacing : WatcherTest {
  TimedPacing() : WatcherTest(Pacing::Timed) {}
  void passPeriods(int) {}  // they pass by themselves
};
struct CyclePacing : WatcherTest {
  CyclePacing() : WatcherTest(Pacing::Cycle) {}
  void passPeriods(int count) { mVsm->cycle(count); }
};

template <class P>
class WatchControl : public P {};
using Pacings = testing::Types<TimedPacing, CyclePacing>;
TYPED_TEST_SUITE(WatchControl, Pacings);

TYPED_TEST(WatchControl, StartRunsTheFirstCycleAtOnce) {
  this->call("startWatching", 3'600'000);

  EXPECT_TRUE(this->mMemory->waitForCalls("getListData", 1));
  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
  EXPECT_FALSE(KXMemoryWatcherForTest::isStarting(*this->mWatcher));
}

TYPED_TEST(WatchControl, CyclesFollowPeriodAfterPeriod) {
  this->call("startWatching", 10);
  for (int reads = 1; reads <= 5; ++reads) {
    ASSERT_TRUE(this->mMemory->waitForCalls("getListData", reads));
    this->passPeriods(1);
  }
}

TYPED_TEST(WatchControl, StartCorrectsThePeriodAndLogsOnce) {
  this->call("startWatching", 25);

  EXPECT_EQ(KXMemoryWatcherForTest::periodMs(*this->mWatcher), 20);
  EXPECT_EQ(KXMemoryWatcherForTest::cyclesPerPeriod(*this->mWatcher), 2);
  EXPECT_EQ(this->mLog.lines(), (std::vector<LogLine>{corrected(20)}));
}

TYPED_TEST(WatchControl, SecondStartChangesNothingNotEvenThePeriod) {
  this->call("startWatching", 50);
  int const taskId = KXMemoryWatcherForTest::mainThreadTaskId(*this->mWatcher);

  this->call("startWatching", 35);

  EXPECT_EQ(KXMemoryWatcherForTest::periodMs(*this->mWatcher), 50);
  EXPECT_EQ(KXMemoryWatcherForTest::mainThreadTaskId(*this->mWatcher), taskId);
  EXPECT_TRUE(this->mLog.lines().empty());
}

TYPED_TEST(WatchControl, StopWhileIdleDoesNothing) {
  this->call("stopWatching");

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_TRUE(this->mMemory->getCalls().empty());
  EXPECT_TRUE(this->mLog.lines().empty());
}

TYPED_TEST(WatchControl, StopEndsTheCycles) {
  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));

  this->call("stopWatching");

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_EQ(KXMemoryWatcherForTest::mainThreadTaskId(*this->mWatcher), 0);
  EXPECT_EQ(KXMemoryWatcherForTest::cycleCount(*this->mWatcher), 1);
  std::size_t const reads = this->mMemory->getCalls("getListData").size();
  this->passPeriods(3);
  this->call("stopWatching");
  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), reads);
}

TYPED_TEST(WatchControl, StopDoesNotWaitForTheEndOfALongPeriod) {
  this->call("startWatching", 3'600'000);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));

  this->call("stopWatching");

  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), 1U);
}

TYPED_TEST(WatchControl, StopWaitsForTheCycleInProgress) {
  this->mMemory->block("getListData");
  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitUntilParked());

  Caller stop([this] { this->call("stopWatching"); });
  EXPECT_TRUE(stop.isParked());
  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  this->mMemory->release("getListData");
  stop.join();

  EXPECT_TRUE(stop.isDone());
}

TYPED_TEST(WatchControl, StartsAgainAfterAStop) {
  for (int round = 1; round <= 20; ++round) {
    std::size_t const reads = this->mMemory->getCalls("getListData").size();
    this->call("startWatching", 10);
    ASSERT_TRUE(this->mMemory->waitForCalls("getListData", static_cast<int>(reads) + 1));
    this->call("stopWatching");
  }
}

TYPED_TEST(WatchControl, StartIsIgnoredWhileTheModuleIsClosing) {
  this->mWatcher->markClosing();

  this->call("startWatching", 35);

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_EQ(KXMemoryWatcherForTest::periodMs(*this->mWatcher), 50);
  EXPECT_TRUE(this->mLog.lines().empty());
}

TYPED_TEST(WatchControl, StartAndStopSubscribeNothing) {
  this->mMemory->set("e", "Event", 1);
  this->add("e");
  this->mMemory->clearCalls();

  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));
  this->call("stopWatching");

  for (FakeMemory::Call const& call : this->mMemory->getCalls()) {
    EXPECT_EQ(call.method, "getListData");
  }
}

// A store that fails with anything but a KXError ends the loop, and nothing else.
TYPED_TEST(WatchControl, ForeignExceptionEndsTheLoopOnlyAndTheWatchCanBeStartedAgain) {
  this->mMemory->setHook("getListData", FakeMemory::throwingValue(5));
  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));

  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
  this->call("stopWatching");
  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), 1U);
  ASSERT_EQ(this->mLog.lines().size(), 1U);
  EXPECT_EQ(this->mLog.lines()[0].level, 3);

  this->mMemory->setHook("getListData", nullptr);
  this->call("startWatching", 10);
  EXPECT_TRUE(this->mMemory->waitForCalls("getListData", 2));
}

TYPED_TEST(WatchControl, StoreThatStopsTheWatchFromWithinTheCycleEndsTheLoop) {
  // The broker's reference outlives the call, so that the module does not die within its own loop.
  std::atomic<bool> hasStopped{false};
  this->mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) {
    try {
      this->call("stopWatching");
    } catch (...) {
      // Under cycle pacing the thread library refuses to join a thread with itself.
    }
    hasStopped = true;
  });
  this->call("startWatching", 10);
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!hasStopped && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  ASSERT_TRUE(hasStopped);

  this->destroyWatcher();

  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), 1U);
}

TYPED_TEST(WatchControl, MainThreadCalledByAClientLeavesWhenTheWatchStops) {
  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));

  Caller client([this] { this->call("_mainThread"); });
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 3));
  this->call("stopWatching");
  client.join();

  EXPECT_TRUE(client.isDone());
}

TYPED_TEST(WatchControl, StartWhileStartingChangesNothing) {
  bool hasStartedAgain = false;
  ka::log::addHandler("starter", [&](ka::log::Record const& record) {
    if (record.function != "setPeriodMs" || std::exchange(hasStartedAgain, true)) return;
    this->mWatcher->startWatching(35);
  });

  this->call("startWatching", 25);
  ka::log::removeHandler("starter");

  EXPECT_TRUE(hasStartedAgain);
  EXPECT_EQ(KXMemoryWatcherForTest::periodMs(*this->mWatcher), 20);
  EXPECT_EQ(this->mLog.lines(), (std::vector<LogLine>{corrected(20)}));
}

// Between the two flags the module is watching for its clients only.
TYPED_TEST(WatchControl, WhileOnlyStartingNothingIsCapturedOrSubscribed) {
  this->mMemory->set("data", "Data", 1);
  this->mMemory->set("event", "Event", 2);
  bool wasStarting = false;
  ka::log::addHandler("meanwhile", [&](ka::log::Record const& record) {
    if (record.function != "setPeriodMs") return;
    wasStarting = KXMemoryWatcherForTest::isStarting(*this->mWatcher);
    this->mWatcher->onEventNotify("raised", KXValue(3), KXValue(""));
    this->mWatcher->addListeners({"data", "event"});
  });
  this->mMemory->block("getListData");

  this->call("startWatching", 25);
  ka::log::removeHandler("meanwhile");

  EXPECT_TRUE(wasStarting);
  EXPECT_EQ(this->listeners(), (std::vector<std::string>{"data", "event"}));
  EXPECT_EQ(this->dataItems().at("data").toKXValue().getSize(), 0);
  EXPECT_EQ(this->eventItems().at("event").toKXValue().getSize(), 0);
  EXPECT_TRUE(this->mMemory->getCalls("getData").empty());
  EXPECT_TRUE(this->mMemory->getCalls("subscribeToEvent").empty());
  this->mMemory->release("getListData");
}

// The log is written while the start is in progress: it is watching already, and cannot be stopped.
TYPED_TEST(WatchControl, StopWhileOnlyStartingDoesNothing) {
  bool wasStarting = false;
  bool wasWatching = false;
  ka::log::addHandler("stopper", [&](ka::log::Record const& record) {
    if (record.function != "setPeriodMs") return;
    wasStarting = KXMemoryWatcherForTest::isStarting(*this->mWatcher);
    wasWatching = this->mWatcher->isWatching();
    this->mWatcher->stopWatching();
  });

  this->call("startWatching", 25);
  ka::log::removeHandler("stopper");

  EXPECT_TRUE(wasStarting);
  EXPECT_TRUE(wasWatching);
  EXPECT_TRUE(this->mMemory->waitForCalls("getListData", 1));
  EXPECT_TRUE(this->mWatcher->isWatching());
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

TEST_F(TimedControl, FirstDeadlineIsOnePeriodAfterTheStart) {
  mMemory->block("getListData");
  ptime const before = nowUtc();
  call("startWatching", 50000);
  ptime const after = nowUtc();
  ASSERT_TRUE(mMemory->waitUntilParked());

  EXPECT_GE(ForTest::nextWakeTime(*mWatcher), before + milliseconds(50000));
  EXPECT_LE(ForTest::nextWakeTime(*mWatcher), after + milliseconds(50000));
  mMemory->release("getListData");
}

TEST_F(TimedControl, FirstDeadlineGoesByTheCorrectedPeriod) {
  mMemory->block("getListData");
  ptime const before = nowUtc();

  call("startWatching", -100'000);

  EXPECT_GE(ForTest::nextWakeTime(*mWatcher), before + milliseconds(10));
  mMemory->release("getListData");
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

TEST_F(TimedControl, DeadlinesAdvanceByExactlyOnePeriod) {
  mMemory->block("getListData");
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitUntilParked());
  ptime const first = ForTest::nextWakeTime(*mWatcher);
  std::vector<ptime> deadlines;
  mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) {
    if (deadlines.size() < 10) deadlines.push_back(ForTest::nextWakeTime(*mWatcher));
  });

  mMemory->release("getListData");
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 12));
  call("stopWatching");

  // The blocked call passes its hook after the release, with the first deadline still pending.
  for (std::size_t i = 0; i < deadlines.size(); ++i) {
    EXPECT_EQ(deadlines[i], first + milliseconds(10 * static_cast<int>(i)));
  }
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
  // Raises one cycle and waits until the loop has done what it has to do for it.
  void cycleAndExpectReads(int cycles, int reads) {
    mVsm->cycle(cycles);
    ASSERT_TRUE(mMemory->waitForCalls("getListData", reads));
    EXPECT_EQ(mMemory->getCalls("getListData").size(), static_cast<std::size_t>(reads));
  }
};

TEST_F(CycleControl, GateOpensOnEveryFifthCycleAtFiftyMs) {
  call("startWatching", 50);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  cycleAndExpectReads(4, 1);
  cycleAndExpectReads(1, 2);
  cycleAndExpectReads(4, 2);
  cycleAndExpectReads(1, 3);
  cycleAndExpectReads(5, 4);
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
  call("startWatching", 20);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  std::int64_t const count = Allocations::count();

  for (int cycle = 0; cycle < 100; ++cycle) ForTest::onVsmUpdate(*mWatcher);

  EXPECT_EQ(Allocations::count(), count);
  EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(CycleControl, GateOpensOnEveryCycleAtTenMs) {
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));

  for (int reads = 2; reads <= 6; ++reads) cycleAndExpectReads(1, reads);
}

TEST_F(CycleControl, NewPeriodCountsFromTheNextCycleOn) {
  call("startWatching", 50);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  mVsm->cycle(3);

  call("setPeriodMs", 20);  // the fourth cycle is past the second already

  cycleAndExpectReads(1, 2);
  cycleAndExpectReads(1, 2);
  cycleAndExpectReads(1, 3);
}

TEST_F(CycleControl, OverduePeriodsCoalesceIntoOneCycle) {
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  mMemory->block("getListData");
  mVsm->cycle();
  ASSERT_TRUE(mMemory->waitUntilParked());

  mVsm->cycle(7);  // seven periods pass while the cycle lasts
  mMemory->release("getListData");
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 3));
  call("stopWatching");

  EXPECT_EQ(mMemory->getCalls("getListData").size(), 3U);
}

TEST_F(CycleControl, AfterAnOverrunTheRhythmOfTheGateGoesOn) {
  call("startWatching", 30);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  mMemory->block("getListData");
  mVsm->cycle(3);
  ASSERT_TRUE(mMemory->waitUntilParked());
  mVsm->cycle(7);  // gate opens at 3 and 6, one cycle of the next period has passed
  mMemory->release("getListData");
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 3));

  cycleAndExpectReads(1, 3);
  cycleAndExpectReads(1, 4);
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

// ---- start and stop from two threads

// Both have seen the module idle before either could start.
TYPED_TEST(WatchControl, OfTwoStartsThatWaitForAStopOneStarts) {
  this->call("startWatching", 10);
  this->mMemory->block("getListData");
  this->passPeriods(1);
  ASSERT_TRUE(this->mMemory->waitUntilParked());
  Caller stop([this] { this->call("stopWatching"); });
  ASSERT_TRUE(stop.isParked());
  Caller one([this] { this->call("startWatching", 3'600'005); });
  Caller other([this] { this->call("startWatching", 3'600'005); });
  ASSERT_TRUE(one.isParked());
  ASSERT_TRUE(other.isParked());

  this->mMemory->release("getListData");
  stop.join();
  one.join();
  other.join();

  EXPECT_EQ(this->mLog.lines(), (std::vector<LogLine>{corrected(3'600'000)}));
  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
}

template <class P>
class StressStartStop : public P {};
TYPED_TEST_SUITE(StressStartStop, Pacings);

TYPED_TEST(StressStartStop, NeverLeavesTwoLoopsOrNone) {
  auto const startStop = [this] {
    for (int i = 0; i < 500; ++i) {
      this->call("startWatching", 10);
      this->call("stopWatching");
    }
  };
  {
    Caller one(startStop);
    Caller other(startStop);
    while (!one.isDone() || !other.isDone()) this->passPeriods(1);
  }

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  // One loop: while one cycle is inside the store, no other begins.
  this->mMemory->block("getListData");
  std::size_t const reads = this->mMemory->getCalls("getListData").size();
  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitUntilParked());
  this->passPeriods(5);
  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), reads + 1);
  this->mMemory->release("getListData");
  this->call("stopWatching");
}

}  // namespace
}  // namespace KX
