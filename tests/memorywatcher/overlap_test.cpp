// Two operations at once, at each place where one can come into the other.

#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/allocations.hpp>
#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<int> intsOf(KXValue const& fetched, std::string const& key) {
  std::vector<int> ints;
  for (int i = 0; i < fetched.getSize(); ++i) {
    if (fetched[i][0] != KXValue(key)) continue;
    for (KXValue const& value : valuesOf(fetched[i][1])) ints.push_back(static_cast<int>(value));
  }
  return ints;
}

class Overlap : public WatcherTest {
 protected:
  Overlap() {
    mMemory->set("data", "Data", 0);
    mMemory->set("other", "Data", 0);
    mMemory->set("event", "Event", 0);
  }
  void sampleData(int value) {
    mMemory->setValue("data", KXValue(value));
    mMemory->setValue("other", KXValue(value));
    update();
  }
  void raiseEvent(int value) { mWatcher->onEventNotify("event", KXValue(value), KXValue()); }
  /// Runs it where no lock can be this thread's.
  static void elsewhere(std::function<void()> const& run) { std::thread(run).join(); }
  bool isAnyHeld() { return isHeld(dataMutex()) || isHeld(eventMutex()); }

  /// Keys with samples of both sorts: their own (0, from the adding) and those of cycles (1, 2).
  void fill() {
    call("removeAllListeners");
    mMemory->setValue("data", KXValue(0));
    mMemory->setValue("other", KXValue(0));
    watch();
    add("data");
    add("other");
    add("event");
    for (int i = 1; i <= 2; ++i) {
      sampleData(i);
      raiseEvent(i);
    }
  }
};

// ---- fetches

// At each allocation of a fetch, in turn, another one comes.
TEST_F(Overlap, TwoFetchesGiveEachSampleOnce) {
  bool hasCome = true;
  int places = 0;
  for (int passing = 0; hasCome; ++passing) {
    SCOPED_TRACE(passing);
    ASSERT_LT(passing, 1000);
    fill();
    hasCome = false;
    KXValue other;
    Allocations::interruptAfter(passing, [&] {
      hasCome = true;
      if (isAnyHeld()) return;
      ++places;
      elsewhere([&] { other = mWatcher->getData(); });
    });
    KXValue const one = mWatcher->getData();
    Allocations::leaveAlone();

    for (char const* key : {"data", "other", "event"}) {
      std::vector<int> both = intsOf(one, key);
      if (other.isValid()) {
        std::vector<int> const second = intsOf(other, key);
        both.insert(both.end(), second.begin(), second.end());
      }
      ASSERT_THAT(both, ElementsAre(0, 1, 2)) << key;
    }
    KXValue const rest = fetch();
    for (char const* key : {"data", "other", "event"}) ASSERT_THAT(intsOf(rest, key), IsEmpty());
  }
  EXPECT_GT(places, 5);
}

// Memory that runs out at each allocation in turn, while more comes.
TEST_F(Overlap, FetchThatFailsLosesNothingAndKeepsTheOrder) {
  bool hasFailed = true;
  int places = 0;
  for (int passing = 0; hasFailed; ++passing) {
    SCOPED_TRACE(passing);
    ASSERT_LT(passing, 1000);
    fill();
    hasFailed = false;
    bool hasCome = false;
    Allocations::interruptAfter(passing, [&] {
      if (!isAnyHeld()) {
        hasCome = true;
        ++places;
        elsewhere([&] {
          sampleData(3);
          raiseEvent(3);
          listeners();
        });
      }
      throw std::bad_alloc();
    });
    KXValue got;
    try {
      got = mWatcher->getData();
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    Allocations::leaveAlone();
    EXPECT_FALSE(isAnyHeld());

    KXValue const rest = fetch();
    if (!hasFailed) {
      for (char const* key : {"data", "other", "event"}) {
        ASSERT_THAT(intsOf(got, key), ElementsAre(0, 1, 2));
      }
      continue;
    }
    for (char const* key : {"data", "other", "event"}) {
      if (hasCome) {
        ASSERT_THAT(intsOf(rest, key), ElementsAre(0, 1, 2, 3)) << key;
      } else {
        ASSERT_THAT(intsOf(rest, key), ElementsAre(0, 1, 2)) << key;
      }
    }
  }
  EXPECT_GT(places, 5);
}

TEST_F(Overlap, FetchThatFailsGivesNothingToAKeyThatWasReplacedMeanwhile) {
  bool hasFailed = true;
  for (int passing = 0; hasFailed; ++passing) {
    SCOPED_TRACE(passing);
    ASSERT_LT(passing, 1000);
    fill();
    hasFailed = false;
    bool hasCome = false;
    Allocations::interruptAfter(passing, [&] {
      if (!isAnyHeld()) {
        hasCome = true;
        elsewhere([&] {
          for (char const* key : {"data", "event"}) remove(key);
          watch(false);
          for (char const* key : {"data", "event"}) add(key);
        });
      }
      throw std::bad_alloc();
    });
    try {
      mWatcher->getData();
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    Allocations::leaveAlone();

    KXValue const rest = fetch();
    if (!hasFailed) continue;
    ASSERT_THAT(intsOf(rest, "other"), ElementsAre(0, 1, 2));
    if (hasCome) {
      ASSERT_THAT(intsOf(rest, "data"), IsEmpty());
      ASSERT_THAT(intsOf(rest, "event"), IsEmpty());
    }
  }
}

// While the mutex is held, a fetch does as much for many samples as for few.
TEST_F(Overlap, FetchHoldsTheLockAsLongForManySamplesAsForFew) {
  auto const countUnderLock = [this](int cycles) {
    for (int i = 0; i < cycles; ++i) update();
    mMemory->clearCalls();
    int count = 0;
    std::function<void()> look = [&] {
      if (isHeld(dataMutex())) ++count;
      Allocations::interruptAfter(0, look);
    };
    Allocations::interruptAfter(0, look);
    KXValue const fetched = mWatcher->getData();
    Allocations::leaveAlone();
    EXPECT_EQ(fetched[0][1].getSize(), cycles);
    return count;
  };
  for (int i = 0; i < 100; ++i) {
    mMemory->set("key" + std::to_string(i), "Data", i);
    add("key" + std::to_string(i));
  }
  countUnderLock(1);

  EXPECT_EQ(countUnderLock(20), countUnderLock(2000));
}

TEST_F(Overlap, FetchFromWithinACycleGivesWhatTheCycleHasFiledSoFar) {
  for (char const* key : {"a", "k", "z"}) add(key);
  mMemory->set("a", "Data", 1);
  mMemory->set("z", "Data", 3);
  mMemory->setHook("getListData", [](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(1, 2, 3);
  });
  KXValue within;
  mMemory->setHook("getType", [&](FakeMemory::Call const& call, KXValue& result) {
    result = KXValue("Data");
    if (call.arguments[0] == KXValue("k")) within = mWatcher->getData();
  });

  update();

  EXPECT_THAT(intsOf(within, "a"), ElementsAre(1));
  EXPECT_THAT(intsOf(within, "k"), ElementsAre(2));
  EXPECT_THAT(intsOf(within, "z"), IsEmpty());
  KXValue const after = fetch();
  EXPECT_THAT(intsOf(after, "a"), IsEmpty());
  EXPECT_THAT(intsOf(after, "k"), IsEmpty());
  EXPECT_THAT(intsOf(after, "z"), ElementsAre(3));
}

// ---- cycles

TEST_F(Overlap, TwoCyclesThatResolveOneKeySubscribeItOnce) {
  add("late");
  mMemory->set("late", "Event", 5);
  mMemory->block("getType");
  Caller one([this] { update(); });
  ASSERT_TRUE(mMemory->waitUntilParked(1));  // two probes at once would skip a cycle
  Caller other([this] { update(); });
  ASSERT_TRUE(mMemory->waitUntilParked(2));

  // The first to go on is held where it subscribes: the key still stands among the data keys then.
  mMemory->block("subscribeToEvent");
  mMemory->release("getType");
  bool const isOneHeld = one.isParked();
  bool const isOtherHeld = other.isParked();
  EXPECT_NE(isOneHeld, isOtherHeld);
  mMemory->release("subscribeToEvent");
  one.join();
  other.join();

  EXPECT_EQ(mMemory->getCalls("subscribeToEvent").size(), 1U);
  EXPECT_EQ(listeners(), Names{"late"});
  EXPECT_THAT(dataItems(), IsEmpty());
  // Both cycles' samples, once each.
  EXPECT_THAT(intsOf(fetch(), "late"), ElementsAre(5, 5));
}

// Somebody makes the list anew while the promoted key still stands among the data keys.
TEST_F(Overlap, ListMadeBetweenPromotionAndErasureIsNotKept) {
  add("late");
  add("data");
  mMemory->set("late", "Event", 5);
  mMemory->setHook("subscribeToEvent", [this](FakeMemory::Call const&, KXValue&) {
    elsewhere([this] { KXListenerTable::Access(ForTest::dataTable(*mWatcher)).list(); });
  });
  update();
  mMemory->clearCalls();

  update();

  EXPECT_EQ(mMemory->getCalls(),
            (Calls{{"getListData", {KXValue(std::vector<std::string>{"data"})}}}));
  EXPECT_EQ(listeners(), (Names{"data", "late"}));
}

TEST_F(Overlap, PromotionTakesTheSampleOfItsOwnCycleAndWhatNobodyFetched) {
  add("late");
  int cycle = 0;
  mMemory->setHook("getListData", [&](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(++cycle);
  });
  update();
  update();
  fetch();
  update();
  mMemory->set("late", "Event", 5);
  update();

  EXPECT_THAT(intsOf(fetch(), "late"), ElementsAre(3, 4));
}

TEST_F(Overlap, KeyThatIsReplacedWhileTheStoreReadsShowsNothingOlder) {
  add("data");
  add("other");
  mMemory->block("getListData");
  Caller cycle([this] { update(); });
  ASSERT_TRUE(mMemory->waitUntilParked());
  remove("data");
  add("data");
  mMemory->release("getListData");
  cycle.join();

  KXValue const fetched = fetch();
  EXPECT_THAT(intsOf(fetched, "data"), IsEmpty());
  EXPECT_THAT(intsOf(fetched, "other"), ElementsAre(0));
  update();
  EXPECT_THAT(intsOf(fetch(), "data"), ElementsAre(0));
}

TEST_F(Overlap, FullAnswerFollowsABrokenOffOne) {
  mMemory->set("third", "Data", 0);
  for (char const* key : {"data", "other", "third"}) add(key);
  mMemory->setHook("getListData", [](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(10, 20);
  });
  update();
  mMemory->setHook("getListData", [](FakeMemory::Call const&, KXValue& result) {
    result = KXValue::arrayOf(11, 21, 31);
  });
  update();

  KXValue const fetched = fetch();
  EXPECT_THAT(intsOf(fetched, "data"), ElementsAre(10, 11));
  EXPECT_THAT(intsOf(fetched, "other"), ElementsAre(20, 21));
  EXPECT_THAT(intsOf(fetched, "third"), ElementsAre(31));
  EXPECT_EQ(timesOf(fetched[0][1]).back(), timesOf(fetched[2][1]).back());
}

// ---- events that nobody takes in

class ManyEvents : public Overlap {
 protected:
  void raiseMany(int count) {
    watch();
    for (int i = 0; i < count; ++i) raiseEvent(i);
    ASSERT_EQ(waiting(), static_cast<std::size_t>(count));
  }
  std::size_t waiting() { return ForTest::eventTable(*mWatcher).waiting(); }
};

TEST_F(ManyEvents, AreTakenInByTheCycle) {
  raiseMany(65'537);

  update();

  EXPECT_EQ(waiting(), 0U);
  EXPECT_EQ(intsOf(fetch(), "event").size(), 65'537U);
}

TEST_F(ManyEvents, AreLeftToTheNextClientUpToTheLimit) {
  raiseMany(65'536);

  update();

  EXPECT_EQ(waiting(), 65'536U);
}

TEST_F(ManyEvents, AreLeftAloneWhileAClientHoldsTheMutex) {
  raiseMany(65'537);
  boost::shared_ptr<KXMutex> const mutex = eventMutex();
  mutex->lock();

  Caller cycle([this] { update(); });
  EXPECT_FALSE(cycle.isParked());

  EXPECT_EQ(waiting(), 65'537U);
  mutex->unlock();
}

TEST_F(ManyEvents, AreTakenInAlsoAfterACycleThatFailed) {
  raiseMany(65'537);
  mMemory->setHook("getListData", FakeMemory::throwing("no answer"));

  update();

  EXPECT_EQ(waiting(), 0U);
}

}  // namespace
}  // namespace KX
