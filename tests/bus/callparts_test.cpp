// Replies that take more than one message.
#include <tests/bus/callfixture.hpp>

#include <algorithm>
#include <array>
#include <set>
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
using testing::filled;
using testing::kFirstRepeatMs;
using testing::msSince;
using testing::Outcome;
using testing::waitUntil;

class CallPartsTest : public testing::CallTest {
 protected:
  // Parts of 8 KB.
  CallPartsTest() : CallTest(16 * 1024) { call("echo"); }

  void expectWhole(Outcome const& outcome, int size) {
    ASSERT_FALSE(outcome.error) << outcome.text();
    EXPECT_TRUE(outcome.result.getBinary() == filled(size));
    EXPECT_EQ(callee->runs(0), 1);
  }
  static bool isPart(KXBusMessage const& message, std::string const& index) {
    return message.header(kPartHeader).starts_with(index + ".");
  }
  bool isNothingKept() const {
    auto const counts = callee->server->counts();
    return counts.bytes == 0 && counts.kept == 0 && counts.running == 0;
  }
};

TEST_F(CallPartsTest, ArriveWhole) {
  std::set<std::string> parts;
  Clock::time_point partAt;
  int askedCount = 0;
  int slowCount = 0;
  setFaults([&](KXBusTransfer const& transfer) {
    KXBusMessage const& message = transfer.message;
    if (auto const part = message.header(kPartHeader); !part.empty()) {
      parts.emplace(part);
      partAt = Clock::now();
    } else if (!message.header(kAgainHeader).empty()) {
      ++askedCount;
      if (msSince(partAt) >= kFirstRepeatMs) ++slowCount;
    }
    return KXBusFate{};
  });

  Outcome const outcome = call("fill", 1'200'000);

  expectWhole(outcome, 1'200'000);
  setFaults({});
  EXPECT_EQ(parts.size(), 98U) << "12 288 bytes each";
  EXPECT_GE(askedCount, 12);
  EXPECT_LE(slowCount, 6) << "by its repeats alone a caller would ask for all but the first eight";
}

TEST_F(CallPartsTest, AreReleasedWhenTheyHaveArrived) {
  for (int i = 0; i < 3; ++i) call("fill", 100'000);

  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().bytes < 1000; }))
      << callee->server->counts().bytes;
}

TEST_F(CallPartsTest, ThatGetLostAreSentAgain) {
  for (char const* index : {"0", "3", "7", "8", "24"}) {
    SCOPED_TRACE(index);
    callee = std::make_unique<Callee>(*calleeBus);
    newCaller(5000);
    call("echo");
    lose(1, [index](auto const& message) { return isPart(message, index); });

    Outcome const outcome = call("fill", 300'000);

    expectWhole(outcome, 300'000);
    EXPECT_LT(outcome.tookMs, 4000);
  }
}

TEST_F(CallPartsTest, SurviveALostQuestionForMore) {
  lose(1, [](auto const& message) { return message.header(kAgainHeader) == "8"; });

  expectWhole(call("fill", 300'000), 300'000);
}

TEST_F(CallPartsTest, SurviveLossDelayAndRepetition) {
  for (std::uint32_t seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(seed);
    callee = std::make_unique<Callee>(*calleeBus);
    newCaller(20'000);
    call("echo");
    setFaults(KXBusNetwork::randomFaults(
        seed, {.loss = 0.05, .duplicate = 0.1, .overtaken = 0.1, .maxDelayUs = 500}));

    expectWhole(call("fill", 300'000), 300'000);
    setFaults({});
  }
}

TEST_F(CallPartsTest, GoOnAfterACut) {
  std::jthread mender;
  setFaults([&, isFirst = true](KXBusTransfer const& transfer) mutable {
    if (!isFirst || !isPart(transfer.message, "12")) return KXBusFate{};
    isFirst = false;
    mender = std::jthread([this] {
      network.cut(*callerBus);
      network.mend(*callerBus);
    });
    return KXBusFate{.delaysUs = {}};
  });

  expectWhole(call("fill", 300'000), 300'000);
}

// So that a buffer that was emptied for it is not lost on a slow way.
TEST_F(CallPartsTest, MayTakeLongerThanACallAsLongAsTheyCome) {
  newCaller(1500);
  call("echo");
  setFaults([](KXBusTransfer const& transfer) {
    bool const isLastOfItsRound =
        std::ranges::any_of(std::array{"7", "15", "23", "31", "39"},
                            [&](auto const* index) { return isPart(transfer.message, index); });
    return KXBusFate{.delaysUs = {isLastOfItsRound ? 400'000 : 0}};
  });

  Outcome const outcome = call("fill", 500'000);

  expectWhole(outcome, 500'000);
  EXPECT_GE(outcome.tookMs, 2000);
  EXPECT_EQ(callFor(1499, "fill", 500'001).kind(), Kind::TimedOut) << "has a time of its own";
}

TEST_F(CallPartsTest, AreReleasedWhenTheirCallerBreaksOff) {
  lose(-1, [](auto const& message) { return isPart(message, "5"); });
  breakOff("fill", 300'000);
  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().bytes > 300'000; }));
  setFaults({});

  call("echo");

  EXPECT_LT(callee->server->counts().bytes, 1000U) << "the next call says that nobody waits";
}

TEST_F(CallPartsTest, AreReleasedWithTimeIfTheirCallerIsGone) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee", KXServerOptions{.kept = {.keepMs = 200}});
  call("echo");
  lose(-1, [](auto const& message) { return isPart(message, "5"); });
  breakOff("fill", 300'000);

  caller.reset();

  EXPECT_TRUE(
      isLogged("a reply of 'Module.fill', 300007 bytes, was given up, and its "
               "caller has not confirmed it: nobody came for it in time"));
  EXPECT_TRUE(waitUntil([this] { return isNothingKept(); }));
}

TEST_F(CallPartsTest, TellWhatBecameOfThemWhenTheyAreGone) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee", KXServerOptions{.kept = {.keepMs = 10}});
  call("echo");
  lose(-1, [](auto const& message) { return isPart(message, "5"); });

  Outcome const outcome = call("fill", 300'000);

  EXPECT_EQ(outcome.kind(), Kind::Failed);
  EXPECT_EQ(outcome.text(), "the reply of 'Module.fill' is gone; the call may have run");
}

TEST_F(CallPartsTest, ErrorsMayHaveThemToo) {
  Outcome const outcome = call("fail", std::string(10'000, 'x'));
  Outcome const larger = call("failStd", std::string(12'000, 'y'));

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), std::string(10'000, 'x'));
  EXPECT_EQ(larger.text(), std::string(12'000, 'y'));
}

// With the limits that a server has by itself.
class CallLargePartsTest : public testing::CallTest {};

TEST_F(CallLargePartsTest, MakeTwentyMegabytes) {
  newCaller(40'000);

  Outcome const outcome = call("fill", 20'000'000);

  ASSERT_FALSE(outcome.error) << outcome.text();
  EXPECT_TRUE(outcome.result.getBinary() == filled(20'000'000));
  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().bytes < 1000; }));
}

TEST_F(CallLargePartsTest, AreGivenUpForRoomWithALineInTheLog) {
  callee.reset();
  callee = std::make_unique<Callee>(*calleeBus, "callee",
                                    KXServerOptions{.kept = {.maxBytes = 1'000'000}});
  call("echo");
  lose(-1, isReply);
  breakOff("fill", 900'000);
  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().bytes > 900'000; }));

  newCaller(5000);
  setFaults({});
  call("fill", 900'001);

  EXPECT_TRUE(
      isLogged("a reply of 'Module.fill', 900007 bytes, was given up, and its "
               "caller has not confirmed it: there is no more room"));
}

}  // namespace
}  // namespace KX
