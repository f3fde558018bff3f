// What subscribers get, and what their failures and their absence do.
#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/parkinggate.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using testing::ParkingGate;
using Notifications = std::vector<Notification>;

class SilentError : public std::exception {
 public:
  char const* what() const noexcept override { return nullptr; }
};

// A script that keeps the arguments of each call.
class KeepingScript : public KXModule {
 public:
  explicit KeepingScript(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Script") {
    setScript();
  }
  void execute(std::string const& method, KXValue const& params, KXValue&) override {
    mKept.push_back(KXValue::arrayOf(method, params));
    if (mKept.size() == 3) mIsDone.open();
  }
  std::vector<KXValue> mKept;
  ParkingGate mIsDone;
};

struct Delivery : ::testing::Test {
  ~Delivery() override {
    gate.open();
    broker->shutdown();
  }

  ParkingGate gate;  ///< outlives the actions, which may be waiting there
  LogCapture log{"KXMemory"};
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(broker);
  boost::shared_ptr<Subscriber> subscriber = Subscriber::create(broker);
};

using Subscription = Delivery;
using FailingSubscriber = Delivery;
using GoneSubscriber = Delivery;

TEST_F(Delivery, OfAnEventBringsNameValueAndAnEmptyText) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");

  store->raiseEvent("e", KXValue::arrayOf(1, "x"));

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"e", KXValue::arrayOf(1, "x"), ""}}));
}

TEST_F(Delivery, OfAMicroEventBringsNameValueAndTheMessage) {
  store->subscribeToMicroEvent("m", "Subscriber", "the message", "onNotify");

  store->raiseMicroEvent("m", 5);

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"m", 5, "the message"}}));
}

TEST_F(Delivery, GoesInOrderOfRaisingAcrossKeysAndTypes) {
  store->subscribeToEvent("a", "Subscriber", "onNotify");
  store->subscribeToMicroEvent("m", "Subscriber", "", "onNotify");
  store->subscribeToEvent("b", "Subscriber", "onNotify");
  Notifications expected;
  for (int i = 0; i < 300; i += 3) {
    store->raiseEvent("b", i);
    store->raiseMicroEvent("m", i + 1);
    store->raiseEvent("a", i + 2);
    expected.insert(expected.end(), {{"b", i, ""}, {"m", i + 1, ""}, {"a", i + 2, ""}});
  }

  EXPECT_EQ(subscriber->waitForNotified(300), expected);
}

TEST_F(Delivery, BringsEqualValuesEachTime) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");

  store->raiseEvent("e", 1);
  store->raiseEvent("e", 1);

  EXPECT_EQ(subscriber->waitForNotified(2), (Notifications{{"e", 1, ""}, {"e", 1, ""}}));
}

TEST_F(Delivery, ReachesEverySubscriberOfTheKey) {
  auto const second = Subscriber::create(broker, "Second");
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->subscribeToEvent("e", "Second", "onOther");

  store->raiseEvent("e", 1);

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"e", 1, ""}}));
  EXPECT_EQ(second->waitForOther(1), (Notifications{{"e", 1, ""}}));
}

TEST_F(Delivery, DeclaringAKeyNotifiesNobody) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");

  store->declareEvent("e");
  store->raiseEvent("e", 1);

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"e", 1, ""}}));
}

TEST_F(Delivery, ReachesAScriptAndLeavesAloneTheArgumentsThatItKeeps) {
  auto const script = KXModule::createModule<KeepingScript>(broker);
  store->subscribeToEvent("e", "Script", "anything");

  for (int i = 0; i < 3; ++i) store->raiseEvent("e", i);

  ASSERT_TRUE(script->mIsDone.waitUntilOpen());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(script->mKept[static_cast<std::size_t>(i)],
              KXValue::arrayOf("anything", KXValue::arrayOf("e", i, "")));
  }
}

TEST_F(Delivery, DoesNotHoldUpTheRaiser) {
  subscriber->setAction([this](auto const&) { gate.pass(); });
  store->subscribeToEvent("e", "Subscriber", "onNotify");

  for (int i = 0; i < 100; ++i) store->raiseEvent("e", i);

  EXPECT_TRUE(gate.waitUntilParked(1));
  EXPECT_EQ(store->getData("e"), KXValue(99));
  gate.open();
  EXPECT_EQ(subscriber->waitForNotified(100).size(), 100U);
}

TEST_F(Delivery, LetsASubscriberCallTheStore) {
  subscriber->setAction([&](Notification const& notification) {
    if (notification.name != "e") return;
    store->insertData("seen", notification.value);
    store->unsubscribeToEvent("e", "Subscriber");
    store->raiseEvent("answer", store->getData("seen"));
  });
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->subscribeToEvent("answer", "Subscriber", "onNotify");

  store->raiseEvent("e", 1);

  EXPECT_EQ(subscriber->waitForNotified(2), (Notifications{{"e", 1, ""}, {"answer", 1, ""}}));
}

TEST_F(Subscription, MayComeBeforeTheKey) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  EXPECT_EQ(errorOf([&] { store->getType("e"); }), "unknown key 'e'");

  store->raiseEvent("e", 1);

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"e", 1, ""}}));
}

TEST_F(Subscription, ToAKeyOfAnotherTypeIsAnErrorThatNamesBoth) {
  store->insertData("data", 1);
  store->declareEvent("event");
  store->declareMicroEvent("micro");
  auto const asEvent = [&](char const* key) {
    return errorOf([&] { store->subscribeToEvent(key, "Subscriber", "onNotify"); });
  };
  auto const asMicroEvent = [&](char const* key) {
    return errorOf([&] { store->subscribeToMicroEvent(key, "Subscriber", "", "onNotify"); });
  };

  EXPECT_EQ(asEvent("data"), "expected key 'data' to be of type Event, it is of type Data");
  EXPECT_EQ(asEvent("micro"), "expected key 'micro' to be of type Event, it is of type MicroEvent");
  EXPECT_EQ(asMicroEvent("data"),
            "expected key 'data' to be of type MicroEvent, it is of type Data");
  EXPECT_EQ(asMicroEvent("event"),
            "expected key 'event' to be of type MicroEvent, it is of type Event");
}

TEST_F(Subscription, AgainReplacesTheFormerOne) {
  store->subscribeToMicroEvent("m", "Subscriber", "first", "onNotify");
  store->subscribeToMicroEvent("m", "Subscriber", "second", "onOther");

  store->raiseMicroEvent("m", 1);

  EXPECT_EQ(subscriber->waitForOther(1), (Notifications{{"m", 1, "second"}}));
  EXPECT_EQ(subscriber->waitForNotified(0), Notifications());
}

TEST_F(Subscription, EndedIsServedNoMore) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->subscribeToEvent("fence", "Subscriber", "onNotify");

  store->unsubscribeToEvent("e", "Subscriber");
  store->raiseEvent("e", 1);
  store->raiseEvent("fence", 2);

  EXPECT_EQ(subscriber->waitForNotified(1), (Notifications{{"fence", 2, ""}}));
}

TEST_F(Subscription, EndedLeavesTheOthersOfTheKey) {
  auto const second = Subscriber::create(broker, "Second");
  store->subscribeToMicroEvent("m", "Subscriber", "", "onNotify");
  store->subscribeToMicroEvent("m", "Second", "", "onNotify");

  store->unsubscribeToMicroEvent("m", "Subscriber");
  store->raiseMicroEvent("m", 1);

  EXPECT_EQ(second->waitForNotified(1), (Notifications{{"m", 1, ""}}));
  EXPECT_EQ(subscriber->waitForNotified(0), Notifications());
}

TEST_F(Subscription, ThatIsNotThereCannotBeEnded) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");

  EXPECT_EQ(errorOf([&] { store->unsubscribeToEvent("e", "Other"); }),
            "module 'Other' has no subscription to key 'e'");
  EXPECT_EQ(errorOf([&] { store->unsubscribeToEvent("none", "Subscriber"); }),
            "module 'Subscriber' has no subscription to key 'none'");
  EXPECT_EQ(errorOf([&] { store->unsubscribeToMicroEvent("e", "Subscriber"); }),
            "module 'Subscriber' has no subscription to key 'e'");
  store->unsubscribeToEvent("e", "Subscriber");
  EXPECT_EQ(errorOf([&] { store->unsubscribeToEvent("e", "Subscriber"); }),
            "module 'Subscriber' has no subscription to key 'e'");
}

TEST_F(Subscription, OutlivesItsKeyAndWaitsForOneOfItsType) {
  store->subscribeToEvent("k", "Subscriber", "onNotify");
  store->raiseEvent("k", 1);
  store->removeData("k");

  store->raiseMicroEvent("k", 2);
  store->removeData("k");
  store->raiseEvent("k", 3);

  EXPECT_EQ(subscriber->waitForNotified(2), (Notifications{{"k", 1, ""}, {"k", 3, ""}}));
}

TEST_F(FailingSubscriber, IsLoggedAndTheOthersAreServed) {
  auto const second = Subscriber::create(broker, "Second");
  std::atomic<int> count{0};
  subscriber->setAction([&](auto const&) {
    int const call = count++;
    if (call == 0) throw KXError("M", "m", "first reason", "", 0);
    if (call == 1) throw std::runtime_error("second reason");
    if (call == 2) throw call;
    throw SilentError();
  });
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->subscribeToEvent("e", "Second", "onNotify");

  for (int i = 0; i < 4; ++i) store->raiseEvent("e", i);

  EXPECT_EQ(second->waitForNotified(4),
            (Notifications{{"e", 0, ""}, {"e", 1, ""}, {"e", 2, ""}, {"e", 3, ""}}));
  char const* const reasons[] = {"first reason", "second reason", "an exception of unknown type",
                                 ""};
  auto const records = log.waitFor(4);
  ASSERT_EQ(records.size(), 4U);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(records[i].level, ka::log::Warning);
    EXPECT_EQ(records[i].text,
              std::string("subscriber 'Subscriber.onNotify' of key 'e' failed: ") + reasons[i]);
  }
}

TEST_F(FailingSubscriber, WithoutTheMethodIsLogged) {
  store->subscribeToEvent("e", "Subscriber", "none");

  store->raiseEvent("e", 1);

  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_TRUE(records[0].text.starts_with(
      "subscriber 'Subscriber.none' of key 'e' failed: unknown method 'none'"))
      << records[0].text;
}

TEST_F(GoneSubscriber, IsDroppedWithOneLineAndTheOthersAreServed) {
  auto const second = Subscriber::create(broker, "Second");
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->subscribeToEvent("e", "Second", "onNotify");
  store->raiseEvent("e", 0);
  subscriber->waitForNotified(1);
  broker->removeModule("Subscriber");

  for (int i = 1; i < 4; ++i) store->raiseEvent("e", i);

  EXPECT_EQ(second->waitForNotified(4).size(), 4U);
  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].level, ka::log::Warning);
  EXPECT_EQ(records[0].text, "module 'Subscriber' is gone, its subscription to key 'e' is dropped");
  EXPECT_EQ(errorOf([&] { store->unsubscribeToEvent("e", "Subscriber"); }),
            "module 'Subscriber' has no subscription to key 'e'");
  EXPECT_EQ(subscriber->waitForNotified(1).size(), 1U);
}

TEST_F(GoneSubscriber, ThatWasNeverThereIsDropped) {
  store->subscribeToEvent("e", "Never", "onNotify");

  store->raiseEvent("e", 0);

  auto const records = log.waitFor(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].text, "module 'Never' is gone, its subscription to key 'e' is dropped");
  EXPECT_EQ(errorOf([&] { store->unsubscribeToEvent("e", "Never"); }),
            "module 'Never' has no subscription to key 'e'");
}

TEST_F(GoneSubscriber, IsNotQueuedForAnyMore) {
  store->subscribeToEvent("e", "Never", "onNotify");
  store->raiseEvent("e", 0);
  log.waitFor(1);
  // What is queued behind the call that ends the store is counted.
  subscriber->setAction([this](auto const&) {
    gate.pass();
    store->exit();
  });
  store->subscribeToEvent("other", "Subscriber", "onNotify");
  store->raiseEvent("other", 0);
  ASSERT_TRUE(gate.waitUntilParked(1));

  for (int i = 0; i < 3; ++i) store->raiseEvent("e", i);
  store->raiseEvent("other", 1);
  gate.open();

  auto const records = log.waitFor(2);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[1].text, "the store ends, notifications not delivered: 1");
}

TEST_F(GoneSubscriber, MaySubscribeAnewWhenItIsBack) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  broker->removeModule("Subscriber");
  store->raiseEvent("e", 0);
  log.waitFor(1);

  auto const back = Subscriber::create(broker);
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->raiseEvent("e", 1);

  EXPECT_EQ(back->waitForNotified(1), (Notifications{{"e", 1, ""}}));
}

TEST_F(GoneSubscriber, IsFoundAgainIfAnotherTookItsNameMeanwhile) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->raiseEvent("e", 0);
  subscriber->waitForNotified(1);

  broker->removeModule("Subscriber");
  auto const successor = Subscriber::create(broker);
  store->raiseEvent("e", 1);

  EXPECT_EQ(successor->waitForNotified(1), (Notifications{{"e", 1, ""}}));
  EXPECT_EQ(log.lines().size(), 0U);
}

TEST_F(GoneSubscriber, IsNotKeptAliveByItsSubscription) {
  store->subscribeToEvent("e", "Subscriber", "onNotify");
  store->raiseEvent("e", 0);
  subscriber->waitForNotified(1);
  boost::weak_ptr<Subscriber> const observed = subscriber;

  broker->removeModule("Subscriber");
  subscriber.reset();

  // Only the call in progress may still keep it.
  EXPECT_TRUE(waitUntil([&] { return observed.expired(); }));
}

}  // namespace
}  // namespace KX
