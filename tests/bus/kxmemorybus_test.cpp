// The bus in memory beside what every bus promises: faults, and simulated time.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>

#include "busworld.hpp"

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kindThrownBy;

class SteppedBus : public ::testing::Test {
 protected:
  SteppedBus()
      : mSender(mNetwork.connect("sender")),
        mReceiver(mNetwork.connect("receiver")),
        mListening(mReceiver->subscribe("s", "", 1, [this](KXBusMessage const& message) {
          mGot.push_back(std::to_string(mNetwork.nowUs()) + ' ' + std::string(message.payload));
        })) {}
  void send(std::string const& payload) { mSender->publish({.subject = "s", .payload = payload}); }
  /// Each message's fate, the last one's for all that follow.
  void setFates(std::vector<KXBusFate> fates) {
    mNetwork.setFaults([fates, next = std::size_t{0}](KXBusTransfer const&) mutable {
      return fates[std::min(next++, fates.size() - 1)];
    });
  }
  void runAll() {
    while (mNetwork.step()) {
    }
  }

  KXBusNetwork mNetwork{KXBusNetwork::Pacing::Stepped};
  std::vector<std::string> mGot;
  std::unique_ptr<KXBus> const mSender;
  std::unique_ptr<KXBus> const mReceiver;
  std::unique_ptr<KXBusSubscription> mListening;
};

TEST_F(SteppedBus, NothingHappensByItself) {
  send("a");
  send("b");
  EXPECT_THAT(mGot, IsEmpty());

  EXPECT_TRUE(mNetwork.step());
  EXPECT_THAT(mGot, ElementsAre("0 a"));
  EXPECT_TRUE(mNetwork.step());
  EXPECT_THAT(mGot, ElementsAre("0 a", "0 b"));
  EXPECT_FALSE(mNetwork.step());
}

TEST_F(SteppedBus, TimeGoesToTheNextMessage) {
  setFates({{.delaysUs = {300}}});
  send("a");

  EXPECT_EQ(mNetwork.nextUs(), 300);
  mNetwork.runUntil(299);
  EXPECT_THAT(mGot, IsEmpty());
  EXPECT_EQ(mNetwork.nowUs(), 299);
  mNetwork.runUntil(1000);
  EXPECT_THAT(mGot, ElementsAre("300 a"));
  EXPECT_EQ(mNetwork.nowUs(), 1000);
  EXPECT_EQ(mNetwork.nextUs(), std::nullopt);
}

TEST_F(SteppedBus, LaterMessagesWaitForADelayedOneUnlessTheyMayOvertakeIt) {
  setFates({{.delaysUs = {300}}, {}});
  send("a");
  send("b");
  runAll();
  EXPECT_THAT(mGot, ElementsAre("300 a", "300 b"));

  mGot.clear();
  setFates({{.delaysUs = {300}, .mayBeOvertaken = true}, {}});
  send("c");
  send("d");
  runAll();
  EXPECT_THAT(mGot, ElementsAre("300 d", "600 c"));
}

TEST_F(SteppedBus, MessagesAreLostAndDoubled) {
  setFates({{.delaysUs = {}}, {.delaysUs = {0, 50}}, {}});
  send("lost");
  send("twice");
  send("once");
  runAll();

  EXPECT_THAT(mGot, ElementsAre("0 twice", "50 twice", "50 once"));
}

TEST_F(SteppedBus, SeedDecidesAllFates) {
  auto const run = [](std::uint32_t seed) {
    KXBusNetwork network(KXBusNetwork::Pacing::Stepped);
    auto const bus = network.connect();
    std::string got;
    auto const listening = bus->subscribe("s", "", 1, [&](KXBusMessage const& message) {
      got += std::string(message.payload) + '@' + std::to_string(network.nowUs()) + ' ';
    });
    network.setFaults(KXBusNetwork::randomFaults(
        seed, {.loss = 0.2, .duplicate = 0.2, .overtaken = 0.5, .maxDelayUs = 1000}));
    for (int i = 0; i < 100; ++i) bus->publish({.subject = "s", .payload = std::to_string(i)});
    while (network.step()) {
    }
    return got;
  };

  EXPECT_EQ(run(1), run(1));
  EXPECT_NE(run(1), run(2));
}

TEST_F(SteppedBus, CutLosesWhatIsOnItsWay) {
  std::vector<KXBusEvent::Kind> events;
  auto const observing =
      mReceiver->observe([&](KXBusEvent const& event) { events.push_back(event.kind); });
  send("on its way");

  mNetwork.cut(*mReceiver);
  mNetwork.mend(*mReceiver);
  send("later");
  EXPECT_THAT(events, IsEmpty());
  runAll();

  EXPECT_THAT(events, ElementsAre(KXBusEvent::Kind::Lost, KXBusEvent::Kind::Back));
  EXPECT_THAT(mGot, ElementsAre("0 later"));
}

TEST_F(SteppedBus, WhatAUserMayNotDoIsToldWithItsSubject) {
  mNetwork.setPermissions(
      "sender", [](std::string const& subject) { return subject == "s"; },
      [](std::string const& subject) { return subject == "in"; });
  std::vector<KXBusEvent> events;
  auto const observing =
      mSender->observe([&](KXBusEvent const& event) { events.push_back(event); });
  int calls = 0;
  auto const listening = mSender->subscribe("other", "", 1, [&](auto&) { ++calls; });
  auto const allowed = mSender->subscribe("in", "", 1, [&](auto&) { ++calls; });

  mSender->publish({.subject = "forbidden", .reply = "in"});
  mReceiver->publish({.subject = "other"});
  send("allowed");
  runAll();

  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].kind, KXBusEvent::Kind::Refused);
  EXPECT_EQ(events[0].subject, "other");
  EXPECT_FALSE(events[0].isPublishing);
  EXPECT_EQ(events[1].subject, "forbidden");
  EXPECT_TRUE(events[1].isPublishing);
  EXPECT_EQ(calls, 0);
  EXPECT_THAT(mGot, ElementsAre("0 allowed"));
}

TEST_F(SteppedBus, StoppedServerLetsNobodyIn) {
  mNetwork.stopServer();

  EXPECT_EQ(kindThrownBy([&] { (void)mNetwork.connect(); }), KXError::Kind::Disconnected);
  EXPECT_FALSE(mReceiver->isConnected());
  mNetwork.startServer();
  EXPECT_TRUE(mReceiver->isConnected());
}

TEST_F(SteppedBus, HandlerMayStepOnAndEndItsSubscription) {
  auto const outer = mReceiver->subscribe("outer", "", 1, [&](KXBusMessage const&) {
    send("inner");
    EXPECT_TRUE(mNetwork.step());
    mListening.reset();
  });
  mSender->publish({.subject = "outer"});
  runAll();
  send("nobody listens");
  runAll();

  EXPECT_THAT(mGot, ElementsAre("0 inner"));
}

TEST_F(SteppedBus, UsersHaveInboxesOfTheirOwn) {
  EXPECT_EQ(mSender->user(), "sender");
  EXPECT_EQ(mSender->inboxPrefix(), "_INBOX_sender");
  EXPECT_EQ(mNetwork.connect()->inboxPrefix(), "_INBOX");
}

}  // namespace
}  // namespace KX
