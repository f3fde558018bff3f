// The store that tests drive by hand.
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kxcommon/kxbroker.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/support/fakememory.hpp>

#include "subscriber.hpp"

namespace KX {
namespace {

using Calls = std::vector<FakeMemory::Call>;

struct FakeStore : ::testing::Test {
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<FakeMemory> const store = KXModule::createModule<FakeMemory>(broker);
  KXMemoryProxy client{broker};
};

TEST_F(FakeStore, RecordsEveryCallWithItsArguments) {
  KXValue const names(std::vector<std::string>{"a", "b"});
  store->set("a", "Data", 1);
  client.getData("a");
  client.getType("a");
  client.getListData(names);
  client.subscribeToEvent("e", "M", "m");
  client.subscribeToMicroEvent("e", "M", "text", "m");
  client.unsubscribeToEvent("e", "M");
  client.unsubscribeToMicroEvent("e", "M");

  EXPECT_EQ(store->getCalls(), (Calls{{"getData", {"a"}},
                                      {"getType", {"a"}},
                                      {"getListData", {names}},
                                      {"subscribeToEvent", {"e", "M", "m"}},
                                      {"subscribeToMicroEvent", {"e", "M", "text", "m"}},
                                      {"unsubscribeToEvent", {"e", "M"}},
                                      {"unsubscribeToMicroEvent", {"e", "M"}}}));
  EXPECT_EQ(store->getCalls("getType"), (Calls{{"getType", {"a"}}}));
  store->clearCalls();
  EXPECT_EQ(store->getCalls(), Calls());
}

TEST_F(FakeStore, HooksThrowWhatTheTestWants) {
  store->setHook("getListData", FakeMemory::throwing("no"));
  store->setHook("subscribeToEvent", FakeMemory::throwingValue(std::runtime_error("no")));
  store->setHook("unsubscribeToEvent", FakeMemory::throwingValue(5));

  EXPECT_EQ(errorOf([&] { client.getListData(KXValue(std::vector<std::string>())); }), "no");
  EXPECT_THROW(client.subscribeToEvent("e", "M", "m"), std::runtime_error);
  EXPECT_THROW(client.unsubscribeToEvent("e", "M"), int);
  EXPECT_EQ(store->getCalls().size(), 3U);
}

TEST_F(FakeStore, HooksGiveTheAnswer) {
  store->setHook("getListData",
                 [](auto const&, KXValue& result) { result = KXValue(std::vector<KXValue>()); });
  store->setHook("getType", [](auto const&, KXValue& result) { result = "Event"; });

  EXPECT_EQ(client.getListData(KXValue(std::vector<std::string>{"a"})).getSize(), 0);
  EXPECT_EQ(client.getType("any"), "Event");

  store->setHook("getType", {});
  EXPECT_THROW(client.getType("any"), KXError);
}

TEST_F(FakeStore, BlockedCallsWaitUntilReleased) {
  store->set("a", "Data", 1);
  store->block("getData");
  std::thread first([&] { EXPECT_EQ(client.getData("a"), KXValue(2)); });
  std::thread second([&] { EXPECT_EQ(client.getData("a"), KXValue(2)); });
  ASSERT_TRUE(store->waitUntilParked(2));

  EXPECT_EQ(client.getType("a"), "Data");
  store->setValue("a", 2);
  store->release("getData");
  first.join();
  second.join();

  EXPECT_TRUE(store->waitForCalls("getData", 2));
  EXPECT_EQ(client.getData("a"), KXValue(2));
}

}  // namespace
}  // namespace KX
