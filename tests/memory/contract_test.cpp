// What the store promises its readers: the real one and the fake alike, near and over the bus.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/bus/joinedbrokers.hpp>
#include <tests/support/fakememory.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using testing::OneBroker;
using testing::OverTheBus;
using testing::Placed;
using Texts = std::vector<std::string>;

void putData(KXMemory& store, std::string const& name, KXValue const& value) {
  store.insertData(name, value);
}
void putData(FakeMemory& store, std::string const& name, KXValue const& value) {
  store.set(name, "Data", value);
}
void putEvent(KXMemory& store, std::string const& name, KXValue const& value) {
  store.raiseEvent(name, value);
}
void putEvent(FakeMemory& store, std::string const& name, KXValue const& value) {
  store.set(name, "Event", value);
}
void putMicroEvent(KXMemory& store, std::string const& name) {
  store.declareMicroEvent(name);
}
void putMicroEvent(FakeMemory& store, std::string const& name) {
  store.set(name, "MicroEvent", KXValue());
}
void forget(KXMemory& store, std::string const& name) {
  store.removeData(name);
}
void forget(FakeMemory& store, std::string const& name) {
  store.forget(name);
}

template <class Way>
struct StoreContract : ::testing::Test {
  StoreContract() { place.announce("KXMemory"); }

  typename Way::Place place;
  boost::shared_ptr<typename Way::Module> const store =
      KXModule::createModule<typename Way::Module>(place.modules());
  KXMemoryProxy client{place.clients()};
};
using Ways = ::testing::Types<Placed<OneBroker, KXMemory>, Placed<OneBroker, FakeMemory>,
                              Placed<OverTheBus, KXMemory>, Placed<OverTheBus, FakeMemory>>;
TYPED_TEST_SUITE(StoreContract, Ways);

TYPED_TEST(StoreContract, GetDataGivesTheValue) {
  putData(*this->store, "data", KXValue::arrayOf(1, "x"));
  putEvent(*this->store, "event", 2.5);
  putMicroEvent(*this->store, "micro");

  EXPECT_EQ(this->client.getData("data"), KXValue::arrayOf(1, "x"));
  EXPECT_EQ(this->client.getData("event"), KXValue(2.5));
  EXPECT_EQ(this->client.getData("micro"), KXValue());
}

TYPED_TEST(StoreContract, GetTypeGivesTheType) {
  putData(*this->store, "data", 1);
  putEvent(*this->store, "event", 1);
  putMicroEvent(*this->store, "micro");

  EXPECT_EQ(this->client.getType("data"), "Data");
  EXPECT_EQ(this->client.getType("event"), "Event");
  EXPECT_EQ(this->client.getType("micro"), "MicroEvent");
}

TYPED_TEST(StoreContract, AKeyThatNobodyWroteIsAnErrorThatNamesIt) {
  EXPECT_EQ(errorOf([&] { this->client.getData("none"); }), "unknown key 'none'");
  EXPECT_EQ(errorOf([&] { this->client.getType("none"); }), "unknown key 'none'");
}

TYPED_TEST(StoreContract, AKeyThatWasTakenOutIsUnknownAgain) {
  putData(*this->store, "k", 1);
  forget(*this->store, "k");

  EXPECT_EQ(errorOf([&] { this->client.getData("k"); }), "unknown key 'k'");
}

TYPED_TEST(StoreContract, GetListDataGivesOneValuePerNameInTheirOrder) {
  putData(*this->store, "a", 1);
  putEvent(*this->store, "b", "two");

  EXPECT_EQ(this->client.getListData(KXValue(Texts{"b", "none", "a", "b"})),
            KXValue::arrayOf("two", KXValue(), 1, "two"));
  EXPECT_EQ(this->client.getListData(KXValue(Texts())), KXValue(std::vector<KXValue>()));
}

TYPED_TEST(StoreContract, GetListDataOfAnythingButNamesIsAnError) {
  EXPECT_THROW(this->client.getListData("a"), KXError);
  EXPECT_THROW(this->client.getListData(KXValue::arrayOf("a", 1)), KXError);
}

TYPED_TEST(StoreContract, SubscriptionsAreTakenAndEnded) {
  this->client.subscribeToEvent("event", "M", "method");
  this->client.subscribeToMicroEvent("micro", "M", "message", "method");
  this->client.unsubscribeToEvent("event", "M");
  this->client.unsubscribeToMicroEvent("micro", "M");
}

TYPED_TEST(StoreContract, MethodsHaveTheTypesThatClientsCallDirectly) {
  Texts signatures;
  for (char const* name :
       {"getData", "getListData", "getType", "subscribeToEvent", "subscribeToMicroEvent",
        "unsubscribeToEvent", "unsubscribeToMicroEvent"}) {
    KXMethodInfo const* const method = this->store->findMethod(name);
    ASSERT_NE(method, nullptr) << name;
    std::string signature = method->result.type;
    for (auto const& parameter : method->parameters) signature += " " + parameter.type;
    signatures.push_back(signature);
  }
  EXPECT_EQ(signatures, (Texts{"value string", "value value", "string string",
                               "void string string string", "void string string string string",
                               "void string string", "void string string"}));
}

}  // namespace
}  // namespace KX
