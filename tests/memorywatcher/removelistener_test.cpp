// Removing keys: what ends with them, in which order, and what a refusal does.
#include <tests/memorywatcher/listenersfixture.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- removing

using RemoveListener = ListenersTest;

TEST_F(RemoveListener, DropsADataKeyWithoutAWordToTheStore) {
  addQuietly({"data"});

  remove("data");

  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(RemoveListener, DropsTheSamplesOfTheKey) {
  watch();
  add("data");
  remove("data");
  watch(false);

  add("data");

  EXPECT_EQ(dataItems().at("data").toKXValue().getSize(), 0);
}

TEST_F(RemoveListener, EndsTheSubscriptionOfAnEventKey) {
  watch();
  addQuietly({"event"});

  remove("event");

  EXPECT_EQ(calls(), (Calls{{"unsubscribeToEvent", {"event", watcherName()}}}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, EndsTheSubscriptionOfAMicroEventKey) {
  watch();
  addQuietly({"micro"});

  remove("micro");

  EXPECT_EQ(calls(), (Calls{{"unsubscribeToMicroEvent", {"micro", watcherName()}}}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, EndsASubscriptionThatWasNeverMade) {
  addQuietly({"event", "micro"});

  remove("event");
  remove("micro");

  EXPECT_EQ(calls(), (Calls{unsubscribeEvent("event"), unsubscribeMicro("micro")}));
}

TEST_F(RemoveListener, EndsTheSubscriptionBeforeTheEntryGoes) {
  addQuietly({"event"});
  Names seen;
  // The mutex is recursive, so the store's own thread can look.
  mMemory->setHook("unsubscribeToEvent", [&](auto const&, KXValue&) { seen = listeners(); });

  remove("event");

  EXPECT_EQ(seen, Names{"event"});
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, EndsTheSubscriptionOfAStrayEntryAsAMicroEvent) {
  watch();
  raise("stray", KXValue(1));

  remove("stray");

  EXPECT_EQ(calls(), (Calls{unsubscribeMicro("stray")}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, RemovesAKeyFromBothMaps) {
  addToBothMaps("both");
  ASSERT_EQ(listeners(), (Names{"both", "both"}));

  remove("both");

  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_EQ(calls(), (Calls{unsubscribeEvent("both")}));
}

TEST_F(RemoveListener, IgnoresANameThatWasNeverAdded) {
  addQuietly({"data", "event"});

  remove("other");
  remove("");
  remove("Data");
  remove("dat");

  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
  EXPECT_EQ(listeners(), (Names{"data", "event"}));
}

TEST_F(RemoveListener, IgnoresAKeyThatIsGoneAlready) {
  addQuietly({"event"});
  remove("event");
  mMemory->clearCalls();

  remove("event");

  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(RemoveListener, LogsARefusalForAnEventAndDropsTheKey) {
  addQuietly({"event"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("not subscribed"));

  remove("event");

  EXPECT_THAT(mLog.lines(), ElementsAre(LogLine{3, "KXMemoryWatcher", "", "unsubscribeFromEvent", 0,
                                                "unsubscribeFromEvent:not subscribed\n"}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, LogsARefusalForAMicroEventAndDropsTheKey) {
  addQuietly({"micro"});
  mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwing("not subscribed"));

  remove("micro");

  EXPECT_THAT(mLog.lines(),
              ElementsAre(LogLine{3, "KXMemoryWatcher", "", "unsubscribeFromMicroEvent", 0,
                                  "unsubscribeFromMicroEvent:not subscribed\n"}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, LogsARefusalWithoutAMessage) {
  addQuietly({"event", "micro"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwingValue(SilentError()));
  mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwingValue(SilentError()));

  remove("event");
  remove("micro");

  EXPECT_THAT(mLog.lines(), ElementsAre(refused("unsubscribeFromEvent", ""),
                                        refused("unsubscribeFromMicroEvent", "")));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListener, OtherFailuresKeepTheEntryAndFreeTheLock) {
  addQuietly({"event", "micro"});

  expectPropagation(*mMemory, "unsubscribeToEvent", [&] { remove("event"); });
  expectPropagation(*mMemory, "unsubscribeToMicroEvent", [&] { remove("micro"); });

  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
  EXPECT_EQ(eventItems().at("event").getNature(), "Event");
  EXPECT_THAT(mLog.lines(), IsEmpty());
  EXPECT_FALSE(isHeld(eventMutex()));
  EXPECT_FALSE(isHeld(dataMutex()));
}

TEST_F(RemoveListener, OtherFailuresComeAfterTheDataKeyIsGone) {
  addToBothMaps("both");

  expectPropagation(*mMemory, "unsubscribeToEvent", [&] { remove("both"); });

  EXPECT_THAT(dataItems(), IsEmpty());
  EXPECT_EQ(keysOf(eventItems()), Names{"both"});
}

TEST_F(RemoveListener, EndsTheSubscriptionUnderTheEventLockAlone) {
  addQuietly({"event", "micro"});
  int looks = 0;
  auto const look = [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_TRUE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  };
  mMemory->setHook("unsubscribeToEvent", look);
  mMemory->setHook("unsubscribeToMicroEvent", look);

  remove("event");
  remove("micro");

  EXPECT_EQ(looks, 2);
}

TEST_F(RemoveListener, ReleasesTheDataLockBeforeItWaitsForTheEventLock) {
  addToBothMaps("both");
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();
  Caller client([&] { remove("both"); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(dataMutex()));
  EXPECT_THAT(dataItems(), IsEmpty());

  mutex->unlock();
}

TEST_F(RemoveListener, TakesTheDataLockFirst) {
  addToBothMaps("both");
  boost::shared_ptr<KXMutex> const mutex = dataMutex();
  mutex->lock();
  Caller client([&] { remove("both"); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(eventMutex()));
  EXPECT_EQ(keysOf(eventItems()), Names{"both"});

  mutex->unlock();
}

TEST_F(RemoveListener, DropsWhatIsRaisedWhileTheSubscriptionEnds) {
  watch();
  addQuietly({"event"});
  mMemory->setHook("unsubscribeToEvent",
                   [&](auto const&, KXValue&) { raise("event", KXValue("last")); });

  remove("event");

  EXPECT_THAT(listeners(), IsEmpty());
}

using RemoveListeners = ListenersTest;

TEST_F(RemoveListeners, RemovesInTheOrderOfTheVector) {
  addQuietly({"data", "event", "micro"});

  call("removeListeners", Names{"micro", "data", "event"});

  EXPECT_EQ(calls(), (Calls{unsubscribeMicro("micro"), unsubscribeEvent("event")}));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListeners, DoesNothingForNoNames) {
  addQuietly({"data"});

  call("removeListeners", Names{});

  EXPECT_EQ(listeners(), Names{"data"});
}

TEST_F(RemoveListeners, IgnoresUnknownNamesAndGoesOn) {
  addQuietly({"data"});

  call("removeListeners", Names{"other", "data"});

  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveListeners, EndsAtTheFirstFailure) {
  addQuietly({"data", "event", "micro"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwingValue(std::runtime_error("broken")));

  EXPECT_THROW(call("removeListeners", Names{"data", "event", "micro"}), std::runtime_error);

  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
  EXPECT_THAT(mMemory->getCalls("unsubscribeToMicroEvent"), IsEmpty());
}

TEST_F(RemoveListeners, GoesOnAfterARefusal) {
  addQuietly({"event", "micro"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("not subscribed"));

  call("removeListeners", Names{"event", "micro"});

  EXPECT_THAT(listeners(), IsEmpty());
}

// ---- removing all

using RemoveAllListeners = ListenersTest;

TEST_F(RemoveAllListeners, OnEmptyMapsCallsNothing) {
  call("removeAllListeners");

  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(RemoveAllListeners, DropsAllKeysAndEndsSubscriptionsInKeyOrder) {
  mMemory->set("a", "MicroEvent", KXValue(1));
  mMemory->set("B", "Event", KXValue(1));
  addQuietly({"micro", "event", "data", "a", "B", "unknown"});

  call("removeAllListeners");

  EXPECT_EQ(calls(), (Calls{unsubscribeEvent("B"), unsubscribeMicro("a"), unsubscribeEvent("event"),
                            unsubscribeMicro("micro")}));
  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_EQ(fetch(), KXValue(std::vector<KXValue>()));
}

TEST_F(RemoveAllListeners, EndsTheSubscriptionsBeforeTheEntriesGo) {
  addQuietly({"event", "micro"});
  std::vector<Names> seen;
  auto const look = [&](auto const&, KXValue&) {
    seen.push_back(listeners());
  };
  mMemory->setHook("unsubscribeToEvent", look);
  mMemory->setHook("unsubscribeToMicroEvent", look);

  call("removeAllListeners");

  EXPECT_THAT(seen, ElementsAre(Names{"event", "micro"}, Names{"event", "micro"}));
}

TEST_F(RemoveAllListeners, LogsEachRefusalAndEmptiesTheMap) {
  addQuietly({"event", "micro"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("one"));
  mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwing("two"));

  call("removeAllListeners");

  EXPECT_THAT(mLog.lines(), ElementsAre(refused("unsubscribeFromEvent", "one"),
                                        refused("unsubscribeFromMicroEvent", "two")));
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(RemoveAllListeners, OtherFailuresKeepTheEventKeysAndFreeTheLock) {
  addQuietly({"data", "event", "micro"});

  expectPropagation(*mMemory, "unsubscribeToEvent", [&] { call("removeAllListeners"); });

  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
  EXPECT_THAT(mMemory->getCalls("unsubscribeToMicroEvent"), IsEmpty());
  EXPECT_FALSE(isHeld(eventMutex()));
}

TEST_F(RemoveAllListeners, EndsSubscriptionsUnderTheEventLockAlone) {
  addQuietly({"data", "event"});
  bool wasAsked = false;
  mMemory->setHook("unsubscribeToEvent", [&](auto const&, KXValue&) {
    wasAsked = true;
    EXPECT_TRUE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  });

  call("removeAllListeners");

  EXPECT_TRUE(wasAsked);
}

TEST_F(RemoveAllListeners, ReleasesTheDataLockBeforeItWaitsForTheEventLock) {
  addQuietly({"data", "event"});
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();
  Caller client([&] { call("removeAllListeners"); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(dataMutex()));
  EXPECT_THAT(dataItems(), IsEmpty());
  EXPECT_EQ(keysOf(eventItems()), Names{"event"});

  mutex->unlock();
}

TEST_F(RemoveAllListeners, DropsWhatIsRaisedWhileSubscriptionsEnd) {
  watch();
  addQuietly({"event", "micro"});
  mMemory->setHook("unsubscribeToMicroEvent",
                   [&](auto const&, KXValue&) { raise("event", KXValue("last")); });

  call("removeAllListeners");

  EXPECT_THAT(listeners(), IsEmpty());
}

}  // namespace
}  // namespace KX
