// Start and stop, the same under both pacings, driven by hand: the store is blocked or the cycle
// raised.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

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
using Pacings = ::testing::Types<TimedPacing, CyclePacing>;
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
  int const loop = KXMemoryWatcherForTest::mainThreadTaskId(*this->mWatcher);

  this->call("stopWatching");

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_FALSE(this->client()->isRunning(loop));
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

// ---- start and stop from two threads

TYPED_TEST(WatchControl, StartWhileAStopWaitsForTheLoopDoesNothing) {
  this->call("startWatching", 10);
  this->mMemory->block("getListData");
  this->passPeriods(1);
  ASSERT_TRUE(this->mMemory->waitUntilParked());
  Caller stop([this] { this->call("stopWatching"); });
  ASSERT_TRUE(stop.isParked());

  this->call("startWatching", 25);
  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));

  this->mMemory->release("getListData");
  stop.join();
  EXPECT_TRUE(this->mLog.lines().empty());
  this->call("startWatching", 10);
  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
}

// The stop waits for the cycle, so the cycle may not wait for the stop.
TYPED_TEST(WatchControl, StartFromWithinTheCycleThatAStopWaitsForDoesNothing) {
  std::unique_ptr<Caller> stop;
  std::atomic<bool> hasCalled{false};
  this->mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) {
    if (stop != nullptr) return;
    stop = std::make_unique<Caller>([this] { this->call("stopWatching"); });
    EXPECT_TRUE(stop->isParked());
    this->mWatcher->startWatching(10);
    hasCalled = true;
  });

  this->call("startWatching", 10);
  ASSERT_TRUE(this->mMemory->waitForCalls("getListData", 1));
  while (!hasCalled || !stop->isDone()) std::this_thread::yield();

  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  EXPECT_EQ(this->mMemory->getCalls("getListData").size(), 1U);
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
