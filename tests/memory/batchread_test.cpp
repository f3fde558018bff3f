// getListData: what it gives, what it reserves, and that what it remembers never shows.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <host/memory/kxmemorytable.hpp>
#include <kxcommon/kxbroker.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using Texts = std::vector<std::string>;

struct BatchRead : ::testing::Test {
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(broker);
};

using ReservedName = BatchRead;

TEST_F(BatchRead, GivesOneValuePerNameInTheirOrder) {
  store->insertData("a", 1);
  store->raiseEvent("b", "event");
  store->raiseMicroEvent("c", 3);

  KXValue const values = store->getListData(KXValue(Texts{"b", "a", "c", "none", "a"}));

  EXPECT_EQ(values, KXValue::arrayOf("event", 1, KXValue(), KXValue(), 1));
}

TEST_F(BatchRead, OfNoNamesGivesAnEmptyArray) {
  KXValue const names{Texts()};

  EXPECT_EQ(store->getListData(names), KXValue(std::vector<KXValue>()));
  EXPECT_EQ(store->getListData(names), KXValue(std::vector<KXValue>()));
}

TEST_F(BatchRead, OfAnythingElseIsAnErrorAndReservesNothing) {
  EXPECT_EQ(errorOf([&] { store->getListData(KXValue()); }),
            "expected the names as an array, got invalid");
  EXPECT_EQ(errorOf([&] { store->getListData("a"); }),
            "expected the names as an array, got string");
  EXPECT_EQ(errorOf([&] { store->getListData(KXValue::arrayOf("a", 5)); }),
            "expected name 1 to be a string, got int");
  EXPECT_EQ(errorOf([&] { store->getType("a"); }), "unknown key 'a'");
}

TEST_F(BatchRead, AgainSeesWhatWasWrittenMeanwhile) {
  KXValue const names(Texts{"data", "event", "late"});
  store->insertData("data", 1);
  store->raiseEvent("event", 2);
  EXPECT_EQ(store->getListData(names), KXValue::arrayOf(1, 2, KXValue()));

  store->insertData("data", 10);
  store->raiseEvent("event", 20);
  store->insertData("late", 30);

  EXPECT_EQ(store->getListData(names), KXValue::arrayOf(10, 20, 30));
}

TEST_F(BatchRead, ResultIsNotTouchedByLaterWrites) {
  KXValue const names(Texts{"a"});
  store->insertData("a", 1);
  KXValue const values = store->getListData(names);

  store->insertData("a", 2);

  EXPECT_EQ(values, KXValue::arrayOf(1));
}

TEST_F(BatchRead, AgainWithChangedNamesReadsTheNewOnes) {
  store->insertData("a", 1);
  store->insertData("b", 2);
  KXValue names(Texts{"a"});
  EXPECT_EQ(store->getListData(names), KXValue::arrayOf(1));

  names[0] = "b";

  EXPECT_EQ(store->getListData(names), KXValue::arrayOf(2));
}

TEST_F(BatchRead, StaysRightAmongMoreListsThanAreRemembered) {
  std::vector<KXValue> lists;
  for (int i = 0; i < 20; ++i) {
    store->insertData("k" + std::to_string(i), i);
    lists.emplace_back(Texts{"k" + std::to_string(i), "shared"});
  }
  for (int round = 0; round < 3; ++round) {
    store->insertData("shared", round);
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(store->getListData(lists[static_cast<std::size_t>(i)]), KXValue::arrayOf(i, round));
    }
  }
}

TEST_F(BatchRead, OfARemovedKeyGivesAnInvalidValueAndTheOthersGoOn) {
  KXValue const names(Texts{"a", "b", "c"});
  for (char const* key : {"a", "b", "c"}) store->insertData(key, key);
  store->getListData(names);

  store->removeData("b");
  store->insertData("c", 5);

  EXPECT_EQ(store->getListData(names), KXValue::arrayOf("a", KXValue(), 5));
  store->raiseEvent("b", "back");
  EXPECT_EQ(store->getListData(names), KXValue::arrayOf("a", "back", 5));
}

TEST_F(BatchRead, DoesNotMistakeAKeyForAnotherThatTookItsPlace) {
  KXValue const names(Texts{"old"});
  store->insertData("old", 1);
  store->getListData(names);

  store->removeData("old");
  store->insertData("new", 2);

  EXPECT_EQ(store->getListData(names), KXValue::arrayOf(KXValue()));
}

TEST_F(BatchRead, OfAKeyThatWasRemovedBetweenReadsOfOthersIsStillRight) {
  KXValue const first(Texts{"a"});
  KXValue const second(Texts{"a", "b"});
  store->insertData("a", 1);
  store->insertData("b", 2);
  store->getListData(first);
  store->getListData(second);

  store->removeData("a");
  EXPECT_EQ(store->getListData(first), KXValue::arrayOf(KXValue()));
  store->removeData("b");
  store->insertData("a", 3);

  EXPECT_EQ(store->getListData(first), KXValue::arrayOf(3));
  EXPECT_EQ(store->getListData(second), KXValue::arrayOf(3, KXValue()));
}

TEST_F(ReservedName, IsUnknownDataWithoutAValue) {
  store->getListData(KXValue(Texts{"later"}));

  EXPECT_EQ(store->getType("later"), "Unknown data");
  EXPECT_EQ(errorOf([&] { store->getData("later"); }), "unknown key 'later'");
  EXPECT_EQ(errorOf([&] { store->removeData("later"); }), "unknown key 'later'");
}

TEST_F(ReservedName, TakesTheTypeOfItsFirstWrite) {
  store->getListData(KXValue(Texts{"data", "event", "micro"}));

  store->insertData("data", 1);
  store->raiseEvent("event", 1);
  store->raiseMicroEvent("micro", 1);

  EXPECT_EQ(store->getType("data"), "Data");
  EXPECT_EQ(store->getType("event"), "Event");
  EXPECT_EQ(store->getType("micro"), "MicroEvent");
}

TEST_F(ReservedName, IsReservedAgainByTheNextReadAfterRemoval) {
  KXValue const names(Texts{"k"});
  store->insertData("k", 1);
  store->getListData(names);
  store->removeData("k");
  EXPECT_EQ(errorOf([&] { store->getType("k"); }), "unknown key 'k'");

  store->getListData(names);

  EXPECT_EQ(store->getType("k"), "Unknown data");
}

TEST_F(ReservedName, IsReservedAlsoIfItIsSubscribedTo) {
  store->subscribeToEvent("k", "M", "m");
  store->getListData(KXValue(Texts{"k"}));
  EXPECT_EQ(store->getType("k"), "Unknown data");

  store->unsubscribeToEvent("k", "M");

  EXPECT_EQ(store->getType("k"), "Unknown data");
}

TEST_F(ReservedName, BoundIsKeptAndNamesBeyondItStillWork) {
  Texts texts;
  for (std::size_t i = 0; i < KXMemoryTable::kMaxReserved; ++i) {
    texts.push_back("r" + std::to_string(i));
  }
  texts.emplace_back("beyond");
  KXValue const names(texts);
  int const last = names.getSize() - 1;

  EXPECT_FALSE(store->getListData(names)[last].isValid());

  EXPECT_EQ(store->getType("r99999"), "Unknown data");
  EXPECT_EQ(errorOf([&] { store->getType("beyond"); }), "unknown key 'beyond'");
  store->insertData("beyond", 7);
  EXPECT_EQ(store->getListData(names)[last], KXValue(7));
}

TEST_F(ReservedName, IsNoLongerThanTheBound) {
  std::string const longest(KXMemoryTable::kMaxReservedName, 'n');
  KXValue const names(Texts{longest, longest + "n"});

  EXPECT_FALSE(store->getListData(names)[1].isValid());

  EXPECT_EQ(store->getType(longest), "Unknown data");
  EXPECT_EQ(errorOf([&] { store->getType(longest + "n"); }), "unknown key '" + longest + "n'");
  store->insertData(longest + "n", 7);
  EXPECT_EQ(store->getListData(names)[1], KXValue(7));
}

TEST_F(ReservedName, BeyondTheBoundDoesNotLendItsValuesToTheListThatItDisplaces) {
  Texts texts;
  for (std::size_t i = 0; i < KXMemoryTable::kMaxReserved; ++i) {
    texts.push_back("r" + std::to_string(i));
  }
  store->getListData(KXValue(texts));
  std::vector<KXValue> lists;
  for (int i = 0; i < 8; ++i) {
    store->insertData("k" + std::to_string(i), i);
    lists.emplace_back(Texts{"k" + std::to_string(i), "k0"});
    store->getListData(lists.back());
  }
  KXValue const beyond(Texts{"k7", "beyond"});

  EXPECT_EQ(store->getListData(beyond), KXValue::arrayOf(7, KXValue()));

  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(store->getListData(lists[static_cast<std::size_t>(i)]), KXValue::arrayOf(i, 0));
  }
  store->insertData("beyond", 9);
  EXPECT_EQ(store->getListData(beyond), KXValue::arrayOf(7, 9));
}

TEST_F(ReservedName, WrittenMakesRoomForAnotherReservation) {
  Texts texts;
  for (std::size_t i = 0; i < KXMemoryTable::kMaxReserved; ++i) {
    texts.push_back("r" + std::to_string(i));
  }
  store->getListData(KXValue(texts));
  store->insertData("r0", 1);

  store->getListData(KXValue(Texts{"another", "beyond"}));

  EXPECT_EQ(store->getType("another"), "Unknown data");
  EXPECT_EQ(errorOf([&] { store->getType("beyond"); }), "unknown key 'beyond'");
}

}  // namespace
}  // namespace KX
