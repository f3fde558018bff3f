// Which requests run, which get a kept reply, and what is remembered for how long.
#include <host/bus/kxreplykeeper.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace KX {
namespace {

using Cause = KXReplyKeeper::Cause;
using Verdict = KXReplyKeeper::Verdict;
using Thrown = std::vector<KXReplyKeeper::Thrown>;

constexpr char const* kHere = "00000000000000aa";
constexpr char const* kElsewhere = "00000000000000bb";
constexpr char const* kCaller = "0123456789abcdef";
constexpr std::size_t kOverhead = 256;

std::shared_ptr<KXReply const> replyOf(std::size_t bytes, std::size_t partBytes = 0) {
  auto reply = std::make_shared<KXReply>();
  reply->payload.assign(bytes, 'r');
  reply->partBytes = partBytes;
  return reply;
}

// A keeper with the usual arguments filled in.
struct Keeper {
  explicit Keeper(KXReplyKeeper::Limits limits = {}) : keeper(kHere, limits) {}

  KXReplyKeeper::Admission admit(std::uint64_t number, std::uint64_t done = 0,
                                 std::optional<std::uint32_t> fromPart = {},
                                 std::string const& caller = kCaller) {
    return admit({caller, number, done, kHere}, fromPart);
  }
  KXReplyKeeper::Admission admit(KXCallId const& id, std::optional<std::uint32_t> fromPart = {}) {
    return keeper.admit(id, fromPart, "inbox." + id.caller, "M.m", nowMs, thrown);
  }
  bool finish(std::uint64_t number, std::size_t bytes = 10, std::string const& caller = kCaller) {
    return keeper.finish({caller, number, 0}, replyOf(bytes), nowMs, thrown);
  }
  void run(std::uint64_t number, std::uint64_t done = 0, std::size_t bytes = 10,
           std::string const& caller = kCaller) {
    EXPECT_EQ(admit(number, done, {}, caller).verdict, Verdict::Run) << number;
    EXPECT_TRUE(finish(number, bytes, caller));
  }
  void pass(std::int64_t ms) {
    nowMs += ms;
    keeper.expire(nowMs, thrown);
  }

  KXReplyKeeper keeper;
  std::int64_t nowMs = 1000;
  Thrown thrown;
};

// A request that was sent before, by a caller that has no part of the reply.
constexpr std::uint32_t kAgain = 0;

TEST(KXReplyKeeper, RunsWhatIsNew) {
  Keeper keeper;

  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Run);
  EXPECT_EQ(keeper.admit(2).verdict, Verdict::Run);
  EXPECT_EQ(keeper.admit({kCaller, 3, 0}).verdict, Verdict::Run) << "does not know whom it asks";
}

TEST(KXReplyKeeper, IgnoresARepeatOfWhatIsRunning) {
  Keeper keeper;
  keeper.admit(1);

  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Ignore);
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Ignore) << "a second first request";
}

TEST(KXReplyKeeper, HandsOutTheVeryReplyAgain) {
  Keeper keeper;
  keeper.admit(1);
  auto const reply = replyOf(10);
  keeper.keeper.finish({kCaller, 1, 0}, reply, keeper.nowMs, keeper.thrown);

  EXPECT_EQ(keeper.admit(1, 0, kAgain).reply, reply);
  EXPECT_EQ(keeper.admit({kCaller, 1, 0, kElsewhere}, 3).reply, reply)
      << "who is known here has asked here, whatever it believes";
  EXPECT_EQ(keeper.admit(1).reply, reply);
}

TEST(KXReplyKeeper, JudgesRequestsThatItDoesNotKnowByWhomTheyAreFor) {
  struct Case {
    char const* what;
    char const* to;
    std::optional<std::uint32_t> fromPart;
    Verdict verdict;
  };
  std::vector<Case> const cases{
      {"the first request was lost", kHere, 0, Verdict::Run},
      {"who has a part has asked before", kHere, 1, Verdict::Forgotten},
      {"the first request to the predecessor", kElsewhere, {}, Verdict::Moved},
      {"a repeat to the predecessor", kElsewhere, 0, Verdict::Restarted},
      {"a part from the predecessor", kElsewhere, 5, Verdict::Restarted},
      {"nobody knows whom it was sent to", "", 0, Verdict::Restarted},
  };
  for (Case const& given : cases) {
    for (bool const isKnownCaller : {false, true}) {
      SCOPED_TRACE(given.what + std::string(isKnownCaller ? ", known caller" : ""));
      Keeper keeper;
      if (isKnownCaller) keeper.run(1);

      auto const admission = keeper.admit({kCaller, 2, 0, given.to}, given.fromPart);

      EXPECT_EQ(admission.verdict, given.verdict);
      EXPECT_EQ(keeper.keeper.counts().running, given.verdict == Verdict::Run ? 1U : 0U);
    }
  }
}

TEST(KXReplyKeeper, RefusesAReplyToSomewhereElse) {
  Keeper keeper;
  keeper.admit(1);
  keeper.run(2);

  for (std::uint64_t const number : {1U, 2U}) {
    auto const admission = keeper.keeper.admit({kCaller, number, 0}, kAgain, "inbox.other", "M.m",
                                               keeper.nowMs, keeper.thrown);
    EXPECT_EQ(admission.verdict, Verdict::Refused) << number;
    EXPECT_EQ(admission.reply, nullptr);
  }
}

TEST(KXReplyKeeper, LetsGoOfWhatTheCallerHas) {
  Keeper keeper;
  keeper.run(1);
  keeper.run(2);
  keeper.admit(3);

  keeper.admit(4, 2);

  EXPECT_EQ(keeper.keeper.counts(), (KXReplyKeeper::Counts{.admitted = 4,
                                                           .running = 2,
                                                           .kept = 0,
                                                           .acknowledged = 2,
                                                           .expired = 0,
                                                           .bytes = 0,
                                                           .callers = 1}));
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(2, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.thrown, Thrown());
}

TEST(KXReplyKeeper, NeverRunsWhatItsCallerHasGivenUp) {
  Keeper keeper;
  keeper.run(7, 6);

  EXPECT_EQ(keeper.admit(5).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(6, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(8).verdict, Verdict::Run);
  EXPECT_EQ(keeper.admit(9, 9).verdict, Verdict::Forgotten) << "gives itself up";
  EXPECT_EQ(keeper.admit(1, 1, {}, "fedcba9876543210").verdict, Verdict::Forgotten);
}

TEST(KXReplyKeeper, KeepsNoReplyOfACallThatWasGivenUpWhileItRan) {
  Keeper keeper;
  keeper.admit(1);
  keeper.admit(2, 1);

  EXPECT_FALSE(keeper.finish(1));

  EXPECT_EQ(keeper.keeper.counts().kept, 0U);
  EXPECT_EQ(keeper.keeper.counts().acknowledged, 1U);
  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Forgotten);
}

TEST(KXReplyKeeper, CountsWhatItsCallerNeverGotAsGivenUp) {
  Keeper keeper;
  keeper.run(1, 0, 100);
  keeper.run(2, 0, 200);
  keeper.admit(3);

  keeper.admit({kCaller, 6, 5, kHere, {2, 3, 4}});

  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 200, Cause::Lost}}));
  EXPECT_FALSE(keeper.finish(3, 300));
  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 200, Cause::Lost}, {"M.m", 300, Cause::Lost}}));
  EXPECT_EQ(keeper.keeper.counts(), (KXReplyKeeper::Counts{.admitted = 4,
                                                           .running = 1,
                                                           .kept = 0,
                                                           .acknowledged = 1,
                                                           .expired = 2,
                                                           .bytes = 0,
                                                           .callers = 1}));
  EXPECT_EQ(keeper.admit(4).verdict, Verdict::Forgotten) << "it arrives late";
}

TEST(KXReplyKeeper, LearnsNothingOfItsRepliesFromRequestsToAnother) {
  Keeper keeper;
  keeper.run(1);
  keeper.run(2);

  EXPECT_EQ(keeper.admit({kCaller, 4, 3, kElsewhere, {2}}).verdict, Verdict::Moved);
  EXPECT_EQ(keeper.admit({kCaller, 5, 4, kElsewhere, {2}}, kAgain).verdict, Verdict::Restarted);

  EXPECT_EQ(keeper.keeper.counts().kept, 2U);
  EXPECT_EQ(keeper.keeper.counts().acknowledged, 0U);
}

TEST(KXReplyKeeper, OneLargeReplyInPartsIsKeptBesideOthersThatComeAndGo) {
  Keeper keeper({.maxBytes = 10 * (10 + kOverhead)});
  keeper.admit(1);
  keeper.keeper.finish({kCaller, 1, 0}, replyOf(1'000'000, 1000), keeper.nowMs, keeper.thrown);

  for (std::uint64_t number = 2; number <= 30; ++number) keeper.run(number);

  EXPECT_EQ(keeper.admit(1, 0, 8).verdict, Verdict::Resend);
  EXPECT_EQ(keeper.keeper.counts().kept, 11U) << "the others have the room that they had";
  EXPECT_EQ(keeper.admit(20, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(21, 0, kAgain).verdict, Verdict::Resend);
  keeper.keeper.acknowledge(kCaller, 1, keeper.nowMs, keeper.thrown);
  EXPECT_EQ(keeper.keeper.counts().bytes, 10 * (10 + kOverhead));
}

TEST(KXReplyKeeper, ManyRepliesBesideALargeOneInPartsCostNoMoreThanWithoutIt) {
  Keeper keeper;
  keeper.admit(1);
  keeper.keeper.finish({kCaller, 1, 0}, replyOf(63 << 20, 512 << 10), keeper.nowMs, keeper.thrown);
  auto const begin = std::chrono::steady_clock::now();

  for (std::uint64_t number = 2; number <= 100'000; ++number) keeper.run(number);

  EXPECT_EQ(keeper.keeper.counts().kept, 100'000U);
  // In proportion to their number, it is a fraction of a second; to its square, minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST(KXReplyKeeper, TheLargestInPartsThatIsLeftIsKept) {
  Keeper keeper({.maxBytes = 3 * (10 + kOverhead)});
  std::size_t const sizes[] = {5'000, 9'000, 7'000};
  for (std::uint64_t number = 1; number <= 3; ++number) keeper.admit(number);
  for (std::uint64_t number = 1; number <= 3; ++number) {
    keeper.keeper.finish({kCaller, number, 0}, replyOf(sizes[number - 1], 1000), keeper.nowMs,
                         keeper.thrown);
  }
  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 5'000, Cause::Room}}));

  keeper.keeper.acknowledge(kCaller, 2, keeper.nowMs, keeper.thrown);
  for (std::uint64_t number = 4; number <= 9; ++number) keeper.run(number);

  EXPECT_EQ(keeper.admit(3, 0, 6).verdict, Verdict::Resend);
  EXPECT_EQ(keeper.keeper.counts().kept, 4U);
}

TEST(KXReplyKeeper, TakesNoNoticeOfLostCallsThatItDoesNotKnow) {
  Keeper keeper;
  keeper.run(2);
  keeper.keeper.acknowledge(kCaller, 2, keeper.nowMs, keeper.thrown);

  keeper.admit({kCaller, 9, 8, kHere, {1, 2, 8}});
  keeper.admit({"fedcba9876543210", 9, 8, kHere, {2}});

  EXPECT_EQ(keeper.thrown, Thrown());
  EXPECT_EQ(keeper.keeper.counts().acknowledged, 1U);
}

TEST(KXReplyKeeper, RemembersACallWhoseReplyWasAcknowledgedByItself) {
  Keeper keeper;
  keeper.admit(1);
  keeper.run(2, 0, 1000);

  keeper.keeper.acknowledge(kCaller, 2, keeper.nowMs, keeper.thrown);

  EXPECT_EQ(keeper.keeper.counts().bytes, 0U);
  EXPECT_EQ(keeper.keeper.counts().acknowledged, 1U);
  EXPECT_EQ(keeper.admit(2, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(2).verdict, Verdict::Forgotten);
}

TEST(KXReplyKeeper, IgnoresAcknowledgementsOfWhatIsNotKept) {
  Keeper keeper;
  keeper.admit(1);
  keeper.run(2);

  keeper.keeper.acknowledge(kCaller, 1, keeper.nowMs, keeper.thrown);
  keeper.keeper.acknowledge(kCaller, 3, keeper.nowMs, keeper.thrown);
  keeper.keeper.acknowledge("fedcba9876543210", 2, keeper.nowMs, keeper.thrown);

  EXPECT_EQ(keeper.keeper.counts().acknowledged, 0U);
  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Ignore);
  EXPECT_EQ(keeper.admit(3).verdict, Verdict::Run);
}

TEST(KXReplyKeeper, ForgetsRepliesWithTime) {
  Keeper keeper;
  keeper.run(1);
  keeper.pass(30'000);
  keeper.run(2);

  keeper.pass(29'999);
  EXPECT_EQ(keeper.keeper.counts().kept, 2U);
  keeper.pass(1);

  EXPECT_EQ(keeper.keeper.counts().kept, 1U);
  EXPECT_EQ(keeper.keeper.counts().expired, 1U);
  EXPECT_EQ(keeper.keeper.counts().bytes, 10 + kOverhead);
  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(2, 0, kAgain).verdict, Verdict::Resend);
}

TEST(KXReplyKeeper, ReportsOldRepliesOnlyIfTheyWereMissed) {
  Keeper keeper;
  keeper.run(1);
  keeper.run(2);
  keeper.admit(2, 0, kAgain);
  keeper.admit(3);
  keeper.keeper.finish({kCaller, 3, 0}, replyOf(100, 60), keeper.nowMs, keeper.thrown);

  keeper.pass(60'000);

  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 10, Cause::Age}, {"M.m", 100, Cause::Age}}));
  EXPECT_EQ(keeper.keeper.counts().expired, 3U);
}

TEST(KXReplyKeeper, AnExpiryForgetsOnlyWhatIsNotThere) {
  Keeper keeper;
  keeper.admit(1);
  keeper.run(3);

  keeper.pass(60'000);

  EXPECT_EQ(keeper.admit(2).verdict, Verdict::Forgotten) << "for all that is known it has run";
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Ignore);
  EXPECT_TRUE(keeper.finish(1));
  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Resend);
}

TEST(KXReplyKeeper, GivesUpTheOldestForRoomAndSaysSo) {
  Keeper keeper({.maxBytes = 2 * (100 + kOverhead)});
  keeper.run(1, 0, 100);
  keeper.run(2, 0, 100);

  keeper.run(3, 0, 100);

  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 100, Cause::Room}}));
  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(2, 0, kAgain).verdict, Verdict::Resend);
  EXPECT_EQ(keeper.admit(3, 0, kAgain).verdict, Verdict::Resend);
}

TEST(KXReplyKeeper, GivingUpForRoomDoesNotKeepYoungerCallsFromRunning) {
  Keeper keeper({.maxBytes = 100});
  keeper.run(2);
  keeper.run(3);

  EXPECT_EQ(keeper.thrown.size(), 1U);
  EXPECT_EQ(keeper.admit(2).verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Run) << "overtaken on its way";
}

TEST(KXReplyKeeper, KeepsTheNewestHoweverLargeItIs) {
  Keeper keeper({.maxBytes = 100});

  keeper.run(1, 0, 1'000'000);

  EXPECT_EQ(keeper.admit(1, 0, kAgain).verdict, Verdict::Resend);
  EXPECT_EQ(keeper.thrown, Thrown());
  keeper.run(2, 0, 1);
  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 1'000'000, Cause::Room}}));
  EXPECT_EQ(keeper.keeper.counts().bytes, 1 + kOverhead);
}

TEST(KXReplyKeeper, CountsLongNamesAgainstItsRoom) {
  Keeper keeper;
  std::string const longName(3000, 'n');
  for (std::uint64_t number = 1; number <= 2; ++number) {
    keeper.keeper.admit({kCaller, number, 0}, {}, longName, longName, keeper.nowMs, keeper.thrown);
    keeper.finish(number);
  }
  EXPECT_EQ(keeper.keeper.counts().bytes, 2 * (10 + kOverhead + 6000));

  keeper.keeper.acknowledge(kCaller, 1, keeper.nowMs, keeper.thrown);

  EXPECT_EQ(keeper.keeper.counts().bytes, 10 + kOverhead + 6000);
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Forgotten) << "wherever the reply would go";
}

TEST(KXReplyKeeper, KeepsWhatIsFetchedPartByPart) {
  Keeper keeper;
  keeper.admit(1);
  keeper.keeper.finish({kCaller, 1, 0}, replyOf(1000, 10), keeper.nowMs, keeper.thrown);
  keeper.run(2);

  for (std::uint32_t part = 8; part < 100; part += 8) {
    keeper.pass(20'000);
    ASSERT_EQ(keeper.admit(1, 0, part).verdict, Verdict::Resend) << part;
  }

  EXPECT_EQ(keeper.keeper.counts().kept, 1U) << "the other is too old";
  keeper.pass(60'000);
  EXPECT_EQ(keeper.keeper.counts().kept, 0U);
}

TEST(KXReplyKeeper, BoundsWhatIsRememberedOfEndedCalls) {
  Keeper keeper({.maxEnded = 2});
  for (std::uint64_t number = 2; number <= 4; ++number) {
    keeper.run(number);
    keeper.keeper.acknowledge(kCaller, number, keeper.nowMs, keeper.thrown);
  }

  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Forgotten) << "below the mark";
  for (std::uint64_t number = 2; number <= 4; ++number) {
    EXPECT_EQ(keeper.admit(number).verdict, Verdict::Forgotten) << number;
  }
}

TEST(KXReplyKeeper, EndedCallsAreRememberedByTheMarkWhenTheyAreOld) {
  Keeper keeper;
  keeper.run(2);
  keeper.keeper.acknowledge(kCaller, 2, keeper.nowMs, keeper.thrown);

  keeper.pass(59'999);
  EXPECT_EQ(keeper.admit(1).verdict, Verdict::Run);
  keeper.pass(1);

  EXPECT_EQ(keeper.admit(2, 0, kAgain).verdict, Verdict::Forgotten);
}

TEST(KXReplyKeeper, BoundsItsCallers) {
  Keeper keeper({.maxCallers = 2});
  keeper.run(1, 0, 10, "a");
  keeper.run(1, 0, 20, "b");
  keeper.admit(1, 0, kAgain, "a");

  keeper.run(1, 0, 30, "c");

  EXPECT_EQ(keeper.keeper.counts().callers, 2U);
  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 20, Cause::Room}}))
      << "the one that was silent for longest";
  EXPECT_EQ(keeper.admit(1, 0, kAgain, "a").verdict, Verdict::Resend);
  EXPECT_EQ(keeper.admit(1, 0, kAgain, "c").verdict, Verdict::Resend);
}

TEST(KXReplyKeeper, WhoAcknowledgesIsNotSilent) {
  Keeper keeper({.maxCallers = 2});
  keeper.run(1, 0, 10, "a");
  keeper.run(1, 0, 20, "b");
  keeper.keeper.acknowledge("a", 1, keeper.nowMs, keeper.thrown);

  keeper.run(1, 0, 30, "c");

  EXPECT_EQ(keeper.thrown, (Thrown{{"M.m", 20, Cause::Room}}));
}

TEST(KXReplyKeeper, RunsNoRepeatOfACallerThatItMayHaveForgotten) {
  Keeper keeper({.maxCallers = 1});
  keeper.run(1, 0, 10, "a");
  keeper.run(1, 0, 10, "b");

  EXPECT_EQ(keeper.admit(1, 0, kAgain, "a").verdict, Verdict::Forgotten);
  EXPECT_EQ(keeper.admit(2, 1, {}, "a").verdict, Verdict::Run) << "a first request is new";
  EXPECT_EQ(keeper.admit(3, 0, kAgain, "a").verdict, Verdict::Forgotten) << "still in doubt";
  keeper.finish(2, 10, "a");
  keeper.pass(600'000);
  EXPECT_EQ(keeper.admit(1, 0, kAgain, "b").verdict, Verdict::Run) << "nobody waits that long";
}

TEST(KXReplyKeeper, ForgetsNoCallerWhoseCallRuns) {
  Keeper keeper({.maxCallers = 1});
  keeper.admit(1, 0, {}, "a");

  keeper.admit(1, 0, {}, "b");

  EXPECT_EQ(keeper.keeper.counts().callers, 2U);
  EXPECT_EQ(keeper.admit(1, 0, kAgain, "a").verdict, Verdict::Ignore);
  EXPECT_TRUE(keeper.finish(1, 10, "a"));
}

TEST(KXReplyKeeper, AnEndWithoutABeginningIsNothing) {
  Keeper keeper;
  keeper.run(1);

  EXPECT_FALSE(keeper.finish(1));
  EXPECT_FALSE(keeper.finish(2));
  EXPECT_FALSE(keeper.finish(1, 10, "fedcba9876543210"));
  EXPECT_EQ(keeper.keeper.counts().kept, 1U);
}

TEST(KXReply, CountsItsParts) {
  struct Case {
    std::size_t bytes;
    std::size_t partBytes;
    std::uint32_t count;
  };
  for (Case const& given : std::vector<Case>{
           {0, 0, 1}, {0, 10, 1}, {10, 0, 1}, {9, 10, 1}, {10, 10, 1}, {11, 10, 2}, {30, 10, 3}}) {
    EXPECT_EQ(replyOf(given.bytes, given.partBytes)->partCount(), given.count) << given.bytes;
  }
}

// Callers that lose requests and replies, give up and acknowledge in all ways, against the plain
// truth of what ran.
TEST(KXReplyKeeper, RunsNoCallTwiceWhateverComes) {
  struct Call {
    bool isRunning = false;
    bool hasRun = false;
    bool isDone = false;  // on the caller's side
  };
  struct Caller {
    std::string id;
    std::map<std::uint64_t, Call> calls{};
    std::uint64_t done = 0;
  };
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto const below = [&](unsigned end) {
      return static_cast<unsigned>(random() % end);
    };
    KXReplyKeeper keeper(kHere, {.maxBytes = 20 * (kOverhead + 50),
                                 .keepMs = 300,
                                 .maxCallers = 4 + below(3),
                                 .maxEnded = 10});
    std::vector<Caller> callers;
    for (int i = 0; i < 6; ++i)
      callers.push_back({.id = std::string(16, static_cast<char>('a' + i))});
    std::vector<std::pair<std::size_t, std::uint64_t>> running;
    std::int64_t nowMs = 0;
    std::uint64_t runs = 0;
    std::uint64_t resent = 0;
    std::uint64_t ended = 0;
    Thrown thrown;
    for (int step = 0; step < 3000; ++step) {
      nowMs += below(5);
      std::size_t const index = below(static_cast<unsigned>(callers.size()));
      Caller& caller = callers[index];
      unsigned const action = below(10);
      if (action < 6) {
        // A new number, some of which never arrived at first, or one that was sent before.
        std::uint64_t const last = caller.calls.empty() ? 0 : caller.calls.rbegin()->first;
        bool const isNew = caller.calls.empty() || below(2) == 0;
        std::uint64_t const number =
            isNew ? last + 1 + below(2) : std::max<std::uint64_t>(1, last - below(8) % last);
        bool const isKnown = caller.calls.contains(number);
        Call& call = caller.calls[number];
        if (call.isDone) continue;
        while (caller.done + 1 < number) {
          auto const next = caller.calls.find(caller.done + 1);
          if (next != caller.calls.end() && !next->second.isDone) break;
          ++caller.done;
        }
        std::optional<std::uint32_t> fromPart;
        if (isKnown || below(4) == 0) fromPart = kAgain;
        auto const admission =
            keeper.admit({caller.id, number, std::min(caller.done, number - 1), kHere}, fromPart,
                         "inbox", "M.m", nowMs, thrown);
        switch (admission.verdict) {
          case Verdict::Run:
            ASSERT_FALSE(call.hasRun || call.isRunning) << caller.id << "." << number;
            call.isRunning = true;
            running.emplace_back(index, number);
            ++runs;
            break;
          case Verdict::Ignore:
            ASSERT_TRUE(call.isRunning) << number;
            break;
          case Verdict::Resend:
            ASSERT_TRUE(call.hasRun) << number;
            ASSERT_EQ(admission.reply->headers.front().second, caller.id + std::to_string(number));
            ++resent;
            if (below(2) == 0) call.isDone = true;
            break;
          case Verdict::Forgotten:
            ASSERT_FALSE(call.isRunning) << number;
            call.isDone = true;
            break;
          default:
            FAIL() << "neither restarted nor refused";
        }
      } else if (action < 8 && !running.empty()) {
        std::size_t const chosen = below(static_cast<unsigned>(running.size()));
        auto const [owner, number] = running[chosen];
        running.erase(running.begin() + static_cast<std::ptrdiff_t>(chosen));
        Call& call = callers[owner].calls[number];
        auto reply = std::make_shared<KXReply>(*replyOf(below(100)));
        reply->headers = {{"of", callers[owner].id + std::to_string(number)}};
        keeper.finish({callers[owner].id, number, 0}, reply, nowMs, thrown);
        call.isRunning = false;
        call.hasRun = true;
        call.isDone = below(3) != 0;
        ++ended;
      } else if (action == 8) {
        for (auto& [number, call] : caller.calls) {
          if (!call.hasRun || below(3) != 0) continue;
          keeper.acknowledge(caller.id, number, nowMs, thrown);
          call.isDone = true;
        }
      } else {
        keeper.expire(nowMs, thrown);
      }
      auto const counts = keeper.counts();
      ASSERT_EQ(counts.admitted, runs);
      ASSERT_EQ(counts.running, runs - ended);
      ASSERT_EQ(counts.admitted,
                counts.running + counts.kept + counts.acknowledged + counts.expired);
      ASSERT_LE(counts.bytes, 20 * (kOverhead + 50));
      ASSERT_LE(counts.callers, callers.size());
    }
    EXPECT_GT(resent, 0U);
    for (auto const& [owner, number] : running) {
      keeper.finish({callers[owner].id, number, 0}, replyOf(1), nowMs, thrown);
    }
    keeper.expire(nowMs + 1000, thrown);
    auto const counts = keeper.counts();
    EXPECT_EQ(counts.kept + counts.running, 0U);
    EXPECT_EQ(counts.bytes, 0U);
    EXPECT_EQ(counts.admitted, counts.acknowledged + counts.expired);
  }
}

}  // namespace
}  // namespace KX
