// What the store pushes is stamped and buffered, and waits for nobody.
#include <tests/memorywatcher/watcherfixture.hpp>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class EventCapture : public WatcherTest {
 protected:
  EventCapture() {
    mMemory->set("event", "Event", KXValue("first"));
    add("event");
    watch();
  }

  std::vector<KXValue> captured(std::string const& name) {
    return valuesOf(eventItems().at(name).toKXValue());
  }
};

TEST_F(EventCapture, FilesAValueUnderItsKey) {
  raise("event", KXValue(5));

  EXPECT_THAT(captured("event"), ElementsAre(KXValue(5)));
}

TEST_F(EventCapture, FilesNothingIntoTheDataMap) {
  mMemory->set("data", "Data", KXValue(1));
  watch(false);
  add("data");
  watch();

  raise("data", KXValue(5));

  EXPECT_EQ(dataItems().at("data").toKXValue().getSize(), 0);
  EXPECT_THAT(captured("data"), ElementsAre(KXValue(5)));
}

TEST_F(EventCapture, DropsEverythingWhileWatchingIsOff) {
  watch(false);

  raise("event", KXValue(5));
  raise("stray", KXValue(6));
  watch();

  EXPECT_THAT(captured("event"), IsEmpty());
  EXPECT_EQ(listeners(), Names{"event"});
}

TEST_F(EventCapture, KeepsWhatCameBeforeTheWatchStopped) {
  raise("event", KXValue(5));

  watch(false);

  EXPECT_THAT(captured("event"), ElementsAre(KXValue(5)));
}

TEST_F(EventCapture, StampsTheTimeOfArrival) {
  std::int64_t const before = nowMicros();
  raise("event", KXValue(5));
  std::int64_t const after = nowMicros();

  std::int64_t const time = timesOf(eventItems().at("event").toKXValue()).at(0);

  EXPECT_GE(time, before);
  EXPECT_LE(time, after);
}

TEST_F(EventCapture, StampsBeforeTheMapIsFree) {
  std::int64_t raisedBy = 0;
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();
  Caller store([&] {
    raise("event", KXValue(5));
    raisedBy = nowMicros();
  });
  store.join();
  mutex->unlock();

  EXPECT_LE(timesOf(eventItems().at("event").toKXValue()).at(0), raisedBy);
}

TEST_F(EventCapture, KeepsTwoCallbacksInArrivalOrderEachWithItsTime) {
  raise("event", KXValue("one"));
  std::int64_t const between = nowMicros();
  raise("event", KXValue("two"));

  EXPECT_THAT(captured("event"), ElementsAre(KXValue("one"), KXValue("two")));
  std::vector<std::int64_t> const times = timesOf(eventItems().at("event").toKXValue());
  EXPECT_LE(times.at(0), between);
  EXPECT_GE(times.at(1), between);
}

TEST_F(EventCapture, KeepsRepeatedEqualValues) {
  for (int i = 0; i < 3; ++i) raise("event", KXValue(7));

  EXPECT_THAT(captured("event"), ElementsAre(KXValue(7), KXValue(7), KXValue(7)));
}

TEST_F(EventCapture, KeepsValuesOfEveryType) {
  std::vector<KXValue> const values = {KXValue(),
                                       KXValue(true),
                                       KXValue(7),
                                       KXValue(0.5),
                                       KXValue("text"),
                                       KXValue(std::vector<KXValue>{KXValue(1), KXValue("x")}),
                                       KXValue::binary(std::string("\0\x01", 2))};

  for (KXValue const& value : values) raise("event", value);

  EXPECT_EQ(captured("event"), values);
}

TEST_F(EventCapture, KeepsACopyOfTheValue) {
  KXValue value(std::vector<KXValue>{KXValue(1)});
  mWatcher->onEventNotify("event", value, KXValue());

  value[0] = KXValue(2);

  EXPECT_THAT(captured("event"), ElementsAre(KXValue(std::vector<KXValue>{KXValue(1)})));
}

TEST_F(EventCapture, IgnoresTheMessage) {
  raise("event", KXValue(1), KXValue());
  raise("event", KXValue(1), KXValue("message"));
  raise("event", KXValue(1), KXValue(std::vector<KXValue>{KXValue(3)}));

  EXPECT_THAT(captured("event"), ElementsAre(KXValue(1), KXValue(1), KXValue(1)));
  KXValue const sample = eventItems().at("event").toKXValue()[1];
  EXPECT_EQ(sample.getSize(), 2);
}

TEST_F(EventCapture, MakesAnEntryForANameThatWasNeverAdded) {
  raise("stray", KXValue(5));

  KXMemoryWatcherItem const item = eventItems().at("stray");
  EXPECT_EQ(item.getName(), "");
  EXPECT_EQ(item.getNature(), "Unknown data");
  EXPECT_FALSE(item.writeToFile());  // no file name
  EXPECT_THAT(captured("stray"), ElementsAre(KXValue(5)));
}

TEST_F(EventCapture, TheEntryOfANameThatWasNeverAddedIsFetched) {
  raise("stray", KXValue(5));

  KXValue const result = fetch();

  ASSERT_EQ(result.getSize(), 2);
  EXPECT_EQ(result[1][0], KXValue("stray"));
  EXPECT_THAT(valuesOf(result[1][1]), ElementsAre(KXValue(5)));
}

TEST_F(EventCapture, TheEntryOfANameThatWasNeverAddedStaysUntilRemoved) {
  raise("stray", KXValue(5));
  fetch();
  EXPECT_EQ(fetch()[1][0], KXValue("stray"));

  remove("stray");

  EXPECT_EQ(fetch().getSize(), 1);
}

TEST_F(EventCapture, ACallbackAfterTheRemovalMakesANewEntry) {
  remove("event");

  raise("event", KXValue("late"));

  EXPECT_EQ(listeners(), Names{"event"});
  EXPECT_EQ(eventItems().at("event").getName(), "");
  EXPECT_THAT(captured("event"), ElementsAre(KXValue("late")));
}

TEST_F(EventCapture, ChangesNoNameAndNoNature) {
  raise("event", KXValue(5));

  EXPECT_EQ(eventItems().at("event").getName(), "event");
  EXPECT_EQ(eventItems().at("event").getNature(), "Event");
}

TEST_F(EventCapture, CallsNothingInTheStoreAndLogsNothing) {
  mMemory->clearCalls();

  raise("event", KXValue(5));
  raise("stray", KXValue(5));
  listeners();

  EXPECT_THAT(mMemory->getCalls(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

TEST_F(EventCapture, RefusesANameThatIsNoText) {
  EXPECT_THROW(client()->genericCall("_onEventNotify", KXValue(std::vector<KXValue>{
                                                           KXValue(1), KXValue(), KXValue()})),
               KXError);

  EXPECT_EQ(listeners(), Names{"event"});
}

TEST_F(EventCapture, WaitsForNobodyWhoHoldsTheLocks) {
  boost::shared_ptr<KXMutex> const event = eventMutex();
  boost::shared_ptr<KXMutex> const data = dataMutex();
  event->lock();
  data->lock();

  Caller store([&] {
    raise("event", KXValue(5));
    raise("stray", KXValue(6));
  });
  EXPECT_FALSE(store.isParked());
  EXPECT_TRUE(store.isDone());

  data->unlock();
  event->unlock();
  EXPECT_THAT(captured("event"), ElementsAre(KXValue(5)));
  EXPECT_THAT(captured("stray"), ElementsAre(KXValue(6)));
}

TEST_F(EventCapture, WaitsForNoSubscriptionThatIsBeingMade) {
  mMemory->set("other", "Event", KXValue("o"));
  mMemory->block("subscribeToEvent");
  Caller adder([&] { add("other"); });
  ASSERT_TRUE(mMemory->waitUntilParked());

  Caller store([&] { raise("event", KXValue(5)); });
  EXPECT_FALSE(store.isParked());
  EXPECT_TRUE(store.isDone());

  mMemory->release("subscribeToEvent");
  adder.join();
  EXPECT_THAT(captured("event"), ElementsAre(KXValue(5)));
}

// Whatever was raised before an operation began is visible to it.
TEST_F(EventCapture, IsVisibleToEveryLaterOperation) {
  struct Row {
    char const* name;
    std::function<void()> operation;
    Names expected;
  };
  Row const rows[] = {
      {"listeners", [&] { listeners(); }, {"event", "stray"}},
      {"clearBuffer", [&] { call("clearBuffer"); }, {"event", "stray"}},
      {"removeListener", [&] { remove("stray"); }, {"event"}},
      {"removeAllListeners", [&] { call("removeAllListeners"); }, {}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    raise("stray", KXValue(1));

    row.operation();

    EXPECT_EQ(listeners(), row.expected);
  }
}

using StressEventCapture = WatcherTest;

TEST_F(StressEventCapture, EveryEventIsFetchedOnceAndInTheOrderOfItsThread) {
  constexpr int kThreads = 4;
  constexpr int kEvents = 5'000;
  watch();
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([&, id] {
      std::string const name = "thread" + std::to_string(id);
      for (int i = 0; i < kEvents; ++i) mWatcher->onEventNotify(name, KXValue(i), KXValue());
      --running;
    });
  }
  std::map<std::string, int> next;
  int outOfOrder = 0;
  auto const collect = [&] {
    KXValue const result = fetch();
    for (int k = 0; k < result.getSize(); ++k) {
      int& expected = next[static_cast<std::string const&>(result[k][0])];
      for (KXValue const& value : valuesOf(result[k][1])) {
        if (!(value == KXValue(expected++))) ++outOfOrder;
      }
    }
  };

  while (running > 0) collect();
  for (std::thread& thread : threads) thread.join();
  collect();

  EXPECT_EQ(outOfOrder, 0);
  ASSERT_EQ(next.size(), static_cast<std::size_t>(kThreads));
  for (auto const& [name, count] : next) EXPECT_EQ(count, kEvents) << name;
}

}  // namespace
}  // namespace KX
