// How a watch and its module end: at once whatever the period, on whatever thread, and clean. The
// clock stands still in all of these: who waits for time waits for ever.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/simulatedtime.hpp>
#include <tests/support/parkinggate.hpp>

namespace KX {
namespace {

constexpr int kHourMs = 3'600'000;

template <class Condition>
bool becomesTrue(Condition condition) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// The module, with its ends counted.
class CountedWatcher : public KXMemoryWatcher {
 public:
  CountedWatcher(boost::shared_ptr<KXBroker> const& broker, KXClock& clock,
                 std::shared_ptr<std::atomic<int>> ends)
      : KXMemoryWatcher(broker, clock), mEnds(std::move(ends)) {}
  ~CountedWatcher() override { ++*mEnds; }

 private:
  std::shared_ptr<std::atomic<int>> const mEnds;
};

template <class P>
class Ends : public P {
 protected:
  Ends() {
    this->mMemory->set("event", "Event", KXValue(1));
    renew();
  }
  /// A module whose end is counted; the last one ends.
  void renew() {
    this->destroyWatcher();
    this->mWatcher = KXModule::createModule<CountedWatcher>(this->mBroker, this->mClock, mEnds);
    *mEnds = 0;
  }
  void startAnHour() {
    ASSERT_TRUE(this->startAndWait(kHourMs));
    this->add("event");
  }
  /// Drops every reference that the test and the broker have.
  void dropAll() {
    this->mWatcher.reset();
    this->mBroker->removeModule("KXMemoryWatcher");
  }
  /// The module has ended once, has ended its subscription, and the host takes another one.
  void expectOneEnd() {
    ASSERT_TRUE(becomesTrue([this] { return *mEnds == 1; }));
    ASSERT_TRUE(this->mMemory->waitForCalls("unsubscribeToEvent", 1));
    // The derived part's end comes first; the rest has followed when nobody is subscribed.
    std::size_t const reads = this->reads().size();
    ASSERT_TRUE(becomesTrue([this] { return !this->mBroker->isModulePresent("KXMemoryWatcher"); }));
    this->inCycle(nullptr);
    this->mWatcher = KXModule::createModule<CountedWatcher>(this->mBroker, this->mClock, mEnds);
    EXPECT_EQ(this->reads().size(), reads);
    ASSERT_TRUE(this->startAndWait(50));
    ASSERT_TRUE(this->passPeriods(2, 50));
    EXPECT_EQ(this->reads(), this->multiples(50, 3));
    EXPECT_EQ(*mEnds, 1);
  }

  std::shared_ptr<std::atomic<int>> const mEnds = std::make_shared<std::atomic<int>>(0);
};
TYPED_TEST_SUITE(Ends, SimulatedPacings);

// ---- the watch's

TYPED_TEST(Ends, StopDoesNotWaitForAnHour) {
  this->startAnHour();

  this->call("stopWatching");

  EXPECT_EQ(this->reads().size(), 1U);
}

TYPED_TEST(Ends, StopDoesNotWaitForAClientsOwnMainThread) {
  this->startAnHour();
  Caller own([this] { this->call("_mainThread"); });
  int const parallel = this->client()->pCall("_mainThread");
  EXPECT_TRUE(own.isParked());

  this->call("stopWatching");

  own.join();
  EXPECT_TRUE(this->mBroker->waitForTask(parallel, 30'000));
}

// A module that is taken out of service while somebody still holds it.
TYPED_TEST(Ends, RemovalEndsAClientsOwnMainThreadThatStillHoldsTheModule) {
  this->startAnHour();
  auto const held = this->client();
  Caller own([&] { held->template call<void>("_mainThread"); });
  ASSERT_TRUE(own.isParked());

  this->mBroker->removeModule("KXMemoryWatcher");

  own.join();
  EXPECT_EQ(*this->mEnds, 0);
}

TYPED_TEST(Ends, MainThreadOfAnIdleModuleReturnsAtOnce) {
  this->call("_mainThread");
  EXPECT_TRUE(this->mBroker->waitForTask(this->client()->pCall("_mainThread"), 30'000));

  EXPECT_TRUE(this->reads().empty());
}

// ---- the module's

TYPED_TEST(Ends, RemovalOfAnIdleModuleIsItsEnd) {
  this->dropAll();

  EXPECT_EQ(*this->mEnds, 1);
}

TYPED_TEST(Ends, RemovalDoesNotWaitForAnHour) {
  this->startAnHour();

  this->dropAll();

  EXPECT_EQ(*this->mEnds, 1);
  this->expectOneEnd();
}

TYPED_TEST(Ends, RemovalDoesNotWaitForClientsParallelCalls) {
  this->startAnHour();
  int const first = this->client()->pCall("_mainThread");
  int const second = this->client()->pCall("_mainThread");

  this->dropAll();

  EXPECT_TRUE(this->mBroker->waitForTask(first, 30'000));
  EXPECT_TRUE(this->mBroker->waitForTask(second, 30'000));
  // A call that was just about to begin may have had the last reference.
  EXPECT_TRUE(becomesTrue([this] { return *this->mEnds == 1; }));
}

TYPED_TEST(Ends, ModuleThatAClientHoldsEndsWithTheProxy) {
  this->startAnHour();
  auto held = this->client();
  this->dropAll();
  EXPECT_EQ(*this->mEnds, 0);

  held->template call<void>("startWatching", 10);  // out of service: it changes nothing
  held.reset();

  EXPECT_EQ(*this->mEnds, 1);
}

TYPED_TEST(Ends, ShutdownDoesNotWaitForAnHour) {
  this->startAnHour();
  this->mWatcher.reset();

  this->mBroker->shutdown();

  EXPECT_EQ(*this->mEnds, 1);
}

TYPED_TEST(Ends, ShutdownWhileAClientHoldsAProxyReturns) {
  this->startAnHour();
  this->mWatcher.reset();
  auto held = this->client();
  Caller own([&] { held->template call<void>("_mainThread"); });

  this->mBroker->shutdown();

  own.join();
  held.reset();
  EXPECT_EQ(*this->mEnds, 1);
}

TYPED_TEST(Ends, LastReferenceMayFallInTheModulesOwnCycle) {
  for (int const cycle : {1, 3}) {
    SCOPED_TRACE(cycle);
    *this->mEnds = 0;
    this->mMemory->clearCalls();
    this->inCycle([this, cycle](int number) {
      if (number == cycle) this->dropAll();
    });
    this->add("event");
    this->start(10);
    ASSERT_TRUE(this->waitForReads(1));
    for (int number = 2; number <= cycle; ++number) {
      ASSERT_TRUE(this->waitForLoop());
      this->mClock.jumpByMs(10);
      if (this->mVsm != nullptr) this->mVsm->cycle();
      ASSERT_TRUE(this->waitForReads(static_cast<std::size_t>(number)));
    }

    this->expectOneEnd();
    EXPECT_TRUE(this->mLog.lines().empty());
    this->call("stopWatching");
  }
}

// The store asks for the type of a key, and the module goes meanwhile, while clients' parallel
// calls wait for the loop.
// The stop waits for the loop, so the loop's way out may not wait for the stop.
TYPED_TEST(Ends, LastReferenceMayFallInACycleThatAParallelStopWaitsFor) {
  this->inCycle([this](int cycle) {
    if (cycle > 1) return;
    {
      auto const client = this->client();
      client->pCall("stopWatching");
    }
    ASSERT_TRUE(becomesTrue([this] { return !this->mWatcher->isWatching(); }));
    this->dropAll();
  });
  this->add("event");
  this->start(kHourMs);

  this->expectOneEnd();
}

// The loop that was started waits for the one that started it, which ends the module.
TYPED_TEST(Ends, LastReferenceMayFallInACycleThatHasStartedTheWatchAnew) {
  this->inCycle([this](int cycle) {
    if (cycle > 1) return;
    this->mWatcher->stopWatching();
    this->mWatcher->startWatching(kHourMs);
    this->dropAll();
  });
  this->add("event");
  this->start(kHourMs);

  this->expectOneEnd();
}

TYPED_TEST(Ends, LastReferenceMayFallWhereTheCycleResolvesANature) {
  this->add("unknown");
  this->add("event");
  int const parallel = this->client()->pCall("_mainThread");
  EXPECT_TRUE(this->mBroker->waitForTask(parallel, 30'000));
  std::atomic<bool> isFirst{true};
  this->mMemory->setHook("getType", [&](FakeMemory::Call const&, KXValue& result) {
    result = KXValue("Event");
    if (isFirst.exchange(false)) this->dropAll();
  });
  this->start(kHourMs);
  ASSERT_TRUE(becomesTrue([this] { return *this->mEnds == 1; }));
  this->mMemory->setHook("getType", {});

  // What the cycle promoted before the end is let go with the rest.
  ASSERT_TRUE(this->mMemory->waitForCalls("unsubscribeToEvent", 2));
}

TYPED_TEST(Ends, LastReferenceMayFallInTheModulesOwnEventCallback) {
  this->startAnHour();
  std::atomic<bool> isFirst{true};
  this->mClock.onWallTime([&] {
    if (isFirst.exchange(false)) this->dropAll();
  });
  Caller store([this] { this->raise("event", KXValue(2)); });
  store.join();
  this->mClock.onWallTime(nullptr);

  EXPECT_FALSE(isFirst);
  this->expectOneEnd();
}

TYPED_TEST(Ends, DestructionWaitsForTheCycleThatStoppedItsOwnWatch) {
  testing::ParkingGate gate;
  this->inCycle([&](int) {
    this->mWatcher->stopWatching();
    gate.pass();
  });
  this->start(kHourMs);
  ASSERT_TRUE(gate.waitUntilParked(1));

  Caller destruction([this] { this->destroyWatcher(); });
  EXPECT_TRUE(destruction.isParked());
  EXPECT_EQ(*this->mEnds, this->mVsm == nullptr ? 0 : 1);  // or at its base's end
  gate.open();
  destruction.join();

  EXPECT_EQ(*this->mEnds, 1);
  EXPECT_EQ(this->reads().size(), 1U);
}

// ---- stops and starts from within the cycle

TYPED_TEST(Ends, StopStartStopFromWithinACycleWaitsForNothing) {
  std::atomic<bool> isDone{false};
  this->inCycle([&](int cycle) {
    if (cycle > 1) return;
    this->mWatcher->stopWatching();
    this->mWatcher->startWatching(kHourMs);
    this->mWatcher->stopWatching();
    this->mWatcher->stopWatching();
    isDone = true;
  });
  this->start(kHourMs);

  ASSERT_TRUE(becomesTrue([&] { return isDone.load(); }));
  EXPECT_FALSE(this->mWatcher->isWatching());
  this->call("startWatching", 50);
  ASSERT_TRUE(this->waitForReads(2));
  this->call("stopWatching");
}

TYPED_TEST(Ends, MainThreadFromWithinACycleReturnsAtOnce) {
  this->inCycle([this](int) { this->call("_mainThread"); });
  this->start(kHourMs);

  ASSERT_TRUE(this->waitForReads(1));
  this->call("stopWatching");

  EXPECT_EQ(this->reads().size(), 1U);
}

// The loop that stopped itself and the one that follows it never run a cycle at the same time, and
// only the second goes on.
TYPED_TEST(Ends, StartAfterAStopFromWithinTheCycleLeavesOneLoop) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::atomic<int> rounds{0};
  this->inCycle([&](int) {
    int const now = ++inside;
    if (now > most) most = now;
    if (rounds < 20) {
      ++rounds;
      this->mWatcher->stopWatching();
      this->mWatcher->startWatching(50);
      // Room for the other loop to show itself.
      for (int i = 0; i < 10; ++i) std::this_thread::yield();
    }
    --inside;
  });
  this->start(50);
  // Each restarted watch runs its first cycle at once, so the rounds follow each other.
  ASSERT_TRUE(this->waitForReads(21));
  ASSERT_TRUE(this->waitForLoop());
  EXPECT_EQ(most, 1);

  std::size_t const before = this->reads().size();
  ASSERT_TRUE(this->passPeriods(5, 50));
  EXPECT_EQ(this->reads().size(), before + 5);
}

TYPED_TEST(Ends, StartsAndStopsFromWithinTheCycleWhileAClientStopsLeaveOneLoopOrNone) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::atomic<bool> isOver{false};
  this->inCycle([&](int cycle) {
    int const now = ++inside;
    if (now > most) most = now;
    if (cycle % 3 != 0 && !isOver) {
      this->mWatcher->stopWatching();
      this->mWatcher->startWatching(50);
    }
    --inside;
  });
  for (int i = 0; i < 200; ++i) {
    this->call("startWatching", 50);
    // At least one cycle; else the stop may come before any.
    if (i == 0) {
      ASSERT_TRUE(this->waitForReads(1));
    }
    this->call("stopWatching");
  }
  isOver = true;
  ASSERT_TRUE(becomesTrue([&] { return inside == 0; }));
  this->inCycle(nullptr);
  this->call("stopWatching");
  EXPECT_EQ(most, 1);

  ASSERT_TRUE(this->startAndWait(50));
  ASSERT_TRUE(this->passPeriods(5, 50));
  EXPECT_EQ(this->reads(), this->multiples(50, 6));
}

// ---- what is no KXError

TYPED_TEST(Ends, StandstillIsSaidOnceAndEndedByStopAndStart) {
  this->inCycle([](int cycle) {
    if (cycle == 2) throw std::runtime_error("broken wire");
  });
  ASSERT_TRUE(this->startAndWait(50));
  if (this->mVsm == nullptr) {
    this->mClock.jumpByMs(50);
  } else {
    this->mVsm->cycle(5);
  }
  ASSERT_TRUE(becomesTrue([this] { return !this->mLog.lines().empty(); }));
  if (this->mVsm != nullptr) this->mVsm->cycle(20);

  EXPECT_EQ(this->mLog.lines(),
            (std::vector<LogLine>{{3, "KXMemoryWatcher", "",
                                   this->mVsm == nullptr ? "xMainThread" : "xUpdateDataLoop", 0,
                                   "the watch stands still: broken wire; only stopWatching and "
                                   "then startWatching set it going again"}}));
  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
  EXPECT_EQ(this->reads().size(), 2U);

  this->inCycle(nullptr);
  this->call("stopWatching");
  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  ASSERT_TRUE(this->startAndWait(50));
  ASSERT_TRUE(this->passPeriods(3, 50));
  EXPECT_EQ(this->reads(), this->multiples(50, 4));
  EXPECT_EQ(this->mLog.lines().size(), 1U);
}

// ---- a log handler that does everything

TYPED_TEST(Ends, LogHandlerMayCallEveryMethod) {
  thread_local bool isInside = false;
  std::atomic<int> lines{0};
  ka::log::addHandler("caller", [&](ka::log::Record const& record) {
    if (record.category == "test" || std::exchange(isInside, true)) return;
    ++lines;
    KXMemoryWatcher& watcher = *this->mWatcher;
    watcher.addListener("unknown");
    watcher.addListeners({"event", "data"});
    watcher.listeners();
    watcher.getData();
    watcher.onEventNotify("event", KXValue(1), KXValue());
    watcher.clearBuffer();
    watcher.removeListener("unknown");
    watcher.removeListeners({"event", "data"});
    watcher.removeAllListeners();
    watcher.isWatching();
    watcher.setPeriodMs(25);
    watcher.stopWatching();
    watcher.startWatching(25);
    isInside = false;
  });
  this->mMemory->set("data", "Data", KXValue(1));
  this->mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("no subscription"));
  this->inCycle([](int cycle) {
    if (cycle == 2) throw KXError("KXMemory", "getListData", "no answer", "", 0);
  });

  this->add("event");
  this->add("missing");   // a warning without any lock
  this->remove("event");  // none, for the handler has removed it
  this->call("stopWatching");
  this->add("event");
  this->call("removeAllListeners");  // a warning under the event lock
  this->call("setPeriodMs", 15);     // one on its own
  this->call("stopWatching");
  this->start(10);
  ASSERT_TRUE(this->waitForReads(1));
  ASSERT_TRUE(this->waitForLoop());
  this->mClock.stepWallByMs(60'000);  // one in the loop
  this->mClock.jumpByMs(20);
  if (this->mVsm != nullptr) this->mVsm->cycle(5);
  ASSERT_TRUE(this->waitForReads(2));  // and one in a cycle
  ASSERT_TRUE(this->waitForLoop());
  this->call("stopWatching");
  ka::log::removeHandler("caller");

  EXPECT_GE(lines, 4);
}

// ---- the hardware cycle's end before the watch's

class EndsOfVsm : public SimulatedCycle {};

TEST_F(EndsOfVsm, WatchIsStoppedAfterItsCycleHasGone) {
  ASSERT_TRUE(startAndWait(kHourMs));
  mBroker->removeModule("VSM");
  mVsm.reset();

  call("stopWatching");

  EXPECT_FALSE(client()->call<bool>("isWatching"));
  EXPECT_EQ(reads().size(), 1U);
}

TEST_F(EndsOfVsm, ModuleEndsAfterItsCycleHasGone) {
  ASSERT_TRUE(startAndWait(kHourMs));
  mBroker->removeModule("VSM");
  mVsm.reset();

  destroyWatcher();

  EXPECT_FALSE(mBroker->isModulePresent("KXMemoryWatcher"));
}

TEST_F(EndsOfVsm, LastReferenceMayFallOnTheHardwareCyclesThread) {
  ASSERT_TRUE(startAndWait(10));
  mVsm->cycleSignal().connect([this] { destroyWatcher(); }, boost::signals2::at_front);

  mVsm->cycle();

  EXPECT_FALSE(mBroker->isModulePresent("KXMemoryWatcher"));
}

}  // namespace
}  // namespace KX
