// How the store ends, also when a subscriber ends it.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <tests/support/parkinggate.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using testing::ParkingGate;

struct StoreShutdown : ::testing::Test {
  StoreShutdown() {
    ka::log::setStderrLevel(0);
    store->subscribeToEvent("e", "Subscriber", "onNotify");
  }
  ~StoreShutdown() override {
    subscriber->setAction({});
    store.reset();
    broker->shutdown();
    ka::log::setStderrLevel(ka::log::Warning);
  }

  CategoryLog log{"KXMemory"};
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> store = KXModule::createModule<KXMemory>(broker);
  boost::shared_ptr<Subscriber> const subscriber = Subscriber::create(broker);
};

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
  ParkingGate gate;
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

  std::size_t const servedCount = subscriber->waitForNotified(1).size();
  std::size_t droppedCount = 0;
  for (auto const& record : log.get()) {
    std::string const text = "the store ends, notifications not delivered: ";
    if (record.text.starts_with(text)) droppedCount += std::stoul(record.text.substr(text.size()));
  }
  EXPECT_EQ(servedCount + droppedCount, 5U);
}

TEST_F(StoreShutdown, DropsAndCountsTheQueueBehindTheCallInProgress) {
  ParkingGate gate;
  subscriber->setAction([&](auto const&) {
    store->exit();  // On the delivery thread: nothing behind this call is served.
    gate.open();
  });
  store->subscribeToEvent("other", "Subscriber", "onOther");
  ParkingGate isFull;
  auto const filler = Subscriber::create(broker, "Filler");
  filler->setAction([&](auto const&) { isFull.pass(); });
  store->subscribeToEvent("fill", "Filler", "onNotify");
  store->raiseEvent("fill", 0);
  ASSERT_TRUE(isFull.waitUntilParked(1));
  for (int i = 0; i < 4; ++i) store->raiseEvent("e", i);
  isFull.open();

  ASSERT_TRUE(gate.waitUntilOpen());

  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "the store ends, notifications not delivered: 3");
  EXPECT_EQ(subscriber->waitForNotified(1).size(), 1U);
}

TEST_F(StoreShutdown, ByASubscriberThatDropsTheLastReferenceIsSafe) {
  ParkingGate isDropped;
  boost::weak_ptr<KXMemory> const observed = store;
  subscriber->setAction([&](auto const&) {
    store.reset();
    EXPECT_TRUE(observed.expired());
    isDropped.open();
  });
  KXMemory* const raw = store.get();
  auto const filler = Subscriber::create(broker, "Filler");
  ParkingGate gate;
  filler->setAction([&](auto const&) { gate.pass(); });
  store->subscribeToEvent("fill", "Filler", "onNotify");
  raw->raiseEvent("fill", 0);
  ASSERT_TRUE(gate.waitUntilParked(1));
  raw->raiseEvent("e", 1);
  raw->raiseEvent("e", 2);
  broker->removeModule("KXMemory");
  gate.open();

  EXPECT_TRUE(isDropped.waitUntilOpen());
  EXPECT_TRUE(observed.expired());
  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "the store ends, notifications not delivered: 1");
  EXPECT_EQ(subscriber->waitForNotified(1).size(), 1U);
}

TEST_F(StoreShutdown, OfTheWholeBrokerFromASubscriberIsSafe) {
  ParkingGate isDown;
  subscriber->setAction([&](auto const&) {
    broker->shutdown();
    isDown.open();
  });

  store->raiseEvent("e", 1);

  EXPECT_TRUE(isDown.waitUntilOpen());
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
