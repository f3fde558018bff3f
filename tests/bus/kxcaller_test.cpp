// Calls over a bus that loses, repeats, delays and refuses: what comes back, how often the method
// ran, and how each failure says what it is.
#include <tests/bus/callfixture.hpp>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxwire.hpp>

namespace KX {
namespace {

using Kind = KXError::Kind;
using testing::Callee;
using testing::Clock;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using testing::msSince;
using testing::Outcome;
using testing::outcomeOf;
using ::testing::StartsWith;
using testing::waitUntil;

class KXCallerTest : public testing::CallTest {
 protected:
  // That the method ran once although something was lost on the way.
  void expectOnce(Outcome const& outcome, int key) {
    EXPECT_FALSE(outcome.error) << outcome.text();
    EXPECT_EQ(outcome.result, KXValue(1));
    EXPECT_EQ(callee->runs(key), 1);
  }
  // The same where two have the name.
  static void expectOneRunOf(int key, Outcome const& outcome, Callee const& one,
                             Callee const& other) {
    EXPECT_FALSE(outcome.error) << outcome.text();
    EXPECT_EQ(outcome.result, KXValue(1));
    EXPECT_EQ(one.runs(key) + other.runs(key), 1) << key;
  }
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

TEST_F(KXCallerTest, CallsAndGetsTheResult) {
  KXValue const arguments = KXValue::arrayOf(1, 2.5, "text", true, KXValue::binary("b"), KXValue());

  EXPECT_EQ(callModule("Module", 0, "echo", arguments).result, arguments);
  EXPECT_EQ(call("nothing").result, KXValue());
  EXPECT_EQ(callModule("Module", 0, "echo", KXValue()).result, KXValue::arrayOf())
      << "no arguments at all";
}

TEST_F(KXCallerTest, PassesTheErrorsOfTheCalleeAsTheyWere) {
  Outcome const outcome = call("fail", "it is not there");

  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->getModuleName(), "Deep");
  EXPECT_EQ(outcome.error->getMethodName(), "down");
  EXPECT_EQ(outcome.error->getFileName(), "deep/down");
  EXPECT_EQ(outcome.error->getLine(), 42);
  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "it is not there");
}

TEST_F(KXCallerTest, GivesWhatIsThrownOtherwiseAsAFailure) {
  EXPECT_EQ(call("failStd", "out of order").text(), "out of order");
  EXPECT_EQ(call("failStd", "out of order").kind(), Kind::Failed);
  EXPECT_EQ(call("failInt").text(), "an exception of unknown type");
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1)) << "and goes on";
}

TEST_F(KXCallerTest, FindsAndDescribes) {
  EXPECT_NO_THROW(caller->find("Module"));
  EXPECT_EQ(caller->describe("Module").name, "Module");
}

TEST_F(KXCallerTest, RunsParallelCalls) {
  KXValue id;
  caller->pCall("Module", "park", KXValue::arrayOf(), id);
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  int const taskId = static_cast<int>(id);

  EXPECT_TRUE(caller->isRunning("Module", taskId));
  EXPECT_FALSE(caller->wait("Module", taskId, 20));
  std::thread opener([this] { callee->gate.open(); });
  EXPECT_TRUE(caller->wait("Module", taskId, 0));
  EXPECT_FALSE(caller->isRunning("Module", taskId));
  EXPECT_TRUE(caller->wait("Module", taskId, 0)) << "over already";
  opener.join();
}

// ---- what is lost

TEST_F(KXCallerTest, RepeatsALostRequest) {
  call("echo");
  lose(1, isRequest);

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
  EXPECT_GE(outcome.tookMs, 490);
  EXPECT_LT(outcome.tookMs, 1000);
}

TEST_F(KXCallerTest, GetsALostReplyAgain) {
  call("echo");
  lose(1, isReply);

  expectOnce(call("count", 1), 1);
}

TEST_F(KXCallerTest, SurvivesTheLossOfTheVeryFirstMessages) {
  lose(1, [](auto const& message) { return message.subject.ends_with(".@find"); });
  expectOnce(call("count", 1), 1);
  newCaller(5000);
  lose(1, isRequest);
  expectOnce(call("count", 2), 2);
}

TEST_F(KXCallerTest, TakesOneOfTwoAnswers) {
  network.setFaults([](KXBusTransfer const&) { return KXBusFate{.delaysUs = {0, 0}}; });

  for (int key = 1; key <= 20; ++key) expectOnce(call("count", key), key);
}

TEST_F(KXCallerTest, GetsTheReplyOfACallThatTookLongerThanItsRepeats) {
  std::thread opener([this] {
    callee->gate.waitUntilParked(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    callee->gate.open();
  });

  Outcome const outcome = call("park");

  EXPECT_EQ(outcome.result, KXValue(true)) << outcome.text();
  opener.join();
}

TEST_F(KXCallerTest, GoesOnAtOnceWhenTheConnectionIsBack) {
  call("echo");
  std::thread mender;
  // The request is lost with the connection.
  network.setFaults([&, isFirst = true](KXBusTransfer const& transfer) mutable {
    if (!isFirst || !isRequest(transfer.message)) return KXBusFate{};
    isFirst = false;
    mender = std::thread([this] {
      network.cut(*callerBus);
      network.mend(*callerBus);
    });
    return KXBusFate{.delaysUs = {}};
  });

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
  EXPECT_LT(outcome.tookMs, 300) << "it has not waited for its first repeat";
  mender.join();
}

TEST_F(KXCallerTest, WaitsForACalleeThatReturnsAfterIt) {
  call("echo");
  network.cut(*calleeBus);
  std::thread mender;
  network.setFaults({});
  network.cut(*callerBus);
  network.mend(*callerBus);
  ASSERT_TRUE(waitUntil([this] { return callerBus->isConnected(); }));
  mender = std::thread([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    network.mend(*calleeBus);
  });

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
  mender.join();
}

TEST_F(KXCallerTest, GivesAReplyThatIsGoneAsAFailure) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee", KXServerOptions{.kept = {.keepMs = 100}});
  call("echo");
  lose(1, isReply);

  Outcome const outcome = call("count", 1);

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(), "the reply of 'Module.count' is gone; the call may have run");
  EXPECT_EQ(callee->runs(1), 1);
}

TEST_F(KXCallerTest, SaysThatTheCalleeWasStartedAnew) {
  call("echo");
  std::atomic<bool> isAsked = false;
  network.setFaults([&](KXBusTransfer const& transfer) {
    if (!isRequest(transfer.message) || !transfer.message.header(kAgainHeader).empty())
      return KXBusFate{};
    isAsked = true;
    return KXBusFate{.delaysUs = {}};
  });
  std::thread restarter([&] {
    waitUntil([&] { return isAsked.load(); });
    callee.reset();
    callee = std::make_unique<Callee>(*calleeBus);
  });

  Outcome const outcome = call("count", 1);

  restarter.join();
  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(),
            "module 'Module' was started anew while 'Module.count' was called; the call may have "
            "run");
  EXPECT_EQ(callee->runs(1), 0);
  network.setFaults({});
  expectOnce(call("count", 2), 2);
}

TEST_F(KXCallerTest, KnowsARestartedCalleeAfterItsFirstReply) {
  call("echo");
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus);
  call("echo");
  lose(1, isRequest);

  expectOnce(call("count", 1), 1);
}

TEST_F(KXCallerTest, DoesNotRunWhatWasGivenUpWhenItArrivesLate) {
  call("echo");
  network.setFaults([](KXBusTransfer const& transfer) {
    bool const isLate = isRequest(transfer.message) && transfer.message.subject.ends_with("count");
    return KXBusFate{.delaysUs = {isLate ? 200'000 : 0}, .mayBeOvertaken = isLate};
  });

  EXPECT_EQ(callFor(50, "count", 1).kind(), Kind::TimedOut);
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(250));

  EXPECT_EQ(callee->runs(1), 0) << "the call after it said that nobody waits";
}

TEST_F(KXCallerTest, TakesNoNoticeOfAReplyThatComesTooLate) {
  std::thread late([this] {
    Outcome const outcome = callFor(100, "park");
    EXPECT_EQ(outcome.kind(), Kind::TimedOut);
    callee->gate.open();
  });
  late.join();

  for (int i = 0; i < 20; ++i) EXPECT_EQ(call("echo", i).result, KXValue::arrayOf(i));
}

TEST_F(KXCallerTest, AReplyThatNobodyWaitedForIsCountedAsGivenUp) {
  call("echo");
  EXPECT_EQ(callFor(50, "park").kind(), Kind::TimedOut);

  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
  callee->gate.open();

  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().running == 0; }));
  EXPECT_EQ(callee->server->counts().expired, 1U);
  EXPECT_TRUE(
      isLogged("a reply of 'Module.park', 3 bytes, was given up, and its caller has "
               "not confirmed it: its caller waits no longer"));
}

TEST_F(KXCallerTest, TellsTheCalleeOfAllThatItGaveUp) {
  newCaller(10);
  EXPECT_TRUE(waitUntil([this] { return !call("echo").error; }));
  lose(-1, isReply);
  for (int i = 0; i < 70; ++i) EXPECT_EQ(call("count", i).kind(), Kind::TimedOut);
  network.setFaults({});

  // More than one request can name.
  ASSERT_TRUE(waitUntil([this] { return callee->totalRuns() == 70; }));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(waitUntil([this] { return !call("echo").error; }));

  KXReplyKeeper::Counts const counts = callee->server->counts();
  EXPECT_GE(counts.expired, 70U);
  EXPECT_EQ(counts.admitted, counts.kept + counts.acknowledged + counts.expired);
}

// ---- two that have the name: one has replaced the other, which hung

TEST_F(KXCallerTest, AsksAServerOfWhichItHasNotHeard) {
  call("echo");
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus);

  expectOnce(call("count", 1), 1);
}

TEST_F(KXCallerTest, WhoHungAndWasReplacedRunsNothingThatIsForTheOther) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "former", KXServerOptions{.threads = 1});
  call("echo");
  EXPECT_EQ(callFor(20, "park").kind(), Kind::TimedOut);
  auto const otherBus = network.connect();
  Callee other(*otherBus, "other");

  int results = 0;
  for (int key = 1; key <= 8; ++key) {
    Outcome const outcome = call("count", key);
    if (outcome.error) {
      EXPECT_THAT(outcome.text(), HasSubstr("may have run"));
      EXPECT_EQ(other.runs(key), 0) << "it would have been known";
      continue;
    }
    EXPECT_EQ(other.runs(key), 1);
    ++results;
  }
  EXPECT_GE(results, 6) << "once the caller knows the other, nothing fails";

  // Everything that waits there is answered now, while calls to the other go on.
  callee->gate.open();
  for (int key = 100; key < 120; ++key) expectOneRunOf(key, call("count", key), *callee, other);
  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().running == 0; }));
  for (int key = 1; key <= 8; ++key) EXPECT_LE(callee->runs(key) + other.runs(key), 1) << key;
}

TEST_F(KXCallerTest, WhoHungAndWasReplacedEndsNoCallOfTheOther) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "former", KXServerOptions{.threads = 1});
  call("echo");
  EXPECT_EQ(callFor(20, "park").kind(), Kind::TimedOut);
  auto const otherBus = network.connect();
  Callee other(*otherBus, "other");
  ASSERT_TRUE(waitUntil([&] { return !call("count", 0).error && other.runs(0) > 0; }));
  std::atomic<int> formerRepeats = 0;
  network.setFaults([&](KXBusTransfer const& transfer) {
    if (transfer.message.header(kErrorCodeHeader) == kRestartedCode) ++formerRepeats;
    return KXBusFate{};
  });
  Outcome outcome;
  std::thread waiting([&] { outcome = callFor(20'000, "park"); });

  callee->gate.open();
  EXPECT_TRUE(waitUntil([&] { return formerRepeats > 0; })) << "its repeats go to both in turn";
  other.gate.open();
  waiting.join();

  EXPECT_FALSE(outcome.error) << outcome.text();
}

TEST_F(KXCallerTest, WhoWasReplacedDoesNotBecomeTheServerAgain) {
  call("echo");
  auto const otherBus = network.connect();
  auto other = std::make_unique<Callee>(*otherBus, "other");
  callee.reset();
  ASSERT_TRUE(waitUntil([&] { return !call("count", 0).error; }));
  callee = std::make_unique<Callee>(*calleeBus);  // yet another one: two have the name now

  for (int key = 100; key < 140; ++key) expectOneRunOf(key, call("count", key), *callee, *other);
}

TEST_F(KXCallerTest, ATaskOfAProcessThatIsGoneIsNotOver) {
  call("echo");
  KXValue task;
  caller->pCall("Module", "park", KXValue(), task);
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus);

  Outcome const outcome =
      outcomeOf([&] { return KXValue(caller->isRunning("Module", static_cast<int>(task))); });

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "module 'Module' was started anew since its parallel call began");
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
}

// ---- what cannot be

TEST_F(KXCallerTest, NobodyHasTheModule) {
  Outcome const outcome = callModule("Other", 0, "method", KXValue::arrayOf());

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "nobody has module 'Other' on robot 'r'");
  EXPECT_LT(outcome.tookMs, 50);
  EXPECT_EQ(outcome.error->getModuleName(), "KXBus");
  EXPECT_EQ(outcome.error->getFileName(), "bus/kxcaller");
  EXPECT_EQ(outcome.error->getLine(), 0);
  EXPECT_EQ(outcomeOf([&] { return caller->find("Other"), KXValue(); }).kind(), Kind::NotFound);
  EXPECT_EQ(outcomeOf([&] { return caller->describe("Other"), KXValue(); }).kind(), Kind::NotFound);
}

TEST_F(KXCallerTest, TheModuleHasGone) {
  call("echo");
  callee->server->stopServing("Module");

  Outcome const outcome = call("echo");

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "nobody has module 'Module' on robot 'r'");
  EXPECT_LT(outcome.tookMs, 50);
}

TEST_F(KXCallerTest, NobodyHasTheMethod) {
  EXPECT_EQ(call("nonsense").kind(), Kind::NotFound);
  EXPECT_EQ(call("nonsense").text(), "unknown method 'nonsense'");
  EXPECT_EQ(call("@nonsense").kind(), Kind::NotFound);
  EXPECT_EQ(call("@nonsense").text(), "unknown method '@nonsense' of the bus");
}

TEST_F(KXCallerTest, TheServerForbidsIt) {
  call("echo");
  network.setPermissions(
      "viewer", [](std::string const& subject) { return !subject.ends_with(".count"); }, {});

  Outcome const outcome = call("count", 1);

  EXPECT_EQ(outcome.kind(), Kind::Refused);
  EXPECT_EQ(outcome.text(), "the server forbids to call 'Module.count': publishing is not allowed");
  EXPECT_LT(outcome.tookMs, 50);
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(KXCallerTest, CallsWhatItMayAlsoIfItMayNotFind) {
  network.setPermissions(
      "viewer", [](std::string const& subject) { return subject.ends_with(".count"); }, {});

  expectOnce(call("count", 1), 1);
  lose(1, isRequest);
  expectOnce(call("count", 2), 2);
  EXPECT_EQ(call("echo").kind(), Kind::Refused);
}

TEST_F(KXCallerTest, TheServerForbidsToListenToReplies) {
  network.setPermissions("deaf", {}, [](std::string const&) { return false; });
  auto const bus = network.connect("deaf");
  KXCaller deaf(*bus, KXSubjects("r"), "r", 5000);

  Outcome const outcome = outcomeOf([&] { return deaf.find("Module"), KXValue(); });

  EXPECT_EQ(outcome.kind(), Kind::Refused);
  EXPECT_EQ(outcome.text(), "the server forbids to listen to replies: subscribing is not allowed");
  EXPECT_LT(outcome.tookMs, 100);
}

TEST_F(KXCallerTest, ThereIsNoConnection) {
  network.stopServer();
  ASSERT_TRUE(waitUntil([this] { return !callerBus->isConnected(); }));

  Outcome const outcome = call("echo");

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "no connection to memory, cannot call 'Module.echo'");
  EXPECT_LT(outcome.tookMs, 50);
}

TEST_F(KXCallerTest, TheConnectionDoesNotReturnInTime) {
  call("echo");
  std::thread cutter([this] {
    callee->gate.waitUntilParked(1);
    network.cut(*callerBus);
  });

  Outcome const outcome = callFor(300, "park");

  cutter.join();
  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(), MatchesRegex("no answer of 'Module.park' within 3[0-9]+ ms, the "
                                           "connection to memory is lost; the call may have run"));
}

TEST_F(KXCallerTest, TheCalleeHangs) {
  call("echo");

  Outcome const outcome = callFor(200, "park");

  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(),
              MatchesRegex("no answer of 'Module.park' within 2[0-9]+ ms; the call may have run"));
  EXPECT_LT(outcome.tookMs, 300);
}

TEST_F(KXCallerTest, TheCalleeIsKilledInTheMiddle) {
  call("echo");
  std::thread killer([this] {
    callee->gate.waitUntilParked(1);
    network.cut(*calleeBus);
  });

  Outcome const outcome = call("park");

  killer.join();
  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "module 'Module' went away while it was called; the call may have run");
  EXPECT_LT(outcome.tookMs, 1000);
}

TEST_F(KXCallerTest, TheCalleeGoesAwayWhileAParallelCallIsWaitedFor) {
  KXValue id;
  caller->pCall("Module", "park", KXValue::arrayOf(), id);
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  std::thread killer([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    network.cut(*calleeBus);
  });

  Outcome const outcome =
      outcomeOf([&] { return KXValue(caller->wait("Module", static_cast<int>(id), 0)); });

  killer.join();
  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_LT(outcome.tookMs, 1000);
}

TEST_F(KXCallerTest, TheArgumentsAreTooLarge) {
  Outcome const outcome = call("echo", KXValue::binary(std::string(2 << 20, 'x')));

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(),
            "the arguments of 'Module.echo' take 2097158 bytes, a message to robot 'r' at most "
            "1048576");
}

TEST_F(KXCallerTest, TheArgumentsAreNone) {
  Outcome const outcome = callModule("Module", 0, "echo", KXValue(5));

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(), "expected an array of arguments, got int");
}

// ---- a callee that does not answer

TEST_F(KXCallerTest, DoesNotWaitEachTimeForACalleeThatIsSilent) {
  call("echo");
  lose(-1, isReply);
  EXPECT_EQ(callFor(50, "echo").kind(), Kind::TimedOut);

  Outcome const outcome = callFor(50, "echo");

  EXPECT_EQ(outcome.kind(), Kind::TimedOut);
  EXPECT_THAT(outcome.text(), MatchesRegex("module 'Module' has not answered for [0-9]+ ms"));
  EXPECT_LT(outcome.tookMs, 20);
}

TEST_F(KXCallerTest, TriesASilentCalleeOnceASecond) {
  call("echo");
  lose(-1, isReply);
  auto const begin = Clock::now();
  int realTries = 0;
  while (msSince(begin) < 2500) {
    Outcome const outcome = callFor(50, "echo");
    EXPECT_EQ(outcome.kind(), Kind::TimedOut);
    if (outcome.tookMs >= 50) ++realTries;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  EXPECT_GE(realTries, 2);
  EXPECT_LE(realTries, 4);
}

TEST_F(KXCallerTest, CallsASilentCalleeAgainWhenSomethingComes) {
  EXPECT_EQ(callFor(50, "park").kind(), Kind::TimedOut);
  EXPECT_LT(callFor(50, "echo").tookMs, 20);

  callee->gate.open();  // the reply that nobody waits for any more

  EXPECT_TRUE(waitUntil([this] { return !callFor(50, "echo").error; }));
  EXPECT_EQ(callFor(50, "echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(KXCallerTest, CallsWithTimeWaitForASilentCallee) {
  EXPECT_EQ(callFor(50, "park").kind(), Kind::TimedOut);

  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
  EXPECT_EQ(callFor(50, "echo", 1).result, KXValue::arrayOf(1));
}

TEST_F(KXCallerTest, CallsASilentCalleeAgainWhenTheConnectionIsBack) {
  call("echo");
  lose(-1, isReply);
  EXPECT_EQ(callFor(50, "echo").kind(), Kind::TimedOut);
  network.setFaults({});

  network.cut(*callerBus);
  network.mend(*callerBus);

  EXPECT_TRUE(waitUntil([this] { return !callFor(50, "echo").error; }));
}

// ---- hostile replies

TEST_F(KXCallerTest, NamesAReplyThatCannotBeRead) {
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
  for (Case const& one : cases) {
    SCOPED_TRACE(one.text + " " + one.part);
    given = &one;

    Outcome const outcome = callModule("Fake", 0, "method", KXValue::arrayOf());

    EXPECT_EQ(outcome.kind(), Kind::Failed);
    EXPECT_THAT(outcome.text(), StartsWith(one.text));
    EXPECT_LT(outcome.tookMs, 100);
  }
}

TEST_F(KXCallerTest, NamesPartsThatContradictEachOther) {
  auto const peer = fake([](KXBus& bus, KXBusMessage const& message) {
    bus.publish({.subject = message.reply, .headers = {{kPartHeader, "0.3"}}, .payload = "x"});
    bus.publish({.subject = message.reply, .headers = {{kPartHeader, "1.4"}}, .payload = "x"});
  });

  EXPECT_THAT(callModule("Fake", 0, "method", KXValue::arrayOf()).text(),
              HasSubstr("its parts contradict each other"));
}

TEST_F(KXCallerTest, IgnoresWhatComesToSlotsThatAreNone) {
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

// ---- in somebody's name

TEST_F(KXCallerTest, CallsTheStoreInItsOwnName) {
  std::vector<std::string> subjects;
  std::mutex mutex;
  auto const listening = calleeBus->subscribe(">", "", 1, [&](KXBusMessage const& message) {
    std::lock_guard const lock(mutex);
    subjects.emplace_back(message.subject);
  });
  callee->host.publishScript("KXMemory", [](auto const&, auto const&) { return KXValue(7); });
  callee->server->serve("KXMemory");
  callee->server->serveBroker("op", "abcdef12");
  auto const subscribe = [&](std::string const& callback) {
    return callModule("KXMemory", 0, "subscribeToEvent",
                      KXValue::arrayOf("key", callback, "method"));
  };

  EXPECT_EQ(subscribe("Watcher@viewer.abcdef12").result, KXValue(7));
  EXPECT_EQ(subscribe("Watcher@other.abcdef12").kind(), Kind::Refused);
  EXPECT_EQ(subscribe("Watcher@other.abcdef12").text(),
            "user 'viewer' may call 'KXMemory.subscribeToEvent' for modules of its own "
            "('NAME@viewer.NONCE'), not for 'Watcher@other.abcdef12'");
  EXPECT_EQ(subscribe("Watcher").kind(), Kind::Refused);
  EXPECT_EQ(callModule("KXMemory", 0, "getData", KXValue::arrayOf("key")).result, KXValue(7));

  EXPECT_TRUE(waitUntil([&] {
    std::lock_guard const lock(mutex);
    return std::ranges::count(subjects, "kx.r.KXMemory.getData") == 1;
  }));
  std::lock_guard const lock(mutex);
  EXPECT_EQ(std::ranges::count(subjects, "kx.r.@from.viewer.KXMemory.subscribeToEvent"), 4);
  EXPECT_EQ(std::ranges::count(subjects, "kx.r.KXMemory.subscribeToEvent"), 0);
}

// ---- threads

TEST_F(KXCallerTest, FailsItsCallsWhenItIsClosed) {
  call("echo");
  std::vector<std::thread> threads;
  std::atomic<int> failedCount = 0;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      Outcome const outcome = call("park");
      EXPECT_EQ(outcome.kind(), Kind::Disconnected);
      EXPECT_EQ(outcome.text(),
                "the way to robot 'r' was closed while 'Module.park' was called; the call may "
                "have run");
      ++failedCount;
    });
  }
  ASSERT_TRUE(callee->gate.waitUntilParked(4));

  auto const begin = Clock::now();
  caller->close();
  for (std::thread& thread : threads) thread.join();
  EXPECT_LT(msSince(begin), 100);

  Outcome const after = call("echo");
  EXPECT_EQ(after.kind(), Kind::Disconnected);
  EXPECT_EQ(after.text(), "the way to robot 'r' was closed");
}

TEST_F(KXCallerTest, ItsEndWaitsForTheCallsThatItFails) {
  call("echo");
  std::thread thread([this] { EXPECT_EQ(call("park").kind(), Kind::Disconnected); });
  ASSERT_TRUE(callee->gate.waitUntilParked(1));

  auto const begin = Clock::now();
  caller.reset();

  EXPECT_LT(msSince(begin), 1000);
  thread.join();
}

TEST_F(KXCallerTest, CalleesMayCallBackWithinACall) {
  // "There" is called from here, and calls "Here" back, which calls "There" again.
  KXCaller back(*calleeBus, KXSubjects("r"), "r", 5000);
  callee->host.publishScript("There", [&](std::string const&, KXValue const& params) {
    int const depth = static_cast<int>(params[0]);
    KXValue result;
    if (depth > 0) back.call("Here", "method", KXValue::arrayOf(depth - 1), result, 0);
    return KXValue::arrayOf(depth, result);
  });
  callee->server->serve("There");
  testing::TestHost here("here");
  here.publishScript("Here", [&](std::string const&, KXValue const& params) {
    int const depth = static_cast<int>(params[0]);
    return depth == 0 ? KXValue("end")
                      : callModule("There", 0, "method", KXValue::arrayOf(depth - 1)).result;
  });
  KXServer server(*callerBus, here.getBroker(), KXSubjects("r"));
  server.serve("Here");

  Outcome const outcome = callModule("There", 0, "method", KXValue::arrayOf(5));

  EXPECT_EQ(outcome.text(), "[5,[3,[1,\"end\"]]]");
  EXPECT_LT(outcome.tookMs, 400);
}

}  // namespace
}  // namespace KX
