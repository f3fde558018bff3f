// Calls over a bus that loses, repeats and delays: what comes back, and how often the method ran.
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
using testing::msSince;
using testing::Outcome;
using testing::waitUntil;

using KXCallerTest = testing::CallTest;

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
  std::jthread const opener([this] { callee->gate.open(); });
  EXPECT_TRUE(caller->wait("Module", taskId, 0));
  EXPECT_FALSE(caller->isRunning("Module", taskId));
  EXPECT_TRUE(caller->wait("Module", taskId, 0)) << "over already";
}

// ---- what is lost

TEST_F(KXCallerTest, RepeatsALostRequest) {
  call("echo");
  lose(1, isRequest);

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
  EXPECT_GE(outcome.tookMs, 490);
  EXPECT_LT(outcome.tookMs, 3000);
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
  setFaults([](KXBusTransfer const&) { return KXBusFate{.delaysUs = {0, 0}}; });

  for (int key = 1; key <= 20; ++key) expectOnce(call("count", key), key);
}

TEST_F(KXCallerTest, GetsTheReplyOfACallThatTookLongerThanItsRepeats) {
  std::jthread const opener([this] {
    EXPECT_TRUE(waitUntil([this] { return requestCount > 1; }));
    callee->gate.open();
  });

  Outcome const outcome = call("park");

  EXPECT_EQ(outcome.result, KXValue(true)) << outcome.text();
}

TEST_F(KXCallerTest, GoesOnAtOnceWhenTheConnectionIsBack) {
  newCaller(10'000);
  call("echo");
  Clock::time_point lostAt;
  std::jthread mender;
  // It is sent at 0, 500 and 1500 ms in vain. The last one is lost with the connection.
  setFaults([&, left = 3](KXBusTransfer const& transfer) mutable {
    if (left == 0 || !isRequest(transfer.message)) return KXBusFate{};
    if (--left == 0) {
      lostAt = Clock::now();
      mender = std::jthread([this] {
        network.cut(*callerBus);
        network.mend(*callerBus);
      });
    }
    return KXBusFate{.delaysUs = {}};
  });

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
  EXPECT_LT(msSince(lostAt), 1800) << "it has not waited 2000 ms for its next repeat";
}

TEST_F(KXCallerTest, WaitsForACalleeThatReturnsAfterIt) {
  call("echo");
  network.cut(*calleeBus);
  network.cut(*callerBus);
  network.mend(*callerBus);
  ASSERT_TRUE(waitUntil([this] { return callerBus->isConnected(); }));
  std::jthread const mender([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    network.mend(*calleeBus);
  });

  Outcome const outcome = call("count", 1);

  expectOnce(outcome, 1);
}

TEST_F(KXCallerTest, GivesAReplyThatIsGoneAsAFailure) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee", KXServerOptions{.kept = {.keepMs = 10}});
  call("echo");
  lose(1, isReply);

  Outcome const outcome = call("count", 1);

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(), "the reply of 'Module.count' is gone; the call may have run");
  EXPECT_EQ(callee->runs(1), 1);
}

TEST_F(KXCallerTest, DoesNotRunWhatWasGivenUpWhenItArrivesLate) {
  call("echo");
  struct {
    std::string subject;
    std::string reply;
    KXBusHeaders headers;
    std::string payload;
  } late;
  setFaults([&](KXBusTransfer const& transfer) {
    KXBusMessage const& message = transfer.message;
    if (!isRequest(message) || !message.subject.ends_with("count")) return KXBusFate{};
    late = {std::string(message.subject), std::string(message.reply), message.headers,
            std::string(message.payload)};
    return KXBusFate{.delaysUs = {}};
  });
  breakOff("count", 1);
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
  setFaults({});
  std::atomic<bool> isAnswered = false;
  auto const answers =
      callerBus->subscribe(late.reply, "", 1, [&](KXBusMessage const&) { isAnswered = true; });

  callerBus->publish({.subject = late.subject,
                      .reply = late.reply,
                      .headers = late.headers,
                      .payload = late.payload});

  EXPECT_TRUE(waitUntil([&] { return isAnswered.load(); }));
  EXPECT_EQ(callee->runs(1), 0) << "the call after it said that nobody waits";
}

TEST_F(KXCallerTest, TakesNoNoticeOfAReplyThatComesTooLate) {
  call("echo");
  breakOff("park");
  callee->gate.open();

  for (int i = 0; i < 20; ++i) EXPECT_EQ(call("echo", i).result, KXValue::arrayOf(i));
}

TEST_F(KXCallerTest, AReplyThatNobodyWaitedForIsCountedAsGivenUp) {
  call("echo");
  breakOff("park");
  ASSERT_TRUE(callee->gate.waitUntilParked(1));

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
  // More than one request can name.
  for (int i = 0; i < 70; ++i) {
    breakOff("count", i);
    // Otherwise the next one may overtake it, and it runs nowhere.
    ASSERT_TRUE(waitUntil([&] { return callee->runs(i) == 1; }));
  }
  setFaults({});

  for (int i = 0; i < 3; ++i) EXPECT_TRUE(waitUntil([this] { return !call("echo").error; }));

  KXReplyKeeper::Counts counts;
  EXPECT_TRUE(waitUntil([&] {
    counts = callee->server->counts();
    return counts.running == 0 && counts.expired >= 70;
  })) << counts.expired;
  EXPECT_EQ(counts.admitted, counts.kept + counts.acknowledged + counts.expired);
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
  std::atomic<int> failedCount = 0;
  std::vector<std::jthread> threads;
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
  for (std::jthread& thread : threads) thread.join();
  EXPECT_LT(msSince(begin), 3000);
  EXPECT_EQ(failedCount, 4);

  Outcome const after = call("echo");
  EXPECT_EQ(after.kind(), Kind::Disconnected);
  EXPECT_EQ(after.text(), "the way to robot 'r' was closed");
}

TEST_F(KXCallerTest, ItsEndWaitsForTheCallsThatItFails) {
  call("echo");
  std::jthread const thread([this] { EXPECT_EQ(call("park").kind(), Kind::Disconnected); });
  ASSERT_TRUE(callee->gate.waitUntilParked(1));

  auto const begin = Clock::now();
  caller.reset();

  EXPECT_LT(msSince(begin), 3000);
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
  EXPECT_LT(outcome.tookMs, 3000);
}

}  // namespace
}  // namespace KX
