#include <memorywatcher/kxsampleinbox.hpp>

#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxvalue/kxvalue.hpp>
#include <tests/memorywatcher/allocations.hpp>

namespace KX {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

KXValue array(std::vector<KXValue> elements) {
  return KXValue(std::move(elements));
}

/// An inbox with the map and the list that belong to it. One thread files.
class Inbox : public testing::Test {
 protected:
  void add(std::string const& key, std::string const& nature = "Data") {
    mMap[key] = KXMemoryWatcherItem(key, nature, "");
    mList.isCurrent = false;
  }
  void remove(std::string const& key) {
    mMap.erase(key);
    mList.isCurrent = false;
  }
  void file() { mInbox.fileInto(mMap, mList); }

  /// The ints filed under a key, in order.
  std::vector<int> ints(std::string const& key) const {
    std::vector<int> found;
    KXValue const samples = mMap.at(key).toKXValue();
    for (int i = 0; i < samples.getSize(); ++i) found.push_back(static_cast<int>(samples[i][1]));
    return found;
  }
  std::vector<std::string> keys() const {
    std::vector<std::string> found;
    for (auto const& [key, item] : mMap) found.push_back(key);
    return found;
  }

  KXListenerMap mMap;
  KXWatchList mList;
  KXSampleInbox mInbox;
};

// ---- any thread may post at any time, without waiting for anybody

TEST_F(Inbox, TakesPostsOfSeveralThreads) {
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) {
    threads.emplace_back([this, id] {
      for (int i = 0; i < 100; ++i) mInbox.postSample("key" + std::to_string(id), {i, 0}, i);
    });
  }
  for (std::thread& thread : threads) thread.join();

  file();

  for (int id = 0; id < 4; ++id) EXPECT_EQ(ints("key" + std::to_string(id)).size(), 100U);
}

TEST_F(Inbox, TakesAPostWhileAnotherThreadIsFiling) {
  mInbox.postSample("a key that is too long to be stored in the string itself", {1, 0}, 1);
  bool wasPosted = false;
  // The filing thread stands inside the map's allocation and goes on only after the post.
  Allocations::interruptAfter(0, [&] {
    std::thread([&] { mInbox.postSample("late", {2, 0}, 2); }).join();
    wasPosted = true;
  });

  file();

  EXPECT_TRUE(wasPosted);
  file();
  EXPECT_THAT(ints("late"), ElementsAre(2));
}

TEST_F(Inbox, TakesAPostFromWithinFiling) {
  mInbox.postSample("a key that is too long to be stored in the string itself", {1, 0}, 1);
  Allocations::interruptAfter(0, [&] { mInbox.postSample("late", {2, 0}, 2); });

  file();
  file();

  EXPECT_THAT(ints("late"), ElementsAre(2));
}

// ---- what is posted stays until it is filed

TEST_F(Inbox, TouchesNoMapBeforeFiling) {
  add("a");

  mInbox.postSample("a", {1, 0}, 1);
  mInbox.postSample("b", {1, 0}, 1);
  mInbox.postBatch({1, 0}, array({"a"}), array({2}), 0, 1);

  EXPECT_THAT(keys(), ElementsAre("a"));
  EXPECT_THAT(ints("a"), IsEmpty());
}

TEST_F(Inbox, IsEmptyAfterFiling) {
  mInbox.postSample("a", {1, 0}, 1);
  file();

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1));
}

// ---- posts are filed in the order of posting

TEST_F(Inbox, FilesPostsInTheirOrder) {
  add("a");
  mInbox.postSample("a", {1, 0}, 1);
  mInbox.postBatch({2, 0}, array({"a"}), array({2}), 0, 1);
  mInbox.postSample("a", {3, 0}, 3);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 2, 3));
}

TEST_F(Inbox, FilesPostsOfSeveralThreadsInTheOrderOfPosting) {
  std::thread([&] { mInbox.postSample("a", {1, 0}, 1); }).join();
  mInbox.postSample("a", {2, 0}, 2);
  std::thread([&] { mInbox.postSample("a", {3, 0}, 3); }).join();

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 2, 3));
}

TEST_F(Inbox, KeepsTheOrderOverSeveralFilings) {
  for (int i = 0; i < 6; ++i) {
    mInbox.postSample("a", {i, 0}, i);
    if (i % 2 == 0) file();
  }
  file();

  EXPECT_THAT(ints("a"), ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST_F(Inbox, FilesEachSampleWithItsTime) {
  mInbox.postSample("a", {7, 8}, KXValue("x"));

  file();

  EXPECT_EQ(mMap.at("a").toKXValue(), array({array({array({7, 8}), "x"})}));
}

TEST_F(Inbox, KeepsTheValueThatWasPosted) {
  KXValue value = array({1});
  mInbox.postSample("a", {1, 0}, value);

  value[0] = KXValue(2);
  file();

  EXPECT_EQ(mMap.at("a").toKXValue()[0][1], array({1}));
}

// ---- everything that was posted before filing began is in the map when it returns

TEST_F(Inbox, FilesEverythingThatWaits) {
  add("a");
  for (int i = 0; i < 1000; ++i) {
    mInbox.postSample("key" + std::to_string(i), {i, 0}, i);
    mInbox.postBatch({i, 0}, array({"a"}), array({i}), 0, 1);
  }

  file();

  EXPECT_EQ(mMap.size(), 1001U);
  EXPECT_EQ(ints("a").size(), 1000U);
}

// ---- a sample for a name that is not in the map makes a default entry of that name

TEST_F(Inbox, MakesADefaultEntryForAnUnknownName) {
  mInbox.postSample("ghost", {1, 0}, 1);

  file();

  ASSERT_THAT(keys(), ElementsAre("ghost"));
  EXPECT_EQ(mMap.at("ghost").getName(), "");
  EXPECT_EQ(mMap.at("ghost").getNature(), "Unknown data");
  EXPECT_THAT(ints("ghost"), ElementsAre(1));
}

TEST_F(Inbox, FilesASampleIntoTheEntryThatIsThere) {
  add("a", "Event");
  mInbox.postSample("a", {1, 0}, 1);

  file();

  EXPECT_EQ(mMap.at("a").getName(), "a");
  EXPECT_EQ(mMap.at("a").getNature(), "Event");
}

TEST_F(Inbox, OutdatesTheListByANewEntryOnly) {
  add("a");
  mList.refresh(mMap);

  mInbox.postSample("a", {1, 0}, 1);
  file();
  EXPECT_TRUE(mList.isCurrent);

  mInbox.postSample("ghost", {1, 0}, 1);
  file();
  EXPECT_FALSE(mList.isCurrent);
}

// ---- a batch files each value under the key it was read for, and drops those that have left

class InboxBatch : public Inbox {
 protected:
  InboxBatch() {
    for (auto const* key : {"a", "b", "c"}) add(key);
    mList.refresh(mMap);
    mInbox.postBatch({1, 2}, mList.keys, array({1, 2, 3}), 0, 3);
  }
};

TEST_F(InboxBatch, FilesEachValueUnderItsKeyWithOneTime) {
  file();

  EXPECT_EQ(mMap.at("a").toKXValue(), array({array({array({1, 2}), 1})}));
  EXPECT_EQ(mMap.at("b").toKXValue(), array({array({array({1, 2}), 2})}));
  EXPECT_EQ(mMap.at("c").toKXValue(), array({array({array({1, 2}), 3})}));
}

TEST_F(InboxBatch, FindsItsKeysAfterOneWasAdded) {
  add("aa");

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1));
  EXPECT_THAT(ints("aa"), IsEmpty());
  EXPECT_THAT(ints("b"), ElementsAre(2));
  EXPECT_THAT(ints("c"), ElementsAre(3));
}

TEST_F(InboxBatch, DropsTheValueOfAKeyThatWasRemoved) {
  remove("b");

  file();

  EXPECT_THAT(keys(), ElementsAre("a", "c"));
  EXPECT_THAT(ints("a"), ElementsAre(1));
  EXPECT_THAT(ints("c"), ElementsAre(3));
}

TEST_F(InboxBatch, FindsItsKeysAfterTheListWasMadeAnew) {
  remove("a");
  add("d");
  mList.refresh(mMap);

  file();

  EXPECT_THAT(keys(), ElementsAre("b", "c", "d"));
  EXPECT_THAT(ints("b"), ElementsAre(2));
  EXPECT_THAT(ints("c"), ElementsAre(3));
  EXPECT_THAT(ints("d"), IsEmpty());
}

TEST_F(InboxBatch, FilesIntoAKeyThatWasRemovedAndAddedAgain) {
  remove("b");
  add("b");

  file();

  EXPECT_THAT(ints("b"), ElementsAre(2));
}

TEST_F(InboxBatch, DropsEverythingWhenAllKeysHaveLeft) {
  mMap.clear();
  mList.isCurrent = false;

  file();

  EXPECT_THAT(mMap, IsEmpty());
}

TEST_F(InboxBatch, FilesOnlyThePlacesItWasPostedFor) {
  file();
  mInbox.postBatch({3, 0}, mList.keys, array({4, 5, 6}), 1, 2);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1));
  EXPECT_THAT(ints("b"), ElementsAre(2, 5));
  EXPECT_THAT(ints("c"), ElementsAre(3));
}

TEST_F(InboxBatch, FilesOnlyItsPlacesAlsoUnderAnOutdatedList) {
  file();
  mInbox.postBatch({3, 0}, mList.keys, array({4, 5, 6}), 1, 3);
  add("d");

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1));
  EXPECT_THAT(ints("b"), ElementsAre(2, 5));
  EXPECT_THAT(ints("c"), ElementsAre(3, 6));
}

TEST_F(InboxBatch, FilesBatchesInARowEachWithItsTime) {
  mInbox.postBatch({3, 4}, mList.keys, array({4, 5, 6}), 0, 3);
  mInbox.postBatch({5, 6}, mList.keys, array({7, 8, 9}), 0, 3);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 4, 7));
  EXPECT_THAT(ints("c"), ElementsAre(3, 6, 9));
  EXPECT_EQ(mMap.at("b").toKXValue()[2], array({array({5, 6}), 8}));
}

TEST_F(InboxBatch, FilesPartsOfOneReadingInTheirOrder) {
  file();
  KXValue const values = array({4, 5, 6});
  mInbox.postBatch({3, 0}, mList.keys, values, 0, 1);
  mInbox.postBatch({3, 0}, mList.keys, values, 1, 3);
  mInbox.postBatch({4, 0}, mList.keys, array({7, 8, 9}), 0, 3);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 4, 7));
  EXPECT_THAT(ints("b"), ElementsAre(2, 5, 8));
  EXPECT_THAT(ints("c"), ElementsAre(3, 6, 9));
}

TEST_F(InboxBatch, FilesASampleBetweenBatchesInItsPlace) {
  mInbox.postSample("a", {2, 0}, 10);
  mInbox.postBatch({3, 0}, mList.keys, array({4, 5, 6}), 0, 3);
  mInbox.postSample("a", {4, 0}, 11);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 10, 4, 11));
}

TEST_F(InboxBatch, FilesARowOfBatchesOverAMapThatASampleChangedBetween) {
  mInbox.postSample("ab", {2, 0}, 10);
  mInbox.postBatch({3, 0}, mList.keys, array({4, 5, 6}), 0, 3);

  file();

  EXPECT_THAT(ints("a"), ElementsAre(1, 4));
  EXPECT_THAT(ints("ab"), ElementsAre(10));
  EXPECT_THAT(ints("b"), ElementsAre(2, 5));
  EXPECT_THAT(ints("c"), ElementsAre(3, 6));
}

TEST_F(Inbox, FilingIsDueFromSixteenBatchesOnUntilTheyAreFiled) {
  KXValue const keys = array({"a"});
  for (int posted = 1; posted <= 17; ++posted) {
    mInbox.postSample("a", {posted, 0}, KXValue(posted));  // samples alone make no filing due
    mInbox.postBatch({posted, 0}, keys, array({posted}), 0, 1);
    EXPECT_EQ(mInbox.isFilingDue(), posted >= 16) << posted;
  }

  file();

  EXPECT_FALSE(mInbox.isFilingDue());
}

// So that no single cycle takes long, however many keys there are.
TEST_F(Inbox, FilingIsDueFromThirtyTwoThousandValuesOn) {
  std::vector<KXValue> const values(16384);
  KXValue const keys(std::vector<std::string>(16384, "a"));

  mInbox.postBatch({1, 0}, keys, values, 0, 16384);
  EXPECT_FALSE(mInbox.isFilingDue());
  mInbox.postBatch({2, 0}, keys, values, 0, 16383);
  EXPECT_FALSE(mInbox.isFilingDue());
  file();
  mInbox.postBatch({3, 0}, keys, values, 0, 16384);
  mInbox.postBatch({4, 0}, keys, values, 0, 16384);
  EXPECT_TRUE(mInbox.isFilingDue());
  file();
  EXPECT_FALSE(mInbox.isFilingDue());
}

TEST_F(InboxBatch, LeavesTheListCurrent) {
  file();

  EXPECT_TRUE(mList.isCurrent);
}

// ---- if filing throws, what was not filed yet stays and is filed next time

TEST_F(Inbox, LosesAndRepeatsNothingWhereverMemoryRunsOut) {
  bool hasFinished = false;
  int failures = 0;
  for (int passing = 0; !hasFinished; ++passing) {
    SCOPED_TRACE(passing);
    ASSERT_LT(passing, 1000);
    mMap.clear();
    for (auto const* key : {"a", "b", "c"}) add(key);
    mList.refresh(mMap);
    std::string const ghost = "a name that is too long to be stored in the string itself";
    mInbox.postSample("a", {1, 0}, 1);
    mInbox.postBatch({2, 0}, mList.keys, array({2, 2, 2}), 0, 3);
    mInbox.postBatch({2, 5}, mList.keys, array({25, 25, 25}), 0, 3);
    mInbox.postSample(ghost, {3, 0}, 3);
    mInbox.postBatch({4, 0}, array({"c", "gone", "a"}), array({4, 4, 4}), 0, 3);

    Allocations::failAfter(passing);
    try {
      file();
      hasFinished = true;
    } catch (std::bad_alloc const&) {
      ++failures;
      mInbox.postSample("a", {5, 0}, 5);
      file();
    }
    Allocations::leaveAlone();

    std::vector<int> expected{1, 2, 25, 4};
    if (!hasFinished) expected.push_back(5);
    EXPECT_EQ(ints("a"), expected);
    EXPECT_THAT(ints("b"), ElementsAre(2, 25));
    EXPECT_THAT(ints("c"), ElementsAre(2, 25, 4));
    EXPECT_THAT(ints(ghost), ElementsAre(3));
    EXPECT_EQ(mMap.size(), 4U);
  }
  EXPECT_GT(failures, 5);
}

// ---- the destructor drops what is waiting

TEST(InboxEnd, DropsWhatIsWaiting) {
  KXListenerMap map;
  KXWatchList list;
  std::int64_t const balance = Allocations::balance();
  {
    KXSampleInbox inbox;
    for (int i = 0; i < 3; ++i) {
      inbox.postSample("a name that is too long to be stored in the string itself", {i, 0},
                       KXValue(std::string(100, 'x')));
      inbox.postBatch({i, 0}, array({"a"}), array({i}), 0, 1);
    }
    EXPECT_GT(Allocations::balance(), balance);
  }

  EXPECT_EQ(Allocations::balance(), balance);
}

TEST(InboxEnd, DropsWhatAFailureLeftBehind) {
  KXListenerMap map;
  KXWatchList list;
  std::int64_t const balance = Allocations::balance();
  {
    KXSampleInbox inbox;
    for (int i = 0; i < 3; ++i) inbox.postSample("a", {i, 0}, KXValue(std::string(100, 'x')));
    Allocations::failAfter(0);
    EXPECT_THROW(inbox.fileInto(map, list), std::bad_alloc);
    inbox.postSample("a", {9, 0}, KXValue(std::string(100, 'x')));
  }

  EXPECT_THAT(map, IsEmpty());
  EXPECT_EQ(Allocations::balance(), balance);
}

TEST(InboxEnd, OfAnEmptyInboxDoesNothing) {
  EXPECT_NO_THROW(KXSampleInbox());
}

// ---- the list of an update cycle

class WatchList : public Inbox {
 protected:
  static std::vector<std::string> texts(KXValue const& names) {
    std::vector<std::string> found;
    names.ToStringArray(found, false);
    return found;
  }
};

TEST_F(WatchList, OfAnEmptyMapIsAnEmptyArray) {
  mList.refresh(mMap);

  EXPECT_EQ(mList.names, array({}));
  EXPECT_EQ(mList.keys, array({}));
  EXPECT_TRUE(mList.isCurrent);
}

TEST_F(WatchList, HoldsKeysAndItemsInMapOrder) {
  for (auto const* key : {"b", "a", "B"}) add(key);

  mList.refresh(mMap);

  EXPECT_THAT(texts(mList.keys), ElementsAre("B", "a", "b"));
  EXPECT_THAT(texts(mList.names), ElementsAre("B", "a", "b"));
  EXPECT_THAT(mList.items, ElementsAre(&mMap["B"], &mMap["a"], &mMap["b"]));
}

TEST_F(WatchList, AsksTheStoreForTheItemsOwnName) {
  add("a");
  mMap["ghost"];
  mList.isCurrent = false;

  mList.refresh(mMap);

  EXPECT_THAT(texts(mList.keys), ElementsAre("a", "ghost"));
  EXPECT_THAT(texts(mList.names), ElementsAre("a", ""));
}

TEST_F(WatchList, PointsOutTheKeysOfUnknownNature) {
  add("a");
  add("b", "Unknown data");
  add("c", "unknown data");
  add("d", "Unknown data");

  mList.refresh(mMap);

  EXPECT_THAT(mList.unknown, ElementsAre(1, 3));
}

TEST_F(WatchList, IsLeftAloneWhileCurrent) {
  add("a");
  mList.refresh(mMap);
  KXValue const keys = mList.keys;

  mList.refresh(mMap);

  EXPECT_TRUE(mList.keys.sharesBlockWith(keys));
}

TEST_F(WatchList, IsMadeAnewWhenOutdated) {
  add("a", "Unknown data");
  mList.refresh(mMap);
  KXValue const keys = mList.keys;
  remove("a");
  add("b");

  mList.refresh(mMap);

  EXPECT_THAT(texts(mList.keys), ElementsAre("b"));
  EXPECT_THAT(mList.unknown, IsEmpty());
  EXPECT_EQ(mList.items.size(), 1U);
  EXPECT_THAT(texts(keys), ElementsAre("a"));  // a batch that is under way keeps its keys
}

// ---- all threads at once

TEST(StressInbox, FilesEveryPostOnceAndInTheOrderOfItsThread) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 20'000;
  KXListenerMap map;
  KXWatchList list;
  KXSampleInbox inbox;
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([&, id] {
      std::string const name = "thread" + std::to_string(id);
      for (int i = 0; i < kPosts; ++i) inbox.postSample(name, {i, id}, i);
      --running;
    });
  }

  while (running > 0) inbox.fileInto(map, list);
  for (std::thread& thread : threads) thread.join();
  inbox.fileInto(map, list);

  ASSERT_EQ(map.size(), static_cast<std::size_t>(kThreads));
  for (auto const& [name, item] : map) {
    SCOPED_TRACE(name);
    KXValue const samples = item.toKXValue();
    ASSERT_EQ(samples.getSize(), kPosts);
    for (int i = 0; i < kPosts; ++i) ASSERT_EQ(samples[i][1], KXValue(i));
  }
}

}  // namespace
}  // namespace KX
