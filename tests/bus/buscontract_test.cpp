// What every bus promises.
#include <atomic>
#include <future>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>

#include "../support/logcapture.hpp"
#include "busworld.hpp"

namespace KX {
namespace {

using testing::BusWorld;
using testing::Counter;
using ::testing::ElementsAre;
using testing::Events;
using ::testing::HasSubstr;
using testing::Inbox;
using ::testing::IsEmpty;
using testing::kindThrownBy;
using testing::kLimit;
using testing::MemoryWorld;
using testing::NatsWorld;
using ::testing::UnorderedElementsAre;

class BusContract : public ::testing::TestWithParam<char const*> {
 protected:
  BusContract() {
    if (std::string(GetParam()) == "memory")
      mWorld = std::make_unique<MemoryWorld>();
    else
      mWorld = std::make_unique<NatsWorld>();
  }
  std::unique_ptr<KXBus> connect() { return mWorld->connect(); }
  /// Has the handler called; messages that others publish after that reach it.
  static std::unique_ptr<KXBusSubscription> listen(KXBus& bus, std::string const& subject,
                                                   KXBus::Handler handler, int threads = 1,
                                                   std::string const& queue = "") {
    auto subscription = bus.subscribe(subject, queue, threads, std::move(handler));
    bus.flush(5000);
    return subscription;
  }

  LogCapture mLog;  // keeps stderr quiet
  std::unique_ptr<BusWorld> mWorld;
};

INSTANTIATE_TEST_SUITE_P(Buses, BusContract, ::testing::Values("memory", "nats"),
                         [](auto const& world) { return std::string(world.param); });

// ---- messages

TEST_P(BusContract, MessageReachesWhoListensWithAllThatItHas) {
  auto const sender = connect();
  auto const receiver = connect();
  Inbox inbox;
  auto const listening = listen(*receiver, "a.b", inbox.handler());

  sender->publish({.subject = "a.b",
                   .reply = "answer.here",
                   .headers = {{"Kx-Call", "0123.4 5.6"}, {"Part", "1"}, {"Part", "2"}},
                   .payload = std::string_view("p\0q", 3)});

  auto const messages = inbox.waitFor(1);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].subject, "a.b");
  EXPECT_EQ(messages[0].reply, "answer.here");
  EXPECT_EQ(messages[0].payload, std::string("p\0q", 3));
  EXPECT_FALSE(messages[0].isNoResponders);
  EXPECT_THAT(messages[0].headers,
              UnorderedElementsAre(std::pair("Kx-Call", "0123.4 5.6"), std::pair("Part", "1"),
                                   std::pair("Part", "2")));
  KXBusMessage const seen{.headers = messages[0].headers};
  EXPECT_EQ(seen.header("Part"), "1");
}

TEST_P(BusContract, ConnectionHearsItself) {
  auto const bus = connect();
  Inbox inbox;
  auto const listening = listen(*bus, "self", inbox.handler());

  bus->publish({.subject = "self", .payload = "x"});

  EXPECT_THAT(inbox.payloads(1), ElementsAre("x"));
}

TEST_P(BusContract, OneThreadGetsMessagesInOrder) {
  auto const sender = connect();
  auto const receiver = connect();
  Inbox inbox;
  auto const listening = listen(*receiver, "in.order", inbox.handler());

  std::vector<std::string> sent;
  for (int i = 0; i < 2000; ++i) {
    sent.push_back(std::to_string(i));
    sender->publish({.subject = "in.order", .payload = sent.back()});
  }

  EXPECT_EQ(inbox.payloads(sent.size()), sent);
}

TEST_P(BusContract, SeveralThreadsHandleAtOnce) {
  auto const bus = connect();
  Counter running;
  std::promise<void> mayEnd;
  auto const end = mayEnd.get_future().share();
  std::atomic<int> most{0};
  std::atomic<int> now{0};
  auto const listening = listen(
      *bus, "slow",
      [&](KXBusMessage const&) {
        int const here = ++now;
        for (int seen = most; here > seen && !most.compare_exchange_weak(seen, here);) {
        }
        running.add();
        end.wait();
        --now;
      },
      4);

  for (int i = 0; i < 6; ++i) bus->publish({.subject = "slow"});

  EXPECT_TRUE(running.waitFor(4));
  mayEnd.set_value();
  EXPECT_TRUE(running.waitFor(6));
  EXPECT_EQ(most, 4);
}

TEST_P(BusContract, QueueGroupGetsEachMessageOnce) {
  auto const bus = connect();
  auto const other = connect();
  Inbox one;
  Inbox two;
  Inbox alone;
  Inbox otherGroup;
  auto const listening1 = listen(*bus, "work", one.handler(), 1, "q");
  auto const listening2 = listen(*other, "work", two.handler(), 1, "q");
  auto const listening3 = listen(*other, "work", alone.handler());
  auto const listening4 = listen(*other, "work", otherGroup.handler(), 1, "r");

  for (int i = 0; i < 200; ++i) bus->publish({.subject = "work", .payload = std::to_string(i)});
  alone.waitFor(200);
  otherGroup.waitFor(200);
  bus->publish({.subject = "work", .payload = "end"});
  // Each connection gets its messages in order.
  alone.waitFor(201);
  auto const limit = std::chrono::steady_clock::now() + kLimit;
  while (one.size() + two.size() < 201 && std::chrono::steady_clock::now() < limit)
    std::this_thread::yield();

  EXPECT_EQ(one.size() + two.size(), 201U);
  EXPECT_GT(one.size(), 20U);
  EXPECT_GT(two.size(), 20U);
  std::set<std::string> different;
  for (auto const& message : one.waitFor(0)) different.insert(message.payload);
  for (auto const& message : two.waitFor(0)) different.insert(message.payload);
  EXPECT_EQ(different.size(), 201U);
}

TEST_P(BusContract, WildcardsStandForTokens) {
  auto const bus = connect();
  struct Case {
    char const* pattern;
    std::vector<std::string> matching;
  };
  std::vector<std::string> const subjects{"kx.r.m.get", "kx.r.m", "kx.r.m.get.x", "kx.s.m.get",
                                          "ky.r.m.get"};
  for (Case const& each :
       {Case{"kx.*.m.get", {"kx.r.m.get", "kx.s.m.get"}},
        Case{"kx.r.>", {"kx.r.m.get", "kx.r.m", "kx.r.m.get.x"}}, Case{"kx.r.m.*", {"kx.r.m.get"}},
        Case{"kx.r.m", {"kx.r.m"}}, Case{">", subjects}}) {
    SCOPED_TRACE(each.pattern);
    Inbox inbox;
    auto const listening = listen(*bus, each.pattern, inbox.handler());

    for (auto const& subject : subjects) bus->publish({.subject = subject, .payload = subject});
    bus->publish({.subject = each.matching[0], .payload = "end"});

    auto expected = each.matching;
    expected.push_back("end");
    EXPECT_EQ(inbox.payloads(expected.size()), expected);
  }
}

TEST_P(BusContract, EmptyPayloadAndHeadersArrive) {
  auto const bus = connect();
  Inbox inbox;
  auto const listening = listen(*bus, "empty", inbox.handler());

  bus->publish({.subject = "empty"});
  bus->publish({.subject = "empty", .headers = {{"Kx-Done", "1"}}});

  auto const messages = inbox.waitFor(2);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].payload, "");
  EXPECT_THAT(messages[0].headers, IsEmpty());
  EXPECT_EQ(messages[1].payload, "");
  EXPECT_THAT(messages[1].headers, ElementsAre(std::pair("Kx-Done", "1")));
}

TEST_P(BusContract, HeadersArriveWithoutBlanksAtTheirEndsAndWithAValue) {
  auto const bus = connect();
  Inbox inbox;
  auto const listening = listen(*bus, "headers", inbox.handler());

  bus->publish(
      {.subject = "headers", .headers = {{"A", ""}, {"B", " x  y \t"}, {"C", " "}, {"D", "z"}}});
  bus->publish({.subject = "headers", .headers = {{"A", ""}}, .payload = "x"});

  auto const messages = inbox.waitFor(2);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_THAT(messages[0].headers,
              UnorderedElementsAre(std::pair("B", "x  y"), std::pair("D", "z")));
  EXPECT_THAT(messages[1].headers, IsEmpty());
  EXPECT_EQ(messages[1].payload, "x");
}

TEST_P(BusContract, MessageMayBeAsLargeAsTheServerAllowsAndNoLarger) {
  auto const bus = connect();
  ASSERT_EQ(bus->maxPayload(), 65536U);
  Inbox inbox;
  auto const listening = listen(*bus, "large", inbox.handler());
  std::string const full(bus->maxPayload(), 'x');
  // "NATS/1.0\r\n", "Name: value\r\n", "\r\n"
  auto const beside = std::string_view(full).substr(10 + 13 + 2);

  bus->publish({.subject = "large", .payload = full});
  bus->publish({.subject = "large", .headers = {{"Name", "value"}}, .payload = beside});
  EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = "large", .payload = full + 'x'}); }),
            KXError::Kind::Failed);
  EXPECT_EQ(
      kindThrownBy([&] {
        bus->publish({.subject = "large", .headers = {{"Name", "value1"}}, .payload = beside});
      }),
      KXError::Kind::Failed);
  bus->publish({.subject = "large", .payload = "end"});

  auto const messages = inbox.waitFor(3);
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[0].payload, full);
  EXPECT_EQ(messages[1].payload, beside);
  EXPECT_EQ(messages[2].payload, "end");
  EXPECT_TRUE(bus->isConnected());
}

TEST_P(BusContract, NamesThatAreNotLegalAreRefusedAtOnce) {
  auto const bus = connect();
  for (std::string const subject :
       {"", ".", "a..b", ".a", "a.", "a b", "a\r\nPING", "a\tb", "*", "a.*", "a.>", ">"}) {
    SCOPED_TRACE(subject);
    EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = subject}); }), KXError::Kind::Failed);
  }
  for (std::string const subject : {"", "a..b", "a b", "a.", ">.a", "a\n"}) {
    SCOPED_TRACE(subject);
    EXPECT_EQ(kindThrownBy([&] { (void)bus->subscribe(subject, "", 1, [](auto&) {}); }),
              KXError::Kind::Failed);
  }
  std::string const tooLong(5000, 'x');
  EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = tooLong}); }), KXError::Kind::Failed);
  EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = "a", .reply = "b c"}); }),
            KXError::Kind::Failed);
  for (KXBusHeaders const& headers : {KXBusHeaders{{"", "x"}}, KXBusHeaders{{"a:b", "x"}},
                                      KXBusHeaders{{"a", "x\r\ny: z"}}, KXBusHeaders{{"a b", ""}}})
    EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = "a", .headers = headers}); }),
              KXError::Kind::Failed);
  EXPECT_EQ(kindThrownBy([&] { (void)bus->subscribe("a", "q q", 1, [](auto&) {}); }),
            KXError::Kind::Failed);
  EXPECT_EQ(kindThrownBy([&] { (void)bus->subscribe("a", "", 0, [](auto&) {}); }),
            KXError::Kind::Failed);
  EXPECT_TRUE(bus->isConnected());
}

// ---- answers

TEST_P(BusContract, AnswerGoesToTheReplySubject) {
  auto const asker = connect();
  auto const answerer = connect();
  Inbox inbox;
  auto const answering = listen(*answerer, "ask", [&](KXBusMessage const& message) {
    answerer->publish({.subject = message.reply,
                       .headers = {{"Nats-Service-Error-Code", "404"}},
                       .payload = message.payload});
  });
  auto const listening = listen(*asker, asker->inboxPrefix() + ".x.*", inbox.handler());

  auto const reply = asker->inboxPrefix() + ".x.7";
  asker->publish({.subject = "ask", .reply = reply, .payload = "question"});

  auto const messages = inbox.waitFor(1);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].subject, reply);
  EXPECT_EQ(messages[0].payload, "question");
  EXPECT_THAT(messages[0].headers, ElementsAre(std::pair("Nats-Service-Error-Code", "404")));
}

TEST_P(BusContract, WhoAsksNobodyIsTold) {
  auto const asker = connect();
  auto const other = connect();
  Inbox inbox;
  Inbox others;
  auto const listening = listen(*asker, "in.*", inbox.handler());
  auto const listeningToo = listen(*other, "in.*", others.handler());

  asker->publish({.subject = "nobody.there", .reply = "in.1", .payload = "question"});
  asker->publish({.subject = "in.2"});

  // The server's own answer and the message go to the asker in the order in which they came.
  auto const messages = inbox.waitFor(2);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].subject, "in.1");
  EXPECT_TRUE(messages[0].isNoResponders);
  EXPECT_THAT(messages[0].headers, IsEmpty());
  EXPECT_EQ(messages[0].payload, "");
  EXPECT_FALSE(messages[1].isNoResponders);
  auto const told = others.waitFor(1);
  EXPECT_EQ(told.at(0).subject, "in.2");
}

TEST_P(BusContract, WhoStopsListeningIsNobody) {
  auto const asker = connect();
  auto const answerer = connect();
  Inbox inbox;
  auto const listening = listen(*asker, "in", inbox.handler());
  auto answering = listen(*answerer, "ask", [](auto&) {});

  answering.reset();
  answerer->flush(5000);
  asker->publish({.subject = "ask", .reply = "in"});

  auto const messages = inbox.waitFor(1);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_TRUE(messages[0].isNoResponders);
}

TEST_P(BusContract, HandlerMayAskAndWait) {
  auto const bus = connect();
  Inbox inbox;
  auto const inner = listen(*bus, "inner", [&](KXBusMessage const& message) {
    bus->publish({.subject = message.reply, .payload = "inner " + std::string(message.payload)});
  });
  auto const listening = listen(*bus, "answers.>", inbox.handler());
  auto const outer = listen(*bus, "outer", [&](KXBusMessage const& message) {
    Inbox own;
    auto const waiting = bus->subscribe("own", "", 1, own.handler());
    bus->publish({.subject = "inner", .reply = "own", .payload = message.payload});
    bus->publish({.subject = message.reply, .payload = "outer " + own.waitFor(1).at(0).payload});
  });

  bus->publish({.subject = "outer", .reply = "answers.1", .payload = "x"});

  EXPECT_THAT(inbox.payloads(1), ElementsAre("outer inner x"));
}

TEST_P(BusContract, HandlerThatThrowsIsLoggedAndGoesOn) {
  auto const bus = connect();
  Inbox inbox;
  auto const keep = inbox.handler();
  auto const listening = listen(*bus, "throwing", [&](KXBusMessage const& message) {
    keep(message);
    if (message.payload == "throw") throw std::runtime_error("as asked");
  });

  bus->publish({.subject = "throwing", .payload = "throw"});
  bus->publish({.subject = "throwing", .payload = "do not"});

  EXPECT_THAT(inbox.payloads(2), ElementsAre("throw", "do not"));
  EXPECT_THAT(mLog.texts(), ElementsAre("a handler failed: as asked"));
}

// ---- the end of a subscription

TEST_P(BusContract, EndOfSubscriptionWaitsForItsHandler) {
  auto const bus = connect();
  Counter begun;
  std::promise<void> mayEnd;
  std::atomic<bool> hasEnded{false};
  auto listening = listen(
      *bus, "long",
      [&](KXBusMessage const&) {
        begun.add();
        mayEnd.get_future().wait();
        hasEnded = true;
      },
      2);
  bus->publish({.subject = "long"});
  ASSERT_TRUE(begun.waitFor(1));

  std::jthread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    mayEnd.set_value();
  });
  listening.reset();

  EXPECT_TRUE(hasEnded);
  opener.join();
}

TEST_P(BusContract, SubscriptionEndsAtOnceWhenNothingComes) {
  auto const bus = connect();
  auto listening = listen(
      *bus, "silent", [](auto&) {}, 8);
  auto const begin = std::chrono::steady_clock::now();

  listening.reset();

  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_P(BusContract, NothingComesAfterTheEndOfASubscription) {
  auto const bus = connect();
  auto const other = connect();
  std::atomic<bool> hasEnded{false};
  std::atomic<int> late{0};
  std::atomic<int> count{0};
  std::jthread sender([&](std::stop_token const& stop) {
    while (!stop.stop_requested()) other->publish({.subject = "stream"});
  });
  for (int i = 0; i < 20; ++i) {
    hasEnded = false;
    Counter got;
    auto listening = listen(
        *bus, "stream",
        [&](KXBusMessage const&) {
          if (hasEnded) ++late;
          ++count;
          got.add();
        },
        3);
    EXPECT_TRUE(got.waitFor(20));
    listening.reset();
    hasEnded = true;
  }
  sender.request_stop();
  sender.join();

  EXPECT_EQ(late, 0);
  EXPECT_GE(count, 400);
}

TEST_P(BusContract, HandlerMayEndItsOwnSubscription) {
  for (int const threads : {1, 3}) {
    SCOPED_TRACE(threads);
    Counter calls;
    Counter ended;
    std::promise<void> isSet;
    auto const set = isSet.get_future().share();
    auto const bus = connect();  // its end waits for the handlers, here nothing else does
    std::unique_ptr<KXBusSubscription> listening;
    listening = bus->subscribe("once", "", threads, [&](KXBusMessage const& message) {
      set.wait();
      if (message.payload != "end") return;
      calls.add();
      listening.reset();
      // What is borrowed and captured is there until the handler returns.
      if (message.payload == "end" && message.subject == "once") ended.add();
    });
    isSet.set_value();
    bus->flush(5000);

    bus->publish({.subject = "once", .payload = "before"});
    bus->publish({.subject = "once", .payload = "end"});
    ASSERT_TRUE(ended.waitFor(1));
    Inbox after;
    auto const next = listen(*bus, "once", after.handler());
    bus->publish({.subject = "once", .payload = "end"});

    after.waitFor(1);
    EXPECT_EQ(calls.count(), 1);
  }
}

TEST_P(BusContract, BusWaitsForHandlersWhoseSubscriptionEnded) {
  auto bus = connect();
  Counter ended;
  std::promise<void> mayEnd;
  std::atomic<bool> hasReturned{false};
  std::unique_ptr<KXBusSubscription> listening;
  listening = bus->subscribe("once", "", 1, [&](KXBusMessage const&) {
    listening.reset();
    ended.add();
    mayEnd.get_future().wait();
    hasReturned = true;
  });
  bus->publish({.subject = "once"});
  ASSERT_TRUE(ended.waitFor(1));

  std::jthread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    mayEnd.set_value();
  });
  bus.reset();

  EXPECT_TRUE(hasReturned);
  opener.join();
}

TEST_P(BusContract, HandlerMaySubscribe) {
  auto const bus = connect();
  Inbox inbox;
  std::unique_ptr<KXBusSubscription> inner;
  auto const outer = listen(*bus, "outer", [&](KXBusMessage const&) {
    inner = bus->subscribe("inner", "", 1, inbox.handler());
    bus->publish({.subject = "inner", .payload = "x"});
  });

  bus->publish({.subject = "outer"});

  EXPECT_THAT(inbox.payloads(1), ElementsAre("x"));
}

// ---- lost connections

TEST_P(BusContract, CutConnectionComesBackWithItsSubscriptions) {
  auto const bus = connect();
  auto const other = connect();
  Events events(*bus);
  Inbox inbox;
  auto const listening = listen(*bus, "s", inbox.handler());

  mWorld->cut(*bus);
  ASSERT_THAT(events.kinds(1), ElementsAre(KXBusEvent::Kind::Lost));
  EXPECT_FALSE(bus->isConnected());
  EXPECT_TRUE(other->isConnected());
  auto const begin = std::chrono::steady_clock::now();
  EXPECT_EQ(kindThrownBy([&] { bus->publish({.subject = "s"}); }), KXError::Kind::Disconnected);
  EXPECT_EQ(kindThrownBy([&] { bus->flush(5000); }), KXError::Kind::Disconnected);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  other->publish({.subject = "s", .payload = "lost"});
  other->flush(5000);
  Inbox madeMeanwhile;
  auto const another = bus->subscribe("t", "", 1, madeMeanwhile.handler());

  mWorld->mend(*bus);
  ASSERT_THAT(events.kinds(2), ElementsAre(KXBusEvent::Kind::Lost, KXBusEvent::Kind::Back));
  EXPECT_TRUE(bus->isConnected());
  other->publish({.subject = "s", .payload = "found"});
  other->publish({.subject = "t", .payload = "too"});
  bus->publish({.subject = "s", .payload = "own"});

  EXPECT_THAT(inbox.payloads(2), UnorderedElementsAre("found", "own"));
  EXPECT_THAT(madeMeanwhile.payloads(1), ElementsAre("too"));
}

TEST_P(BusContract, SubscriptionThatEndsWhileTheConnectionIsLostIsGone) {
  auto const bus = connect();
  auto const other = connect();
  Events events(*bus);
  Inbox answers;
  auto const waiting = listen(*other, "in", answers.handler());
  auto listening = listen(*bus, "s", [](auto&) {});

  mWorld->cut(*bus);
  events.waitFor(1);
  listening.reset();
  mWorld->mend(*bus);
  events.waitFor(2);
  bus->flush(5000);
  other->publish({.subject = "s", .reply = "in"});

  EXPECT_TRUE(answers.waitFor(1).at(0).isNoResponders);
}

TEST_P(BusContract, AllComeBackWhenTheServerDoes) {
  auto const bus = connect();
  auto const other = connect();
  Events events(*bus);
  Events otherEvents(*other);
  Inbox inbox;
  auto const listening = listen(*bus, "s", inbox.handler());

  for (int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    auto const before = static_cast<std::size_t>(2 * i);
    mWorld->stopServer();
    ASSERT_EQ(events.waitFor(before + 1).size(), before + 1);
    ASSERT_EQ(otherEvents.waitFor(before + 1).size(), before + 1);
    EXPECT_FALSE(bus->isConnected());
    mWorld->startServer();
    ASSERT_EQ(events.waitFor(before + 2).size(), before + 2);
    ASSERT_EQ(otherEvents.waitFor(before + 2).size(), before + 2);
    EXPECT_TRUE(bus->isConnected());
    other->publish({.subject = "s", .payload = std::to_string(i)});
    ASSERT_EQ(inbox.waitFor(static_cast<std::size_t>(i) + 1).size(),
              static_cast<std::size_t>(i) + 1);
  }
  EXPECT_THAT(inbox.payloads(3), ElementsAre("0", "1", "2"));
  EXPECT_EQ(events.waitFor(6).size(), 6U);
  EXPECT_EQ(otherEvents.waitFor(6).size(), 6U);
}

TEST_P(BusContract, HandlerOfAnEventMayUseTheBus) {
  auto const bus = connect();
  auto const other = connect();
  Inbox inbox;
  auto const listening = listen(*other, "again", inbox.handler());
  auto const observing = bus->observe([&](KXBusEvent const& event) {
    if (event.kind == KXBusEvent::Kind::Back) bus->publish({.subject = "again", .payload = "x"});
  });

  mWorld->cut(*bus);
  mWorld->mend(*bus);

  EXPECT_THAT(inbox.payloads(1), ElementsAre("x"));
}

TEST_P(BusContract, ObserverMayEndItselfAndOthersGoOn) {
  auto const bus = connect();
  std::unique_ptr<KXBusSubscription> observing;
  std::atomic<int> calls{0};
  observing = bus->observe([&](KXBusEvent const&) {
    ++calls;
    observing.reset();
  });
  Events events(*bus);

  mWorld->cut(*bus);
  events.waitFor(1);
  mWorld->mend(*bus);

  EXPECT_EQ(events.waitFor(2).size(), 2U);
  EXPECT_EQ(calls, 1);
}

TEST_P(BusContract, EndOfAnObservationWaitsForItsHandler) {
  auto const bus = connect();
  Counter begun;
  std::promise<void> mayEnd;
  std::atomic<bool> hasEnded{false};
  auto observing = bus->observe([&](KXBusEvent const&) {
    begun.add();
    mayEnd.get_future().wait();
    hasEnded = true;
  });
  mWorld->cut(*bus);
  ASSERT_TRUE(begun.waitFor(1));

  std::jthread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    mayEnd.set_value();
  });
  observing.reset();

  EXPECT_TRUE(hasEnded);
  opener.join();
}

// ---- many

TEST_P(BusContract, ManyConnectionsAndThreadsUseTheBusAtOnce) {
  constexpr int kConnections = 20;
  constexpr int kMessages = 50;
  auto const receiver = connect();
  Counter got;
  auto const listening = listen(
      *receiver, "many.*", [&](KXBusMessage const&) { got.add(); }, 4);
  std::vector<std::unique_ptr<KXBus>> buses;
  for (int i = 0; i < kConnections; ++i) buses.push_back(connect());

  std::vector<std::jthread> senders;
  for (auto const& bus : buses) {
    senders.emplace_back([&bus] {
      for (int i = 0; i < kMessages; ++i) bus->publish({.subject = "many.x"});
      bus->flush(20000);
    });
  }
  for (auto& sender : senders) sender.join();

  EXPECT_TRUE(got.waitFor(kConnections * kMessages));
}

TEST_P(BusContract, ThreadsOfTheProcessShareAConnection) {
  auto const bus = connect();
  Counter got;
  auto const listening = listen(
      *bus, "shared", [&](KXBusMessage const&) { got.add(); }, 2);

  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&bus] {
      for (int k = 0; k < 100; ++k) {
        auto const brief = bus->subscribe("brief", "", 1, [](auto&) {});
        bus->publish({.subject = "shared", .headers = {{"A", "b"}}, .payload = "x"});
      }
    });
  }
  for (auto& thread : threads) thread.join();

  EXPECT_TRUE(got.waitFor(400));
}

}  // namespace
}  // namespace KX
