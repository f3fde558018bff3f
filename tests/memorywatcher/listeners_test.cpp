// Listing the keys, and the operations on their subscriptions.
#include <tests/memorywatcher/listenersfixture.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- listing

using ListListeners = ListenersTest;

TEST_F(ListListeners, IsEmptyAtFirst) {
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(ListListeners, GivesDataKeysThenEventKeys) {
  for (auto const* name : {"b", "a"}) mMemory->set(name, "Data", KXValue(1));
  mMemory->set("c", "Event", KXValue(1));
  call("addListeners", Names{"c", "b", "a"});

  EXPECT_EQ(listeners(), (Names{"a", "b", "c"}));
}

TEST_F(ListListeners, GivesDataKeysFirstWhateverTheirNames) {
  mMemory->set("z", "Data", KXValue(1));
  mMemory->set("a", "Event", KXValue(1));
  call("addListeners", Names{"a", "z"});

  EXPECT_EQ(listeners(), (Names{"z", "a"}));
}

TEST_F(ListListeners, OrdersEachHalfByUnsignedBytes) {
  Names const inOrder = {"", "B", "a", "aa", "b", "\x7f", "\x80", "\xff"};
  for (std::string const& name : inOrder) mMemory->set(name, "Data", KXValue(1));
  call("addListeners", Names(inOrder.rbegin(), inOrder.rend()));

  EXPECT_EQ(listeners(), inOrder);

  call("removeAllListeners");
  for (std::string const& name : inOrder) mMemory->set(name, "Event", KXValue(1));
  call("addListeners", Names(inOrder.rbegin(), inOrder.rend()));

  EXPECT_EQ(listeners(), inOrder);
}

TEST_F(ListListeners, GivesAKeyOfBothMapsTwiceOncePerHalf) {
  addToBothMaps("both");
  mMemory->set("a", "Event", KXValue(1));
  mMemory->set("z", "Data", KXValue(1));
  call("addListeners", Names{"a", "z"});

  EXPECT_EQ(listeners(), (Names{"both", "z", "a", "both"}));
}

TEST_F(ListListeners, GivesMapKeysAndNotItemNames) {
  watch();
  raise("stray", KXValue(1));

  EXPECT_EQ(listeners(), Names{"stray"});
  EXPECT_EQ(eventItems().at("stray").getName(), "");
}

TEST_F(ListListeners, GivesAnUnknownKeyAmongTheDataKeys) {
  call("addListeners", Names{"event", "unknown", "data"});

  EXPECT_EQ(listeners(), (Names{"data", "unknown", "event"}));
}

TEST_F(ListListeners, TakesTheEventLockFirstAndHoldsItWhileItWaitsForTheDataLock) {
  boost::shared_ptr<KXMutex> const data = dataMutex();
  data->lock();
  Caller client([&] { listeners(); });
  EXPECT_TRUE(client.isParked());

  EXPECT_TRUE(isHeld(eventMutex()));

  data->unlock();
}

TEST_F(ListListeners, TakesNoDataLockWhileItWaitsForTheEventLock) {
  boost::shared_ptr<KXMutex> const event = eventMutex();
  event->lock();
  Caller client([&] { listeners(); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(dataMutex()));

  event->unlock();
  client.join();
  EXPECT_FALSE(isHeld(dataMutex()));
  EXPECT_FALSE(isHeld(eventMutex()));
}

// ---- the four operations on one key, and the two walks

using Subscriptions = ListenersTest;

TEST_F(Subscriptions, CarryTheModulesNameAndItsCallback) {
  mWatcher->subscribeToEvent("e");
  mWatcher->subscribeToMicroEvent("m");
  mWatcher->unsubscribeFromEvent("e");
  mWatcher->unsubscribeFromMicroEvent("m");

  EXPECT_EQ(calls(), (Calls{{"subscribeToEvent", {"e", watcherName(), "_onEventNotify"}},
                            {"subscribeToMicroEvent", {"m", watcherName(), "", "_onEventNotify"}},
                            {"unsubscribeToEvent", {"e", watcherName()}},
                            {"unsubscribeToMicroEvent", {"m", watcherName()}}}));
}

TEST_F(Subscriptions, ReachTheCallerWhenTheyFail) {
  expectPropagation(*mMemory, "subscribeToEvent", [&] { mWatcher->subscribeToEvent("e"); });
  expectErrorPropagation(*mMemory, "subscribeToEvent", [&] { mWatcher->subscribeToEvent("e"); });
  expectPropagation(*mMemory, "subscribeToMicroEvent",
                    [&] { mWatcher->subscribeToMicroEvent("m"); });
  expectErrorPropagation(*mMemory, "subscribeToMicroEvent",
                         [&] { mWatcher->subscribeToMicroEvent("m"); });

  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(Subscriptions, EndWithALogLineWhenTheStoreRefuses) {
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("a b"));
  mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwing(""));

  EXPECT_NO_THROW(mWatcher->unsubscribeFromEvent("e"));
  EXPECT_NO_THROW(mWatcher->unsubscribeFromMicroEvent("m"));

  EXPECT_THAT(mLog.lines(),
              ElementsAre(LogLine{3, "KXMemoryWatcher", "", "unsubscribeFromEvent", 0,
                                  "unsubscribeFromEvent:a b\n"},
                          LogLine{3, "KXMemoryWatcher", "", "unsubscribeFromMicroEvent", 0,
                                  "unsubscribeFromMicroEvent:\n"}));
}

TEST_F(Subscriptions, OtherFailuresOfTheirEndReachTheCaller) {
  expectPropagation(*mMemory, "unsubscribeToEvent", [&] { mWatcher->unsubscribeFromEvent("e"); });
  expectPropagation(*mMemory, "unsubscribeToMicroEvent",
                    [&] { mWatcher->unsubscribeFromMicroEvent("m"); });

  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(Subscriptions, TakeNoLock) {
  int looks = 0;
  auto const look = [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_FALSE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  };
  for (auto const* method : {"subscribeToEvent", "subscribeToMicroEvent", "unsubscribeToEvent",
                             "unsubscribeToMicroEvent"}) {
    mMemory->setHook(method, look);
  }

  mWatcher->subscribeToEvent("e");
  mWatcher->subscribeToMicroEvent("m");
  mWatcher->unsubscribeFromEvent("e");
  mWatcher->unsubscribeFromMicroEvent("m");

  EXPECT_EQ(looks, 4);
}

TEST_F(Subscriptions, OfAllEventsFollowOneUpdateCycleInKeyOrder) {
  watch();
  raise("stray", KXValue(0));
  watch(false);
  addQuietly({"micro", "event", "data"});

  mWatcher->subscribeToEvents();

  EXPECT_EQ(calls(), (Calls{{"getListData", {KXValue(Names{"event", "micro", ""})}},
                            subscribeEvent("event"),
                            subscribeMicro("micro"),
                            subscribeMicro("stray")}));
  EXPECT_THAT(valuesOf(eventItems().at("event").toKXValue()), ElementsAre(KXValue("e")));
  EXPECT_THAT(valuesOf(eventItems().at("micro").toKXValue()), ElementsAre(KXValue(0.5)));
  EXPECT_EQ(dataItems().at("data").toKXValue().getSize(), 0);
}

TEST_F(Subscriptions, OfAllEventsEndAtTheFirstFailure) {
  addQuietly({"event", "micro"});

  expectPropagation(*mMemory, "subscribeToEvent", [&] { mWatcher->subscribeToEvents(); });
  expectErrorPropagation(*mMemory, "subscribeToEvent", [&] { mWatcher->subscribeToEvents(); });

  EXPECT_THAT(mMemory->getCalls("subscribeToMicroEvent"), IsEmpty());
  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
}

TEST_F(Subscriptions, OfAllEventsAreMadeAlthoughTheirValuesCannotBeRead) {
  addQuietly({"event", "micro"});
  mMemory->setHook("getListData", FakeMemory::throwing("no values"));

  mWatcher->subscribeToEvents();

  EXPECT_THAT(mLog.lines(), ElementsAre(LogLine{3, "memoryWatcher", "", "xUpdateValues", 0,
                                                "Error caught getting data: no values"}));
  EXPECT_EQ(mMemory->getCalls("subscribeToEvent"), (Calls{subscribeEvent("event")}));
  EXPECT_EQ(mMemory->getCalls("subscribeToMicroEvent"), (Calls{subscribeMicro("micro")}));
}

TEST_F(Subscriptions, OfAllEventsStayFromTheFirstForeignFailureOfTheirEndOn) {
  addQuietly({"event", "micro"});

  expectPropagation(*mMemory, "unsubscribeToEvent", [&] { mWatcher->unsubscribeFromEvents(); });

  EXPECT_THAT(mMemory->getCalls("unsubscribeToMicroEvent"), IsEmpty());
  EXPECT_EQ(listeners(), (Names{"event", "micro"}));
}

TEST_F(Subscriptions, OfAllEventsEndInKeyOrderAndTheKeysStay) {
  watch();
  raise("stray", KXValue(0));
  watch(false);
  addQuietly({"micro", "event", "data"});

  mWatcher->unsubscribeFromEvents();

  EXPECT_EQ(calls(), (Calls{unsubscribeEvent("event"), unsubscribeMicro("micro"),
                            unsubscribeMicro("stray")}));
  EXPECT_EQ(listeners(), (Names{"data", "event", "micro", "stray"}));
}

TEST_F(Subscriptions, OfAllEventsAreMadeAndEndedWithoutAnyLock) {
  addQuietly({"event", "micro"});
  int looks = 0;
  auto const look = [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_FALSE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  };
  for (auto const* method : {"getListData", "subscribeToEvent", "subscribeToMicroEvent",
                             "unsubscribeToEvent", "unsubscribeToMicroEvent"}) {
    mMemory->setHook(method, look);
  }

  mWatcher->subscribeToEvents();
  mWatcher->unsubscribeFromEvents();

  EXPECT_EQ(looks, 5);
}

TEST_F(Subscriptions, OfAllEventsLogEachRefusalOfTheirEnd) {
  addQuietly({"event", "micro"});
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("one"));
  mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwing("two"));

  mWatcher->unsubscribeFromEvents();

  EXPECT_THAT(mLog.lines(), ElementsAre(refused("unsubscribeFromEvent", "one"),
                                        refused("unsubscribeFromMicroEvent", "two")));
}

}  // namespace
}  // namespace KX
