// Brokers joined to one robot, and how they leave it.
#include <host/bus/kxbuslink.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <kxerror/kxerror.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>
#include <tests/bus/side.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using testing::Guest;
using ::testing::HasSubstr;
using testing::Side;
using testing::waitUntil;

using BusLink = testing::RobotTest;

TEST_F(BusLink, ReachesAnAnnouncedModuleByItsPlainName) {
  Side there(network, "there");
  Side here(network, "here");
  KXModule::createModule<Guest>(there.broker);
  there.link->announce({"Guest"});

  EXPECT_EQ(here.broker->getProxy("Guest", 0)->call<int>("twice", 21), 42);
}

TEST_F(BusLink, ReachesAModuleThatIsNotAnnouncedByItsAddressAlone) {
  Side there(network, "there");
  Side here(network, "here");
  KXModule::createModule<Guest>(there.broker);

  auto const proxy = here.broker->getProxy("Guest@" + there.broker->getName(), 0);

  EXPECT_EQ(proxy->call<int>("twice", 21), 42);
  EXPECT_THROW(here.broker->getProxy("Guest", 0), KXError);
}

TEST_F(BusLink, RefusesANameThatSomebodyHas) {
  Side first(network, "first");
  Side second(network, "second");
  KXModule::createModule<Guest>(first.broker);
  KXModule::createModule<Guest>(second.broker);
  first.link->announce({"Guest"});

  EXPECT_THROW(second.link->announce({"Guest"}), KXError);
  first.end();
  second.link->announce({"Guest"});

  Side client(network, "client");
  EXPECT_EQ(client.broker->getProxy("Guest", 0)->call<int>("twice", 1), 2);
}

TEST_F(BusLink, BringsEventsBackToTheProcessThatSubscribed) {
  auto const host = makeHost();
  Side one(network, "one");
  Side other(network, "other");
  auto const guest = KXModule::createModule<Guest>(one.broker);
  auto const stranger = KXModule::createModule<Guest>(other.broker);
  KXMemoryProxy proxy(one.broker);
  KXMemoryProxy othersProxy(other.broker);

  proxy.subscribeToEvent("e", "Guest", "onEvent");
  othersProxy.subscribeToEvent("last", "Guest", "onEvent");
  for (int i = 0; i < 3; ++i) store->raiseEvent("e", i);
  store->raiseEvent("last", 1);

  ASSERT_TRUE(waitUntil([&] { return guest->events().size() == 3; }));
  EXPECT_EQ(guest->events(), (std::vector<std::string>{"e=0", "e=1", "e=2"}));
  ASSERT_TRUE(waitUntil([&] { return !stranger->events().empty(); }));
  EXPECT_EQ(stranger->events(), std::vector<std::string>{"last=1"});
}

TEST_F(BusLink, TakesNoEventsThatAreMeantForAnother) {
  auto const host = makeHost();
  Side robot(network, "robot");
  Side stranger(network, "stranger");
  auto const guest = KXModule::createModule<Guest>(robot.broker);
  auto const other = KXModule::createModule<Guest>(stranger.broker);
  robot.link->announce({"Guest"});

  store->subscribeToEvent("e", "Guest", "onEvent");
  // Refused, and nothing is to be left of the attempt.
  EXPECT_THROW(stranger.broker->getProxy("KXMemory", 0)
                   ->genericCall("subscribeToEvent", KXValue::arrayOf("e", "Guest", "onEvent")),
               KXError);
  KXMemoryProxy(stranger.broker).subscribeToEvent("last", "Guest", "onEvent");
  for (int i = 0; i < 20; ++i) store->raiseEvent("e", i);
  store->raiseEvent("last", 1);

  ASSERT_TRUE(waitUntil([&] { return guest->events().size() == 20; }));
  ASSERT_TRUE(waitUntil([&] { return !other->events().empty(); }));
  EXPECT_EQ(other->events(), std::vector<std::string>{"last=1"});
}

TEST_F(BusLink, TellsWhatBecameOfTheEventsToAProcess) {
  auto const host = makeHost();
  Side side(network, "one");
  auto const guest = KXModule::createModule<Guest>(side.broker);
  KXMemoryProxy proxy(side.broker);
  proxy.subscribeToEvent("e", "Guest", "onEvent");
  for (int i = 0; i < 3; ++i) store->raiseEvent("e", i);

  std::string const name = "Guest@" + side.broker->getName();
  auto const memory = side.broker->getProxy("KXMemory", 0);
  EXPECT_TRUE(waitUntil([&] {
    return memory->call<KXValue>("getNotificationCounts", name) == KXValue::arrayOf(3, 3, 0, 0, 0);
  }));
  EXPECT_EQ(memory->call<KXValue>("getNotificationCounts", std::string("Nobody@any.01234567")),
            KXValue::arrayOf(0, 0, 0, 0, 0));
}

TEST_F(BusLink, EndsACallInProgressByEndingItsModule) {
  auto there = std::make_unique<Side>(network, "there");
  Side here(network, "here");
  auto const guest = KXModule::createModule<Guest>(there->broker);
  auto const proxy = here.broker->getProxy("Guest@" + there->broker->getName(), 0);
  std::jthread caller([&] { EXPECT_NO_THROW(proxy->call<void>("park")); });
  ASSERT_TRUE(waitUntil([&] { return guest->isParked(); }));

  auto const start = Clock::now();
  there.reset();

  caller.join();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
}

TEST_F(BusLink, LeavesWithinASecondAlthoughNobodyAnswers) {
  auto const host = makeHost();
  auto side = std::make_unique<Side>(network, "watcher");
  KXModule::createModule<KXLauncher>(side->broker);
  auto watcher = KXModule::createModule<KXMemoryWatcher>(side->broker);
  for (int i = 0; i < 20; ++i) store->declareEvent("e" + std::to_string(i));
  watcher->startWatching(10);
  for (int i = 0; i < 20; ++i) watcher->addListener("e" + std::to_string(i));
  network.setFaults([](KXBusTransfer const&) { return KXBusFate{{}, false}; });  // all is lost

  auto const start = Clock::now();
  watcher.reset();
  side.reset();

  // Each of the twenty subscriptions is to be ended at the store, and none of them is.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  network.setFaults({});
}

TEST_F(BusLink, LosesANameDuringACallAndLetsTheOtherServe) {
  std::jthread parked;  // ends after the sides have
  Side first(network, "first");
  Side second(network, "second");
  Side client(network, "client");
  auto const guest = KXModule::createModule<Guest>(first.broker);
  auto const next = KXModule::createModule<Guest>(second.broker);
  first.link->announce({"Guest"});
  EXPECT_EQ(client.broker->getProxy("Guest", 0)->call<int>("twice", 1), 2);
  parked = std::jthread([broker = client.broker] {
    try {
      broker->getProxy("Guest", 0)->call<void>("park");
    } catch (KXError const&) {
      // Its repeat may reach the second, which cannot tell what became of it.
    }
  });
  ASSERT_TRUE(waitUntil([&] { return guest->isParked(); }));

  network.cut(*first.bus);
  second.link->announce({"Guest"});
  network.mend(*first.bus);

  // The first notices, and is no more in the way, although its call goes on. Until then it may
  // answer, and just then refuse.
  EXPECT_TRUE(waitUntil([&] {
    int const before = next->twiceCount();
    for (int i = 0; i < 20; ++i) {
      try {
        EXPECT_EQ(client.broker->getProxy("Guest", 0)->call<int>("twice", i), 2 * i);
      } catch (KXError const&) {
        return false;
      }
    }
    return next->twiceCount() == before + 20;
  }));
  auto const begin = Clock::now();
  first.end();
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(3));
}

TEST_F(BusLink, ServesNothingWhereAnnouncingFails) {
  Side there(network, "there");
  Side here(network, "here");
  KXModule::createModule<Guest>(there.broker);

  EXPECT_THROW(there.link->announce({"Guest", "Absent"}), KXError);

  EXPECT_THROW(here.broker->getProxy("Guest", 0), KXError);
  EXPECT_NO_THROW(there.link->announce({"Guest"}));
  EXPECT_EQ(here.broker->getProxy("Guest", 0)->call<int>("twice", 1), 2);
}

// Two are under way to one who was cut off, as many as find room wait.
TEST_F(BusLink, DropsEventsBeyondTheBacklog) {
  for (auto const& [backlogMb, isEnough] : {std::pair(1, false), std::pair(8, true)}) {
    SCOPED_TRACE(backlogMb);
    auto const host = makeHost({.robot = "r", .backlogMb = backlogMb});
    Side side(network, "one");
    auto const guest = KXModule::createModule<Guest>(side.broker);
    KXMemoryProxy proxy(side.broker);
    proxy.subscribeToEvent("e", "Guest", "onEvent");
    network.cut(*side.bus);

    for (int i = 0; i < 10; ++i) store->raiseEvent("e", std::string(500'000, 'x'));

    KXValue counts;
    std::string const address = "Guest@" + side.broker->getName();
    ASSERT_TRUE(waitUntil([&] {
      counts = store->getNotificationCounts(address);
      return static_cast<int>(counts[0]) == 10;
    }));
    EXPECT_EQ(static_cast<int>(counts[2]) == 0, isEnough) << counts.toString(1);
    store.reset();
  }
}

TEST_F(BusLink, MayBeToldToEndAgain) {
  Side side(network, "one");

  for (int i = 0; i < 2; ++i) {
    side.link->leave();
    side.link->close();
  }

  EXPECT_EQ(side.broker->getTransport(), nullptr);
}

TEST_F(BusLink, ReachesNobodyAfterItsEnd) {
  auto const host = makeHost();
  Side side(network, "one");
  auto const proxy = side.broker->getProxy("KXMemory", 0);

  side.end();

  try {
    proxy->genericCall("getKeys", KXValue::arrayOf(""));
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getKind(), KXError::Kind::Disconnected);
    EXPECT_THAT(error.what(), HasSubstr("closed"));
  }
}

}  // namespace
}  // namespace KX
