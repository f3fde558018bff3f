// Adding keys: which map holds them, and what the store is asked.
#include <tests/memorywatcher/listenersfixture.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- adding while not watching

using AddListener = ListenersTest;

TEST_F(AddListener, FilesADataKeyWithoutASample) {
  add("data");

  KXListenerMap const items = dataItems();
  ASSERT_EQ(keysOf(items), Names{"data"});
  EXPECT_EQ(items.at("data").getName(), "data");
  EXPECT_EQ(items.at("data").getNature(), "Data");
  EXPECT_EQ(items.at("data").toKXValue().getSize(), 0);
  EXPECT_FALSE(items.at("data").writeToFile());  // no file name
  EXPECT_THAT(eventItems(), IsEmpty());
}

TEST_F(AddListener, AsksTheStoreForTheTypeAlone) {
  for (auto const* name : {"data", "event", "micro", "unknown"}) {
    SCOPED_TRACE(name);
    mMemory->clearCalls();

    add(name);

    EXPECT_EQ(calls(), (Calls{{"getType", {name}}}));
  }
}

TEST_F(AddListener, FilesAnEventKeyWithoutASubscription) {
  add("event");

  KXListenerMap const items = eventItems();
  ASSERT_EQ(keysOf(items), Names{"event"});
  EXPECT_EQ(items.at("event").getName(), "event");
  EXPECT_EQ(items.at("event").getNature(), "Event");
  EXPECT_EQ(items.at("event").toKXValue().getSize(), 0);
  EXPECT_THAT(dataItems(), IsEmpty());
  EXPECT_THAT(mMemory->getCalls("subscribeToEvent"), IsEmpty());
}

TEST_F(AddListener, FilesAMicroEventKeyWithoutASubscription) {
  add("micro");

  ASSERT_EQ(keysOf(eventItems()), Names{"micro"});
  EXPECT_EQ(eventItems().at("micro").getNature(), "MicroEvent");
  EXPECT_THAT(dataItems(), IsEmpty());
  EXPECT_THAT(mMemory->getCalls("subscribeToMicroEvent"), IsEmpty());
}

TEST_F(AddListener, ComparesNaturesExactly) {
  Names const natures = {"event",      "EVENT",       "Event ", " Event",  "Events",
                         "Microevent", "Micro Event", "Data",   "unknown", "MicroEven"};
  for (std::string const& nature : natures) {
    SCOPED_TRACE(nature);
    mMemory->set("key of " + nature, nature, KXValue(1));

    add("key of " + nature);

    EXPECT_EQ(dataItems().at("key of " + nature).getNature(), nature);
  }
  EXPECT_THAT(eventItems(), IsEmpty());
}

TEST_F(AddListener, FilesAKeyOfEmptyNatureAsData) {
  mMemory->setHook("getType", [](auto const&, KXValue& result) { result = KXValue(""); });

  add("odd");

  EXPECT_EQ(dataItems().at("odd").getNature(), "");
}

TEST_F(AddListener, LogsAnUnknownKeyAndFilesItAsUnknownData) {
  add("Later/Key");

  EXPECT_THAT(mLog.lines(),
              ElementsAre(LogLine{3, "memoryWatcher", "", "addListener", 0,
                                  "The key Later/Key could not be found, but it will be watched as "
                                  "soon as it becomes available."}));
  ASSERT_EQ(keysOf(dataItems()), Names{"Later/Key"});
  EXPECT_EQ(dataItems().at("Later/Key").getNature(), "Unknown data");
  EXPECT_EQ(dataItems().at("Later/Key").getName(), "Later/Key");
  EXPECT_EQ(dataItems().at("Later/Key").toKXValue().getSize(), 0);
}

TEST_F(AddListener, TakesAnyKXErrorForAnUnknownKey) {
  mMemory->setHook("getType", FakeMemory::throwing("the store is on fire"));

  add("data");

  EXPECT_THAT(mLog.lines(), ElementsAre(notFound("data")));
  EXPECT_EQ(dataItems().at("data").getNature(), "Unknown data");
}

TEST_F(AddListener, TakesAnErrorWithoutAMessageForAnUnknownKey) {
  mMemory->setHook("getType", FakeMemory::throwingValue(SilentError()));

  add("data");

  EXPECT_THAT(mLog.lines(), ElementsAre(notFound("data")));
  EXPECT_EQ(listeners(), Names{"data"});
}

TEST_F(AddListener, FilesAKeyWhoseTypeIsAnsweredAsUnknownDataWithoutAWord) {
  mMemory->set("reserved", "Unknown data", KXValue());

  add("reserved");

  EXPECT_EQ(dataItems().at("reserved").getNature(), "Unknown data");
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(AddListener, LogsAnEmptyNameWithTwoBlanks) {
  add("");

  EXPECT_THAT(mLog.lines(), ElementsAre(LogLine{
                                3, "memoryWatcher", "", "addListener", 0,
                                "The key  could not be found, but it will be watched as soon as it "
                                "becomes available."}));
  EXPECT_EQ(listeners(), Names{""});
}

TEST_F(AddListener, ChecksNoName) {
  Names const names = {
      "", " ", "a\nb", std::string("nul\0inside", 10), "\xff\xfe", "%s", std::string(10'000, 'k')};
  for (std::string const& name : names) {
    mMemory->clearCalls();

    add(name);

    EXPECT_EQ(calls(), (Calls{{"getType", {name}}}));
    EXPECT_EQ(dataItems().at(name).getName(), name);
  }
  EXPECT_EQ(listeners().size(), names.size());
}

TEST_F(AddListener, LogsNothingForAKnownKey) {
  for (auto const* name : {"data", "event", "micro"}) add(name);

  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(AddListener, QueriesTheStoreForAKeyThatIsThereAndDoesNoMore) {
  for (std::string const name : {"data", "event", "micro"}) {
    SCOPED_TRACE(name);
    addQuietly({name});

    add(name);

    EXPECT_EQ(calls(), (Calls{{"getType", {name}}}));
    EXPECT_THAT(mLog.lines(), IsEmpty());
  }
  EXPECT_EQ(listeners(), (Names{"data", "event", "micro"}));
}

TEST_F(AddListener, LooksOnlyIntoTheMapOfTheNature) {
  add("late");
  mMemory->set("late", "Event", KXValue(1));

  add("late");

  EXPECT_EQ(keysOf(dataItems()), Names{"late"});
  EXPECT_EQ(dataItems().at("late").getNature(), "Unknown data");
  EXPECT_EQ(keysOf(eventItems()), Names{"late"});
  EXPECT_EQ(eventItems().at("late").getNature(), "Event");
}

TEST_F(AddListener, KeepsTheNatureOfAKeyThatIsThere) {
  add("data");
  mMemory->set("data", "Other", KXValue(1));

  add("data");

  EXPECT_EQ(dataItems().at("data").getNature(), "Data");
}

// ---- several keys

using AddListeners = ListenersTest;

TEST_F(AddListeners, AddsInTheOrderOfTheVector) {
  call("addListeners", Names{"micro", "data", "event"});

  EXPECT_EQ(calls(),
            (Calls{{"getType", {"micro"}}, {"getType", {"data"}}, {"getType", {"event"}}}));
  EXPECT_EQ(listeners(), (Names{"data", "event", "micro"}));
}

TEST_F(AddListeners, DoesNothingForNoNames) {
  call("addListeners", Names{});

  EXPECT_THAT(calls(), IsEmpty());
  EXPECT_THAT(listeners(), IsEmpty());
}

TEST_F(AddListeners, EndsAtTheFirstFailureAndKeepsTheNamesBeforeIt) {
  mMemory->setHook("getType", [](FakeMemory::Call const& call, KXValue&) {
    if (call.arguments[0] == KXValue("event")) throw std::runtime_error("broken");
  });

  expectStoreError<std::runtime_error>([&] {
    call("addListeners", Names{"data", "event", "micro"});
  });

  EXPECT_EQ(calls(), (Calls{{"getType", {"data"}}, {"getType", {"event"}}}));
  EXPECT_EQ(listeners(), Names{"data"});
}

TEST_F(AddListeners, GoesOnAfterAnUnknownKey) {
  call("addListeners", Names{"unknown", "data"});

  EXPECT_EQ(listeners(), (Names{"data", "unknown"}));
  EXPECT_THAT(mLog.lines(), ElementsAre(notFound("unknown")));
}

TEST_F(AddListeners, AddsARepeatedNameOnce) {
  call("addListeners", Names{"data", "data"});

  EXPECT_EQ(listeners(), Names{"data"});
}

TEST_F(AddListeners, HoldsNoLockBetweenNames) {
  watch();
  int looks = 0;
  mMemory->setHook("getType", [&](auto const&, KXValue&) {
    ++looks;
    EXPECT_FALSE(isHeld(eventMutex()));
    EXPECT_FALSE(isHeld(dataMutex()));
  });

  call("addListeners", Names{"event", "data", "micro"});

  EXPECT_EQ(looks, 3);
}

}  // namespace
}  // namespace KX
