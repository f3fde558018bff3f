// In which order construction, start and stop do what they do, and what they let through.

#include <atomic>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread_only.hpp>

#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

// ---- construction

/// Keeps where the module stands that is being made.
class LocatedWatcher : public KXMemoryWatcher {
 public:
  using KXMemoryWatcher::KXMemoryWatcher;
  static void* operator new(std::size_t size) { return sPlace = ::operator new(size); }
  static void operator delete(void* memory) { ::operator delete(memory); }
  static KXMemoryWatcher& current() {
    return *static_cast<KXMemoryWatcher*>(static_cast<LocatedWatcher*>(sPlace));
  }

 private:
  static void* sPlace;
};
void* LocatedWatcher::sPlace = nullptr;

class ConstructionOrder : public WatcherTest {
 protected:
  ConstructionOrder() { destroyWatcher(); }
};

TEST_F(ConstructionOrder, AsksForTheHardwareCycleWhenTheMethodsAreRegistered) {
  std::size_t methods = 0;
  std::string description;
  mLauncher->setHook([&](std::string const&) {
    methods = LocatedWatcher::current().getMethods().size();
    description = LocatedWatcher::current().getModuleDescription();
    return false;
  });

  KXModule::createModule<LocatedWatcher>(mBroker);

  EXPECT_EQ(methods, 14U);
  EXPECT_FALSE(description.empty());
}

TEST_F(ConstructionOrder, LetsGoOfTheLauncherAtOnce) {
  long const holders = mLauncher.use_count();

  mWatcher = KXModule::createModule<KXMemoryWatcher>(mBroker);

  EXPECT_EQ(mLauncher.use_count(), holders);
}

// ---- closing

class ClosingOrder : public WatcherTest {};

TEST_F(ClosingOrder, ModuleThatClosesBeforeItsFirstCycleReadsNothing) {
  watch();
  mWatcher->markClosing();

  call("_mainThread");

  EXPECT_TRUE(mMemory->getCalls("getListData").empty());
  watch(false);
}

TEST_F(ClosingOrder, ModuleThatClosesWithinACycleRunsNoOther) {
  mMemory->setHook("getListData",
                   [this](FakeMemory::Call const&, KXValue&) { mWatcher->markClosing(); });
  call("startWatching", 3'600'000);
  EXPECT_TRUE(client()->wait(ForTest::mainThreadTaskId(*mWatcher), 30'000));

  EXPECT_EQ(mMemory->getCalls("getListData").size(), 1U);
}

// ---- stop

class StopOrder : public CycleWatcherTest {
 protected:
  void startAndCycle(int cycles) {
    call("startWatching", 50);
    ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
    mVsm->cycle(cycles);
  }
};

TEST_F(StopOrder, GateIsOpenedAndSlotDisconnectedBeforeTheCallbackIsWaitedFor) {
  startAndCycle(3);
  auto const callback = ForTest::vsmGuard(*mWatcher);
  ASSERT_TRUE(callback->enter());
  Caller stop([this] { call("stopWatching"); });
  ASSERT_TRUE(stop.isParked());

  Caller pass([this] { ForTest::cycleGate(*mWatcher).lock(); });
  EXPECT_FALSE(pass.isParked());
  ForTest::cycleGate(*mWatcher).unlock();
  EXPECT_EQ(mVsm->getSlotCount(), 0);
  // The callback may still count, so its count is reset when it is over.
  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 4);

  callback->leave();
  stop.join();
  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 1);
}

// That is what a stop relies on when it has waited for the callback.
TEST_F(StopOrder, CallbackThatComesAfterTheStopHasWaitedDoesNothing) {
  startAndCycle(2);
  ForTest::vsmGuard(*mWatcher)->close();

  mVsm->cycle(10);

  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 3);
}

TEST_F(StopOrder, CountIsResetBeforeTheLoopIsWaitedFor) {
  mMemory->block("getListData");
  call("startWatching", 50);
  ASSERT_TRUE(mMemory->waitUntilParked());
  mVsm->cycle(3);
  Caller stop([this] { call("stopWatching"); });
  ASSERT_TRUE(stop.isParked());

  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 1);
  EXPECT_EQ(mVsm->getSlotCount(), 0);
  EXPECT_FALSE(mWatcher->isWatching());

  mMemory->release("getListData");
}

// What comes out of waiting for the loop is the caller's.
TEST_F(StopOrder, FailureToWaitForTheLoopReachesTheCaller) {
  mMemory->block("getListData");
  call("startWatching", 50);
  ASSERT_TRUE(mMemory->waitUntilParked());
  std::atomic<bool> isInterrupted{false};
  boost::thread stop([&] {
    try {
      mWatcher->stopWatching();
    } catch (boost::thread_interrupted const&) {
      isInterrupted = true;
    }
  });
  while (mVsm->getSlotCount() != 0) std::this_thread::yield();

  stop.interrupt();
  stop.join();

  EXPECT_TRUE(isInterrupted);
  EXPECT_FALSE(mWatcher->isWatching());
  mMemory->release("getListData");
  // The loop that nobody waited for is over before the next one's first cycle.
  std::size_t const reads = mMemory->getCalls("getListData").size();
  call("startWatching", 10);
  EXPECT_TRUE(mMemory->waitForCalls("getListData", static_cast<int>(reads) + 1));
}

// The task's state is asked of the store's proxy: a store in another process knows no such task,
// and the stop does not wait.
class StopOfTheTask : public WatcherTest {};

TEST_F(StopOfTheTask, IsAskedOfTheStoresProxy) {
  auto const elsewhere = KXBroker::createBroker("elsewhere");
  auto const store = KXModule::createModule<FakeMemory>(elsewhere);
  ForTest::setStore(*mWatcher, boost::shared_ptr<KXMemoryProxy>(new KXMemoryProxy(elsewhere)));
  store->block("getListData");
  call("startWatching", 10);
  ASSERT_TRUE(store->waitUntilParked());
  int const task = ForTest::mainThreadTaskId(*mWatcher);

  Caller stop([this] { call("stopWatching"); });
  EXPECT_FALSE(stop.isParked());
  EXPECT_TRUE(client()->isRunning(task));

  store->release("getListData");
  EXPECT_TRUE(client()->wait(task, 30'000));
  destroyWatcher();
  elsewhere->shutdown();
}

// ---- event capture

// Memory that runs out: whoever raised the event is told.
TEST_F(ClosingOrder, CallbackLetsAFailureOut) {
  watch();
  int failures = 0;
  bool hasFinished = false;
  for (int passing = 0; !hasFinished; ++passing) {
    ASSERT_LT(passing, 1000);
    Allocations::failAfter(passing);
    try {
      mWatcher->onEventNotify("event", KXValue(1), KXValue());
      hasFinished = true;
    } catch (std::bad_alloc const&) {
      ++failures;
    }
    Allocations::leaveAlone();
  }

  EXPECT_GE(failures, 1);
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 1);
  EXPECT_TRUE(mLog.lines().empty());
}

}  // namespace
}  // namespace KX
