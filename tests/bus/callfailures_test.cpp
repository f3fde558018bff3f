// Calls that cannot be made or answered: each way to fail says what it is, as early as it can be
// known.
#include <tests/bus/callfixture.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxwire.hpp>

namespace KX {
namespace {

using Kind = KXError::Kind;
using testing::Clock;
using testing::expectNoWait;
using ::testing::HasSubstr;
using testing::kFirstRepeatMs;
using ::testing::MatchesRegex;
using testing::msSince;
using testing::Outcome;
using testing::outcomeOf;
using ::testing::StartsWith;
using testing::waitUntil;
class CallFailures : public testing::CallTest {
 protected:
  // A peer that answers as the test says, under the name "Fake".
  std::unique_ptr<KXBusSubscription> fake(std::function<void(KXBus&, KXBusMessage const&)> answer) {
    return calleeBus->subscribe(
        KXSubjects("r").callsOf("Fake"), "", 1, [this, answer](KXBusMessage const& message) {
          if (message.subject.ends_with(".@find")) {
            std::string const found = encodeResult("00000000000000aa");
            calleeBus->publish({.subject = message.reply, .payload = found});
          } else {
            answer(*calleeBus, message);
          }
        });
  }
};

// ---- what cannot be

TEST_F(CallFailures, NobodyHasTheModule) {
  Outcome const outcome = callModule("Other", 0, "method", KXValue::arrayOf());

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "nobody has module 'Other' on robot 'r'");
  expectNoWait([this] { return callModule("Other", 0, "method", KXValue::arrayOf()); });
  EXPECT_EQ(outcome.error->getModuleName(), "KXBus");
  EXPECT_EQ(outcome.error->getFileName(), "bus/kxcaller");
  EXPECT_EQ(outcome.error->getLine(), 0);
  EXPECT_EQ(outcomeOf([&] { return caller->find("Other"), KXValue(); }).kind(), Kind::NotFound);
  EXPECT_EQ(outcomeOf([&] { return caller->describe("Other"), KXValue(); }).kind(), Kind::NotFound);
}

TEST_F(CallFailures, TheModuleHasGone) {
  call("echo");
  callee->server->stopServing("Module");

  Outcome const outcome = call("echo");

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "nobody has module 'Module' on robot 'r'");
  expectNoWait([this] { return call("echo"); });
}

TEST_F(CallFailures, NobodyHasTheMethod) {
  EXPECT_EQ(call("nonsense").kind(), Kind::NotFound);
  EXPECT_EQ(call("nonsense").text(), "unknown method 'nonsense'");
  EXPECT_EQ(call("@nonsense").kind(), Kind::NotFound);
  EXPECT_EQ(call("@nonsense").text(), "unknown method '@nonsense' of the bus");
}

TEST_F(CallFailures, TheServerForbidsIt) {
  call("echo");
  network.setPermissions(
      "viewer", [](std::string const& subject) { return !subject.ends_with(".count"); }, {});

  Outcome const outcome = call("count", 1);

  EXPECT_EQ(outcome.kind(), Kind::Refused);
  EXPECT_EQ(outcome.text(), "the server forbids to call 'Module.count': publishing is not allowed");
  expectNoWait([this] { return call("count", 1); });
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(CallFailures, CallsWhatItMayAlsoIfItMayNotFind) {
  network.setPermissions(
      "viewer", [](std::string const& subject) { return subject.ends_with(".count"); }, {});

  expectOnce(call("count", 1), 1);
  lose(1, isRequest);
  expectOnce(call("count", 2), 2);
  EXPECT_EQ(call("echo").kind(), Kind::Refused);
}

TEST_F(CallFailures, TheServerForbidsToListenToReplies) {
  network.setPermissions("deaf", {}, [](std::string const&) { return false; });
  auto const bus = network.connect("deaf");
  auto const findIt = [&] {
    KXCaller deaf(*bus, KXSubjects("r"), "r", 5000);
    return outcomeOf([&] { return deaf.find("Module"), KXValue(); });
  };

  Outcome const outcome = findIt();

  EXPECT_EQ(outcome.kind(), Kind::Refused);
  EXPECT_EQ(outcome.text(), "the server forbids to listen to replies: subscribing is not allowed");
  expectNoWait(findIt);
}

TEST_F(CallFailures, ThereIsNoConnection) {
  network.stopServer();
  ASSERT_TRUE(waitUntil([this] { return !callerBus->isConnected(); }));

  Outcome const outcome = call("echo");

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "no connection to memory, cannot call 'Module.echo'");
  expectNoWait([this] { return call("echo"); });
}

TEST_F(CallFailures, TheConnectionDoesNotReturnInTime) {
  call("echo");
  std::jthread const cutter([this] {
    EXPECT_TRUE(callee->gate.waitUntilParked(1));
    network.cut(*callerBus);
  });

  Outcome const outcome = callFor(2000, "park");

  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(),
              MatchesRegex("no answer of 'Module.park' within [2-9][0-9]{3} ms, the "
                           "connection to memory is lost; the call may have run"));
}

TEST_F(CallFailures, TheCalleeHangs) {
  call("echo");

  Outcome const outcome = callFor(200, "park");

  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(),
              MatchesRegex("no answer of 'Module.park' within ([2-9][0-9]{2}|[1-4][0-9]{3}) ms; "
                           "the call may have run"));
  EXPECT_LT(outcome.tookMs, 4000) << "less than a call without a time-out of its own";
}

TEST_F(CallFailures, TheCalleeIsKilledInTheMiddle) {
  call("echo");
  std::jthread const killer([this] {
    EXPECT_TRUE(callee->gate.waitUntilParked(1));
    network.cut(*calleeBus);
  });

  Outcome const outcome = call("park");

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "module 'Module' went away while it was called; the call may have run");
  EXPECT_LT(outcome.tookMs, 3000);
}

TEST_F(CallFailures, TheCalleeGoesAwayWhileAParallelCallIsWaitedFor) {
  KXValue id;
  caller->pCall("Module", "park", KXValue::arrayOf(), id);
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  std::jthread const killer([this, before = requestCount.load()] {
    EXPECT_TRUE(waitUntil([&] { return requestCount > before; }));
    network.cut(*calleeBus);
  });

  Outcome const outcome =
      outcomeOf([&] { return KXValue(caller->wait("Module", static_cast<int>(id), 0)); });

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_LT(outcome.tookMs, 4000);
}

TEST_F(CallFailures, TheArgumentsAreTooLarge) {
  Outcome const outcome = call("echo", KXValue::binary(std::string(2 << 20, 'x')));

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(),
            "the arguments of 'Module.echo' take 2097158 bytes, a message to robot 'r' at most "
            "1048576");
}

TEST_F(CallFailures, TheArgumentsAreNone) {
  Outcome const outcome = callModule("Module", 0, "echo", KXValue(5));

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(), "expected an array of arguments, got int");
}

// ---- a callee that does not answer

TEST_F(CallFailures, DoesNotWaitEachTimeForACalleeThatIsSilent) {
  call("echo");
  lose(-1, isReply);
  breakOff("echo");
  int const before = requestCount;

  Outcome const outcome = callFor(50, "echo");

  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(), MatchesRegex("module 'Module' has not answered for [0-9]+ ms"));
  EXPECT_EQ(requestCount, before);
}

TEST_F(CallFailures, TriesASilentCalleeOnceASecond) {
  call("echo");
  lose(-1, isReply);
  auto const begin = Clock::now();
  int realTries = 0;

  EXPECT_TRUE(waitUntil([&] {
    Outcome const outcome = callFor(50, "echo");
    EXPECT_EQ(outcome.kind(), Kind::TimedOut);
    if (outcome.text().starts_with("no answer of 'Module.echo'")) ++realTries;
    return realTries == 3;
  }));

  EXPECT_GE(msSince(begin), 2000);
  EXPECT_LT(msSince(begin), 10'000);
}

TEST_F(CallFailures, CallsASilentCalleeAgainWhenSomethingComes) {
  call("echo");
  breakOff("park");
  EXPECT_THAT(callFor(3000, "echo").text(), HasSubstr("has not answered"));

  callee->gate.open();  // the reply that nobody waits for any more

  EXPECT_TRUE(waitUntil([this] { return !callFor(3000, "echo").error; }));
  EXPECT_EQ(callFor(3000, "echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(CallFailures, CallsWithTimeWaitForASilentCallee) {
  call("echo");
  breakOff("park");

  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
  EXPECT_EQ(callFor(3000, "echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(CallFailures, CallsASilentCalleeAgainWhenTheConnectionIsBack) {
  call("echo");
  lose(-1, isReply);
  EXPECT_EQ(callFor(50, "echo").kind(), Kind::TimedOut);
  setFaults({});

  network.cut(*callerBus);
  network.mend(*callerBus);

  EXPECT_TRUE(waitUntil([this] { return !callFor(3000, "echo").error; }));
}

// ---- hostile replies

TEST_F(CallFailures, NamesAReplyThatCannotBeRead) {
  struct Case {
    std::string payload;
    std::string part;
    std::string text;
  };
  std::vector<Case> const cases{
      {"\xc1", "", "the reply of 'Fake.method' cannot be read: "},
      {"", "", "the reply of 'Fake.method' cannot be read: "},
      {encodeValue(5), "", "the reply of 'Fake.method' cannot be read: expected an array of 2"},
      {encodeValue(KXValue::arrayOf(7, 7)), "",
       "the reply of 'Fake.method' cannot be read: expected 0 for a result"},
      {"x", "1.1", "the reply of 'Fake.method' cannot be read: it has the part header '1.1'"},
      {"x", "0.2000000", "the reply of 'Fake.method' cannot be read: it is said to have 2000000"},
      {"", "0.3", "the reply of 'Fake.method' cannot be read: its part 0 is empty"},
      {"\xc1", "0.1", "the reply of 'Fake.method' cannot be read: "},
  };
  Case const* given = nullptr;
  auto const peer = fake([&](KXBus& bus, KXBusMessage const& message) {
    KXBusMessage reply{.subject = message.reply, .payload = given->payload};
    if (!given->part.empty()) reply.headers.emplace_back(kPartHeader, given->part);
    bus.publish(reply);
  });
  int slowCount = 0;
  for (Case const& one : cases) {
    SCOPED_TRACE(one.text + " " + one.part);
    given = &one;

    Outcome const outcome = callModule("Fake", 0, "method", KXValue::arrayOf());

    EXPECT_EQ(outcome.kind(), Kind::Failed);
    EXPECT_THAT(outcome.text(), StartsWith(one.text));
    if (outcome.tookMs >= kFirstRepeatMs) ++slowCount;
  }
  EXPECT_LE(slowCount, 4) << "each of the eight, if they waited for a repeat";
}

TEST_F(CallFailures, NamesPartsThatContradictEachOther) {
  auto const peer = fake([](KXBus& bus, KXBusMessage const& message) {
    bus.publish({.subject = message.reply, .headers = {{kPartHeader, "0.3"}}, .payload = "x"});
    bus.publish({.subject = message.reply, .headers = {{kPartHeader, "1.4"}}, .payload = "x"});
  });

  EXPECT_THAT(callModule("Fake", 0, "method", KXValue::arrayOf()).text(),
              HasSubstr("its parts contradict each other"));
}

TEST_F(CallFailures, IgnoresWhatComesToSlotsThatAreNone) {
  auto const peer = fake([&](KXBus& bus, KXBusMessage const& message) {
    std::string const subject(message.reply);
    std::string const inbox = subject.substr(0, subject.rfind('.') + 1);
    std::string const slots = subject.substr(0, subject.rfind('-'));
    for (std::string const& none :
         {inbox + "1", inbox + "-", inbox + "a-b", inbox + "-1", inbox + "0123456789abcdef-1",
          slots, slots + "-", slots + "-99", slots + "--1", slots + "-99999999999999999999999",
          subject + "x", subject + "-1"}) {
      bus.publish({.subject = none, .payload = "nonsense"});
    }
    std::string const reply = encodeResult(5);
    bus.publish({.subject = message.reply, .payload = reply});
  });

  EXPECT_EQ(callModule("Fake", 0, "method", KXValue::arrayOf()).result, KXValue(5));
}

}  // namespace
}  // namespace KX
