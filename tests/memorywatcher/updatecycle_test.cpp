// One update cycle: probe, batch read, filing, promotion, failures.

#include <ostream>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

LogLine readFailed(std::string const& message) {
  return {3, "memoryWatcher", "", "xUpdateValues", 0, "Error caught getting data: " + message};
}

class UpdateCycle : public WatcherTest {
 protected:
  // Keys that the store does not know yet, registered while not watching: without samples.
  void addUnknown(Names const& names) {
    for (std::string const& name : names) add(name);
    mLog.clear();
    mMemory->clearCalls();
  }
  KXMemoryWatcherItem dataItem(std::string const& name) { return dataItems().at(name); }
  std::vector<KXValue> dataValues(std::string const& name) {
    return valuesOf(dataItem(name).toKXValue());
  }
  std::vector<KXValue> eventValues(std::string const& name) {
    return valuesOf(eventItems().at(name).toKXValue());
  }
};

TEST_F(UpdateCycle, EmptyMapMakesOneReadOfNothing) {
  update();

  EXPECT_EQ(mMemory->getCalls(), (Calls{{"getListData", {KXValue(std::vector<KXValue>())}}}));
  EXPECT_TRUE(dataItems().empty());
  EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(UpdateCycle, ReadsAllKeysInOneCallInByteOrder) {
  for (char const* name : {"b", "a", "B", "ab"}) {
    mMemory->set(name, "Data", name);
    add(name);
  }
  mMemory->clearCalls();

  update();

  EXPECT_EQ(mMemory->getCalls(), (Calls{{"getListData", {KXValue(Names{"B", "a", "ab", "b"})}}}));
  for (char const* name : {"b", "a", "B", "ab"}) {
    EXPECT_EQ(dataValues(name), (std::vector<KXValue>{name}));
  }
}

TEST_F(UpdateCycle, FilesThreeKeysWithOneTimeReadBeforeTheBatch) {
  for (char const* name : {"a", "b", "c"}) {
    mMemory->set(name, "Data", 1);
    add(name);
  }
  std::int64_t readAt = 0;
  mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) { readAt = nowMicros(); });
  std::int64_t const before = nowMicros();

  update();

  std::vector<std::int64_t> const times = timesOf(dataItem("a").toKXValue());
  ASSERT_EQ(times.size(), 1U);
  EXPECT_GE(times[0], before);
  EXPECT_LE(times[0], readAt);
  EXPECT_EQ(timesOf(dataItem("b").toKXValue()), times);
  EXPECT_EQ(timesOf(dataItem("c").toKXValue()), times);
}

TEST_F(UpdateCycle, AppendsOneSamplePerCycleInOrder) {
  mMemory->set("a", "Data", 0);
  add("a");

  for (int i = 0; i < 50; ++i) {
    mMemory->setValue("a", i);
    update();
  }

  std::vector<KXValue> expected;
  for (int i = 0; i < 50; ++i) expected.emplace_back(i);
  EXPECT_EQ(dataValues("a"), expected);
  std::vector<std::int64_t> const times = timesOf(dataItem("a").toKXValue());
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

TEST_F(UpdateCycle, IsSkippedSilentlyWhileAClientHoldsTheLock) {
  mMemory->set("a", "Data", 1);
  add("a");
  mMemory->clearCalls();
  {
    KXCriticalSection const client(dataMutex());
    Caller([this] { update(); }).join();
    EXPECT_TRUE(mMemory->getCalls().empty());
  }

  EXPECT_TRUE(dataValues("a").empty());
  EXPECT_TRUE(mLog.lines().empty());
  update();
  EXPECT_EQ(dataValues("a").size(), 1U);
}

TEST_F(UpdateCycle, HoldsNoLockWhileTheStoreReads) {
  add("unknown");
  bool dataHeld = true;
  bool eventHeld = true;
  auto const look = [&](FakeMemory::Call const&, KXValue&) {
    dataHeld = isHeld(dataMutex());
    eventHeld = isHeld(eventMutex());
  };
  for (char const* method : {"getListData", "getType"}) {
    SCOPED_TRACE(method);
    dataHeld = eventHeld = true;
    mMemory->setHook(method, look);
    update();
    EXPECT_FALSE(dataHeld);
    EXPECT_FALSE(eventHeld);
    mMemory->setHook(method, nullptr);
  }
}

TEST_F(UpdateCycle, ValuesGoToTheKeysTheyWereReadForWhateverClientsDidMeanwhile) {
  for (char const* name : {"a", "b", "c"}) {
    mMemory->set(name, "Data", name);
    add(name);
  }
  mMemory->set("aa", "Data", "aa");
  mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue&) {
    remove("b");
    add("aa");
  });

  update();

  EXPECT_EQ(dataValues("a"), (std::vector<KXValue>{"a"}));
  EXPECT_EQ(dataValues("c"), (std::vector<KXValue>{"c"}));
  EXPECT_EQ(dataValues("aa"), std::vector<KXValue>{});
  EXPECT_EQ(dataItems().count("b"), 0U);
}

// The cycle keeps a list of the keys from one time to the next.
TEST_F(UpdateCycle, AsksForTheKeysAsTheyAreNow) {
  for (std::string const name : {"a", "b", "c"}) {
    mMemory->set(name, "Data", KXValue(name));
    add(name);
  }
  auto const asked = [this] {
    mMemory->clearCalls();
    update();
    std::vector<std::string> names;
    mMemory->getCalls("getListData").at(0).arguments.at(0).ToStringArray(names, false);
    return names;
  };
  EXPECT_EQ(asked(), (Names{"a", "b", "c"}));

  remove("b");
  EXPECT_EQ(asked(), (Names{"a", "c"}));
  add("b");
  EXPECT_EQ(asked(), (Names{"a", "b", "c"}));
  call("removeAllListeners");
  EXPECT_EQ(asked(), Names{});
  add("c");
  EXPECT_EQ(asked(), Names{"c"});
  EXPECT_EQ(dataValues("c"), (std::vector<KXValue>{"c"}));
}

// ---- keys of unknown nature

TEST_F(UpdateCycle, UnknownKeyIsSampledWithAnInvalidValueAndAskedEachCycle) {
  addUnknown({"later"});

  update();
  update();

  EXPECT_EQ(dataValues("later"), (std::vector<KXValue>{KXValue(), KXValue()}));
  EXPECT_EQ(mMemory->getCalls("getType").size(), 2U);
  EXPECT_EQ(dataItem("later").getNature(), "Unknown data");
}

TEST_F(UpdateCycle, StoreThatReportsUnknownDataKeepsTheKeyUnresolvedWithoutError) {
  addUnknown({"later"});
  mMemory->set("later", "Unknown data", KXValue());

  update();
  update();

  EXPECT_EQ(dataValues("later").size(), 2U);
  EXPECT_EQ(mMemory->getCalls("getType").size(), 2U);
  EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(UpdateCycle, UnknownKeyThatBecomesDataIsAskedNoMore) {
  addUnknown({"later"});
  mMemory->set("later", "Data", 5);

  update();
  update();

  EXPECT_EQ(mMemory->getCalls("getType").size(), 1U);
  EXPECT_EQ(dataItem("later").getNature(), "Data");
  EXPECT_EQ(dataValues("later"), (std::vector<KXValue>{5, 5}));
}

TEST_F(UpdateCycle, KnownDataKeyIsNeverAsked) {
  mMemory->set("a", "Data", 5);
  add("a");
  mMemory->clearCalls();

  update();

  EXPECT_TRUE(mMemory->getCalls("getType").empty());
}

struct EventKind {
  char const* nature;
  FakeMemory::Call subscription;
};
void PrintTo(EventKind const& kind, std::ostream* out) {
  *out << kind.nature;
}

class Promotion : public UpdateCycle, public ::testing::WithParamInterface<EventKind> {
 protected:
  /// Promotes "k", with "other" beside it, and removes one of them when the cycle, which holds one
  /// lock at a time, has copied "k" and waits for the event keys.
  void promoteWhileRemoving(std::string const& name) {
    addUnknown({"k", "other"});
    mMemory->set("k", GetParam().nature, 7);
    mMemory->set("other", "Data", 1);
    boost::shared_ptr<KXMutex> const mutex = eventMutex();
    mutex->lock();
    Caller cycle([this] { update(); });
    EXPECT_TRUE(cycle.isParked());
    mWatcher->removeListener(name);
    mutex->unlock();
  }
};

TEST_P(Promotion, MovesTheKeyWithItsSamplesAndSubscribesIt) {
  addUnknown({"k"});
  update();
  mMemory->set("k", GetParam().nature, 7);
  mMemory->clearCalls();

  update();

  EXPECT_EQ(dataItems().count("k"), 0U);
  KXMemoryWatcherItem const item = eventItems().at("k");
  EXPECT_EQ(item.getName(), "k");
  EXPECT_EQ(item.getNature(), GetParam().nature);
  EXPECT_EQ(valuesOf(item.toKXValue()), (std::vector<KXValue>{KXValue(), 7}));
  EXPECT_EQ(
      mMemory->getCalls(),
      (Calls{{"getListData", {KXValue(Names{"k"})}}, {"getType", {"k"}}, GetParam().subscription}));
}

TEST_P(Promotion, KeyThatIsRemovedOnItsWayStaysRemoved) {
  promoteWhileRemoving("k");

  EXPECT_EQ(listeners(), Names{"other"});
  EXPECT_TRUE(mMemory->getCalls(GetParam().subscription.method).empty());
}

TEST_P(Promotion, RemovalOfAnotherKeyOnItsWayDoesNotKeepItBack) {
  promoteWhileRemoving("other");

  EXPECT_THAT(dataItems(), ::testing::IsEmpty());
  EXPECT_EQ(eventItems().at("k").getNature(), GetParam().nature);
  EXPECT_EQ(mMemory->getCalls(GetParam().subscription.method).size(), 1U);
}

TEST_P(Promotion, LaterValuesComeThroughTheCallbackOnly) {
  addUnknown({"k"});
  mMemory->set("k", GetParam().nature, 7);
  update();
  mMemory->clearCalls();

  update();
  watch();
  raise("k", 8);

  EXPECT_EQ(mMemory->getCalls(), (Calls{{"getListData", {KXValue(std::vector<KXValue>())}}}));
  EXPECT_EQ(eventValues("k"), (std::vector<KXValue>{7, 8}));
}

TEST_P(Promotion, SubscribesWhileTheEventLockIsHeldAndTheEntryIsThere) {
  addUnknown({"k"});
  mMemory->set("k", GetParam().nature, 7);
  bool eventHeld = false;
  bool dataHeld = true;
  mMemory->setHook(GetParam().subscription.method, [&](FakeMemory::Call const&, KXValue&) {
    eventHeld = isHeld(eventMutex());
    dataHeld = isHeld(dataMutex());
    // This thread holds the lock, so it may look: the entry comes before the subscription.
    EXPECT_EQ(eventValues("k"), (std::vector<KXValue>{7}));
  });

  update();

  EXPECT_TRUE(eventHeld);
  EXPECT_FALSE(dataHeld);
}

TEST_P(Promotion, OverwritesAnEntryOfThatName) {
  addUnknown({"k"});
  watch();
  raise("k", 1);  // a callback left a nameless entry
  mMemory->set("k", GetParam().nature, 7);

  update();

  EXPECT_EQ(eventItems().at("k").getName(), "k");
  EXPECT_EQ(eventValues("k"), (std::vector<KXValue>{7}));
}

TEST_P(Promotion, KeyRemovedWhileItsTypeIsAskedStaysRemoved) {
  addUnknown({"k"});
  mMemory->set("k", GetParam().nature, 7);
  mMemory->setHook("getType", [&](FakeMemory::Call const&, KXValue&) { remove("k"); });

  update();

  EXPECT_EQ(listeners(), Names{});
  EXPECT_TRUE(mMemory->getCalls(GetParam().subscription.method).empty());
}

TEST_P(Promotion, FailedSubscriptionLeavesTheKeyInBothMaps) {
  addUnknown({"k"});
  mMemory->set("k", GetParam().nature, 7);
  mMemory->setHook(GetParam().subscription.method, FakeMemory::throwing("refused"));

  update();

  EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{readFailed("refused")}));
  EXPECT_EQ(listeners(), (Names{"k", "k"}));
  EXPECT_EQ(dataItem("k").getNature(), GetParam().nature);
  EXPECT_EQ(eventItems().at("k").getNature(), GetParam().nature);
  // It goes on being sampled as data, and is asked no more.
  mMemory->clearCalls();
  update();
  EXPECT_EQ(dataValues("k"), (std::vector<KXValue>{7, 7}));
  EXPECT_TRUE(mMemory->getCalls("getType").empty());
}

TEST_P(Promotion, LaterFailureInTheCycleLeavesAPromotedKeyInBothMaps) {
  addUnknown({"k", "z"});
  mMemory->set("k", GetParam().nature, 7);  // z stays unknown: asking for it fails

  update();

  ASSERT_EQ(mLog.lines().size(), 1U);
  EXPECT_EQ(listeners(), (Names{"k", "z", "k"}));
}

INSTANTIATE_TEST_SUITE_P(Kinds, Promotion,
                         ::testing::Values(EventKind{"Event",
                                                     {"subscribeToEvent",
                                                      {"k", watcherName(), "_onEventNotify"}}},
                                           EventKind{"MicroEvent",
                                                     {"subscribeToMicroEvent",
                                                      {"k", watcherName(), "", "_onEventNotify"}}}),
                         ::testing::PrintToStringParamName());

TEST_F(UpdateCycle, FreshKeyPutInPlaceOfAPromotedOneStays) {
  addUnknown({"k", "z"});
  mMemory->set("k", "Event", 7);
  mMemory->set("z", "Data", 1);
  mMemory->setHook("getType", [&](FakeMemory::Call const& call, KXValue&) {
    if (call.arguments[0] != KXValue("z")) return;
    // After k was promoted and before it is erased, a client replaces it by a data key.
    mMemory->setHook("getType", nullptr);
    remove("k");
    mMemory->set("k", "Data", 8);
    add("k");
  });

  update();

  EXPECT_EQ(dataItem("k").getNature(), "Data");
}

// ---- failures

TEST_F(UpdateCycle, FailedReadLogsOneLineAndFilesNothing) {
  mMemory->set("a", "Data", 1);
  add("a");
  mMemory->setHook("getListData", FakeMemory::throwing("out of order"));

  update();
  EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{readFailed("out of order")}));
  update();

  EXPECT_EQ(mLog.lines().size(), 2U);
  EXPECT_TRUE(dataValues("a").empty());
  mMemory->setHook("getListData", nullptr);
  update();
  EXPECT_EQ(dataValues("a").size(), 1U);
}

TEST_F(UpdateCycle, NullMessageLogsNothingBehindTheText) {
  mMemory->setHook("getListData", FakeMemory::throwingValue(SilentError()));

  update();

  EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{readFailed("")}));
}

TEST_F(UpdateCycle, FailedTypeQueryKeepsWhatWasFiledBefore) {
  mMemory->set("a", "Data", 1);
  add("a");
  mMemory->set("z", "Data", 1);
  add("z");
  addUnknown({"m"});  // between the two
  mMemory->setHook("getType", FakeMemory::throwing("who knows"));

  update();

  EXPECT_EQ(mLog.lines(), (std::vector<LogLine>{readFailed("who knows")}));
  EXPECT_EQ(dataValues("a").size(), 1U);
  EXPECT_EQ(dataValues("m").size(), 1U);  // its own sample is filed before its type is asked
  EXPECT_EQ(dataValues("z").size(), 0U);
}

TEST_F(UpdateCycle, ShortAnswerFilesWhatCameAndIsLogged) {
  for (char const* name : {"a", "b", "c"}) {
    mMemory->set(name, "Data", 1);
    add(name);
  }
  mMemory->setHook("getListData", [](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(10, 20);
  });

  update();

  EXPECT_EQ(dataValues("a"), (std::vector<KXValue>{10}));
  EXPECT_EQ(dataValues("b"), (std::vector<KXValue>{20}));
  EXPECT_TRUE(dataValues("c").empty());
  EXPECT_EQ(
      mLog.lines(),
      (std::vector<LogLine>{readFailed("index 2 is out of range, the array has 2 elements")}));
}

TEST_F(UpdateCycle, AnswerThatIsNoArrayFilesNothingAndIsLogged) {
  mMemory->set("a", "Data", 1);
  add("a");
  mMemory->setHook("getListData",
                   [](FakeMemory::Call const&, KXValue& result) { result = KXValue(5); });

  update();

  EXPECT_TRUE(dataValues("a").empty());
  ASSERT_EQ(mLog.lines().size(), 1U);
  EXPECT_TRUE(mLog.lines()[0].text.starts_with("Error caught getting data: "));
}

TEST_F(UpdateCycle, LongAnswerIsCutToTheKeys) {
  mMemory->set("a", "Data", 1);
  add("a");
  mMemory->setHook("getListData", [](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(10, 20, 30);
  });

  update();

  EXPECT_EQ(dataValues("a"), (std::vector<KXValue>{10}));
  EXPECT_TRUE(mLog.lines().empty());
}

TEST_F(UpdateCycle, OtherExceptionsLeaveTheCycle) {
  mMemory->set("a", "Data", 1);
  add("a");
  addUnknown({"u"});

  mMemory->setHook("getListData", FakeMemory::throwingValue(std::runtime_error("odd")));
  EXPECT_THROW(update(), std::runtime_error);
  mMemory->setHook("getListData", FakeMemory::throwingValue(5));
  EXPECT_THROW(update(), int);
  mMemory->setHook("getListData", nullptr);
  mMemory->setHook("getType", FakeMemory::throwingValue(std::runtime_error("odd")));
  EXPECT_THROW(update(), std::runtime_error);

  EXPECT_TRUE(mLog.lines().empty());
  EXPECT_EQ(dataValues("a").size(), 1U);  // from the last one, which read before it failed
}

// ---- the cycle over the event map

TEST_F(UpdateCycle, OverEventsOnlyFilesValues) {
  mMemory->set("e", "Event", 4);
  add("e");
  watch();
  raise("stray", 1);  // an entry without a name
  mMemory->clearCalls();

  ForTest::updateEvents(*mWatcher);

  // The store is asked for the items' names, the stray's being empty.
  EXPECT_EQ(mMemory->getCalls(), (Calls{{"getListData", {KXValue(Names{"e", ""})}}}));
  EXPECT_EQ(eventValues("e"), (std::vector<KXValue>{4}));
  EXPECT_EQ(eventValues("stray"), (std::vector<KXValue>{1, KXValue()}));
}

TEST_F(UpdateCycle, OverEventsProbesTheEventLock) {
  mMemory->set("e", "Event", 4);
  add("e");
  mMemory->clearCalls();
  {
    KXCriticalSection const client(eventMutex());
    Caller([this] { ForTest::updateEvents(*mWatcher); }).join();
  }
  EXPECT_TRUE(mMemory->getCalls().empty());
  {
    KXCriticalSection const client(dataMutex());
    Caller([this] { ForTest::updateEvents(*mWatcher); }).join();
  }
  EXPECT_EQ(mMemory->getCalls().size(), 1U);
}

}  // namespace
}  // namespace KX
