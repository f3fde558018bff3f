// Events from one process to modules of another, over a bus in memory.
#include <atomic>
#include <chrono>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxeventreceiver.hpp>
#include <host/bus/kxeventsender.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/bus/listener.hpp>
#include <tests/bus/notifications.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using KX::testing::Gate;
using KX::testing::Listener;
using KX::testing::numbered;
using KX::testing::numberedFrom;
using KX::testing::TestHost;
using KX::testing::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<int> numbersTo(int last) {
  std::vector<int> numbers(static_cast<std::size_t>(last));
  std::iota(numbers.begin(), numbers.end(), 1);
  return numbers;
}

/// A sender, and a process with a module, each with a connection of its own.
class Events : public ::testing::Test {
 protected:
  ~Events() override { host.getBroker()->shutdown(); }

  void serve() {
    receiver = std::make_unique<KXEventReceiver>(*there, subjects, host.getBroker());
    receiver->serve("Listener");
  }
  bool isDelivered(std::uint64_t count) {
    return waitUntil([&] {
      auto const counts = sender->getCounts("Listener");
      return counts.delivered == count && counts.waiting == 0;
    });
  }
  std::vector<std::string> logged(std::string const& category) const {
    std::vector<std::string> texts;
    for (LogLine const& line : host.getLogged()) {
      if (line.category == category) texts.push_back(line.text);
    }
    return texts;
  }

  KXBusNetwork net{KXBusNetwork::Pacing::Threaded, 64 * 1024};
  KXSubjects const subjects{"r"};
  std::unique_ptr<KXBus> const here = net.connect();
  std::unique_ptr<KXBus> const there = net.connect();
  TestHost host;
  boost::shared_ptr<Listener> listener = host.publish<Listener>();
  std::unique_ptr<KXEventSender> sender = std::make_unique<KXEventSender>(*here, subjects);
  std::unique_ptr<KXEventReceiver> receiver;
};

TEST_F(Events, ReachAModuleInOrder) {
  serve();

  for (int number = 1; number <= 500; ++number) sender->notify("Listener", {numbered(number)});
  sender->notify("Listener", numberedFrom(501, 5000));

  EXPECT_EQ(listener->waitFor(5000), numbersTo(5000));
  EXPECT_TRUE(isDelivered(5000));
  EXPECT_EQ(receiver->getCounts("Listener").handled, 5000u);
  EXPECT_EQ(receiver->getCounts("Listener").repeats, 0u);
}

TEST_F(Events, ToAModuleThatNobodyListensForAnyMoreAreRefusedInTheEnd) {
  sender = std::make_unique<KXEventSender>(*here, subjects, KXEventSender::kMaxWaitingBytes,
                                           std::chrono::milliseconds(20));
  auto const kindOfNotify = [&] {
    try {
      sender->notify("Listener", {numbered(1)});
    } catch (KXError const& error) {
      EXPECT_STREQ(error.what(), "nobody has listened for module 'Listener' for 0 s");
      return error.getKind();
    }
    return KXError::Kind::Failed;
  };

  EXPECT_TRUE(waitUntil([&] { return kindOfNotify() == KXError::Kind::NotFound; }));

  EXPECT_EQ(sender->getCounts("Listener").posted, 0u);
  serve();
  sender->notify("Listener", {numbered(7)});
  EXPECT_EQ(listener->waitFor(1).back(), 7);
}

TEST_F(Events, AreKeptForAModuleThatCameBackInTime) {
  sender = std::make_unique<KXEventSender>(*here, subjects, KXEventSender::kMaxWaitingBytes,
                                           std::chrono::milliseconds(2000));
  sender->notify("Listener", {numbered(1)});
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  serve();
  EXPECT_EQ(listener->waitFor(1), numbersTo(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));

  sender->notify("Listener", {numbered(2)});  // would be refused, had the return not been noticed

  EXPECT_EQ(listener->waitFor(2), numbersTo(2));
}

TEST_F(Events, ReachMethodsOfOtherTypesAndScripts) {
  std::vector<std::string> calls;
  std::atomic<int> callCount{0};
  host.publishScript("Script", [&](std::string const& method, KXValue const& params) {
    calls.push_back(method + params.toString(1));
    ++callCount;
    return KXValue();
  });
  serve();
  receiver->serve("Script");

  sender->notify("Listener", {{"onNumber", KXValue::arrayOf(7)}});
  sender->notify("Script",
                 {{"any", KXValue::arrayOf("a", 1, true)}, {"thing", KXValue::arrayOf()}});

  EXPECT_THAT(listener->waitFor(1), ElementsAre(7));
  EXPECT_TRUE(waitUntil([&] { return callCount == 2; }));
  EXPECT_THAT(calls, ElementsAre(R"(any["a",1,true])", "thing[]"));
}

TEST_F(Events, ReachTheModuleOfOneBroker) {
  receiver = std::make_unique<KXEventReceiver>(*there, subjects, host.getBroker());
  receiver->serve("Listener@any.0123abcd");

  sender->notify("Listener@any.0123abcd", {numbered(1)});
  sender->notify("Listener@any.99999999", {numbered(2)});

  EXPECT_THAT(listener->waitFor(1), ElementsAre(1));
  EXPECT_TRUE(waitUntil([&] { return sender->getCounts("Listener@any.0123abcd").delivered == 1; }));
  EXPECT_EQ(sender->getCounts("Listener@any.99999999").waiting, 1u);
}

TEST_F(Events, OfManyThreadsAndSendersKeepTheOrderOfEach) {
  serve();
  auto const other = net.connect();
  KXEventSender otherSender(*other, subjects);
  constexpr int kEach = 2000;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      KXEventSender& mine = thread < 2 ? *sender : otherSender;
      for (int i = 0; i < kEach; ++i) mine.notify("Listener", {numbered(thread * kEach + i)});
    });
  }
  for (std::jthread& thread : threads) thread.join();

  std::vector<int> const numbers = listener->waitFor(4 * kEach);
  ASSERT_EQ(numbers.size(), 4u * kEach);
  std::vector<int> next{0, 0, 0, 0};
  for (int const number : numbers) {
    EXPECT_EQ(number % kEach, next[static_cast<std::size_t>(number / kEach)]++);
  }
}

TEST_F(Events, SurviveABadNetwork) {
  net.setFaults(KXBusNetwork::randomFaults(
      7, {.loss = 0.1, .duplicate = 0.1, .overtaken = 0.2, .maxDelayUs = 3000}));
  serve();

  for (int number = 1; number <= 3000; ++number) {
    sender->notify("Listener", {numbered(number, 50)});
    if (number % 20 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  EXPECT_EQ(listener->waitFor(3000), numbersTo(3000));
  EXPECT_TRUE(isDelivered(3000));
  EXPECT_EQ(receiver->getCounts("Listener").handled, 3000u);
}

TEST_F(Events, WaitForAReceiverThatComesLater) {
  sender->notify("Listener", numberedFrom(1, 10));
  sender->notify("Listener", numberedFrom(11, 20));
  EXPECT_EQ(sender->getCounts("Listener").waiting, 20u);

  serve();

  EXPECT_EQ(listener->waitFor(20), numbersTo(20));
  EXPECT_TRUE(isDelivered(20));
}

TEST_F(Events, AreOnlyQueuedWithoutAConnection) {
  serve();
  net.cut(*here);
  sender->notify("Listener", numberedFrom(1, 100));
  KXNotificationCounts const counts = sender->getCounts("Listener");
  EXPECT_EQ(counts.waiting, 100u);
  EXPECT_GT(counts.waitingBytes, 0u);

  net.mend(*here);

  EXPECT_EQ(listener->waitFor(100), numbersTo(100));
  EXPECT_TRUE(isDelivered(100));
}

TEST_F(Events, AreKeptWhileTheReceiverIsCutOff) {
  serve();
  sender->notify("Listener", {numbered(1)});
  listener->waitFor(1);
  net.cut(*there);
  sender->notify("Listener", numberedFrom(2, 50));
  net.mend(*there);

  EXPECT_EQ(listener->waitFor(50), numbersTo(50));
  EXPECT_TRUE(isDelivered(50));
}

TEST_F(Events, AreKeptOverARestartOfTheServer) {
  serve();
  for (int round = 0; round < 5; ++round) {
    sender->notify("Listener", numberedFrom(round * 100 + 1, round * 100 + 50));
    net.stopServer();
    sender->notify("Listener", numberedFrom(round * 100 + 51, round * 100 + 100));
    net.startServer();
  }

  EXPECT_EQ(listener->waitFor(500), numbersTo(500));
  EXPECT_TRUE(isDelivered(500));
}

TEST_F(Events, ThatWereNotHandledGoToTheNextReceiver) {
  Gate gate;
  listener->hook = [&](int number) {
    if (number == 3) gate.pass();
  };
  serve();
  sender->notify("Listener", numberedFrom(1, 10));
  ASSERT_TRUE(gate.waitUntilReached());

  EXPECT_EQ(receiver->getCounts("Listener").handled, 2u);
  std::jthread end([&] { receiver->withdraw("Listener"); });
  EXPECT_TRUE(waitUntil([&] { return receiver->getCounts("Listener").handled == 0; }));
  gate.open();
  end.join();
  EXPECT_EQ(listener->numbers(), numbersTo(3));
  EXPECT_EQ(sender->getCounts("Listener").waiting, 10u);
  listener->hook = nullptr;
  serve();

  EXPECT_TRUE(isDelivered(10));
  std::vector<int> numbers = listener->numbers();
  EXPECT_EQ(numbers.back(), 10);
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  EXPECT_EQ(numbers, numbersTo(10));
}

TEST_F(Events, OfASlowModuleDelayNoOther) {
  auto const quick = host.getBroker();
  auto const other = KXModule::createModule<Listener>(quick, std::string("Other"));
  Gate gate;
  listener->hook = [&](int) {
    gate.pass();
  };
  serve();
  receiver->serve("Other");
  sender->notify("Listener", {numbered(1)});
  ASSERT_TRUE(gate.waitUntilReached());

  sender->notify("Other", numberedFrom(1, 100));

  EXPECT_EQ(other->waitFor(100), numbersTo(100));
  EXPECT_THAT(listener->numbers(), IsEmpty());
  gate.open();
  listener->waitFor(1);  // then nobody stands before the gate
}

TEST_F(Events, OfAModuleThatThrowsAreHandledAndToldOnce) {
  serve();
  std::vector<KXNotification> failing;
  for (int number = 1; number <= 100; ++number) {
    failing.push_back({"onFailing", KXValue::arrayOf(number)});
  }
  sender->notify("Listener", failing);
  sender->notify("Listener", {{"unknown", KXValue::arrayOf()}});

  EXPECT_TRUE(isDelivered(101));
  EXPECT_EQ(listener->numbers(), numbersTo(100));
  EXPECT_EQ(receiver->getCounts("Listener").handled, 101u);
  EXPECT_EQ(receiver->getCounts("Listener").failed, 101u);
  EXPECT_THAT(logged("KXEventReceiver"),
              ElementsAre("method 'onFailing' of module 'Listener' failed: number 1"));
}

TEST_F(Events, ForAModuleThatIsNotThereAreDroppedAndToldOnce) {
  serve();
  receiver->serve("Later");
  sender->notify("Later", numberedFrom(1, 100));
  ASSERT_TRUE(waitUntil([&] { return sender->getCounts("Later").waiting == 0; }));

  EXPECT_EQ(receiver->getCounts("Later").unhandled, 100u);
  EXPECT_EQ(receiver->getCounts("Later").handled, 0u);
  EXPECT_EQ(sender->getCounts("Later").unhandled, 100u);
  EXPECT_EQ(sender->getCounts("Later").delivered, 0u);
  EXPECT_THAT(logged("KXEventReceiver"),
              ElementsAre("module 'Later' is not here, what is sent to it is dropped"));
}

TEST_F(Events, FindAModuleThatCameLaterOrAgain) {
  serve();
  receiver->serve("Later");
  sender->notify("Later", {numbered(1)});
  ASSERT_TRUE(waitUntil([&] { return receiver->getCounts("Later").unhandled == 1; }));

  for (int round = 0; round < 3; ++round) {
    auto later = KXModule::createModule<Listener>(host.getBroker(), std::string("Later"));
    sender->notify("Later", {numbered(2)});
    EXPECT_THAT(later->waitFor(1), ElementsAre(2));
    later->exit();
  }
  ASSERT_TRUE(waitUntil([&] { return sender->getCounts("Later").waiting == 0; }));
  EXPECT_EQ(sender->getCounts("Later").unhandled, 1u);
  EXPECT_EQ(sender->getCounts("Later").delivered, 3u);
}

TEST_F(Events, MayEndTheirReceiver) {
  std::atomic<bool> isOver{false};
  listener->hook = [&](int number) {
    if (number != 2) return;
    receiver.reset();
    isOver = true;
  };
  serve();
  sender->notify("Listener", numberedFrom(1, 5));

  EXPECT_TRUE(waitUntil([&] { return isOver.load(); }));
  EXPECT_EQ(listener->waitFor(2), numbersTo(2));
  EXPECT_EQ(sender->getCounts("Listener").waiting, 5u);
}

TEST_F(Events, AreNotTakenAfterWithdrawal) {
  serve();
  sender->notify("Listener", {numbered(1)});
  ASSERT_TRUE(isDelivered(1));
  receiver->withdraw("Listener");
  receiver->withdraw("Listener");
  EXPECT_EQ(receiver->getCounts("Listener").handled, 0u);

  sender->notify("Listener", {numbered(2)});
  receiver->serve("Listener");
  receiver->serve("Listener");

  EXPECT_THAT(listener->waitFor(2), ElementsAre(1, 2));
  EXPECT_TRUE(isDelivered(2));
}

TEST_F(Events, BeyondTheBoundAreDroppedCountedAndToldOnce) {
  sender = std::make_unique<KXEventSender>(*here, subjects, 100'000);
  net.cut(*here);
  // At once: what is dropped after a pause of a second is told of by itself.
  sender->notify("Listener", numberedFrom(1, 5000, 80));
  KXNotificationCounts const counts = sender->getCounts("Listener");
  EXPECT_GT(counts.dropped, 1000u);
  EXPECT_LE(counts.waitingBytes, 100'000u);
  EXPECT_EQ(counts.posted, counts.dropped + counts.waiting);
  net.mend(*here);
  serve();

  ASSERT_TRUE(isDelivered(counts.waiting));
  EXPECT_TRUE(waitUntil([&] { return receiver->getCounts("Listener").dropped == counts.dropped; }));
  EXPECT_EQ(listener->numbers().size(), counts.waiting);
  EXPECT_EQ(listener->numbers().back(), 5000);
  EXPECT_TRUE(waitUntil([&] { return !logged("KXEventSender").empty(); }));
  EXPECT_THAT(logged("KXEventSender"),
              ElementsAre(HasSubstr(std::to_string(counts.dropped) +
                                    " notifications to module 'Listener' were dropped")));
}

TEST_F(Events, TooLargeForAMessageAreDroppedAndNothingElse) {
  serve();
  sender->notify("Listener", {numbered(1), numbered(2, 100'000), numbered(3)});

  EXPECT_THAT(listener->waitFor(2), ElementsAre(1, 3));
  EXPECT_TRUE(isDelivered(2));
  EXPECT_EQ(sender->getCounts("Listener").dropped, 1u);
  EXPECT_TRUE(waitUntil([&] { return receiver->getCounts("Listener").dropped == 1; }));
}

TEST_F(Events, OfAForgottenModuleAreGone) {
  sender->notify("Listener", numberedFrom(1, 10));
  sender->forget("Listener");
  sender->forget("nobody");
  EXPECT_EQ(sender->getCounts("Listener").posted, 0u);
  serve();

  sender->notify("Listener", {numbered(11)});

  EXPECT_THAT(listener->waitFor(1), ElementsAre(11));
  EXPECT_TRUE(isDelivered(1));
}

TEST_F(Events, NotDeliveredAtTheEndAreOneLine) {
  sender->notify("Listener", numberedFrom(1, 7));
  sender->notify("Other", numberedFrom(1, 3));
  sender.reset();

  EXPECT_THAT(logged("KXEventSender"),
              ElementsAre("notifications to modules of other processes not delivered: 10"));
}

TEST_F(Events, DeliveredAtTheEndAreNone) {
  serve();
  sender->notify("Listener", numberedFrom(1, 7));
  ASSERT_TRUE(isDelivered(7));
  sender.reset();

  EXPECT_THAT(logged("KXEventSender"), IsEmpty());
}

/// What arrives that no sender of ours sends.
class HostileEvents : public Events {
 protected:
  void SetUp() override {
    serve();
    mReplies = here->subscribe("_INBOX.test", "", 1, [this](KXBusMessage const& message) {
      acks.push_back(std::string(message.header(kAckHeader)));
      unhandled = message.header(kUnhandledHeader);
      ++ackCount;
    });
  }
  void publish(std::string const& header, std::string const& payload,
               std::string const& reply = "_INBOX.test") {
    here->publish({.subject = subjects.events({"Listener"}),
                   .reply = reply,
                   .headers = {{kPackHeader, header}},
                   .payload = payload});
  }
  static std::string pack(int number) {
    std::string bytes;
    KXNotification const notification = numbered(number);
    appendNotification(bytes, notification.method, notification.arguments);
    return bytes;
  }

  std::vector<std::string> acks;
  std::string unhandled;  // what the last of them says of it
  std::atomic<std::size_t> ackCount{0};

 private:
  std::unique_ptr<KXBusSubscription> mReplies;
};

TEST_F(HostileEvents, ThatAreNoPacksAreIgnoredAndToldOnce) {
  for (char const* const header :
       {"", "x", "0123456789abcdef", "0123456789abcdef.1.1.1", "0123456789abcdef.0.1.0.0",
        "0123456789abcdef.1.-1.1.1", "0123456789abcdef.5.1.6.5", "0123456789ABCDEF.1.1.1.1",
        "0123456789abcdef.18446744073709551615.1.1.1", "../../etc.1.1.1.1"}) {
    publish(header, pack(1));
  }
  publish("0123456789abcdef.1.1.1.1", pack(2));

  EXPECT_THAT(listener->waitFor(1), ElementsAre(2));
  EXPECT_TRUE(waitUntil([&] { return ackCount == 1; }));
  EXPECT_THAT(acks, ElementsAre("0123456789abcdef.2.0"));
  EXPECT_THAT(logged("KXEventReceiver"), ElementsAre("what came for module 'Listener' is no pack"));
}

TEST_F(HostileEvents, ThatCannotBeReadAreGivenUp) {
  publish("0123456789abcdef.1.4000000000.1.1", pack(1));
  publish("0123456789abcdef.4000000001.1.4000000001.1", "\xc1");
  publish("0123456789abcdef.4000000002.1.4000000002.1", pack(2) + "x");
  publish("0123456789abcdef.4000000003.1.4000000003.1", pack(3));

  EXPECT_THAT(listener->waitFor(1), ElementsAre(3));
  EXPECT_TRUE(waitUntil([&] { return ackCount == 4; }));
  EXPECT_EQ(receiver->getCounts("Listener").unhandled, 4'000'000'002u);
  EXPECT_EQ(unhandled, "1.4000000002");
  EXPECT_EQ(logged("KXEventReceiver").size(), 1u);
}

TEST_F(HostileEvents, MakeNobodyACaller) {
  std::atomic<int> callCount{0};
  std::atomic<bool> isLast{false};
  auto const calls = here->subscribe("kx.>", "", 1, [&](KXBusMessage const& message) {
    if (message.subject.find(".KXMemory.") != std::string_view::npos) ++callCount;
    if (message.subject == "kx.r.last") isLast = true;
  });
  publish("0123456789abcdef.1.1.1.1", pack(1), "kx.r.KXMemory.removeData");
  publish("0123456789abcdef.2.1.2.2", pack(2));

  EXPECT_TRUE(waitUntil([&] { return ackCount == 1; }));
  there->publish({.subject = "kx.r.last"});  // on the way that its answers go
  EXPECT_TRUE(waitUntil([&] { return isLast.load(); }));
  EXPECT_EQ(callCount, 0);
}

}  // namespace
}  // namespace KX
