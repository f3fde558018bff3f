// All that clients can do, at once, while the wall clock is set: nothing twice, nothing out of
// order, and nothing lost but for a cause that the test knows of.

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <host/vsm/kxvsm.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>
#include <tests/support/settableclock.hpp>

namespace KX {
namespace {

constexpr int kProducers = 3;
constexpr int kDataKeys = 200;

std::string eventKey(int producer) {
  return "Event/" + std::to_string(producer);
}
std::string dataKey(int number) {
  return "Data/" + std::to_string(number);
}

class StressEverything : public ::testing::TestWithParam<bool> {
 protected:
  StressEverything() {
    KXModule::createModule<KXLauncher>(mBroker);
    KXModule::createModule<KXMemory>(mBroker);
    if (GetParam()) KXModule::createModule<KXVsm>(mBroker);
    mWatcher = KXModule::createModule<KXMemoryWatcher>(mBroker, mClock);
    mClient = mBroker->getProxy("KXMemoryWatcher", 0);
    mStore = mBroker->getProxy("KXMemory", 0);
    for (int i = 0; i < kDataKeys; ++i) {
      write(0);
      mClient->call<void>("addListener", dataKey(i));
    }
    for (int producer = 0; producer < kProducers; ++producer) {
      mStore->call<void>("declareEvent", eventKey(producer));
      mClient->call<void>("addListener", eventKey(producer));
    }
  }
  ~StressEverything() override {
    mClient.reset();
    mStore.reset();
    mWatcher.reset();
    mBroker->shutdown();
  }

  /// One number to all data keys, at one moment.
  void write(int number) {
    std::vector<KXValue> pairs;
    for (int i = 0; i < kDataKeys; ++i) {
      pairs.emplace_back(KXValue::arrayOf(KXValue(dataKey(i)), KXValue(number)));
    }
    mStore->genericCall("insertListData", KXValue::arrayOf(KXValue(pairs)));
  }
  void raise(int producer, int number) {
    mWatcher->onEventNotify(eventKey(producer), KXValue(number), KXValue());
  }
  /// Fetches, and notes each key's numbers behind those of earlier fetches. One thread's alone.
  void fetch() {
    KXValue const fetched = mClient->genericCall("getData", KXValue::arrayOf());
    for (int i = 0; i < fetched.getSize(); ++i) {
      std::vector<int>& numbers = mNumbers[static_cast<std::string const&>(fetched[i][0])];
      if (fetched[i][0].toString().starts_with("Data/")) mDataSamples += fetched[i][1].getSize();
      for (KXValue const& value : valuesOf(fetched[i][1])) {
        if (value.getType() == KXValue::TypeInt) numbers.push_back(static_cast<int>(value));
      }
    }
  }
  void stepClock(std::mt19937& random) {
    constexpr int kStepsMs[] = {-3'600'000, -2000, -3, 3, 60'000, 86'400'000};
    mClock.step(std::chrono::milliseconds(kStepsMs[random() % std::size(kStepsMs)]));
  }
  void changeRegistry(std::mt19937& random) {
    std::string const key = dataKey(static_cast<int>(random() % kDataKeys));
    switch (random() % 6) {
      case 0:
      case 1:
        return mClient->call<void>("removeListener", key);
      case 2:
      case 3:
        return mClient->call<void>("addListener", key);
      case 4:
        return static_cast<void>(mClient->call<std::vector<std::string>>("listeners"));
      default:
        return mWatcher->clearBufferData();
    }
  }
  /// Runs while the producers are at work, again and again, on a thread of its own.
  template <class Step>
  void meanwhile(Step step) {
    mClients.emplace_back([this, step] {
      std::mt19937 random(
          static_cast<unsigned>(std::hash<std::thread::id>()(std::this_thread::get_id())));
      while (!mIsOver) step(random);
    });
  }
  template <class Produce>
  void produce(Produce produce) {
    {
      std::vector<std::jthread> producers;
      for (int producer = 0; producer < kProducers; ++producer) {
        producers.emplace_back([=, this] {
          produce(producer);
          // Long enough for what the others do to meet many cycles.
          auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
          while (mDataSamples < mWantedSamples && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
          }
        });
      }
    }
    mIsOver = true;
    mClients.clear();
    mClient->call<void>("stopWatching");
    fetch();
  }
  /// A data key's numbers never go back: a later cycle read later.
  void expectDataInOrder() {
    EXPECT_GE(mDataSamples, mWantedSamples);
    for (int i = 0; i < kDataKeys; ++i) {
      std::vector<int> const& numbers = mNumbers[dataKey(i)];
      EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end())) << dataKey(i);
    }
  }

  SettableClock mClock;
  LogCapture mLog;
  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("stress");
  boost::shared_ptr<KXMemoryWatcher> mWatcher;
  boost::shared_ptr<KXProxy> mClient;
  boost::shared_ptr<KXProxy> mStore;
  std::map<std::string, std::vector<int>> mNumbers;
  std::atomic<bool> mIsOver{false};
  std::atomic<int> mDataSamples{0};
  int mWantedSamples = 0;
  std::vector<std::jthread> mClients;
};

// Events are raised only while the watch is on: then every one must come.
TEST_P(StressEverything, EveryEventThatIsRaisedWhileWatchingIsFetchedOnceAndInOrder) {
  constexpr int kEvents = 4000;
  mWantedSamples = 30 * kDataKeys;
  std::shared_mutex control;  // held by who needs the watch to be on, or changes that
  mClient->call<void>("startWatching", 10);
  std::atomic<int> written{0};
  meanwhile([&](std::mt19937&) { fetch(); });
  meanwhile([&](std::mt19937& random) { changeRegistry(random); });
  meanwhile([&](std::mt19937&) { write(++written); });
  meanwhile([&](std::mt19937& random) {
    switch (random() % 3) {
      case 0:
        stepClock(random);
        break;
      case 1:
        mClient->call<void>("setPeriodMs", static_cast<int>(1 + random() % 3) * 10);
        break;
      default: {
        std::unique_lock const lock(control);
        mClient->call<void>("stopWatching");
        mClient->call<void>("startWatching", 10);
      }
    }
    std::this_thread::yield();
  });

  produce([&](int producer) {
    for (int i = 0; i < kEvents; ++i) {
      std::shared_lock const lock(control);
      raise(producer, i);
    }
  });

  for (int producer = 0; producer < kProducers; ++producer) {
    std::vector<int> const& numbers = mNumbers[eventKey(producer)];
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kEvents)) << producer;
    for (int i = 0; i < kEvents; ++i) ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
  }
  expectDataInOrder();
}

// Without any agreement between the clients: what comes, comes once and in order.
TEST_P(StressEverything, NothingComesTwiceOrOutOfOrderWhateverClientsDo) {
  constexpr int kEvents = 4000;
  mWantedSamples = 30 * kDataKeys;
  std::atomic<int> written{0};
  mClient->call<void>("startWatching", 10);
  meanwhile([&](std::mt19937&) { fetch(); });
  meanwhile([&](std::mt19937& random) { changeRegistry(random); });
  meanwhile([&](std::mt19937&) { write(++written); });
  for (int i = 0; i < 2; ++i) {
    meanwhile([&](std::mt19937& random) {
      switch (random() % 8) {
        case 0:
          return stepClock(random);
        case 1:
          return mClient->call<void>("setPeriodMs", static_cast<int>(1 + random() % 3) * 10);
        case 2:
        case 3:
          return mClient->call<void>("stopWatching");
        case 4:
        case 5:
          return mClient->call<void>("startWatching", 10);
        case 6:
          return mClient->call<void>("clearBuffer");
        default: {
          std::string const key = eventKey(static_cast<int>(random() % kProducers));
          mClient->call<void>("removeListener", key);
          mClient->call<void>("addListener", key);
        }
      }
    });
  }

  produce([&](int producer) {
    for (int i = 0; i < kEvents; ++i) raise(producer, i);
  });

  for (int producer = 0; producer < kProducers; ++producer) {
    std::vector<int> const& numbers = mNumbers[eventKey(producer)];
    for (std::size_t i = 1; i < numbers.size(); ++i) {
      ASSERT_LT(numbers[i - 1], numbers[i]) << producer;
    }
  }
  expectDataInOrder();
  EXPECT_FALSE(mClient->call<bool>("isWatching"));
}

// Another client stops and fetches until nothing moves any more: a loop that nobody knows of would
// go on.
TEST_P(StressEverything, NoLoopIsLeftBehind) {
  mClient->call<void>("startWatching", 10);
  std::atomic<int> rounds{0};
  for (int i = 0; i < 3; ++i) {
    meanwhile([&](std::mt19937& random) {
      random() % 2 == 0 ? mClient->call<void>("stopWatching")
                        : mClient->call<void>("startWatching", 10);
      ++rounds;
    });
  }
  produce([&](int) {
    while (rounds < 2000) std::this_thread::yield();
  });

  fetch();
  mNumbers.clear();
  // A hundred writes take several periods of a loop that was left.
  for (int i = 1; i <= 100; ++i) write(i);
  fetch();
  for (auto const& [key, numbers] : mNumbers) EXPECT_TRUE(numbers.empty()) << key;
}

INSTANTIATE_TEST_SUITE_P(Pacing, StressEverything, ::testing::Values(false, true),
                         [](auto const& kind) { return kind.param ? "Cycle" : "Timed"; });

}  // namespace
}  // namespace KX
