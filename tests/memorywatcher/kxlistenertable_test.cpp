// The table of watched keys: what is posted, taken in, taken out and put back.
#include <memorywatcher/kxlistenertable.hpp>

#include <atomic>
#include <cstdint>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxthread/kxmutex.hpp>
#include <memorywatcher/kxfetch.hpp>
#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Access = KXListenerTable::Access;

class ListenerTable : public ::testing::Test {
 protected:
  void add(std::string const& key, std::string const& nature = "Data") {
    Access(mTable).insert(key, KXMemoryWatcherItem(key, nature, ""));
  }
  void remove(std::string const& key) {
    KXListenerTable::Dropped const dropped = Access(mTable).erase(key);
  }
  KXKeyListPtr list() { return Access(mTable).list(); }
  /// Posts a batch for a list: the value of each key is `base` plus its place.
  void post(KXKeyListPtr const& list, int base, std::int64_t second = 1) {
    postPart(list, answer(list, base), 0, list->since.size(), second);
  }
  static KXValue answer(KXKeyListPtr const& list, int base) {
    return KXValue::arrayFrom(list->since.size(),
                              [&](std::size_t i) { return KXValue(base + static_cast<int>(i)); });
  }
  void postPart(KXKeyListPtr const& list, KXValue const& values, std::size_t begin, std::size_t end,
                std::int64_t second = 1) {
    mTable.postBatch(list, {second, 0}, values, begin, end);
  }
  void raise(std::string const& key, int value, std::int64_t second = 1) {
    mTable.postSample(key, {second, 0}, KXValue(value));
  }
  KXValue fetch() {
    KXTaken taken = Access(mTable).take();
    KXTaken none = Access(mOther).take();
    return buildFetch(taken, none);
  }
  static std::vector<std::string> keysOf(KXValue const& fetched) {
    std::vector<std::string> keys;
    for (int i = 0; i < fetched.getSize(); ++i) keys.push_back(fetched[i][0].toString());
    return keys;
  }
  /// The values of one key of a fetch.
  static std::vector<int> ints(KXValue const& fetched, std::string const& key) {
    std::vector<int> values;
    for (int i = 0; i < fetched.getSize(); ++i) {
      if (fetched[i][0].toString() != key) continue;
      for (KXValue const& value : valuesOf(fetched[i][1])) {
        values.push_back(static_cast<int>(value));
      }
    }
    return values;
  }
  std::vector<int> fetchInts(std::string const& key) { return ints(fetch(), key); }
  static std::vector<int> seconds(KXValue const& samples) {
    std::vector<int> times;
    for (int i = 0; i < samples.getSize(); ++i) times.push_back(static_cast<int>(samples[i][0][0]));
    return times;
  }

  KXListenerTable mTable{KXMutex::createKXMutex()};
  KXListenerTable mOther{KXMutex::createKXMutex()};
};

// ---- keys

TEST_F(ListenerTable, ListsItsKeysInByteOrder) {
  for (auto const* key : {"b", "a", "B", "ab", ""}) add(key);

  EXPECT_EQ(list()->keys, KXValue(std::vector<std::string>{"", "B", "a", "ab", "b"}));
}

TEST_F(ListenerTable, AsksTheStoreForTheItemsOwnName) {
  raise("stray", 1);
  add("named");

  EXPECT_EQ(list()->names, KXValue(std::vector<std::string>{"named", ""}));
}

TEST_F(ListenerTable, PointsOutTheKeysOfUnknownNature) {
  add("a");
  add("b", "Unknown data");
  add("c", "Event");
  add("d", "Unknown data");

  EXPECT_THAT(list()->unknown, ElementsAre(1, 3));
}

TEST_F(ListenerTable, KeepsItsListUntilTheKeysChange) {
  add("a");
  KXKeyListPtr const first = list();
  post(first, 1);
  EXPECT_EQ(list(), first);

  add("b");
  KXKeyListPtr const second = list();
  EXPECT_NE(second, first);
  EXPECT_GT(second->version, first->version);

  Access(mTable).retype("a", "Unknown data");
  EXPECT_NE(list(), second);
  KXKeyListPtr const third = list();
  remove("b");
  EXPECT_NE(list(), third);
  KXKeyListPtr const fourth = list();
  remove("nobody");
  EXPECT_EQ(list(), fourth);
  raise("stray", 1);
  EXPECT_NE(list(), fourth);
}

TEST_F(ListenerTable, ListSharesTheTextOfAKeyThatStayed) {
  add("a");
  KXKeyListPtr const first = list();

  add("b");

  EXPECT_TRUE(list()->keys[0].sharesBlockWith(first->keys[0]));
}

TEST_F(ListenerTable, TellsKeysAndNatures) {
  add("b", "Event");
  add("a");

  EXPECT_THAT(Access(mTable).natures(),
              ElementsAre(std::pair("a", "Data"), std::pair("b", "Event")));
  EXPECT_EQ(Access(mTable).find("b")->getNature(), "Event");
  EXPECT_EQ(Access(mTable).find("c"), nullptr);
}

// ---- batches

TEST_F(ListenerTable, GivesEachValueToItsKeyWithTheTimeOfTheBatch) {
  add("a");
  add("b");
  post(list(), 10, 1);
  post(list(), 20, 2);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(10, 20));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(11, 21));
  EXPECT_THAT(seconds(fetched[0][1]), ElementsAre(1, 2));
  EXPECT_TRUE(fetched[0][1][1][0].sharesBlockWith(fetched[1][1][1][0]));
  EXPECT_FALSE(fetched[0][1][0][0].sharesBlockWith(fetched[0][1][1][0]));
}

TEST_F(ListenerTable, ListsEveryKeyInAFetchAlsoWithoutSamples) {
  add("b");
  add("a");

  EXPECT_EQ(fetch(), KXValue(std::vector<KXValue>{
                         KXValue(std::vector<KXValue>{"a", KXValue(std::vector<KXValue>())}),
                         KXValue(std::vector<KXValue>{"b", KXValue(std::vector<KXValue>())})}));
}

TEST_F(ListenerTable, GivesEverythingOnce) {
  add("a");
  post(list(), 1);
  EXPECT_THAT(fetchInts("a"), ElementsAre(1));

  post(list(), 2);

  EXPECT_THAT(fetchInts("a"), ElementsAre(2));
  EXPECT_THAT(fetchInts("a"), IsEmpty());
}

TEST_F(ListenerTable, FindsItsKeysAfterOneWasAddedBetween) {
  add("b");
  add("d");
  KXKeyListPtr const before = list();
  post(before, 10);
  for (auto const* key : {"a", "c", "e"}) add(key);
  post(before, 20);  // a cycle that was under way
  post(list(), 30);

  KXValue const fetched = fetch();

  EXPECT_THAT(keysOf(fetched), ElementsAre("a", "b", "c", "d", "e"));
  EXPECT_THAT(ints(fetched, "a"), ElementsAre(30));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(10, 20, 31));
  EXPECT_THAT(ints(fetched, "c"), ElementsAre(32));
  EXPECT_THAT(ints(fetched, "d"), ElementsAre(11, 21, 33));
  EXPECT_THAT(ints(fetched, "e"), ElementsAre(34));
}

TEST_F(ListenerTable, FindsItsKeysAfterSomeWereRemoved) {
  for (auto const* key : {"a", "b", "c", "d"}) add(key);
  KXKeyListPtr const before = list();
  post(before, 10);
  remove("a");
  remove("c");
  post(before, 20);
  post(list(), 30);

  KXValue const fetched = fetch();

  EXPECT_THAT(keysOf(fetched), ElementsAre("b", "d"));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(11, 21, 30));
  EXPECT_THAT(ints(fetched, "d"), ElementsAre(13, 23, 31));
}

TEST_F(ListenerTable, KeyThatWasRemovedAndAddedAgainShowsNothingOlder) {
  add("a");
  add("b");
  KXKeyListPtr const before = list();
  post(before, 10);
  remove("a");
  add("a");
  post(before, 20);  // read for the predecessor, posted after its end
  post(list(), 30);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(30));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(11, 21, 31));
}

TEST_F(ListenerTable, KeyWhoseNatureChangedKeepsItsSamples) {
  add("a", "Unknown data");
  KXKeyListPtr const before = list();
  post(before, 10);
  Access(mTable).retype("a", "Data");
  post(before, 20);
  post(list(), 30);

  EXPECT_THAT(fetchInts("a"), ElementsAre(10, 20, 30));
}

TEST_F(ListenerTable, DropsEverythingWhenAllKeysHaveLeft) {
  add("a");
  add("b");
  KXKeyListPtr const before = list();
  post(before, 10);
  { KXListenerTable::Dropped const dropped = Access(mTable).eraseAll(); }
  post(before, 20);
  add("b");

  EXPECT_THAT(fetchInts("b"), IsEmpty());
}

TEST_F(ListenerTable, PartsOfOneAnswerBecomeOneBatch) {
  for (auto const* key : {"a", "b", "c"}) add(key);
  KXValue const values = answer(list(), 10);
  postPart(list(), values, 0, 1, 1);
  postPart(list(), values, 1, 2, 1);
  postPart(list(), values, 2, 3, 1);
  post(list(), 20, 2);

  KXTaken taken = Access(mTable).take();

  ASSERT_EQ(taken.batches.size(), 1U);
  EXPECT_EQ(taken.batches.front().size(), 2U);
  KXTaken none = Access(mOther).take();
  KXValue const fetched = buildFetch(taken, none);
  EXPECT_THAT(ints(fetched, "a"), ElementsAre(10, 20));
  EXPECT_THAT(ints(fetched, "c"), ElementsAre(12, 22));
}

TEST_F(ListenerTable, BrokenOffAnswerCountsAsFarAsItCame) {
  for (auto const* key : {"a", "b", "c"}) add(key);
  postPart(list(), answer(list(), 10), 0, 2, 1);
  post(list(), 20, 2);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(10, 20));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(11, 21));
  EXPECT_THAT(ints(fetched, "c"), ElementsAre(22));
  EXPECT_THAT(seconds(fetched[2][1]), ElementsAre(2));
}

TEST_F(ListenerTable, AnswerThatIsSharedStaysAsItIs) {
  add("a");
  KXValue const values(std::vector<KXValue>{"kept"});
  postPart(list(), values, 0, 1);

  EXPECT_EQ(fetch()[0][1][0][1], KXValue("kept"));
  EXPECT_EQ(values[0], KXValue("kept"));
}

TEST_F(ListenerTable, HoldsManyKeysAndBatches) {
  constexpr int kKeys = 100;
  constexpr int kBatches = 100;
  for (int i = 0; i < kKeys; ++i) add("key" + std::to_string(1000 + i));
  for (int i = 0; i < kBatches; ++i) post(list(), i * kKeys, i);

  KXValue const fetched = fetch();

  ASSERT_EQ(fetched.getSize(), kKeys);
  for (int key = 0; key < kKeys; ++key) {
    KXValue const& samples = fetched[key][1];
    ASSERT_EQ(samples.getSize(), kBatches);
    for (int i = 0; i < kBatches; ++i) {
      ASSERT_EQ(samples[i], KXValue::arrayOf(KXValue::arrayOf(i, 0), i * kKeys + key));
    }
  }
}

// ---- single samples

TEST_F(ListenerTable, KeepsSingleSamplesInTheOrderOfPosting) {
  add("a");
  for (int i = 1; i <= 3; ++i) raise("a", i, i);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(1, 2, 3));
  EXPECT_THAT(seconds(fetched[0][1]), ElementsAre(1, 2, 3));
}

TEST_F(ListenerTable, SampleForAKeyThatIsNotThereMakesADefaultItem) {
  raise("stray", 7);

  KXMemoryWatcherItem const item = Access(mTable).itemWithSamples("stray");

  EXPECT_EQ(item.getName(), "");
  EXPECT_EQ(item.getNature(), "Unknown data");
  EXPECT_EQ(item.toKXValue().getSize(), 1);
  EXPECT_THAT(fetchInts("stray"), ElementsAre(7));
}

TEST_F(ListenerTable, KeysOfAnyBytesComeThrough) {
  std::string const odd("a\0b\xff", 4);
  raise(odd, 1);
  raise("", 2);

  EXPECT_NE(Access(mTable).find(odd), nullptr);
  EXPECT_NE(Access(mTable).find(""), nullptr);
}

TEST_F(ListenerTable, OwnSamplesComeBeforeThoseOfBatches) {
  KXMemoryWatcherItem item("a", "Data", "");
  item.addData({1, 0}, KXValue(1));
  Access(mTable).insert("a", item);
  post(list(), 2, 2);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(1, 2));
  EXPECT_THAT(seconds(fetched[0][1]), ElementsAre(1, 2));
}

TEST_F(ListenerTable, BatchBetweenSingleSamplesKeepsItsPlace) {
  add("a", "Event");
  add("b", "Event");
  raise("a", 1, 1);
  post(list(), 2, 2);
  raise("a", 4, 3);
  post(list(), 5, 4);

  KXValue const fetched = fetch();

  EXPECT_THAT(ints(fetched, "a"), ElementsAre(1, 2, 4, 5));
  EXPECT_THAT(seconds(fetched[0][1]), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(3, 6));
}

TEST_F(ListenerTable, InsertingReplacesWhatACallbackLeft) {
  raise("a", 1);
  Access access(mTable);
  ASSERT_NE(access.find("a"), nullptr);

  access.insert("a", KXMemoryWatcherItem("a", "Event", ""));

  EXPECT_EQ(access.find("a")->getNature(), "Event");
  EXPECT_FALSE(access.find("a")->hasSamples());
}

TEST_F(ListenerTable, ItemPutInPlaceOfAnotherShowsNothingOlder) {
  for (auto const* key : {"a", "b"}) add(key);
  KXKeyListPtr const before = list();
  post(before, 10);
  add("a");
  post(before, 20);
  post(list(), 30);

  KXValue const fetched = fetch();
  EXPECT_THAT(ints(fetched, "a"), ElementsAre(30));
  EXPECT_THAT(ints(fetched, "b"), ElementsAre(11, 21, 31));
}

TEST_F(ListenerTable, CopyOfAnItemHoldsWhatBatchesHoldForIt) {
  for (auto const* key : {"a", "b"}) add(key, "Unknown data");
  KXKeyListPtr const before = list();
  post(before, 10);
  remove("a");
  add("a");
  post(before, 20);
  post(list(), 30);
  postPart(list(), answer(list(), 40), 0, 1);

  EXPECT_EQ(valuesOf(Access(mTable).itemWithSamples("a").toKXValue()),
            (std::vector<KXValue>{30, 40}));
  EXPECT_EQ(valuesOf(Access(mTable).itemWithSamples("b").toKXValue()),
            (std::vector<KXValue>{11, 21, 31}));
  EXPECT_THAT(fetchInts("b"), ElementsAre(11, 21, 31));  // a copy takes nothing away
}

TEST_F(ListenerTable, RemovedKeyTakesItsOwnSamplesWithIt) {
  for (auto const* key : {"a", "b", "c"}) raise(key, 1);

  remove("a");
  remove("c");

  EXPECT_THAT(keysOf(fetch()), ElementsAre("b"));
  raise("c", 2);
  EXPECT_THAT(fetchInts("c"), ElementsAre(2));
}

// ---- taking

TEST_F(ListenerTable, TakesAsManyThingsAsThereAreBatches) {
  constexpr int kKeys = 1000;
  for (int i = 0; i < kKeys; ++i) add(std::to_string(i));
  KXKeyListPtr const all = list();
  for (int i = 0; i < 20; ++i) post(all, i);
  list();
  Access access(mTable);
  std::int64_t const before = Allocations::count();

  KXTaken const taken = access.take();

  EXPECT_LE(Allocations::count() - before, 2);
}

TEST_F(ListenerTable, PutsBackWhatWasTakenInFrontOfWhatCameSince) {
  add("a");
  raise("event", 1);
  post(list(), 10);
  KXTaken taken = Access(mTable).take();
  post(list(), 20);

  mTable.putBack(std::move(taken));
  post(list(), 30);

  KXValue const fetched = fetch();
  EXPECT_THAT(ints(fetched, "a"), ElementsAre(10, 20, 30));
  EXPECT_THAT(ints(fetched, "event"), ElementsAre(1, 11, 21, 31));
}

TEST_F(ListenerTable, PutsBackOwnSamplesInFrontOfTheItemsNewOnes) {
  raise("event", 1);
  raise("gone", 1);
  raise("again", 1);
  KXTaken taken = Access(mTable).take();
  raise("event", 2);
  remove("gone");
  remove("again");
  raise("again", 3);

  mTable.putBack(std::move(taken));

  KXValue const fetched = fetch();
  EXPECT_THAT(ints(fetched, "event"), ElementsAre(1, 2));
  EXPECT_THAT(ints(fetched, "again"), ElementsAre(3));
  EXPECT_THAT(keysOf(fetched), ElementsAre("again", "event"));
}

// Wherever memory runs out in a fetch, what was taken can go back, and the next fetch has it all.
TEST_F(ListenerTable, BuildingThatFailsLeavesWhatWasTaken) {
  for (auto const* key : {"a", "b", "c"}) add(key);
  KXKeyListPtr const before = list();
  post(before, 10, 1);
  add("d");
  post(list(), 20, 2);
  postPart(list(), KXValue(std::vector<KXValue>{"text", 1, 2, 3}), 0, 3, 3);
  raise("event", 1);
  KXValue const expected = [&] {
    KXTaken taken = Access(mTable).take();
    KXTaken none = Access(mOther).take();
    // Copies, so that everything can be built again.
    for (auto& piece : taken.batches) {
      for (KXBatch& batch : piece) post(batch.list, 0);  // never fetched: dropped below
    }
    KXValue const built = buildFetch(taken, none);
    { KXTaken const dropped = Access(mTable).take(); }
    return built;
  }();
  ASSERT_EQ(ints(expected, "b"), (std::vector<int>{11, 21, 1}));

  int failures = 0;
  for (int passing = 0;; ++passing) {
    post(before, 10, 1);
    post(list(), 20, 2);
    KXTaken taken = Access(mTable).take();
    KXTaken none = Access(mOther).take();
    Allocations::failAfter(passing);
    bool hasFailed = false;
    KXValue fetched;
    try {
      fetched = buildFetch(taken, none);
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    Allocations::leaveAlone();
    if (hasFailed) {
      ++failures;
      mTable.putBack(std::move(taken));
      fetched = fetch();
    }
    ASSERT_EQ(ints(fetched, "a"), (std::vector<int>{10, 20})) << passing;
    ASSERT_EQ(ints(fetched, "d"), (std::vector<int>{23})) << passing;
    if (!hasFailed) break;
  }
  EXPECT_GT(failures, 5);
}

TEST_F(ListenerTable, TakingInThatFailsLosesAndRepeatsNothing) {
  int failures = 0;
  for (int passing = 0;; ++passing) {
    for (int i = 0; i < 40; ++i) raise("key" + std::to_string(i % 3), i);
    bool hasFailed = false;
    Allocations::failAfter(passing);
    try {
      Access const access(mTable);
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    Allocations::leaveAlone();
    failures += hasFailed ? 1 : 0;
    KXValue const fetched = fetch();
    ASSERT_EQ(ints(fetched, "key0").size(), 14U) << passing;
    ASSERT_EQ(ints(fetched, "key1").front(), 1) << passing;
    ASSERT_EQ(ints(fetched, "key2").back(), 38) << passing;
    for (auto const* key : {"key0", "key1", "key2"}) remove(key);
    if (!hasFailed) break;
  }
  EXPECT_GT(failures, 5);
}

// ---- its end

TEST(ListenerTableEnd, DropsWhatWaits) {
  std::int64_t const before = Allocations::balance();
  {
    KXListenerTable table(KXMutex::createKXMutex());
    table.postSample("a", {}, KXValue("text"));
    KXKeyListPtr const list = Access(table).list();
    table.postBatch(list, {}, KXValue(std::vector<KXValue>{1}), 0, 1);
    table.postSample("b", {}, KXValue("text"));
  }

  EXPECT_EQ(Allocations::balance(), before);
}

// ---- many threads

// in = out + dropped + pending, with keys that come and go.
TEST(StressListenerTable, AccountsForEverySample) {
  constexpr int kEvents = 20'000;
  constexpr int kBatches = 2'000;
  KXListenerTable table(KXMutex::createKXMutex());
  KXListenerTable other(KXMutex::createKXMutex());
  Access(table).insert("steady", KXMemoryWatcherItem("steady", "Data", ""));
  std::atomic<int> posting{3};
  std::vector<std::thread> threads;
  for (int id = 0; id < 2; ++id) {
    threads.emplace_back([&, id] {
      for (int i = 0; i < kEvents; ++i) {
        table.postSample("event" + std::to_string(id), {i, 0}, KXValue(i));
      }
      --posting;
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < kBatches; ++i) {
      KXKeyListPtr const list = Access(table).list();
      KXValue values =
          KXValue::arrayFrom(list->since.size(), [&](std::size_t) { return KXValue(i); });
      table.postBatch(list, {i, 0}, std::move(values), 0, list->since.size());
    }
    --posting;
  });
  threads.emplace_back([&] {
    for (int i = 0; posting > 0; ++i) {
      Access(table).insert("coming", KXMemoryWatcherItem("coming", "Data", ""));
      KXListenerTable::Dropped const dropped = Access(table).erase("coming");
    }
  });

  std::int64_t events = 0;
  std::int64_t outOfOrder = 0;
  std::int64_t steady = 0;
  int nextSteady = 0;
  for (bool isLast = false; !isLast;) {
    isLast = posting == 0;
    KXTaken taken = Access(table).take();
    KXTaken none = Access(other).take();
    KXValue const fetched = buildFetch(taken, none);
    for (int key = 0; key < fetched.getSize(); ++key) {
      KXValue const& samples = fetched[key][1];
      std::string const name = fetched[key][0].toString();
      if (name == "steady") {
        for (int i = 0; i < samples.getSize(); ++i, ++steady) {
          if (static_cast<int>(samples[i][1]) != nextSteady++) ++outOfOrder;
        }
      } else if (name.starts_with("event")) {
        // Batches are read for event keys too; each sample's second is its value in both.
        for (int i = 0; i < samples.getSize(); ++i) {
          if (samples[i][0][0] != samples[i][1]) ++outOfOrder;
        }
        events += samples.getSize();
      }
    }
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(steady, kBatches);
  EXPECT_EQ(outOfOrder, 0);
  EXPECT_GE(events, 2 * kEvents);
  EXPECT_LE(events, 2 * kEvents + 2 * kBatches);
}

}  // namespace
}  // namespace KX
