// Who hears that a module has come back, and what is told to it again.
#include <host/bus/kxreturns.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxwire.hpp>
#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/bus/side.hpp>
#include <tests/support/logcapture.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::ElementsAre;
using testing::Guest;
using ::testing::HasSubstr;
using testing::Side;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using testing::waitUntil;

// Says that a module is there, as the process that has it does now and then.
void herald(KXBus& bus, std::string const& module, std::string const& instance) {
  bus.publish(
      {.subject = "kx.r.@here", .payload = encodeValue(KXValue::arrayOf(module, instance))});
}
std::string idOf(int number) {
  char text[17] = "";
  std::snprintf(text, sizeof text, "%016x", static_cast<unsigned>(number));
  return text;
}

// The first connection is the first host's, the second that of who observes.
bool isHostsHerald(KXBusTransfer const& transfer) {
  return transfer.message.subject == "kx.r.@here" && transfer.from != 1;
}

struct Returns : testing::RobotTest {
  // A guest that was subscribed to the event "e" at a store that has gone.
  struct Orphan {
    explicit Orphan(Returns& test, int timeoutMs = 5000)
        : host(test.makeHost()), side(test.network, "one", timeoutMs), proxy(side.broker) {
      proxy.subscribeToEvent("e", "Guest", "onEvent");
      test.store.reset();
      host.reset();
    }
    std::unique_ptr<Side> host;
    Side side;
    boost::shared_ptr<Guest> const guest = KXModule::createModule<Guest>(side.broker);
    KXMemoryProxy proxy;
  };
};

TEST_F(Returns, RenewsSubscriptionsWhenTheRobotsHostIsStartedAnew) {
  auto host = makeHost();
  Side side(network, "one");
  auto const guest = KXModule::createModule<Guest>(side.broker);
  KXMemoryProxy proxy(side.broker);
  proxy.subscribeToEvent("e", "Guest", "onEvent");
  store->raiseEvent("e", "before");
  ASSERT_TRUE(waitUntil([&] { return guest->events().size() == 1; }));

  store.reset();
  host.reset();
  host = makeHost();

  ASSERT_TRUE(waitUntil([&] {
    store->raiseEvent("e", "after");
    return guest->events().size() > 1;
  }));
  EXPECT_EQ(guest->events().back(), "e=after");
}

TEST_F(Returns, RenewsSubscriptionsAlthoughTheAnnouncementWasLost) {
  Orphan const orphan(*this);
  network.setFaults([](KXBusTransfer const& transfer) {
    bool const isAnnouncement = transfer.message.subject == "kx.r.@here";
    return isAnnouncement ? KXBusFate{{}, false} : KXBusFate();
  });
  auto const host = makeHost();
  network.setFaults({});

  ASSERT_TRUE(waitUntil([&] {
    store->raiseEvent("e", "after");
    return !orphan.guest->events().empty();
  }));
}

// What a store says in these is said for it, always the same.
TEST_F(Returns, RenewsSubscriptionsAtTheNextSignOfAStoreThatDidNotAnswer) {
  Orphan const orphan(*this, 100);
  std::atomic<int> lostCount{0};
  std::atomic<bool> isHung{true};
  network.setFaults([&](KXBusTransfer const& transfer) {
    bool const isCall = transfer.message.subject.find(".KXMemory.") != std::string_view::npos;
    if (isCall && isHung) ++lostCount;
    return isHostsHerald(transfer) || (isCall && isHung) ? KXBusFate{{}, false} : KXBusFate();
  });
  LogCapture const log("KXMemoryProxy");
  auto const host = makeHost();

  herald(*orphan.side.bus, "KXMemory", idOf(1));
  ASSERT_THAT(log.waitFor(1), SizeIs(1));
  int const lostBefore = lostCount;
  ASSERT_TRUE(waitUntil([&] {
    herald(*orphan.side.bus, "KXMemory", idOf(1));
    return lostCount > lostBefore;
  }));
  isHung = false;

  ASSERT_TRUE(waitUntil([&] {
    herald(*orphan.side.bus, "KXMemory", idOf(1));
    store->raiseEvent("e", "after");
    return !orphan.guest->events().empty();
  }));
  EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("renewing the subscriptions")));
  network.setFaults({});
}

TEST_F(Returns, RenewsSubscriptionsAtAStoreThatWasNotThereWhenItWasHeardOf) {
  Orphan const orphan(*this);
  LogCapture const log("KXMemoryProxy");
  herald(*orphan.side.bus, "KXMemory", idOf(1));
  ASSERT_THAT(log.waitFor(1), SizeIs(1));
  network.setFaults([](KXBusTransfer const& transfer) {
    return isHostsHerald(transfer) ? KXBusFate{{}, false} : KXBusFate();
  });
  auto const host = makeHost();

  EXPECT_TRUE(waitUntil([&] {
    herald(*orphan.side.bus, "KXMemory", idOf(1));
    store->raiseEvent("e", "after");
    return !orphan.guest->events().empty();
  }));
  network.setFaults({});
}

TEST_F(Returns, TellsOfReturnsOnceASecondAndOfTheLast) {
  Side side(network, "one");
  std::atomic<int> count{0};
  auto const observation =
      side.broker->getTransport()->observeReturns("M", [&] { return ++count > 0; });
  int const heraldCount = 1000;

  auto const begin = Clock::now();
  for (int i = 1; i <= heraldCount; ++i) herald(*side.bus, "M", idOf(i));
  EXPECT_TRUE(waitUntil([&] { return count > 0; }));
  // Who has the name goes on saying so.
  EXPECT_TRUE(waitUntil([&] {
    herald(*side.bus, "M", idOf(heraldCount + 1));
    return count > 1;
  }));
  auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);

  EXPECT_LE(count, 1 + seconds.count());
}

TEST_F(Returns, TellsAnObserverOfTheFirstSignSinceItObserves) {
  Side side(network, "one");
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  auto const transport = side.broker->getTransport();
  auto const observation = transport->observeReturns("M", [&] { return ++first > 0; });
  herald(*side.bus, "M", idOf(1));
  EXPECT_TRUE(waitUntil([&] { return first == 1; }));
  auto const another = transport->observeReturns("M", [&] { return ++second > 0; });

  EXPECT_TRUE(waitUntil([&] {
    herald(*side.bus, "M", idOf(1));
    return second == 1;
  }));

  EXPECT_EQ(first, 1);
}

TEST_F(Returns, TellsAnObserverThatCouldNotBeginOfTheNextSign) {
  Side side(network, "one");
  std::atomic<int> count{0};
  auto const observation =
      side.broker->getTransport()->observeReturns("M", [&] { return ++count > 2; });
  auto const sees = [&](int calls) {
    return waitUntil([&] {
      herald(*side.bus, "M", idOf(1));
      return count == calls;
    });
  };

  EXPECT_TRUE(sees(1));
  EXPECT_TRUE(sees(2));
  EXPECT_TRUE(sees(3));  // this one begins
  for (int i = 0; i < 15; ++i) {
    herald(*side.bus, "M", idOf(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }

  EXPECT_EQ(count, 3);
}

TEST_F(Returns, TellsOfNoReturnThatNoProcessAnnounces) {
  Side side(network, "one");
  LogCapture const log;
  std::atomic<int> count{0};
  auto const observation =
      side.broker->getTransport()->observeReturns("M", [&] { return ++count > 0; });
  auto const other = side.broker->getTransport()->observeReturns("N", [&] { return ++count > 0; });

  for (KXValue const& said :
       {KXValue::arrayOf("M", "1"), KXValue::arrayOf("M", "0123456789abcdeg"),
        KXValue::arrayOf("M", 17), KXValue::arrayOf(), KXValue("M"), KXValue::arrayOf("M")}) {
    side.bus->publish({.subject = "kx.r.@here", .payload = encodeValue(said)});
  }
  side.bus->publish({.subject = "kx.r.@here", .payload = "\xc1"});
  herald(*side.bus, "N", idOf(1));

  EXPECT_TRUE(waitUntil([&] { return count == 1; }));
  EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("announce")));
}

TEST_F(Returns, SaysSeldomThatMessagesCannotBeRead) {
  Side side(network, "one");
  KXModule::createModule<Guest>(side.broker);
  side.link->announce({"Guest"});
  LogCapture const log;

  for (int i = 0; i < 50; ++i) {
    for (char const* subject : {"kx.r.@here", "kx.r.@claim.Guest", "kx.r.@hello"}) {
      side.bus->publish({.subject = subject, .payload = "\xc1"});
    }
  }
  log.waitFor(3);
  side.end();

  EXPECT_THAT(log.texts(),
              UnorderedElementsAre(HasSubstr("announce"), HasSubstr("claim"), HasSubstr("hello")));
}

}  // namespace
}  // namespace KX
