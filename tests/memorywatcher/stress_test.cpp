// Everything at once, with the real store: events from four threads, a 10 ms cycle over a thousand
// keys, clients that do all that clients can do. Each test ends by counting: what went in came out
// exactly once, in order, or is accounted for.

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <host/vsm/kxvsm.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

constexpr int kProducers = 4;
constexpr int kKeys = 1000;

std::string eventKey(int producer) {
  return "Event/" + std::to_string(producer);
}

/// What all fetches together brought for each event key, in order.
class Ledger {
 public:
  void take(KXValue const& fetched) {
    std::lock_guard const lock(mMutex);
    for (int i = 0; i < fetched.getSize(); ++i) {
      std::string const& key = static_cast<std::string const&>(fetched[i][0]);
      if (!key.starts_with("Event/")) continue;
      for (KXValue const& value : valuesOf(fetched[i][1])) {
        mNumbers[key].push_back(static_cast<int>(value));
      }
    }
  }
  std::vector<int> numbers(std::string const& key) { return mNumbers[key]; }

 private:
  std::mutex mMutex;
  std::map<std::string, std::vector<int>> mNumbers;
};

class StressWatcher : public ::testing::TestWithParam<bool> {
 protected:
  StressWatcher() : mBroker(KXBroker::createBroker("stress")) {
    KXModule::createModule<KXLauncher>(mBroker);
    KXModule::createModule<KXMemory>(mBroker);
    if (GetParam()) KXModule::createModule<KXVsm>(mBroker);
    mWatcher = KXModule::createModule<KXMemoryWatcher>(mBroker);
    mClient = mBroker->getProxy("KXMemoryWatcher", 0);
    mStore = mBroker->getProxy("KXMemory", 0);
    for (int i = 0; i < kKeys; ++i) mDataKeys.push_back("Data/" + std::to_string(i));
  }
  ~StressWatcher() override {
    mClient.reset();
    mWatcher.reset();
    mBroker->shutdown();
  }

  void watchThousandKeys() {
    for (std::string const& key : mDataKeys) mStore->call<void>("insertData", key, KXValue(1));
    mClient->call<void>("addListeners", mDataKeys);
  }
  // Event keys are subscribed while watching only.
  void watchEvents() {
    for (int producer = 0; producer < kProducers; ++producer) {
      mStore->call<void>("declareEvent", eventKey(producer));
      mClient->call<void>("addListener", eventKey(producer));
    }
    mClient->genericCall("getData", KXValue(std::vector<KXValue>()));  // the first samples
  }
  KXValue fetch() { return mClient->genericCall("getData", KXValue(std::vector<KXValue>())); }

  LogCapture mLog;
  boost::shared_ptr<KXBroker> const mBroker;
  boost::shared_ptr<KXMemoryWatcher> mWatcher;
  boost::shared_ptr<KXProxy> mClient;
  boost::shared_ptr<KXProxy> mStore;
  std::vector<std::string> mDataKeys;
};

void expectEachOnceInOrder(std::vector<int> const& numbers, int count) {
  ASSERT_EQ(numbers.size(), static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
}

// Posted directly, as the store's delivery does, from four threads at once.
TEST_P(StressWatcher, EveryEventIsFetchedOnceAndInOrder) {
  constexpr int kEvents = 20'000;
  watchThousandKeys();
  mClient->call<void>("startWatching", 10);
  watchEvents();
  Ledger ledger;
  std::atomic<bool> isDone{false};

  std::vector<std::thread> clients;
  for (int i = 0; i < 2; ++i) {
    clients.emplace_back([&] {
      while (!isDone) ledger.take(fetch());
    });
  }
  clients.emplace_back([&] {
    std::mt19937 random(1);
    while (!isDone) {
      std::string const& key = mDataKeys[random() % kKeys];
      switch (random() % 5) {
        case 0:
          mClient->call<void>("removeListener", key);
          break;
        case 1:
          mClient->call<void>("addListener", key);
          break;
        case 2:
          mClient->call<std::vector<std::string>>("listeners");
          break;
        case 3:
          mClient->call<void>("setPeriodMs", 10 * static_cast<int>(1 + random() % 3));
          break;
        default:
          mWatcher->clearBufferData();
      }
    }
  });
  {
    std::vector<std::jthread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
      producers.emplace_back([&, producer] {
        for (int i = 0; i < kEvents; ++i) {
          mWatcher->onEventNotify(eventKey(producer), KXValue(i), KXValue(""));
        }
      });
    }
  }
  isDone = true;
  for (std::thread& client : clients) client.join();
  mClient->call<void>("stopWatching");
  ledger.take(fetch());

  // Two clients that fetch at once may note their shares in either order, so each number is
  // counted here; the order within one fetch is judged by the next test.
  for (int producer = 0; producer < kProducers; ++producer) {
    std::vector<int> numbers = ledger.numbers(eventKey(producer));
    std::sort(numbers.begin(), numbers.end());
    expectEachOnceInOrder(numbers, kEvents);
  }
  EXPECT_EQ(valuesOf(fetch()[0][1]).size(), 0U);  // nothing is pending
}

// Raised in the real store, delivered by it, fetched by one client.
TEST_P(StressWatcher, EveryRaiseOfTheStoreArrivesInOrder) {
  constexpr int kEvents = 5'000;
  watchThousandKeys();
  mClient->call<void>("startWatching", 10);
  watchEvents();
  Ledger ledger;
  {
    std::vector<std::jthread> producers;
    for (int producer = 0; producer < kProducers; ++producer) {
      producers.emplace_back([&, producer] {
        for (int i = 0; i < kEvents; ++i) {
          mStore->call<void>("raiseEvent", eventKey(producer), KXValue(i));
        }
      });
    }
    for (int i = 0; i < 100; ++i) ledger.take(fetch());
  }
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  auto const hasAll = [&] {
    for (int producer = 0; producer < kProducers; ++producer) {
      if (ledger.numbers(eventKey(producer)).size() < kEvents) return false;
    }
    return true;
  };
  while (!hasAll() && std::chrono::steady_clock::now() < end) ledger.take(fetch());
  mClient->call<void>("stopWatching");
  ledger.take(fetch());

  for (int producer = 0; producer < kProducers; ++producer) {
    SCOPED_TRACE(producer);
    expectEachOnceInOrder(ledger.numbers(eventKey(producer)), kEvents);
  }
}

// Keys that nobody removes: every batch that was taken is fetched whole, and once. A batch is
// recognised by its time; all keys must have been fetched the same times.
TEST_P(StressWatcher, EveryBatchIsFetchedWholeAndOnce) {
  watchThousandKeys();
  std::map<std::string, std::vector<std::int64_t>> times;
  auto const take = [&](KXValue const& fetched) {
    for (int i = 0; i < fetched.getSize(); ++i) {
      std::vector<std::int64_t> const some = timesOf(fetched[i][1]);
      auto& all = times[static_cast<std::string const&>(fetched[i][0])];
      all.insert(all.end(), some.begin(), some.end());
    }
  };
  mClient->call<void>("startWatching", 10);
  for (int i = 0; i < 150; ++i) {
    take(fetch());
    std::this_thread::yield();
  }
  mClient->call<void>("stopWatching");
  take(fetch());

  ASSERT_EQ(times.size(), static_cast<std::size_t>(kKeys));
  std::vector<std::int64_t> const& expected = times.begin()->second;
  EXPECT_FALSE(expected.empty());
  EXPECT_EQ(std::set<std::int64_t>(expected.begin(), expected.end()).size(), expected.size());
  for (auto const& [key, all] : times) ASSERT_EQ(all, expected) << key;
}

TEST_P(StressWatcher, StartsAndStopsAThousandTimesWhileClientsCall) {
  watchThousandKeys();
  std::atomic<bool> isDone{false};
  std::thread client([&] {
    while (!isDone) {
      fetch();
      mClient->call<void>("clearBuffer");
      mClient->call<std::vector<std::string>>("listeners");
    }
  });

  for (int i = 0; i < 1000; ++i) {
    mClient->call<void>("startWatching", 10);
    mClient->call<void>("stopWatching");
    ASSERT_FALSE(mClient->call<bool>("isWatching"));
  }
  isDone = true;
  client.join();

  // Stopped: what is pending now is all there will ever be.
  fetch();
  KXValue const rest = fetch();
  ASSERT_EQ(rest.getSize(), kKeys);
  for (int i = 0; i < kKeys; ++i) ASSERT_EQ(rest[i][1].getSize(), 0);
}

// Unknown keys that become events in the midst of it: every sample and every raise is kept.
TEST_P(StressWatcher, PromotedKeysKeepEveryRaise) {
  constexpr int kLate = 50;
  watchThousandKeys();
  mClient->call<void>("startWatching", 10);
  for (int i = 0; i < kLate; ++i) mClient->call<void>("addListener", "Late/" + std::to_string(i));
  for (int i = 0; i < kLate; ++i) {
    mStore->call<void>("declareEvent", "Late/" + std::to_string(i));
  }
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  auto const isPromoted = [&] {
    return KXMemoryWatcherForTest::eventItems(*mWatcher).size() == kLate &&
           KXMemoryWatcherForTest::dataItems(*mWatcher).size() == kKeys;
  };
  while (!isPromoted() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  ASSERT_TRUE(isPromoted());
  fetch();

  for (int i = 0; i < kLate; ++i) {
    mStore->call<void>("raiseEvent", "Late/" + std::to_string(i), KXValue(i));
  }
  std::map<std::string, std::vector<KXValue>> arrived;
  int count = 0;
  while (count < kLate && std::chrono::steady_clock::now() < end) {
    KXValue const fetched = fetch();
    for (int i = kKeys; i < fetched.getSize(); ++i) {
      for (KXValue const& value : valuesOf(fetched[i][1])) {
        arrived[static_cast<std::string const&>(fetched[i][0])].push_back(value);
        ++count;
      }
    }
  }

  ASSERT_EQ(arrived.size(), static_cast<std::size_t>(kLate));
  for (int i = 0; i < kLate; ++i) {
    EXPECT_EQ(arrived["Late/" + std::to_string(i)], (std::vector<KXValue>{i}));
  }
}

INSTANTIATE_TEST_SUITE_P(Pacing, StressWatcher, ::testing::Values(false, true),
                         [](auto const& kind) { return kind.param ? "Cycle" : "Timed"; });

}  // namespace
}  // namespace KX
