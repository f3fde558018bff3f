// The store under threads, each test ending in a count of what must not get lost.
#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <tests/support/logcapture.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

constexpr int kThreads = 4;
constexpr int kRaises = 20000;

struct StressStore : ::testing::Test {
  ~StressStore() override { broker->shutdown(); }

  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(broker);
};

TEST_F(StressStore, DeliversEveryRaiseOnceAndInOrderPerThread) {
  auto const first = Subscriber::create(broker, "First");
  auto const second = Subscriber::create(broker, "Second");
  for (char const* key : {"e0", "e1"}) {
    store->subscribeToEvent(key, "First", "onNotify");
    store->subscribeToEvent(key, "Second", "onNotify");
  }
  store->subscribeToMicroEvent("m", "First", "", "onNotify");

  std::vector<std::thread> raisers;
  for (int thread = 0; thread < kThreads; ++thread) {
    raisers.emplace_back([&, thread] {
      for (int i = 0; i < kRaises; ++i) {
        KXValue const value = KXValue::arrayOf(thread, i);
        if (i % 5 == 0) {
          store->raiseMicroEvent("m", value);
        } else {
          store->raiseEvent(i % 2 == 0 ? "e0" : "e1", value);
        }
      }
    });
  }
  for (std::thread& raiser : raisers) raiser.join();

  std::size_t const microCount = kThreads * kRaises / 5;
  std::vector<std::vector<int>> seen(kThreads);
  for (Notification const& one : first->waitForNotified(kThreads * kRaises)) {
    seen[static_cast<std::size_t>(static_cast<int>(one.value[0]))].push_back(
        static_cast<int>(one.value[1]));
  }
  for (auto const& numbers : seen) {
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(kRaises));
    for (int i = 0; i < kRaises; ++i) ASSERT_EQ(numbers[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(second->waitForNotified(kThreads * kRaises - microCount).size(),
            kThreads * kRaises - microCount);
}

TEST_F(StressStore, DeliversTheKeptValueOfEachKeyLast) {
  auto const first = Subscriber::create(broker, "First");
  auto const second = Subscriber::create(broker, "Second");
  std::vector<std::string> const keys = {"e0", "e1", "e2"};
  for (std::string const& key : keys) {
    store->subscribeToEvent(key, "First", "onNotify");
    store->subscribeToEvent(key, "Second", "onNotify");
  }

  std::vector<std::thread> raisers;
  for (int thread = 0; thread < kThreads; ++thread) {
    raisers.emplace_back([&, thread] {
      for (int i = 0; i < kRaises; ++i) {
        store->raiseEvent(keys[static_cast<std::size_t>(i) % keys.size()], thread * kRaises + i);
      }
    });
  }
  for (std::thread& raiser : raisers) raiser.join();

  auto const ofFirst = first->waitForNotified(kThreads * kRaises);
  EXPECT_EQ(ofFirst, second->waitForNotified(kThreads * kRaises));
  std::map<std::string, KXValue> last;
  for (Notification const& one : ofFirst) last[one.name] = one.value;
  for (std::string const& key : keys) EXPECT_EQ(last[key], store->getData(key)) << key;
}

TEST_F(StressStore, ReadsOneMomentWhileListsAreWritten) {
  std::vector<std::string> texts;
  for (int i = 0; i < 50; ++i) texts.push_back("k" + std::to_string(i));
  KXValue const names(texts);
  auto const write = [&](int number) {
    std::vector<KXValue> pairs;
    for (std::string const& text : texts) pairs.push_back(KXValue::arrayOf(text, number));
    store->insertListData(KXValue(std::move(pairs)));
  };
  write(0);

  std::thread writer([&] {
    for (int number = 1; number <= 5000; ++number) write(number);
  });
  int last = 0;
  while (last < 5000) {
    KXValue const values = store->getListData(names);
    ASSERT_GE(static_cast<int>(values[0]), last);
    last = static_cast<int>(values[0]);
    for (int i = 1; i < values.getSize(); ++i) ASSERT_EQ(values[i], KXValue(last));
  }
  writer.join();
}

TEST_F(StressStore, ReadsTheRightKeysWhileOthersComeAndGo) {
  KXValue const names(std::vector<std::string>{"stays", "comes"});
  store->insertData("stays", "stays");
  std::atomic<bool> isDone{false};
  std::thread churner([&] {
    for (int i = 0; i < 5000; ++i) {
      store->insertData("comes", "comes");
      store->insertData("other" + std::to_string(i % 7), i);
      store->removeData("comes");
      store->removeData("other" + std::to_string(i % 7));
    }
    isDone = true;
  });
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 2; ++reader) {
    readers.emplace_back([&] {
      while (!isDone) {
        KXValue const values = store->getListData(names);
        ASSERT_EQ(values[0], KXValue("stays"));
        ASSERT_TRUE(!values[1].isValid() || values[1] == KXValue("comes"));
      }
    });
  }
  churner.join();
  for (std::thread& reader : readers) reader.join();

  EXPECT_EQ(store->getListData(names), KXValue::arrayOf("stays", KXValue()));
  EXPECT_EQ(store->getKeys(""), std::vector<std::string>{"stays"});
}

TEST_F(StressStore, SubscriptionsComeAndGoWhileEventsAreRaised) {
  LogCapture const quiet;
  auto const steady = Subscriber::create(broker, "Steady");
  store->subscribeToEvent("e", "Steady", "onNotify");
  std::atomic<bool> isDone{false};
  std::thread changer([&] {
    while (!isDone) {
      auto const passing = Subscriber::create(broker, "Passing");
      store->subscribeToEvent("e", "Passing", "onNotify");
      store->subscribeToEvent("e", "Passing", "onOther");
      store->unsubscribeToEvent("e", "Passing");
      store->subscribeToEvent("e", "Passing", "onNotify");
      broker->removeModule("Passing");
    }
  });
  for (int i = 0; i < kRaises; ++i) store->raiseEvent("e", i);
  auto const notified = steady->waitForNotified(kRaises);
  isDone = true;
  changer.join();

  ASSERT_EQ(notified.size(), static_cast<std::size_t>(kRaises));
  for (int i = 0; i < kRaises; ++i) {
    ASSERT_EQ(notified[static_cast<std::size_t>(i)].value, KXValue(i));
  }
}

TEST(StressStoreEnd, DeliversOrCountsEveryRaise) {
  for (int round = 0; round < 100; ++round) {
    LogCapture log("KXMemory");
    auto const broker = KXBroker::createBroker("test");
    auto const store = KXModule::createModule<KXMemory>(broker);
    std::vector<boost::shared_ptr<Subscriber>> subscribers;
    for (char const* name : {"First", "Second", "Third"}) {
      subscribers.push_back(Subscriber::create(broker, name));
      store->subscribeToEvent("e", name, "onNotify");
    }
    std::vector<std::thread> raisers;
    for (int thread = 0; thread < 2; ++thread) {
      raisers.emplace_back([&] {
        for (int i = 0; i < 200; ++i) store->raiseEvent("e", i);
      });
    }
    for (std::thread& raiser : raisers) raiser.join();
    store->exit();

    std::size_t count = 0;
    for (auto const& subscriber : subscribers) count += subscriber->waitForNotified(0).size();
    for (auto const& record : log.lines()) {
      std::string const text = "the store ends, notifications not delivered: ";
      ASSERT_TRUE(record.text.starts_with(text)) << record.text;
      count += std::stoul(record.text.substr(text.size()));
    }
    EXPECT_EQ(count, 3U * 2U * 200U);
  }
}

TEST(StressStoreEnd, BySubscribersThemselvesIsSafe) {
  LogCapture const quiet;
  std::ptrdiff_t const threadsBefore = countThreads();
  for (int round = 0; round < 200; ++round) {
    auto const broker = KXBroker::createBroker("test");
    auto store = KXModule::createModule<KXMemory>(broker);
    std::vector<boost::shared_ptr<Subscriber>> subscribers;
    for (char const* name : {"First", "Second", "Third"}) {
      subscribers.push_back(Subscriber::create(broker, name));
      // Holds neither the broker nor the store, which are to die here or there.
      subscribers.back()->setAction([weak = boost::weak_ptr<KXBroker>(broker), name](auto const&) {
        auto const locked = weak.lock();
        if (!locked) return;
        locked->removeModule(name);
        locked->removeModule("KXMemory");
      });
      store->subscribeToEvent("e", name, "onNotify");
    }
    for (int i = 0; i < 5; ++i) store->raiseEvent("e", i);
    subscribers.clear();
    store.reset();
  }
  EXPECT_TRUE(waitUntil([&] { return countThreads() == threadsBefore; }));
}

TEST(StressStoreEnd, StartsAndEndsAmongRaises) {
  LogCapture const quiet;
  for (int round = 0; round < 200; ++round) {
    auto const broker = KXBroker::createBroker("test");
    auto const store = KXModule::createModule<KXMemory>(broker);
    auto const subscriber = Subscriber::create(broker);
    store->subscribeToEvent("e", "Subscriber", "onNotify");
    std::thread raiser([&] {
      for (int i = 0; i < 100; ++i) store->raiseEvent("e", i);
    });
    if (round % 2 == 0) subscriber->waitForNotified(1);
    broker->shutdown();
    raiser.join();

    auto const notified = subscriber->waitForNotified(0);
    for (std::size_t i = 0; i < notified.size(); ++i) {
      ASSERT_EQ(notified[i].value, KXValue(static_cast<int>(i)));
    }
    EXPECT_EQ(store->getData("e"), KXValue(99));
  }
}

}  // namespace
}  // namespace KX
