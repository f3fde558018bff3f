// Adding keys to a watch: first samples, subscriptions, and the locks around them.
#include <tests/memorywatcher/listenersfixture.hpp>
#include <tests/memorywatcher/simulatedtime.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using AddListener = ListenersTest;

// ---- adding while watching

class AddWhileWatching : public ListenersTest {
 protected:
  AddWhileWatching() { watch(); }
};

TEST_F(AddWhileWatching, GivesADataKeyItsValueAsFirstSample) {
  add("data");

  EXPECT_EQ(calls(), (Calls{{"getType", {"data"}}, {"getData", {"data"}}}));
  EXPECT_THAT(valuesOf(dataItems().at("data").toKXValue()), ElementsAre(KXValue(5)));
}

TEST_F(AddWhileWatching, GivesAnEventKeyItsValueAndThenSubscribesIt) {
  add("event");

  EXPECT_EQ(calls(), (Calls{{"getType", {"event"}},
                            {"getData", {"event"}},
                            {"subscribeToEvent", {"event", watcherName(), "_onEventNotify"}}}));
  EXPECT_THAT(valuesOf(eventItems().at("event").toKXValue()), ElementsAre(KXValue("e")));
}

TEST_F(AddWhileWatching, SubscribesAMicroEventKeyWithAnEmptyMessage) {
  add("micro");

  EXPECT_EQ(calls(),
            (Calls{{"getType", {"micro"}},
                   {"getData", {"micro"}},
                   {"subscribeToMicroEvent", {"micro", watcherName(), "", "_onEventNotify"}}}));
  EXPECT_THAT(valuesOf(eventItems().at("micro").toKXValue()), ElementsAre(KXValue(0.5)));
}

// Reading takes a second, subscribing ten.
TEST_F(SimulatedTimed, FirstSampleIsStampedAfterItsValueWasReadAndBeforeTheSubscription) {
  mMemory->set("event", "Event", KXValue("e"));
  mMemory->setHook("getData", [this](auto const&, KXValue&) { mClock.jumpByMs(1000); });
  mMemory->setHook("subscribeToEvent", [this](auto const&, KXValue&) { mClock.jumpByMs(10'000); });
  watch();

  add("event");

  EXPECT_THAT(timesOf(eventItems().at("event").toKXValue()),
              ElementsAre(SimulatedClock::kStartUs + 1'000'000));
}

TEST_F(AddWhileWatching, GivesAnUnknownKeyAnInvalidFirstSample) {
  std::int64_t const before = nowMicros();

  add("unknown");

  EXPECT_EQ(calls(), (Calls{{"getType", {"unknown"}}}));
  EXPECT_THAT(mLog.lines(), ElementsAre(notFound("unknown")));
  KXValue const samples = dataItems().at("unknown").toKXValue();
  ASSERT_THAT(valuesOf(samples), ElementsAre(KXValue()));
  EXPECT_GE(timesOf(samples)[0], before);
  EXPECT_LE(timesOf(samples)[0], nowMicros());
}

// The store may know of a name that has no value yet.
TEST_F(AddWhileWatching, AsksNoValueOfAKeyWhoseTypeIsUnknownData) {
  mMemory->set("reserved", "Unknown data", KXValue());

  add("reserved");

  EXPECT_EQ(calls(), (Calls{{"getType", {"reserved"}}}));
  EXPECT_THAT(mLog.lines(), IsEmpty());
  EXPECT_THAT(valuesOf(dataItems().at("reserved").toKXValue()), ElementsAre(KXValue()));
}

TEST_F(AddWhileWatching, QueriesAKeyThatIsThereAndChangesNothing) {
  for (std::string const name : {"data", "event", "micro"}) {
    SCOPED_TRACE(name);
    addQuietly({name});

    add(name);

    EXPECT_EQ(calls(), (Calls{{"getType", {name}}, {"getData", {name}}}));
    EXPECT_THAT(mLog.lines(), IsEmpty());
  }
  EXPECT_EQ(dataItems().at("data").toKXValue().getSize(), 1);
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 1);
  EXPECT_EQ(eventItems().at("micro").toKXValue().getSize(), 1);
}

TEST_F(AddWhileWatching, SubscribesAKeyOnce) {
  add("event");
  add("event");

  EXPECT_EQ(mMemory->getCalls("subscribeToEvent").size(), 1U);
}

TEST_F(AddWhileWatching, LeavesAKeyUnsubscribedThatWasAddedBefore) {
  watch(false);
  add("event");
  watch();

  add("event");

  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), IsEmpty());
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 0);
}

TEST_F(AddWhileWatching, SubscribesAKeyThatIsRemovedAndAddedAgain) {
  watch(false);
  add("event");
  watch();
  remove("event");

  add("event");

  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), ElementsAre(subscribeEvent("event")));
}

TEST_F(AddWhileWatching, TakesAFirstSampleWithoutATimeWhenTheWatchStartsBetween) {
  watch(false);
  boost::shared_ptr<KXMutex> const mutex = dataMutex();
  mutex->lock();
  Caller client([&] { add("data"); });
  EXPECT_TRUE(client.isParked());
  watch();
  mutex->unlock();
  client.join();

  EXPECT_EQ(calls(), (Calls{{"getType", {"data"}}}));
  EXPECT_THAT(valuesOf(dataItems().at("data").toKXValue()), ElementsAre(KXValue()));
}

TEST_F(AddWhileWatching, DropsTheFirstSampleWhenTheWatchStopsBetween) {
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();
  Caller client([&] { add("event"); });
  EXPECT_TRUE(client.isParked());
  watch(false);
  mutex->unlock();
  client.join();

  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), IsEmpty());
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 0);
}

TEST_F(AddWhileWatching, TheEntryOverwritesWhatItsCallbackLeftSinceTheSubscription) {
  mMemory->setHook("subscribeToEvent",
                   [&](auto const&, KXValue&) { raise("event", KXValue("early")); });

  add("event");

  EXPECT_EQ(eventItems().at("event").getName(), "event");
  EXPECT_EQ(eventItems().at("event").getNature(), "Event");
  EXPECT_THAT(valuesOf(eventItems().at("event").toKXValue()), ElementsAre(KXValue("e")));
}

TEST_F(AddWhileWatching, AnEntryOfACallbackFromBeforeCountsAsThere) {
  raise("event", KXValue("stray"));

  add("event");

  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), IsEmpty());
  EXPECT_EQ(eventItems().at("event").getName(), "");
  EXPECT_THAT(valuesOf(eventItems().at("event").toKXValue()), ElementsAre(KXValue("stray")));
}

// ---- failures while adding

TEST_F(AddWhileWatching, OtherFailuresOfTheTypeQueryChangeNothing) {
  expectPropagation(*mMemory, "getType", [&] { add("data"); });

  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
  EXPECT_THAT(mMemory->getCalls("getData"), IsEmpty());
}

TEST_F(AddWhileWatching, EveryFailureOfTheValueQueryChangesNothing) {
  for (std::string const name : {"data", "event", "micro"}) {
    SCOPED_TRACE(name);
    expectPropagation(*mMemory, "getData", [&] { add(name); });
    expectErrorPropagation(*mMemory, "getData", [&] { add(name); });
  }

  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), IsEmpty());
  EXPECT_THAT(mMemory->getCalls("subscribeToMicroEvent"), IsEmpty());
}

TEST_F(AddWhileWatching, AFailedSubscriptionLeavesTheKeyOutAndTheLockFree) {
  struct Row {
    std::string name;
    std::string method;
  };
  for (Row const& row : {Row{"event", "subscribeToEvent"}, Row{"micro", "subscribeToMicroEvent"}}) {
    SCOPED_TRACE(row.name);
    expectPropagation(*mMemory, row.method, [&] { add(row.name); });
    EXPECT_FALSE(isHeld(eventMutex()));
    expectErrorPropagation(*mMemory, row.method, [&] { add(row.name); });
    EXPECT_FALSE(isHeld(eventMutex()));
  }

  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(AddWhileWatching, CanAddAKeyAfterItsSubscriptionFailed) {
  expectPropagation(*mMemory, "subscribeToEvent", [&] { add("event"); });

  add("event");

  EXPECT_EQ(listeners(), Names{"event"});
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 1);
}

// ---- locks while adding

TEST_F(AddWhileWatching, QueriesTheStoreWithoutAnyLock) {
  int looks = 0;
  auto const look = [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_FALSE(isHeld(dataMutex()));
    EXPECT_FALSE(isHeld(eventMutex()));
  };
  mMemory->setHook("getType", look);
  mMemory->setHook("getData", look);

  for (auto const* name : {"data", "event", "micro"}) add(name);

  EXPECT_EQ(looks, 6);
}

TEST_F(AddWhileWatching, SubscribesUnderTheEventLockAlone) {
  int looks = 0;
  auto const look = [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_TRUE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  };
  mMemory->setHook("subscribeToEvent", look);
  mMemory->setHook("subscribeToMicroEvent", look);

  add("event");
  add("micro");

  EXPECT_EQ(looks, 2);
  EXPECT_FALSE(isHeld(eventMutex()));
}

TEST_F(AddWhileWatching, KeepsAClientOfTheEventMapWaitingDuringASubscription) {
  mMemory->block("subscribeToEvent");
  Caller adder([&] { add("event"); });
  ASSERT_TRUE(mMemory->waitUntilParked());

  KXValue fetched;
  Caller fetcher([&] { fetched = fetch(); });
  EXPECT_TRUE(fetcher.isParked());

  mMemory->release("subscribeToEvent");
  fetcher.join();
  ASSERT_EQ(fetched.getSize(), 1);
  EXPECT_EQ(fetched[0][0], KXValue("event"));
}

TEST_F(AddWhileWatching, KeepsNobodyWaitingDuringItsQueries) {
  mMemory->block("getData");
  Caller adder([&] { add("event"); });
  ASSERT_TRUE(mMemory->waitUntilParked());

  Caller other([&] {
    listeners();
    fetch();
  });

  EXPECT_FALSE(other.isParked());
  EXPECT_TRUE(other.isDone());
  mMemory->release("getData");
}

TEST_F(AddListener, NeedsTheLockOfItsMapOnly) {
  boost::shared_ptr<KXMutex> const data = dataMutex();
  data->lock();
  Caller eventAdder([&] { add("event"); });
  EXPECT_FALSE(eventAdder.isParked());
  Caller dataAdder([&] { add("data"); });
  EXPECT_TRUE(dataAdder.isParked());
  data->unlock();
  dataAdder.join();

  boost::shared_ptr<KXMutex> const event = eventMutex();
  mMemory->set("data2", "Data", KXValue(1));
  mMemory->set("event2", "Event", KXValue(1));
  event->lock();
  Caller secondDataAdder([&] { add("data2"); });
  EXPECT_FALSE(secondDataAdder.isParked());
  Caller secondEventAdder([&] { add("event2"); });
  EXPECT_TRUE(secondEventAdder.isParked());
  event->unlock();
}

// ---- starting the watch for real

class ListenersOnStart : public CycleWatcherTest {};

TEST_F(ListenersOnStart, StartAndStopSubscribeNothing) {
  mMemory->set("event", "Event", KXValue("e"));
  mMemory->set("micro", "MicroEvent", KXValue("m"));
  add("event");
  add("micro");

  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  call("stopWatching");

  for (auto const* method : {"subscribeToEvent", "subscribeToMicroEvent", "unsubscribeToEvent",
                             "unsubscribeToMicroEvent", "getData"}) {
    EXPECT_THAT(mMemory->getCalls(method), IsEmpty()) << method;
  }
  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
}

TEST_F(ListenersOnStart, AKeyAddedBeforeIsRefusedItsEndAndGoesAllTheSame) {
  mMemory->set("event", "Event", KXValue("e"));
  add("event");
  call("startWatching", 10);
  ASSERT_TRUE(mMemory->waitForCalls("getListData", 1));
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("no subscription to 'event'"));

  remove("event");

  EXPECT_THAT(mLog.lines(),
              ElementsAre(refused("unsubscribeFromEvent", "no subscription to 'event'")));
  EXPECT_THAT(listeners(), IsEmpty());
  call("stopWatching");
}

TEST_F(ListenersOnStart, AKeyAddedMeanwhileIsSubscribedAndStaysSoAfterTheStop) {
  mMemory->set("event", "Event", KXValue("e"));
  call("startWatching", 10);

  add("event");
  call("stopWatching");

  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), ElementsAre(subscribeEvent("event")));
  EXPECT_THAT(mMemory->getCalls("unsubscribeToEvent"), IsEmpty());
}

}  // namespace
}  // namespace KX
