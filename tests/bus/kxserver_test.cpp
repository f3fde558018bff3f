// What a server answers, to our callers and to others, and how it ends.
#include <host/bus/kxserver.hpp>

#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxwire.hpp>
#include <tests/bus/callfixture.hpp>

namespace KX {
namespace {

using Kind = KXError::Kind;
using testing::Callee;
using testing::Clock;
using ::testing::Contains;
using ::testing::Field;
using ::testing::HasSubstr;
using testing::msSince;
using testing::Outcome;
using testing::outcomeOf;
using ::testing::StartsWith;
using testing::waitUntil;

constexpr char const* kEcho = "kx.r.Module.echo";

class KXServerTest : public testing::CallTest {
 protected:
  struct Answer {
    KXBusHeaders headers;
    std::string payload;
    bool isNoResponders = false;

    std::string code() const {
      for (auto const& [name, value] : headers) {
        if (name == kErrorCodeHeader) return value;
      }
      return {};
    }
    // The error's text, or the result's.
    std::string text() const {
      try {
        return decodeReply(payload, code()).toString(1);
      } catch (KXError const& error) {
        return error.what();
      }
    }
  };

  // Asks as a client does that is not ours.
  KXServerTest() {
    mInbox = callerBus->subscribe("_INBOX_viewer.foreign", "", 1, [this](auto const& message) {
      std::lock_guard const lock(mMutex);
      mAnswers.push_back({message.headers, std::string(message.payload), message.isNoResponders});
      mChanged.notify_all();
    });
  }
  Answer ask(std::string const& subject, std::string const& payload, KXBusHeaders headers = {}) {
    send(subject, payload, std::move(headers));
    return next();
  }
  void send(std::string const& subject, std::string const& payload, KXBusHeaders headers = {},
            std::string const& reply = "_INBOX_viewer.foreign") {
    callerBus->publish(
        {.subject = subject, .reply = reply, .headers = std::move(headers), .payload = payload});
  }
  Answer next() {
    std::unique_lock lock(mMutex);
    if (!mChanged.wait_for(lock, std::chrono::seconds(30), [this] { return !mAnswers.empty(); })) {
      ADD_FAILURE() << "no answer";
      return {};
    }
    Answer const answer = mAnswers.front();
    mAnswers.erase(mAnswers.begin());
    return answer;
  }
  std::size_t waitingAnswers() {
    std::lock_guard const lock(mMutex);
    return mAnswers.size();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Answer> mAnswers;  // guarded by mMutex
  std::unique_ptr<KXBusSubscription> mInbox;
};

KXBusHeaders idHeader(std::string const& id) {
  return {{kCallHeader, id}};
}

// ---- clients that are not ours

TEST_F(KXServerTest, AnswersWhoSendsNoId) {
  std::string const payload = encodeValue(KXValue::arrayOf(1, "two"));

  EXPECT_EQ(ask(kEcho, payload).text(), "[1,\"two\"]");
  EXPECT_EQ(ask(kEcho, "").text(), "[]") << "no payload means no arguments";
}

TEST_F(KXServerTest, RunsWithoutAnIdEachTime) {
  std::string const payload = encodeValue(KXValue::arrayOf(1));

  EXPECT_EQ(ask("kx.r.Module.count", payload).text(), "1");
  EXPECT_EQ(ask("kx.r.Module.count", payload).text(), "2");
}

TEST_F(KXServerTest, RunsWhatNobodyWaitsFor) {
  send("kx.r.Module.count", encodeValue(KXValue::arrayOf(1)), {}, "");

  EXPECT_TRUE(waitUntil([this] { return callee->runs(1) == 1; }));
}

TEST_F(KXServerTest, TellsErrorsInTheHeadersOfTheServiceProtocol) {
  Answer const answer = ask("kx.r.Module.fail", encodeValue(KXValue::arrayOf("two\nlines")));

  EXPECT_EQ(answer.code(), "404");
  EXPECT_THAT(answer.headers,
              Contains(std::pair<std::string, std::string>(kErrorTextHeader, "two lines")));
  EXPECT_EQ(answer.text(), "two\nlines");
}

TEST_F(KXServerTest, CannotSendALargeReplyToWhoTakesNoParts) {
  Answer const answer = ask("kx.r.Module.fill", encodeValue(KXValue::arrayOf(2'000'000)));

  EXPECT_EQ(answer.code(), "400");
  EXPECT_EQ(answer.text(),
            "the reply of 'Module.fill' takes 2000007 bytes, at most 1044480 can be sent to this "
            "caller");
}

TEST_F(KXServerTest, CannotSendAResultThatIsTooDeep) {
  callee->host.publishScript("Deep", [](auto const&, auto const&) {
    KXValue value;
    for (int i = 0; i < 40; ++i) value = KXValue::arrayOf(value);
    return value;
  });
  callee->server->serve("Deep");

  EXPECT_THAT(ask("kx.r.Deep.method", "").text(),
              StartsWith("the result of 'Deep.method' cannot be sent: "));
}

TEST_F(KXServerTest, SaysWhatItCannotRead) {
  struct Case {
    std::string payload;
    KXBusHeaders headers;
    std::string code;
    std::string text;
  };
  for (Case const& given : std::vector<Case>{
           {"\xc1", {}, "400", "the arguments of 'Module.echo' cannot be read: "},
           {encodeValue("text"),
            {},
            "400",
            "the arguments of 'Module.echo' cannot be read: expected an array, got string"},
           {"", idHeader("nonsense"), "400",
            "expected CALLER.NUMBER.DONE as header Kx-Call, got 'nonsense'"},
           {"",
            {{kCallHeader, "0123456789abcdef.1.0"}, {kAgainHeader, "nonsense"}},
            "410",
            "module 'Module' was started anew while 'Module.echo' was called"}}) {
    SCOPED_TRACE(given.text);
    Answer const answer = ask(kEcho, given.payload, given.headers);

    EXPECT_EQ(answer.code(), given.code);
    EXPECT_THAT(answer.text(), StartsWith(given.text));
  }
}

TEST_F(KXServerTest, RunsOnceForOneId) {
  std::string const payload = encodeValue(KXValue::arrayOf(1));

  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ask("kx.r.Module.count", payload, idHeader("0123456789abcdef.1.0")).text(), "1");
  }
}

TEST_F(KXServerTest, RefusesTheCallOfSomebodyElse) {
  auto const other = callerBus->subscribe("_INBOX_viewer.other", "", 1, [](auto const&) {});
  std::string const payload = encodeValue(KXValue::arrayOf(1));
  send("kx.r.Module.count", payload, idHeader("0123456789abcdef.1.0"), "_INBOX_viewer.other");
  ASSERT_TRUE(waitUntil([this] { return callee->server->counts().kept == 1; }));

  Answer const answer = ask("kx.r.Module.count", payload, idHeader("0123456789abcdef.1.0"));

  EXPECT_EQ(answer.code(), "403");
  EXPECT_EQ(answer.text(), "the call of 'Module.count' is somebody else's");
}

TEST_F(KXServerTest, NeverAnswersToASubjectOfCalls) {
  // One thread for each module: what came first has been answered first.
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee", KXServerOptions{.threads = 1});
  callee->host.publishScript("Victim", [](auto const&, auto const&) { return KXValue(); });
  callee->server->serve("Victim");

  send("kx.r.Module.count", encodeValue(KXValue::arrayOf(1)), {}, "kx.r.Victim.method");
  ask(kEcho, "");
  ask("kx.r.Victim.last", "");

  auto const statistics = callee->server->statistics("Victim");
  ASSERT_EQ(statistics.size(), 1U);
  EXPECT_EQ(statistics[0].method, "last");
  EXPECT_EQ(callee->runs(1), 0);
}

// ---- the bus's own methods

TEST_F(KXServerTest, TellsItsInstance) {
  EXPECT_EQ(ask("kx.r.Module.@find", "").text(), "\"" + callee->server->instance() + "\"");
  EXPECT_EQ(callee->server->instance().size(), 16U);
}

TEST_F(KXServerTest, TakesNoNonsenseForItsOwnMethods) {
  EXPECT_EQ(ask("kx.r.Module.@isRunning", encodeValue(KXValue::arrayOf("x"))).text(),
            "'Module.@isRunning' takes 1 int, got array([string(\"x\")])");
  EXPECT_THAT(ask("kx.r.Module.@wait", encodeValue(KXValue::arrayOf(1))).text(),
              StartsWith("'Module.@wait' takes 2 ints, got "));
  EXPECT_EQ(ask("kx.r.Module.@wait", encodeValue(KXValue::arrayOf(1, -5))).text(), "true");
}

TEST_F(KXServerTest, TakesNoArgumentsForAParallelCall) {
  EXPECT_EQ(ask("kx.r.Module.park", encodeValue(KXValue::arrayOf(1)), {{kTaskHeader, "1"}}).text(),
            "a parallel call takes no arguments, 1 given for 'Module.park'");
}

TEST_F(KXServerTest, ManyWhoWaitLeaveThreadsForCalls) {
  KXValue id;
  caller->pCall("Module", "park", KXValue::arrayOf(), id);
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  // More than two times the threads: if each of them had one for 2 s, each call would wait longer.
  constexpr int kWaiters = 70;
  int const before = requestCount;
  std::vector<std::jthread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] { EXPECT_TRUE(caller->wait("Module", static_cast<int>(id), 0)); });
  }
  EXPECT_TRUE(waitUntil([&] { return requestCount >= before + kWaiters; }));

  auto const begin = Clock::now();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(call("echo", i).result, KXValue::arrayOf(i));
  EXPECT_LT(msSince(begin), 6000);

  callee->gate.open();
}

// ---- which modules

TEST_F(KXServerTest, ServesAllModulesOfItsBrokerUnderTheirFullAddress) {
  callee->host.publishScript("Second", [](auto const&, auto const&) { return KXValue(2); });
  callee->server->serveBroker("op", "abcdef12");

  EXPECT_EQ(callModule("Module@op.abcdef12", 0, "echo", KXValue::arrayOf(1)).text(), "[1]");
  EXPECT_EQ(callModule("Second@op.abcdef12", 0, "method", KXValue::arrayOf()).text(), "2");
  EXPECT_EQ(callModule("Second", 0, "method", KXValue::arrayOf()).kind(), Kind::NotFound);
  Outcome const outcome = callModule("Third@op.abcdef12", 0, "method", KXValue::arrayOf());
  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "module 'Third' is not there any more");
}

TEST_F(KXServerTest, KnowsWhatItServes) {
  callee->server->serve("Module");
  callee->server->serve("Another");

  EXPECT_EQ(callee->server->served(), (std::vector<std::string>{"Another", "Module"}));
  callee->server->stopServing("Module");
  callee->server->stopServing("Module");
  EXPECT_EQ(callee->server->served(), std::vector<std::string>{"Another"});
}

TEST_F(KXServerTest, AModuleThatIsRemovedIsNotThereAnyMore) {
  call("echo");

  callee->host.getBroker()->removeModule("Module");

  Outcome const outcome = call("echo");
  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "module 'Module' is not there any more");
  EXPECT_EQ(outcomeOf([&] { return caller->find("Module"), KXValue(); }).kind(), Kind::NotFound);
}

TEST_F(KXServerTest, AModuleMayBeRemovedDuringItsCalls) {
  std::atomic<int> goodCount = 0;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&](std::stop_token const& stop) {
      while (!stop.stop_requested()) {
        Outcome const outcome = call("echo", 1);
        if (!outcome.error) {
          ++goodCount;
        } else {
          EXPECT_EQ(outcome.kind(), Kind::NotFound) << outcome.text();
        }
      }
    });
  }
  EXPECT_TRUE(waitUntil([&] { return goodCount > 20; }));
  callee->host.getBroker()->removeModule("Module");
  EXPECT_TRUE(waitUntil([&] { return call("echo").error.has_value(); }));
}

// ---- in the name of a user

TEST_F(KXServerTest, LetsAUserSubscribeForItselfAndNothingElse) {
  callee->host.publishScript("KXMemory", [](auto const&, auto const&) { return KXValue("done"); });
  callee->server->serve("KXMemory");
  struct Case {
    std::string method;
    KXValue arguments;
    std::string code;
    std::string text;
  };
  std::vector<Case> cases;
  for (char const* method : {"subscribeToEvent", "subscribeToMicroEvent", "unsubscribeToEvent",
                             "unsubscribeToMicroEvent"}) {
    cases.push_back({method, KXValue::arrayOf("key", "M@viewer.12345678"), "", "\"done\""});
    cases.push_back({method, KXValue::arrayOf("key", "M@other.12345678"), "403", "user 'viewer'"});
    cases.push_back({method, KXValue::arrayOf("key", "M"), "403", "user 'viewer'"});
    cases.push_back({method, KXValue::arrayOf("key", 5), "403", "user 'viewer'"});
    cases.push_back({method, KXValue::arrayOf("M@viewer.12345678"), "403", "user 'viewer'"});
    cases.push_back({method, KXValue::arrayOf(), "403", "user 'viewer'"});
  }
  for (char const* method : {"insertData", "@find", "@describe", "@nonsense"}) {
    cases.push_back(
        {method, KXValue::arrayOf("key", "M@viewer.12345678"), "403",
         "'KXMemory." + std::string(method) + "' cannot be called in the name of a user"});
  }
  for (Case const& given : cases) {
    SCOPED_TRACE(given.method + given.arguments.toString(1));
    Answer const answer =
        ask("kx.r.@from.viewer.KXMemory." + given.method, encodeValue(given.arguments));

    EXPECT_EQ(answer.code(), given.code);
    EXPECT_THAT(answer.text(), StartsWith(given.text));
  }
  EXPECT_EQ(ask("kx.r.KXMemory.subscribeToEvent", encodeValue(KXValue::arrayOf("key", "M"))).text(),
            "\"done\"")
      << "whom the server lets do so";
}

// ---- what is counted, what is recognised

TEST_F(KXServerTest, CountsWhatWasCalled) {
  for (int i = 0; i < 3; ++i) call("echo");
  call("failStd", "first");
  call("failStd", "last");
  call("fail", "of the module's own");
  callModule("Module", 0, "@nonsense", KXValue());

  auto const statistics = callee->server->statistics("Module");

  ASSERT_EQ(statistics.size(), 3U);
  EXPECT_EQ(statistics[0].method, "echo");
  EXPECT_EQ(statistics[0].requests, 3U);
  EXPECT_EQ(statistics[0].errors, 0U);
  EXPECT_EQ(statistics[0].lastError, "");
  EXPECT_GT(statistics[0].processingNs, 0U);
  EXPECT_EQ(statistics[1].method, "fail");
  EXPECT_EQ(statistics[1].errors, 1U);
  EXPECT_EQ(statistics[2].method, "failStd");
  EXPECT_EQ(statistics[2].requests, 2U);
  EXPECT_EQ(statistics[2].errors, 2U);
  EXPECT_EQ(statistics[2].lastError, "last");
  EXPECT_TRUE(callee->server->statistics("Other").empty());
}

TEST_F(KXServerTest, CountsNoMethodsThatAreMadeUp) {
  ask(kEcho, encodeValue(KXValue::arrayOf(1)));
  for (int i = 0; i < 300; ++i) {
    ask("kx.r.Module.madeUp" + std::to_string(i), "\xc1");
    ask("kx.r.Module.task" + std::to_string(i), encodeValue(KXValue::arrayOf(1)),
        {{kTaskHeader, "1"}});
  }
  ask("kx.r.Module.twice", encodeValue(KXValue::arrayOf("a")));
  ask(kEcho, "\xc1");

  auto const statistics = callee->server->statistics("Module");

  ASSERT_EQ(statistics.size(), 2U);
  EXPECT_EQ(statistics[0].method, "echo");
  EXPECT_EQ(statistics[0].requests, 2U);
  EXPECT_EQ(statistics[0].errors, 1U);
  EXPECT_EQ(statistics[1].method, "twice");
}

// Whoever's fault it is: nobody got a result.
TEST_F(KXServerTest, CountsErrorsBesideThoseThatTheMethodThrows) {
  bool isThere = true;
  callee->host.publishScript("User", [&isThere](auto const&, auto const&) {
    if (isThere) return KXValue(true);
    throw KXError("KXProxy", "getProxy", "module 'Used' is gone", "", 0, Kind::NotFound);
  });
  callee->server->serve("User");
  std::string const argument = encodeValue(KXValue::arrayOf(1));
  ask("kx.r.User.use", argument);
  isThere = false;
  ask("kx.r.User.use", argument);
  ask("kx.r.Module.fill", argument);
  ask("kx.r.Module.fill", encodeValue(KXValue::arrayOf(2'000'000)));  // too long for one message

  auto const ofUser = callee->server->statistics("User");
  auto const ofModule = callee->server->statistics("Module");

  ASSERT_EQ(ofUser.size(), 1U);
  EXPECT_EQ(ofUser[0].requests, 2U);
  EXPECT_EQ(ofUser[0].errors, 1U);
  ASSERT_EQ(ofModule.size(), 1U);
  EXPECT_EQ(ofModule[0].requests, 2U);
  EXPECT_EQ(ofModule[0].errors, 1U);
  EXPECT_THAT(ofModule[0].lastError, HasSubstr("can be sent to this caller"));
}

TEST_F(KXServerTest, CallersOfOneModuleCrowdOutNoRepliesOfAnother) {
  constexpr int kMost = 100;
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee",
                                    KXServerOptions{.kept = {.maxCallers = kMost}});
  callee->host.publishScript("Other", [](std::string const&, KXValue const&) { return true; });
  callee->server->serve("Other");
  std::string const argument = encodeValue(KXValue::arrayOf(1));
  ask("kx.r.Module.count", argument, idHeader("0123456789abcdef.1.0"));

  for (int i = 0; i < 2 * kMost; ++i) {
    std::string id = std::to_string(i);
    id.insert(0, 16 - id.size(), '0');
    ask("kx.r.Other.any", argument, idHeader(id + ".1.0"));
  }

  Answer const again = ask("kx.r.Module.count", argument, idHeader("0123456789abcdef.1.0"));
  EXPECT_EQ(again.text(), "1");
  EXPECT_EQ(callee->runs(1), 1);
}

TEST_F(KXServerTest, HandsTheSameBlockOverForTheSameArguments) {
  std::mutex mutex;
  std::vector<KXValue> seen;
  callee->host.publishScript("Store", [&](auto const&, KXValue const& params) {
    std::lock_guard const lock(mutex);
    seen.push_back(params[0]);
    return KXValue();
  });
  callee->server->serve("Store");
  KXValue const names = KXValue::arrayFrom(
      10'000, [](std::size_t i) { return KXValue("Device/name" + std::to_string(i)); });
  KXValue changed = names;
  changed[0] = KXValue("other");

  callModule("Store", 0, "getListData", KXValue::arrayOf(names));
  callModule("Store", 0, "getListData", KXValue::arrayOf(names));
  callModule("Store", 0, "getListData", KXValue::arrayOf(changed));

  std::lock_guard const lock(mutex);
  ASSERT_EQ(seen.size(), 3U);
  EXPECT_TRUE(seen[0] == names);
  EXPECT_TRUE(seen[1].sharesBlockWith(seen[0]));
  EXPECT_TRUE(seen[2] == changed);
}

// ---- the end

TEST_F(KXServerTest, ItsEndWaitsForTheCallsInProgress) {
  std::string const argument = encodeValue(KXValue::arrayOf(1));
  send("kx.r.Module.park", argument);
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  std::atomic<bool> hasEnded = false;
  std::jthread ender([&] {
    callee->server.reset();
    hasEnded = true;
  });

  // Others are refused meanwhile. Those that wait in the queue when it ends have no answer.
  EXPECT_TRUE(waitUntil([&] {
    send(kEcho, argument);
    while (waitingAnswers() > 0) {
      Answer const answer = next();
      if (answer.isNoResponders || answer.code() == "404") return true;
    }
    return false;
  }));
  EXPECT_FALSE(hasEnded);
  callee->gate.open();
  ender.join();
  EXPECT_TRUE(waitUntil([this] { return waitingAnswers() > 0 && next().text() == "true"; }));
}

TEST_F(KXServerTest, ItsEndSaysWhatItWaitsFor) {
  newCaller(30'000);
  std::jthread const parked([this] { call("park"); });
  ASSERT_TRUE(callee->gate.waitUntilParked(1));
  std::jthread const ender([this] { callee->server.reset(); });

  EXPECT_TRUE(waitUntil([this] {
    for (LogLine const& line : callee->host.getLogged()) {
      if (line.text == "the end of a server waits for calls in progress: 'Module.park'")
        return true;
    }
    return false;
  }));
  callee->gate.open();
}

TEST_F(KXServerTest, AModuleMayStopBeingServedByACallOfItsOwn) {
  callee->host.publishScript("Leaver", [this](auto const&, auto const&) {
    callee->server->stopServing("Leaver");
    return KXValue("left");
  });
  callee->server->serve("Leaver");

  EXPECT_EQ(callModule("Leaver", 0, "leave", KXValue()).text(), "\"left\"");
  EXPECT_TRUE(waitUntil([this] {
    Outcome const outcome = callModule("Leaver", 0, "leave", KXValue());
    return outcome.error && outcome.kind() == Kind::NotFound;
  }));
}

}  // namespace
}  // namespace KX
