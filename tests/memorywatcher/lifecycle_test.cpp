// From the entry points to the last step of the tear-down.

#include <dlfcn.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/rttools/kxmodulelibrary.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/childprocess.hpp>

namespace KX {
namespace {

class Lifecycle : public WatcherTest {};
class CycleLifecycle : public CycleWatcherTest {};

TEST_F(Lifecycle, FreshModuleIsIdleWithDefaults) {
  EXPECT_FALSE(client()->call<bool>("isWatching"));
  EXPECT_EQ(ForTest::periodMs(*mWatcher), 50);
  EXPECT_EQ(ForTest::cyclesPerPeriod(*mWatcher), 0);
  EXPECT_EQ(ForTest::cycleCount(*mWatcher), 1);
  EXPECT_EQ(ForTest::mainThreadTaskId(*mWatcher), 0);
  EXPECT_FALSE(ForTest::isStarting(*mWatcher));
  EXPECT_TRUE(ForTest::nextWakeTime(*mWatcher).is_not_a_date_time());
  EXPECT_EQ(listeners(), Names{});
  EXPECT_EQ(mWatcher->getName(), "KXMemoryWatcher");
}

TEST_F(Lifecycle, WithoutVsmPacesByTimedSleep) {
  EXPECT_EQ(mLauncher->asked(), (Names{"VSM"}));
  EXPECT_TRUE(ForTest::usesTimedSleep(*mWatcher));
}

TEST_F(CycleLifecycle, WithVsmPacesByItsCycle) {
  EXPECT_EQ(mLauncher->asked(), (Names{"VSM"}));
  EXPECT_FALSE(ForTest::usesTimedSleep(*mWatcher));
}

TEST_F(Lifecycle, PacingIsNeverChosenAgain) {
  KXModule::createModule<FakeVsm>(mBroker);
  call("startWatching", 10);
  call("stopWatching");
  call("startWatching", 10);
  call("stopWatching");

  EXPECT_TRUE(ForTest::usesTimedSleep(*mWatcher));
  EXPECT_EQ(mLauncher->asked(), (Names{"VSM"}));
}

TEST_F(Lifecycle, OwnsNoSlotsWhileIdle) {
  EXPECT_EQ(mMemory->getCalls().size(), 0U);
}

// The launcher's failure is the construction's failure.
TEST(Construction, FailsWithTheLaunchersError) {
  auto const broker = KXBroker::createBroker("test");
  auto const launcher = KXModule::createModule<FakeLauncher>(broker);
  launcher->setHook(
      [](std::string const&) -> bool { throw KXError("KXLauncher", "", "no answer", "", 0); });

  try {
    KXModule::createModule<KXMemoryWatcher>(broker);
    FAIL() << "the launcher's error was lost";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "no answer");
  }

  EXPECT_FALSE(broker->isModulePresent("KXMemoryWatcher"));
  launcher->setHook(nullptr);
  EXPECT_NO_THROW(KXModule::createModule<KXMemoryWatcher>(broker));
}

TEST(Construction, FailsWithoutALauncher) {
  auto const broker = KXBroker::createBroker("test");

  EXPECT_THROW(KXModule::createModule<KXMemoryWatcher>(broker), KXError);
  EXPECT_FALSE(broker->isModulePresent("KXMemoryWatcher"));
}

// The store sees the loop's last read before the first subscription is ended.
TEST_F(Lifecycle, DestructionStopsBeforeItRemovesListeners) {
  mMemory->set("data", "Data", 1);
  mMemory->set("event", "Event", 2);
  mMemory->set("micro", "MicroEvent", 3);
  call("startWatching", 10);
  call("addListeners", Names{"data", "event", "micro"});
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 3));

  destroyWatcher();

  Calls const calls = mMemory->getCalls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls[calls.size() - 2],
            (FakeMemory::Call{"unsubscribeToEvent", {"event", watcherName()}}));
  EXPECT_EQ(calls[calls.size() - 1],
            (FakeMemory::Call{"unsubscribeToMicroEvent", {"micro", watcherName()}}));
}

// The loop ends first, then the data buffer is cleared, then the event buffer, then the keys go.
TEST_F(Lifecycle, DestructionStopsBeforeItClears) {
  mMemory->set("data", "Data", 1);
  call("addListener", std::string("data"));
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 2));
  mMemory->block("getListData");
  ASSERT_TRUE(mMemory->waitUntilParked());
  KXMemoryWatcher& watcher = *mWatcher;
  Caller destruction([this] { destroyWatcher(); });
  ASSERT_TRUE(destruction.isParked());

  EXPECT_GT(ForTest::dataItems(watcher).at("data").toKXValue().getSize(), 0);

  mMemory->release("getListData");
}

TEST_F(Lifecycle, DestructionClearsTheBuffersInOrderBeforeTheKeysGo) {
  mMemory->set("data", "Data", 1);
  mMemory->set("event", "Event", 2);
  watch();
  call("addListeners", Names{"data", "event"});  // a first sample each
  watch(false);
  KXMemoryWatcher& watcher = *mWatcher;
  boost::shared_ptr<KXMutex> const dataLock = dataMutex();
  boost::shared_ptr<KXMutex> const eventLock = eventMutex();
  int eventSamples = -1;
  mMemory->setHook("unsubscribeToEvent", [&](FakeMemory::Call const&, KXValue&) {
    eventSamples = ForTest::eventItems(watcher).at("event").toKXValue().getSize();
  });
  eventLock->lock();
  dataLock->lock();
  Caller destruction([this] { destroyWatcher(); });

  EXPECT_TRUE(destruction.isParked());  // at the data buffer
  EXPECT_EQ(ForTest::dataItems(watcher).at("data").toKXValue().getSize(), 1);
  dataLock->unlock();
  EXPECT_TRUE(destruction.isParked());  // at the event buffer
  EXPECT_EQ(ForTest::dataItems(watcher).at("data").toKXValue().getSize(), 0);
  EXPECT_EQ(ForTest::eventItems(watcher).at("event").toKXValue().getSize(), 1);
  eventLock->unlock();
  destruction.join();

  EXPECT_EQ(eventSamples, 0);
}

TEST_F(CycleLifecycle, DestructionOfAWatchingModuleEndsItsThreadAndItsSlot) {
  mMemory->set("data", "Data", 1);
  call("addListener", std::string("data"));
  call("startWatching", 10);
  mVsm->cycle(3);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  EXPECT_EQ(mVsm->getSlotCount(), 1);

  destroyWatcher();

  EXPECT_EQ(mVsm->getSlotCount(), 0);
  std::size_t const reads = mMemory->getCalls("getListData").size();
  mVsm->cycle(10);
  EXPECT_EQ(mMemory->getCalls("getListData").size(), reads);
}

// The destructor waits for the cycle that is inside the store.
TEST_F(Lifecycle, DestructionWaitsForTheCycleInProgress) {
  mMemory->block("getListData");
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitUntilParked());

  Caller destruction([this] { destroyWatcher(); });
  EXPECT_TRUE(destruction.isParked());
  mMemory->release("getListData");
  destruction.join();

  EXPECT_TRUE(destruction.isDone());
}

// The callback may be just running when the module goes: disconnecting does not wait for it. For
// the sanitizers, which see a callback that uses a module that is gone.
class StressLifecycle : public CycleWatcherTest {};

TEST_F(StressLifecycle, NoCallbackOutlivesItsModule) {
  constexpr int kModules = 500;
  std::atomic<bool> isOver{false};
  Caller hardware([&] {
    while (!isOver) mVsm->cycle();
  });

  int ended = 0;
  for (int i = 0; i < kModules; ++i) {
    // A long period: the callback counts, and opens the gate rarely.
    call("startWatching", 10'000);
    destroyWatcher();
    ended += mVsm->getSlotCount() == 0 ? 1 : 0;
    mWatcher = KXModule::createModule<KXMemoryWatcher>(mBroker);
  }
  isOver = true;

  EXPECT_EQ(ended, kModules);
}

class FailingStore : public WatcherTest {
 protected:
  // Every call of the store fails while a watching module with all kinds of keys is destroyed.
  void destroyWhile(FakeMemory::Hook const& failing) {
    mMemory->set("data", "Data", 1);
    mMemory->set("event", "Event", 2);
    mMemory->set("micro", "MicroEvent", 3);
    call("startWatching", 10);
    call("addListeners", Names{"data", "event", "micro", "unknown"});
    ASSERT_TRUE(mMemory->waitForCalls("getListData", 2));
    // The read first: a failure of another type than KXError ends the loop.
    std::size_t const reads = mMemory->getCalls("getListData").size();
    mMemory->setHook("getListData", failing);
    ASSERT_TRUE(mMemory->waitForCalls("getListData", static_cast<int>(reads) + 1));
    for (char const* method : {"getData", "getType", "subscribeToEvent", "subscribeToMicroEvent",
                               "unsubscribeToEvent", "unsubscribeToMicroEvent"}) {
      mMemory->setHook(method, failing);
    }

    destroyWatcher();

    EXPECT_FALSE(mBroker->isModulePresent("KXMemoryWatcher"));
  }
};

TEST_F(FailingStore, KxErrorDoesNotKeepTheModuleFromGoing) {
  destroyWhile(FakeMemory::throwing("broken"));
}
TEST_F(FailingStore, StandardExceptionDoesNotKeepTheModuleFromGoing) {
  destroyWhile(FakeMemory::throwingValue(std::runtime_error("broken")));
}
TEST_F(FailingStore, ForeignExceptionDoesNotKeepTheModuleFromGoing) {
  destroyWhile(FakeMemory::throwingValue(5));
}
TEST_F(FailingStore, SilentErrorDoesNotKeepTheModuleFromGoing) {
  destroyWhile(FakeMemory::throwingValue(SilentError()));
}

// ---- the library's entry points

class EntryPoints : public ::testing::Test {
 protected:
  using Create = int (*)(boost::shared_ptr<KXBroker>);
  using Close = int (*)();

  EntryPoints() {
    mLibrary = dlopen(KX_LIB_DIR "/libmemorywatcher.so", RTLD_NOW | RTLD_LOCAL);
    if (mLibrary == nullptr) throw std::runtime_error(dlerror());
    mCreate = reinterpret_cast<Create>(dlsym(mLibrary, "_createModule"));
    mClose = reinterpret_cast<Close>(dlsym(mLibrary, "_closeModule"));
  }
  ~EntryPoints() override { mBroker->shutdown(); }

  void* mLibrary = nullptr;  // stays loaded
  Create mCreate = nullptr;
  Close mClose = nullptr;
  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("test");
};

TEST_F(EntryPoints, AreExportedUnderTheirNames) {
  EXPECT_NE(mCreate, nullptr);
  EXPECT_NE(mClose, nullptr);
  EXPECT_NE(dlsym(mLibrary, "main"), nullptr);
}

TEST_F(EntryPoints, CreateModulePublishesTheModule) {
  KXModule::createModule<FakeLauncher>(mBroker);

  EXPECT_EQ(mCreate(mBroker), 0);

  EXPECT_TRUE(mBroker->isModulePresent("KXMemoryWatcher"));
  EXPECT_FALSE(mBroker->getProxy("KXMemoryWatcher", 0)->call<bool>("isWatching"));
}

TEST_F(EntryPoints, CreateModuleInstallsTheBrokersManager) {
  KXModule::createModule<FakeLauncher>(mBroker);
  boost::shared_ptr<KXBrokerManager> const own = mBroker->getBrokerManager().lock();
  ASSERT_NE(own, nullptr);
  KXBrokerManager::setInstance(boost::shared_ptr<KXBrokerManager>(new KXBrokerManager));
  ASSERT_NE(KXBrokerManager::getInstance(), own);

  mCreate(mBroker);

  EXPECT_EQ(KXBrokerManager::getInstance(), own);
  EXPECT_THAT(own->getBrokers(), ::testing::Contains(mBroker));
}

TEST_F(EntryPoints, CreateModuleMakesAManagerWhereTheBrokersIsGone) {
  KXModule::createModule<FakeLauncher>(mBroker);
  KXBrokerManager::setInstance(nullptr);  // the only owner
  ASSERT_TRUE(mBroker->getBrokerManager().expired());

  EXPECT_EQ(mCreate(mBroker), 0);

  EXPECT_THAT(KXBrokerManager::getInstance()->getBrokers(), ::testing::ElementsAre(mBroker));
}

TEST_F(EntryPoints, CreateModuleLetsTheErrorOut) {
  EXPECT_THROW(mCreate(mBroker), KXError);  // no launcher
  EXPECT_FALSE(mBroker->isModulePresent("KXMemoryWatcher"));
}

TEST_F(EntryPoints, CloseModuleLeavesAWatchingModuleWatching) {
  KXModule::createModule<FakeLauncher>(mBroker);
  KXModule::createModule<FakeMemory>(mBroker);
  mCreate(mBroker);
  auto const client = mBroker->getProxy("KXMemoryWatcher", 0);
  client->call<void>("startWatching", 10);

  EXPECT_EQ(mClose(), 0);

  EXPECT_TRUE(client->call<bool>("isWatching"));
}

// The process of its own is the library's main under the name of the module.
TEST(OwnProcess, ServesUntilItIsAskedToEnd) {
  testing::ChildProcess process({KX_BIN_DIR "/memorywatcher"});
  process.waitForErrorText("KXMemoryWatcher");
  process.sendSignal(SIGTERM);

  EXPECT_EQ(process.waitForEnd(), 0);
  EXPECT_TRUE(process.getErrors().starts_with("memorywatcher: ")) << process.getErrors();
}

}  // namespace
}  // namespace KX
