// The module in another broker than the store.
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/faketransport.hpp>

namespace KX {
namespace {

struct DistantStoreWatch : ::testing::Test {
  DistantStoreWatch() {
    here->setTransport(transport);
    there->setTransport(boost::make_shared<testing::FakeTransport>(here));
    KXModule::createModule<KXLauncher>(here);
    watcher = KXModule::createModule<KXMemoryWatcher>(here);
  }
  ~DistantStoreWatch() override {
    watcher->stopWatching();
    watcher.reset();
    here->shutdown();
    there->shutdown();
    // Each broker's transport holds the other.
    here->setTransport(nullptr);
    there->setTransport(nullptr);
  }
  // The samples of a key, once there are some.
  KXValue awaitSamples(std::string const& key) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
      KXValue const fetched = watcher->getData();
      for (int i = 0; i < fetched.getSize(); ++i) {
        if (fetched[i][0] == KXValue(key) && fetched[i][1].getSize() > 0) return fetched[i][1];
      }
      std::this_thread::yield();
    }
    return {};
  }

  boost::shared_ptr<KXBroker> const there = KXBroker::createBroker("there");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(there);
  boost::shared_ptr<testing::FakeTransport> const transport =
      boost::make_shared<testing::FakeTransport>(there);
  boost::shared_ptr<KXBroker> const here = KXBroker::createBroker("here");
  boost::shared_ptr<KXMemoryWatcher> watcher;
};

TEST_F(DistantStoreWatch, SamplesDataKeys) {
  store->insertData("k", 7);
  watcher->addListener("k");

  watcher->startWatching(10);

  EXPECT_EQ(awaitSamples("k")[0][1], KXValue(7));
}

TEST_F(DistantStoreWatch, TakesAnEventThatWasDeclaredAndNeverRaised) {
  store->declareEvent("e");
  watcher->startWatching(10);

  watcher->addListener("e");
  EXPECT_EQ(watcher->listeners(), std::vector<std::string>{"e"});
  watcher->clearBuffer();
  store->raiseEvent("e", "raised");

  EXPECT_EQ(awaitSamples("e")[0][1], KXValue("raised"));
}

TEST_F(DistantStoreWatch, EndsItsLoopBeforeTheStopReturns) {
  store->insertData("k", 7);
  watcher->addListener("k");
  watcher->startWatching(10);
  awaitSamples("k");
  int const taskId = KXMemoryWatcherForTest::mainThreadTaskId(*watcher);
  ASSERT_TRUE(here->isTaskRunning(taskId));

  watcher->stopWatching();

  EXPECT_FALSE(here->isTaskRunning(taskId));
}

TEST_F(DistantStoreWatch, ReadsWithATimeOutOfOnePeriodButAtLeastAHundredMilliseconds) {
  store->insertData("k", 7);
  watcher->addListener("k");
  for (auto const& [periodMs, timeoutMs] :
       std::vector<std::pair<int, int>>{{10, 100}, {250, 250}}) {
    SCOPED_TRACE(periodMs);
    watcher->clearBuffer();
    watcher->startWatching(periodMs);
    awaitSamples("k");
    watcher->stopWatching();

    auto const calls = transport->getCalls();
    auto const read = std::find_if(calls.rbegin(), calls.rend(),
                                   [](auto const& call) { return call.method == "getListData"; });
    ASSERT_NE(read, calls.rend());
    EXPECT_EQ(read->timeoutMs, timeoutMs);
  }
}

}  // namespace
}  // namespace KX
