// How the store ends, also when a subscriber ends it.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/parkinggate.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using testing::ParkingGate;

struct StoreShutdown : ::testing::Test {
  StoreShutdown() { store->subscribeToEvent("e", "Subscriber", "onNotify"); }
  ~StoreShutdown() override {
    gate.open();
    subscriber->setAction({});
    store.reset();
    broker->shutdown();
  }

  // They outlive the actions, which may still be there.
  ParkingGate gate;
  ParkingGate isDone;
  LogCapture log{"KXMemory"};
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> store = KXModule::createModule<KXMemory>(broker);
  boost::shared_ptr<Subscriber> const subscriber = Subscriber::create(broker);
};

std::size_t countDropped(std::vector<LogLine> const& records) {
  std::string const text = "the store ends, notifications not delivered: ";
  std::size_t count = 0;
  for (auto const& record : records) {
    if (record.text.starts_with(text)) count += std::stoul(record.text.substr(text.size()));
  }
  return count;
}

TEST_F(StoreShutdown, TakesItOutOfService) {
  store->exit();

  EXPECT_TRUE(store->isClosing());
  EXPECT_FALSE(broker->isModulePresent("KXMemory"));
}

TEST_F(StoreShutdown, StillKeepsWhatIsRaisedAndNotifiesNobody) {
  store->exit();

  store->raiseEvent("e", 1);

  EXPECT_EQ(store->getData("e"), KXValue(1));
  EXPECT_EQ(subscriber->waitForNotified(0).size(), 0U);
}

TEST_F(StoreShutdown, MayBeAskedForTwice) {
  store->exit();
  store->exit();

  EXPECT_TRUE(store->isClosing());
}

TEST_F(StoreShutdown, WaitsForTheCallInProgressAndCountsWhatIsDropped) {
  std::atomic<bool> isCallOver{false};
  subscriber->setAction([&](auto const&) {
    gate.pass();
    isCallOver = true;
  });
  for (int i = 0; i < 5; ++i) store->raiseEvent("e", i);
  ASSERT_TRUE(gate.waitUntilParked(1));

  std::thread ender([&] {
    store->exit();
    EXPECT_TRUE(isCallOver);
  });
  // The gate may open as soon as the store ends: raising is ignored from then on.
  gate.open();
  ender.join();

  EXPECT_EQ(subscriber->waitForNotified(1).size() + countDropped(log.lines()), 5U);
}

TEST_F(StoreShutdown, DropsAndCountsTheQueueBehindTheCallInProgress) {
  subscriber->setAction([&](auto const&) {
    gate.pass();
    store->exit();  // On the delivering thread: nothing behind this call is served.
  });
  store->raiseEvent("e", 0);
  ASSERT_TRUE(gate.waitUntilParked(1));
  for (int i = 1; i < 4; ++i) store->raiseEvent("e", i);

  gate.open();

  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "the store ends, notifications not delivered: 3");
  EXPECT_EQ(subscriber->waitForNotified(1).size(), 1U);
}

TEST_F(StoreShutdown, CountsWhatIsDroppedOverAllSubscribersInOneLine) {
  auto const second = Subscriber::create(broker, "Second");
  store->subscribeToEvent("e", "Second", "onNotify");
  for (auto const& one : {subscriber, second}) {
    one->setAction([&](auto const&) { gate.pass(); });
  }
  for (int i = 0; i < 4; ++i) store->raiseEvent("e", i);
  ASSERT_TRUE(gate.waitUntilParked(2));

  std::thread ender([&] { store->exit(); });
  gate.open();
  ender.join();

  auto const records = log.lines();
  EXPECT_LE(records.size(), 1U);
  EXPECT_EQ(subscriber->waitForNotified(1).size() + second->waitForNotified(1).size() +
                countDropped(records),
            8U);
}

TEST_F(StoreShutdown, ByASubscriberThatDropsTheLastReferenceIsSafe) {
  boost::weak_ptr<KXMemory> const observed = store;
  subscriber->setAction([&](auto const&) {
    gate.pass();
    store.reset();
    EXPECT_TRUE(observed.expired());
    isDone.open();
  });
  store->raiseEvent("e", 1);
  ASSERT_TRUE(gate.waitUntilParked(1));
  store->raiseEvent("e", 2);
  broker->removeModule("KXMemory");

  gate.open();

  EXPECT_TRUE(isDone.waitUntilOpen());
  EXPECT_TRUE(observed.expired());
  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "the store ends, notifications not delivered: 1");
  EXPECT_EQ(subscriber->waitForNotified(1).size(), 1U);
}

TEST_F(StoreShutdown, OfTheWholeBrokerFromASubscriberIsSafe) {
  subscriber->setAction([&](auto const&) {
    broker->shutdown();
    isDone.open();
  });

  store->raiseEvent("e", 1);

  EXPECT_TRUE(isDone.waitUntilOpen());
  EXPECT_TRUE(store->isClosing());
}

TEST_F(StoreShutdown, WithoutExitEndsTheDeliveryToo) {
  boost::weak_ptr<KXMemory> const observed = store;
  broker->removeModule("KXMemory");
  store.reset();

  EXPECT_TRUE(observed.expired());
}

}  // namespace
}  // namespace KX
