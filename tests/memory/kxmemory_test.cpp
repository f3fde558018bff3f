// Keys, their types and values.
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using Texts = std::vector<std::string>;

struct StoreTest : ::testing::Test {
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(broker);
};

using Key = StoreTest;

TEST_F(Key, ThatNobodyWroteIsAnErrorThatNamesIt) {
  EXPECT_EQ(errorOf([&] { store->getData("none"); }), "unknown key 'none'");
  EXPECT_EQ(errorOf([&] { store->getType("none"); }), "unknown key 'none'");
  EXPECT_EQ(errorOf([&] { store->removeData("none"); }), "unknown key 'none'");
}

TEST_F(Key, ErrorsNameTheMethodThatFailed) {
  try {
    store->getType("none");
    FAIL() << "no error";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getModuleName(), "KXMemory");
    EXPECT_EQ(error.getMethodName(), "getType");
  }
}

TEST_F(Key, WrittenAsDataKeepsTheLastValue) {
  store->insertData("k", 1);
  store->insertData("k", "text");

  EXPECT_EQ(store->getType("k"), "Data");
  EXPECT_EQ(store->getData("k"), KXValue("text"));
}

TEST_F(Key, MayHoldAnInvalidValueAndIsStillKnown) {
  store->insertData("k", KXValue());

  EXPECT_EQ(store->getType("k"), "Data");
  EXPECT_FALSE(store->getData("k").isValid());
}

TEST_F(Key, RaisedAsEventKeepsTheLastValue) {
  store->raiseEvent("k", 1);
  store->raiseEvent("k", 2);

  EXPECT_EQ(store->getType("k"), "Event");
  EXPECT_EQ(store->getData("k"), KXValue(2));
}

TEST_F(Key, DeclaredAsEventIsInvalidUntilRaised) {
  store->declareEvent("k");

  EXPECT_EQ(store->getType("k"), "Event");
  EXPECT_FALSE(store->getData("k").isValid());
}

TEST_F(Key, DeclaredAsEventAgainKeepsItsValue) {
  store->raiseEvent("k", 1);
  store->declareEvent("k");

  EXPECT_EQ(store->getData("k"), KXValue(1));
}

TEST_F(Key, RaisedAsMicroEventKeepsNoValue) {
  store->raiseMicroEvent("k", 1);

  EXPECT_EQ(store->getType("k"), "MicroEvent");
  EXPECT_FALSE(store->getData("k").isValid());
}

TEST_F(Key, DeclaredAsMicroEventIsOne) {
  store->declareMicroEvent("k");

  EXPECT_EQ(store->getType("k"), "MicroEvent");
  EXPECT_FALSE(store->getData("k").isValid());
}

TEST_F(Key, WrittenAsAnotherTypeIsAnErrorThatNamesBothTypes) {
  store->insertData("data", 1);
  store->raiseEvent("event", 2);
  store->declareMicroEvent("micro");
  struct {
    char const* type;
    std::function<void(std::string const&)> write;
  } const writes[] = {
      {"Data",
       [&](std::string const& key) {
         store->insertData(key, 9);
       }},
      {"Data",
       [&](std::string const& key) {
         store->insertListData(KXValue::arrayOf(KXValue::arrayOf(key, 9)));
       }},
      {"Event",
       [&](std::string const& key) {
         store->raiseEvent(key, 9);
       }},
      {"Event",
       [&](std::string const& key) {
         store->declareEvent(key);
       }},
      {"MicroEvent",
       [&](std::string const& key) {
         store->raiseMicroEvent(key, 9);
       }},
      {"MicroEvent",
       [&](std::string const& key) {
         store->declareMicroEvent(key);
       }},
  };
  for (char const* key : {"data", "event", "micro"}) {
    std::string const actual = store->getType(key);
    for (auto const& write : writes) {
      if (actual == write.type) continue;
      SCOPED_TRACE(std::string(key) + " as " + write.type);
      EXPECT_EQ(errorOf([&] { write.write(key); }), "expected key '" + std::string(key) +
                                                        "' to be of type " + write.type +
                                                        ", it is of type " + actual);
      EXPECT_EQ(store->getType(key), actual);
    }
  }
  EXPECT_EQ(store->getData("data"), KXValue(1));
  EXPECT_EQ(store->getData("event"), KXValue(2));
}

TEST_F(Key, RemovedMayComeBackAsAnotherType) {
  store->insertData("k", 1);
  store->removeData("k");
  EXPECT_EQ(errorOf([&] { store->getType("k"); }), "unknown key 'k'");

  store->declareEvent("k");

  EXPECT_EQ(store->getType("k"), "Event");
  EXPECT_FALSE(store->getData("k").isValid());
}

TEST_F(Key, RemovedMakesRoomForOthersWithoutLeavingItsValue) {
  store->insertData("first", 1);
  store->removeData("first");
  store->declareEvent("second");

  EXPECT_FALSE(store->getData("second").isValid());
}

TEST_F(Key, NamesAndTextsMayHoldAnyBytes) {
  std::string bytes("\0\xff\xc3(\n\x1b[", 8);
  for (std::string const& name : {std::string(), bytes}) {
    store->insertData(name, KXValue(bytes));

    EXPECT_EQ(store->getData(name), KXValue(bytes));
    EXPECT_EQ(store->getListData(KXValue(Texts{name})), KXValue(Texts{bytes}));
  }
  EXPECT_EQ(store->getKeys(""), (Texts{"", bytes}));
  EXPECT_EQ(store->getKeys(bytes.substr(0, 2) + "*"), Texts{bytes});
}

TEST_F(Key, ListIsSortedByBytesAndHoldsEveryType) {
  store->insertData("b", 1);
  store->declareEvent("a");
  store->declareMicroEvent("B");
  store->insertData("\xff", 1);

  EXPECT_EQ(store->getKeys(""), (Texts{"B", "a", "b", "\xff"}));
}

TEST_F(Key, ListHoldsWhatMatchesThePattern) {
  for (char const* key : {"Host/Cpu/0", "Host/Cpu/1", "Host/Memory", "Robot/Cpu"}) {
    store->insertData(key, 1);
  }
  EXPECT_EQ(store->getKeys("Host/*"), (Texts{"Host/Cpu/0", "Host/Cpu/1", "Host/Memory"}));
  EXPECT_EQ(store->getKeys("*Cpu*"), (Texts{"Host/Cpu/0", "Host/Cpu/1", "Robot/Cpu"}));
  EXPECT_EQ(store->getKeys("Host"), Texts());
}

TEST_F(Key, ListLeavesOutWhatWasOnlyReadSubscribedOrRemoved) {
  store->getListData(KXValue(Texts{"read"}));
  store->subscribeToEvent("subscribed", "M", "m");
  store->insertData("removed", 1);
  store->removeData("removed");

  EXPECT_EQ(store->getKeys(""), Texts());
}

using InsertListData = StoreTest;

TEST_F(InsertListData, WritesAllPairs) {
  store->insertData("a", 0);
  store->insertListData(KXValue::arrayOf(KXValue::arrayOf("a", 1), KXValue::arrayOf("b", "x"),
                                         KXValue::arrayOf("a", 2)));

  EXPECT_EQ(store->getListData(KXValue(Texts{"a", "b"})), KXValue::arrayOf(2, "x"));
  EXPECT_EQ(store->getType("b"), "Data");
}

TEST_F(InsertListData, OfNothingChangesNothing) {
  store->insertListData(KXValue(std::vector<KXValue>()));

  EXPECT_EQ(store->getKeys(""), Texts());
}

TEST_F(InsertListData, WritesNothingIfOneKeyIsNoData) {
  store->declareEvent("event");

  EXPECT_EQ(errorOf([&] {
              store->insertListData(
                  KXValue::arrayOf(KXValue::arrayOf("a", 1), KXValue::arrayOf("event", 1)));
            }),
            "expected key 'event' to be of type Data, it is of type Event");
  EXPECT_EQ(store->getKeys(""), Texts{"event"});
}

TEST_F(InsertListData, WritesNothingIfOneElementIsNoPair) {
  KXValue const good = KXValue::arrayOf("a", 1);
  struct {
    KXValue pairs;
    char const* error;
  } const cases[] = {
      {KXValue(), "expected an array of [name, value], got invalid"},
      {KXValue("a"), "expected an array of [name, value], got string"},
      {KXValue::arrayOf(good, 5), "expected element 1 to be [name, value], got int of size 0"},
      {KXValue::arrayOf(good, KXValue::arrayOf("b")),
       "expected element 1 to be [name, value], got array of size 1"},
      {KXValue::arrayOf(good, KXValue::arrayOf("b", 1, 2)),
       "expected element 1 to be [name, value], got array of size 3"},
      {KXValue::arrayOf(good, KXValue::arrayOf(1, "b")),
       "expected element 1 to be [name, value], got array of size 2"},
  };
  for (auto const& one : cases) {
    SCOPED_TRACE(one.error);
    EXPECT_EQ(errorOf([&] { store->insertListData(one.pairs); }), one.error);
    EXPECT_EQ(store->getKeys(""), Texts());
  }
}

using StoreMethods = StoreTest;

TEST_F(StoreMethods, ArePublishedWithDescriptionsAndTypes) {
  Texts signatures;
  for (KXMethodInfo const& method : store->getMethods()) {
    EXPECT_NE(method.description, "") << method.name;
    std::string signature = method.result.type + " " + method.name + "(";
    for (KXParameterInfo const& parameter : method.parameters) {
      EXPECT_NE(parameter.description, "") << method.name << " " << parameter.name;
      if (signature.back() != '(') signature += ", ";
      signature += parameter.type + " " + parameter.name;
    }
    signatures.push_back(signature + ")");
  }
  EXPECT_EQ(store->getName(), "KXMemory");
  EXPECT_NE(store->getModuleDescription(), "");
  EXPECT_EQ(
      signatures,
      (Texts{
          "void insertData(string name, value value)", "void insertListData(value pairs)",
          "void raiseEvent(string name, value value)",
          "void raiseMicroEvent(string name, value value)", "void declareEvent(string name)",
          "void declareMicroEvent(string name)", "void removeData(string name)",
          "vector<string> getKeys(string pattern)", "value getData(string name)",
          "value getListData(value names)", "string getType(string name)",
          "void subscribeToEvent(string name, string module, string method)",
          "void subscribeToMicroEvent(string name, string module, string message, string method)",
          "void unsubscribeToEvent(string name, string module)",
          "void unsubscribeToMicroEvent(string name, string module)",
          "value getNotificationCounts(string module)"}));
}

}  // namespace
}  // namespace KX
