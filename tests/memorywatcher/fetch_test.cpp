// What was buffered is handed over in one fetch, once; or dropped.
#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

#include <algorithm>
#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

KXValue emptyArray() {
  return KXValue(std::vector<KXValue>());
}

/// Two data keys and an event key, watched; `sample()` adds one sample to each.
class Fetch : public WatcherTest {
 protected:
  Fetch() {
    for (auto const* name : {"a", "b"}) mMemory->set(name, "Data", KXValue(0));
    mMemory->set("event", "Event", KXValue(0));
    for (auto const* name : {"b", "event", "a"}) add(name);
    watch();
    mMemory->clearCalls();
  }

  void sampleData(int value) {
    mMemory->setValue("a", KXValue(value));
    mMemory->setValue("b", KXValue(value + 100));
    update();
  }
  void sample(int value) {
    sampleData(value);
    raise("event", KXValue(value));
  }
};

std::vector<std::string> keysOf(KXValue const& result) {
  std::vector<std::string> keys;
  for (int i = 0; i < result.getSize(); ++i) {
    keys.push_back(static_cast<std::string const&>(result[i][0]));
  }
  return keys;
}

/// The values of a key over the whole result, in order.
std::vector<int> intsOf(KXValue const& result, std::string const& key) {
  std::vector<int> found;
  for (int i = 0; i < result.getSize(); ++i) {
    if (!(result[i][0] == KXValue(key))) continue;
    for (KXValue const& value : valuesOf(result[i][1])) found.push_back(static_cast<int>(value));
  }
  return found;
}

// ---- the form of a result

TEST_F(Fetch, WithoutKeysIsAnEmptyArray) {
  call("removeAllListeners");

  EXPECT_EQ(fetch(), emptyArray());
}

TEST_F(Fetch, ListsAKeyWithoutSamples) {
  KXValue const result = fetch();

  EXPECT_EQ(result,
            KXValue(std::vector<KXValue>{KXValue(std::vector<KXValue>{"a", emptyArray()}),
                                         KXValue(std::vector<KXValue>{"b", emptyArray()}),
                                         KXValue(std::vector<KXValue>{"event", emptyArray()})}));
}

TEST_F(Fetch, GivesEachKeyWithItsSamplesOldestFirst) {
  sample(1);
  sample(2);

  KXValue const result = fetch();

  ASSERT_EQ(keysOf(result), (Names{"a", "b", "event"}));
  EXPECT_THAT(intsOf(result, "a"), ElementsAre(1, 2));
  EXPECT_THAT(intsOf(result, "b"), ElementsAre(101, 102));
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(1, 2));
}

TEST_F(Fetch, GivesEntriesOfTwoAndSamplesOfAPairOfIntsAndTheValue) {
  sample(1);

  KXValue const result = fetch();

  ASSERT_EQ(result.getType(), KXValue::TypeArray);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(result[i].getSize(), 2);
    EXPECT_EQ(result[i][0].getType(), KXValue::TypeString);
    ASSERT_EQ(result[i][1].getType(), KXValue::TypeArray);
    ASSERT_EQ(result[i][1].getSize(), 1);
    ASSERT_EQ(result[i][1][0].getSize(), 2);
    ASSERT_EQ(result[i][1][0][0].getSize(), 2);
    EXPECT_EQ(result[i][1][0][0][0].getType(), KXValue::TypeInt);
    EXPECT_EQ(result[i][1][0][0][1].getType(), KXValue::TypeInt);
  }
}

TEST_F(Fetch, GivesTheFormOfEachItem) {
  sample(1);
  sample(2);
  KXValue const expected = dataItems().at("b").toKXValue();
  KXValue const expectedEvent = eventItems().at("event").toKXValue();

  KXValue const result = fetch();

  EXPECT_EQ(result[1][1], expected);
  EXPECT_EQ(result[2][1], expectedEvent);
}

TEST_F(Fetch, GivesTheTimesAtWhichTheSamplesWereTaken) {
  std::int64_t const before = nowMicros();
  sample(1);
  std::int64_t const between = nowMicros();
  sample(2);
  std::int64_t const after = nowMicros();

  KXValue const result = fetch();

  for (int i = 0; i < 3; ++i) {
    std::vector<std::int64_t> const times = timesOf(result[i][1]);
    EXPECT_GE(times.at(0), before);
    EXPECT_LE(times.at(0), between);
    EXPECT_GE(times.at(1), between);
    EXPECT_LE(times.at(1), after);
  }
}

TEST_F(Fetch, GivesTheSamplesOfACycleOneTime) {
  sampleData(1);

  KXValue const result = fetch();

  EXPECT_EQ(result[0][1][0][0], result[1][1][0][0]);
}

TEST_F(Fetch, PutsDataKeysFirstAndOrdersEachHalfByBytes) {
  call("removeAllListeners");
  watch(false);
  for (auto const* name : {"z", "Y", "b"}) {
    mMemory->set(name, "Data", KXValue(1));
    add(name);
  }
  for (auto const* name : {"a", "B", "\x80"}) {
    mMemory->set(name, "Event", KXValue(1));
    add(name);
  }

  EXPECT_EQ(keysOf(fetch()), (Names{"Y", "b", "z", "B", "a", "\x80"}));
}

TEST_F(Fetch, GivesAKeyOfBothMapsTwice) {
  watch(false);
  add("both");
  mMemory->set("both", "Event", KXValue(1));
  add("both");

  EXPECT_EQ(keysOf(fetch()), (Names{"a", "b", "both", "both", "event"}));
}

TEST_F(Fetch, KeepsAnInvalidValue) {
  mMemory->setValue("a", KXValue());
  update();

  KXValue const samples = fetch()[0][1];

  EXPECT_THAT(valuesOf(samples), ElementsAre(KXValue()));
}

TEST_F(Fetch, StaysAsItIsWhateverComesLater) {
  sample(1);
  KXValue const result = fetch();

  sample(2);
  call("removeAllListeners");

  EXPECT_THAT(intsOf(result, "a"), ElementsAre(1));
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(1));
}

TEST_F(Fetch, CallsNothingInTheStoreAndLogsNothing) {
  sample(1);
  mMemory->clearCalls();

  fetch();
  call("clearBuffer");

  EXPECT_THAT(mMemory->getCalls(), IsEmpty());
  EXPECT_THAT(mLog.lines(), IsEmpty());
}

// ---- what a fetch leaves behind

TEST_F(Fetch, EmptiesEveryBufferAndKeepsTheKeys) {
  sample(1);
  fetch();

  KXValue const second = fetch();

  EXPECT_EQ(keysOf(second), (Names{"a", "b", "event"}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(second[i][1], emptyArray());
}

TEST_F(Fetch, GivesOnlyWhatCameSinceTheLastOne) {
  sample(1);
  fetch();
  sample(2);

  KXValue const result = fetch();

  EXPECT_THAT(intsOf(result, "a"), ElementsAre(2));
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(2));
}

TEST_F(Fetch, WorksWhileNotWatching) {
  sample(1);
  watch(false);

  KXValue const result = fetch();

  EXPECT_THAT(intsOf(result, "a"), ElementsAre(1));
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(1));
  EXPECT_THAT(intsOf(fetch(), "a"), IsEmpty());
}

TEST_F(Fetch, ChangesNoMembershipAndNoItem) {
  sample(1);

  fetch();

  EXPECT_EQ(listeners(), (Names{"a", "b", "event"}));
  EXPECT_EQ(dataItems().at("a").getName(), "a");
  EXPECT_EQ(dataItems().at("a").getNature(), "Data");
  EXPECT_EQ(eventItems().at("event").getNature(), "Event");
}

// The event half is copied after the data half: while a fetch waits for the event lock, its data
// half is copied and cleared.
class FetchBetweenItsHalves : public Fetch {
 protected:
  /// Fetches on another thread and runs `between` when the fetch has done its data half.
  template <class Between>
  KXValue fetchWith(Between between) {
    KXValue result;
    boost::shared_ptr<KXMutex> const mutex = eventMutex();
    mutex->lock();
    Caller client([&] { result = fetch(); });
    EXPECT_TRUE(client.isParked());
    between();
    mutex->unlock();
    client.join();
    return result;
  }
};

TEST_F(FetchBetweenItsHalves, HoldsNoDataLockWhileItWaitsForTheEventLock) {
  fetchWith([&] { EXPECT_FALSE(isHeld(dataMutex())); });
}

TEST_F(FetchBetweenItsHalves, HasClearedItsDataHalf) {
  sample(1);

  KXValue const result =
      fetchWith([&] { EXPECT_EQ(dataItems().at("a").toKXValue(), emptyArray()); });

  EXPECT_THAT(intsOf(result, "a"), ElementsAre(1));
}

TEST_F(FetchBetweenItsHalves, LeavesDataThatComesMeanwhileToTheNextFetch) {
  sample(1);

  KXValue const first = fetchWith([&] { sampleData(2); });

  EXPECT_THAT(intsOf(first, "a"), ElementsAre(1));
  EXPECT_THAT(intsOf(fetch(), "a"), ElementsAre(2));
}

TEST_F(FetchBetweenItsHalves, TakesEventsThatComeMeanwhile) {
  sample(1);

  KXValue const first = fetchWith([&] { raise("event", KXValue(2)); });

  EXPECT_THAT(intsOf(first, "event"), ElementsAre(1, 2));
  EXPECT_THAT(intsOf(fetch(), "event"), IsEmpty());
}

TEST_F(Fetch, HoldsNoEventLockWhileItWaitsForTheDataLock) {
  boost::shared_ptr<KXMutex> const mutex = dataMutex();
  mutex->lock();
  Caller client([&] { fetch(); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(eventMutex()));

  mutex->unlock();
}

class FetchInTheGap : public Fetch {
 protected:
  FetchInTheGap() {
    for (int i = 0; i < 3; ++i) sample(i);
  }
};

// A fetch allocates while it copies: each place of it, in turn, is where something comes.
TEST_F(FetchInTheGap, LosesNoEventThatComesMeanwhile) {
  std::vector<int> collected;
  int raised = 3;
  bool hasCome = true;
  for (int passing = 0; hasCome && passing < 1000; ++passing) {
    hasCome = false;
    Allocations::interruptAfter(passing, [&] {
      std::thread([&] { mWatcher->onEventNotify("event", KXValue(raised), KXValue()); }).join();
      ++raised;
      hasCome = true;
    });
    KXValue const result = mWatcher->getData();
    Allocations::leaveAlone();
    for (int value : intsOf(result, "event")) collected.push_back(value);
  }
  for (int value : intsOf(fetch(), "event")) collected.push_back(value);

  EXPECT_GT(raised, 3 + 5);
  std::vector<int> expected;
  for (int i = 0; i < raised; ++i) expected.push_back(i);
  EXPECT_EQ(collected, expected);
}

TEST_F(FetchInTheGap, LosesNoBatchThatComesMeanwhile) {
  int places = 0;
  bool hasCome = true;
  for (; hasCome && places < 1000; ++places) {
    SCOPED_TRACE(places);
    fetch();
    sampleData(1);
    mMemory->setValue("a", KXValue(2));
    mMemory->block("getListData");
    // This cycle began before the fetch, so no lock keeps it from filing.
    Caller cycle([&] { update(); });
    ASSERT_TRUE(mMemory->waitUntilParked());
    hasCome = false;
    Allocations::interruptAfter(places, [&] {
      mMemory->release("getListData");
      cycle.join();
      hasCome = true;
    });

    KXValue const first = mWatcher->getData();
    Allocations::leaveAlone();
    mMemory->release("getListData");
    cycle.join();
    KXValue const second = fetch();

    std::vector<int> both = intsOf(first, "a");
    for (int value : intsOf(second, "a")) both.push_back(value);
    EXPECT_THAT(both, ElementsAre(1, 2));
  }
  EXPECT_GT(places, 5);
}

// Memory that runs out at each place of a fetch in turn: nothing that was buffered is lost.
TEST_F(FetchInTheGap, KeepsTheSamplesThatWereNotClearedWhenItFails) {
  bool hasFinished = false;
  int failures = 0;
  for (int passing = 0; !hasFinished && passing < 1000; ++passing) {
    SCOPED_TRACE(passing);
    call("clearBuffer");
    sample(1);
    sample(2);
    listeners();  // files what waits

    Allocations::failAfter(passing);
    try {
      mWatcher->getData();
      hasFinished = true;
    } catch (std::bad_alloc const&) {
      ++failures;
    }
    Allocations::leaveAlone();

    EXPECT_FALSE(isHeld(dataMutex()));
    EXPECT_FALSE(isHeld(eventMutex()));
    KXValue const rest = fetch();
    if (hasFinished) continue;
    // The event half comes last: it is cleared only by a fetch that succeeds.
    EXPECT_THAT(intsOf(rest, "event"), ElementsAre(1, 2));
  }
  EXPECT_TRUE(hasFinished);
  EXPECT_GT(failures, 5);
}

TEST_F(FetchInTheGap, KeepsTheDataWhenCopyingItFails) {
  Allocations::failAfter(0);
  EXPECT_THROW(mWatcher->getData(), std::bad_alloc);
  Allocations::leaveAlone();

  KXValue const result = fetch();

  EXPECT_THAT(intsOf(result, "a"), ElementsAre(0, 1, 2));
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(0, 1, 2));
}

// ---- clearing

using ClearBuffer = Fetch;

TEST_F(ClearBuffer, DropsAllSamplesAndKeepsTheKeys) {
  sample(1);

  call("clearBuffer");

  KXValue const result = fetch();
  EXPECT_EQ(keysOf(result), (Names{"a", "b", "event"}));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(result[i][1], emptyArray());
}

TEST_F(ClearBuffer, KeepsNamesAndNatures) {
  sample(1);

  call("clearBuffer");

  EXPECT_EQ(dataItems().at("a").getName(), "a");
  EXPECT_EQ(dataItems().at("a").getNature(), "Data");
  EXPECT_EQ(eventItems().at("event").getName(), "event");
  EXPECT_EQ(eventItems().at("event").getNature(), "Event");
}

TEST_F(ClearBuffer, DropsWhatWasRaisedJustBefore) {
  raise("event", KXValue(1));
  raise("stray", KXValue(1));

  call("clearBuffer");

  KXValue const result = fetch();
  EXPECT_EQ(keysOf(result), (Names{"a", "b", "event", "stray"}));
  EXPECT_THAT(intsOf(result, "event"), IsEmpty());
  EXPECT_THAT(intsOf(result, "stray"), IsEmpty());
}

TEST_F(ClearBuffer, WorksWhileNotWatching) {
  sample(1);
  watch(false);

  call("clearBuffer");

  EXPECT_THAT(intsOf(fetch(), "a"), IsEmpty());
}

TEST_F(ClearBuffer, OfNoKeysDoesNothing) {
  call("removeAllListeners");

  call("clearBuffer");

  EXPECT_EQ(fetch(), emptyArray());
}

TEST_F(ClearBuffer, OfDataLeavesEvents) {
  sample(1);

  mWatcher->clearBufferData();

  KXValue const result = fetch();
  EXPECT_THAT(intsOf(result, "a"), IsEmpty());
  EXPECT_THAT(intsOf(result, "b"), IsEmpty());
  EXPECT_THAT(intsOf(result, "event"), ElementsAre(1));
}

TEST_F(ClearBuffer, OfEventsLeavesData) {
  sample(1);

  mWatcher->clearBufferEvent();

  KXValue const result = fetch();
  EXPECT_THAT(intsOf(result, "a"), ElementsAre(1));
  EXPECT_THAT(intsOf(result, "b"), ElementsAre(101));
  EXPECT_THAT(intsOf(result, "event"), IsEmpty());
}

TEST_F(ClearBuffer, OfOneHalfNeedsTheLockOfThatHalfOnly) {
  boost::shared_ptr<KXMutex> const data = dataMutex();
  data->lock();
  Caller eventClearer([&] { mWatcher->clearBufferEvent(); });
  EXPECT_FALSE(eventClearer.isParked());
  Caller dataClearer([&] { mWatcher->clearBufferData(); });
  EXPECT_TRUE(dataClearer.isParked());
  data->unlock();
  dataClearer.join();

  boost::shared_ptr<KXMutex> const event = eventMutex();
  event->lock();
  Caller secondDataClearer([&] { mWatcher->clearBufferData(); });
  EXPECT_FALSE(secondDataClearer.isParked());
  Caller secondEventClearer([&] { mWatcher->clearBufferEvent(); });
  EXPECT_TRUE(secondEventClearer.isParked());
  event->unlock();
}

TEST_F(ClearBuffer, ClearsDataFirstAndHoldsOneLockAtATime) {
  sample(1);
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();
  Caller client([&] { call("clearBuffer"); });
  EXPECT_TRUE(client.isParked());

  EXPECT_FALSE(isHeld(dataMutex()));
  EXPECT_EQ(dataItems().at("a").toKXValue(), emptyArray());
  EXPECT_EQ(eventItems().at("event").toKXValue().getSize(), 1);

  mutex->unlock();
}

// ---- several fetches at once

using StressFetch = Fetch;

TEST_F(StressFetch, TwoAtOnceNeverGiveASampleTwiceAndLoseNone) {
  constexpr int kCycles = 1'000;
  std::atomic<bool> isOver{false};
  std::vector<std::vector<int>> data(2);
  std::vector<std::vector<int>> events(2);
  std::vector<std::thread> threads;
  for (std::size_t id = 0; id < 2; ++id) {
    threads.emplace_back([&, id] {
      bool isLast = false;
      while (!isLast) {
        isLast = isOver;
        KXValue const result = mWatcher->getData();
        for (int value : intsOf(result, "a")) data[id].push_back(value);
        for (int value : intsOf(result, "event")) events[id].push_back(value);
      }
    });
  }
  // A client that files what waits, also between another's copying and clearing.
  threads.emplace_back([&] {
    while (!isOver) mWatcher->listeners();
  });
  int cycles = 0;
  for (int i = 0; i < kCycles; ++i) {
    // A cycle that meets a fetch is lost for all its keys; the store's record tells which ran.
    mMemory->clearCalls();
    mMemory->setValue("a", KXValue(cycles));
    update();
    cycles += static_cast<int>(mMemory->getCalls("getListData").size());
    mWatcher->onEventNotify("event", KXValue(i), KXValue());
  }
  isOver = true;
  for (std::thread& thread : threads) thread.join();

  auto const merged = [](std::vector<std::vector<int>> const& parts) {
    std::vector<int> all;
    for (std::vector<int> const& part : parts) {
      EXPECT_TRUE(std::is_sorted(part.begin(), part.end()));
      all.insert(all.end(), part.begin(), part.end());
    }
    std::sort(all.begin(), all.end());
    return all;
  };
  std::vector<int> expected;
  for (int i = 0; i < kCycles; ++i) expected.push_back(i);
  EXPECT_EQ(merged(events), expected);
  expected.resize(static_cast<std::size_t>(cycles));
  EXPECT_EQ(merged(data), expected);
}

}  // namespace
}  // namespace KX
