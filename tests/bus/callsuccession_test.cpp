// Calls to a module whose process is started anew, or hangs and is replaced by another: a method
// runs once, or the caller is told that it may have run.
#include <tests/bus/callfixture.hpp>

#include <atomic>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxwire.hpp>

namespace KX {
namespace {

using Kind = KXError::Kind;
using testing::Callee;
using ::testing::HasSubstr;
using testing::Outcome;
using testing::outcomeOf;
using testing::waitUntil;
class CallSuccession : public testing::CallTest {
 protected:
  // The callee does nothing more until its gate is open: what comes for it waits.
  void hang() {
    callee.reset();
    callee = std::make_unique<Callee>(*calleeBus, "former", KXServerOptions{.threads = 1});
    call("echo");
    breakOff("park");
    ASSERT_TRUE(callee->gate.waitUntilParked(1));
  }
  // That the method ran once, wherever.
  static void expectOneRunOf(int key, Outcome const& outcome, Callee const& one,
                             Callee const& other) {
    EXPECT_FALSE(outcome.error) << outcome.text();
    EXPECT_EQ(outcome.result, KXValue(1));
    EXPECT_EQ(one.runs(key) + other.runs(key), 1) << key;
  }
};

// ---- started anew

TEST_F(CallSuccession, SaysThatTheCalleeWasStartedAnew) {
  call("echo");
  std::atomic<bool> isAsked = false;
  setFaults([&](KXBusTransfer const& transfer) {
    if (!isRequest(transfer.message) || !transfer.message.header(kAgainHeader).empty())
      return KXBusFate{};
    isAsked = true;
    return KXBusFate{.delaysUs = {}};
  });
  std::jthread restarter([&] {
    EXPECT_TRUE(waitUntil([&] { return isAsked.load(); }));
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
  setFaults({});
  expectOnce(call("count", 2), 2);
}

TEST_F(CallSuccession, KnowsARestartedCalleeAfterItsFirstReply) {
  call("echo");
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus);
  call("echo");
  lose(1, isRequest);

  expectOnce(call("count", 1), 1);
}

TEST_F(CallSuccession, AsksAServerOfWhichItHasNotHeard) {
  call("echo");
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus);

  expectOnce(call("count", 1), 1);
}

TEST_F(CallSuccession, ATaskOfAProcessThatIsGoneIsNotOver) {
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

// ---- replaced while it hung

TEST_F(CallSuccession, WhoHungAndWasReplacedRunsNothingThatIsForTheOther) {
  hang();
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

TEST_F(CallSuccession, WhoHungAndWasReplacedEndsNoCallOfTheOther) {
  hang();
  auto const otherBus = network.connect();
  Callee other(*otherBus, "other");
  ASSERT_TRUE(waitUntil([&] { return !call("count", 0).error && other.runs(0) > 0; }));
  std::atomic<int> formerRepeats = 0;
  setFaults([&](KXBusTransfer const& transfer) {
    if (transfer.message.header(kErrorCodeHeader) == kRestartedCode) ++formerRepeats;
    return KXBusFate{};
  });
  Outcome outcome;
  std::jthread waiting([&] { outcome = callFor(20'000, "park"); });

  callee->gate.open();
  EXPECT_TRUE(waitUntil([&] { return formerRepeats > 0; })) << "its repeats go to both in turn";
  other.gate.open();
  waiting.join();

  EXPECT_FALSE(outcome.error) << outcome.text();
}

TEST_F(CallSuccession, TwoWhoHaveTheNameRunEachCallOnce) {
  call("echo");
  auto const otherBus = network.connect();
  auto other = std::make_unique<Callee>(*otherBus, "other");
  callee.reset();
  ASSERT_TRUE(waitUntil([&] { return !call("count", 0).error; }));
  callee = std::make_unique<Callee>(*calleeBus);  // two have the name now

  for (int key = 100; key < 140; ++key) expectOneRunOf(key, call("count", key), *callee, *other);
}

}  // namespace
}  // namespace KX
