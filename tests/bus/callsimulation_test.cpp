// Calls on a bus in simulated time: random schedules of loss, delay, cuts and restarts, each of
// which can be run again by its seed. No method runs twice for one call.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <host/bus/kxdestination.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxreplykeeper.hpp>
#include <host/bus/kxwire.hpp>
#include <tests/bus/seeds.hpp>

namespace KX {
namespace {

constexpr char const* kCalls = "kx.r.M.run";

/// What befalls a schedule.
struct CallFaults {
  KXBusFaultRates rates{};
  int cutsPerMille = 0;      ///< of a turn
  int restartsPerMille = 0;  ///< of a turn: the callee
  int runMs = 0;             ///< of one call, at most
  int losesPerMille = 0;     ///< of a turn: the caller waits no longer for one of its calls
  KXReplyKeeper::Limits limits{};
};

/// How often each call was run, by whichever callee.
using Runs = std::map<std::uint64_t, int>;

class Callee {
 public:
  Callee(KXBusNetwork& net, std::string instance, CallFaults const& faults, Runs& runs)
      : mNet(net),
        mRunMs(faults.runMs),
        mRuns(runs),
        mKeeper(std::move(instance), faults.limits),
        mBus(net.connect()) {
    mRequests = mBus->subscribe(kCalls, "q", 1,
                                [this](KXBusMessage const& message) { xOnRequest(message); });
  }

  /// Ends the calls that have run for long enough.
  void work() {
    while (!mRunning.empty() && mRunning.begin()->first <= nowMs()) {
      auto const [id, replySubject] = mRunning.begin()->second;
      mRunning.erase(mRunning.begin());
      auto reply = std::make_shared<KXReply>();
      reply->payload = encodeResult(static_cast<int>(id.number));
      if (mKeeper.finish(id, reply, nowMs(), mThrown)) xReply(replySubject, reply->payload);
    }
  }

  KXBus const& getBus() const { return *mBus; }
  std::string const& instance() const { return mKeeper.instance(); }
  std::uint64_t getAcknowledgedCount() const { return mKeeper.counts().acknowledged; }
  void check() const {
    KXReplyKeeper::Counts const counts = mKeeper.counts();
    EXPECT_EQ(counts.running, mRunning.size());
    EXPECT_EQ(counts.admitted, counts.running + counts.kept + counts.acknowledged + counts.expired);
  }

 private:
  std::int64_t nowMs() const { return mNet.nowUs() / 1000; }

  void xOnRequest(KXBusMessage const& message) {
    KXCallId const id = parseCallId(message.header(kCallHeader)).value();
    std::string const reply(message.reply);
    auto const admission = mKeeper.admit(id, parseFromPart(message.header(kAgainHeader)), reply,
                                         "M.run", nowMs(), mThrown);
    switch (admission.verdict) {
      case KXReplyKeeper::Verdict::Run:
        ++mRuns[id.number];
        mRunning.insert(
            {nowMs() + (mRunMs == 0 ? 0 : static_cast<int>(id.number * 37) % mRunMs), {id, reply}});
        return work();
      case KXReplyKeeper::Verdict::Ignore:
        return;
      case KXReplyKeeper::Verdict::Resend:
        return xReply(reply, admission.reply->payload);
      case KXReplyKeeper::Verdict::Moved:
        return xReply(reply, "", kMovedCode);
      default:
        return xReply(reply, encodeError(KXError("M", "run", "it may have run", "", 0)));
    }
  }
  void xReply(std::string const& subject, std::string const& payload, char const* code = "") {
    if (!mBus->isConnected()) return;
    mBus->publish({.subject = subject,
                   .headers = {{kErrorCodeHeader, code}, {kInstanceHeader, instance()}},
                   .payload = payload});
  }

  KXBusNetwork& mNet;
  int const mRunMs;
  Runs& mRuns;
  KXReplyKeeper mKeeper;
  std::unique_ptr<KXBus> const mBus;
  std::multimap<std::int64_t, std::pair<KXCallId, std::string>> mRunning;  ///< by their end
  std::vector<KXReplyKeeper::Thrown> mThrown;
  std::unique_ptr<KXBusSubscription> mRequests;
};

/// Calls, and calls again until there is a reply.
class Caller {
 public:
  enum class Outcome { Result, Error, GivenUp };

  explicit Caller(KXBusNetwork& net) : mNet(net), mBus(net.connect()) {
    mInbox = mBus->inboxPrefix() + ".caller.";
    mReplies = mBus->subscribe(mInbox + "*", "", 1,
                               [this](KXBusMessage const& message) { xOnReply(message); });
    mObservation = mBus->observe([this](KXBusEvent const& event) {
      if (event.kind != KXBusEvent::Kind::Back) return;
      for (auto& [number, call] : mPending) call->nextMs = 0;
    });
  }

  /// `instance`: of the callee as it was last heard of.
  void start(std::string const& instance) {
    mDestination.learn(instance);
    auto call = std::make_unique<Pending>();
    call->id = mDestination.begin(call->waiting);
    call->nextMs = nowMs() + kFirstPauseMs;
    Pending& begun = *mPending.emplace(call->id.number, std::move(call)).first->second;
    xSend(begun);
  }
  /// Waits no longer for one that was sent; if there is none, nothing happens.
  void giveUp(std::uint32_t chosen) {
    if (mPending.empty()) return;
    auto const call = std::next(mPending.begin(), chosen % mPending.size());
    std::uint64_t const number = call->first;
    if (call->second->sentCount == 0) return;
    xEnd(number, Outcome::GivenUp);
    mDestination.giveUp(number);
  }
  void work() {
    for (auto& [number, call] : mPending) {
      if (call->nextMs > nowMs()) continue;
      call->pauseMs = std::min<std::int64_t>(2 * call->pauseMs, 4000);
      call->nextMs = nowMs() + call->pauseMs;
      xSend(*call);
    }
  }

  KXBus const& getBus() const { return *mBus; }
  std::size_t getPendingCount() const { return mPending.size(); }
  std::map<std::uint64_t, Outcome> const& getOutcomes() const { return mOutcomes; }

 private:
  static constexpr std::int64_t kFirstPauseMs = 500;

  struct Pending {
    KXPendingCall waiting;
    KXCallId id;
    int sentCount = 0;
    std::int64_t nextMs = 0;
    std::int64_t pauseMs = kFirstPauseMs;
  };

  std::int64_t nowMs() const { return mNet.nowUs() / 1000; }

  void xSend(Pending& call) {
    if (!mBus->isConnected()) return;
    KXBusHeaders headers{{kCallHeader, formatCallId(call.id)}};
    if (call.sentCount++ > 0) headers.emplace_back(kAgainHeader, "0");
    mBus->publish({.subject = kCalls,
                   .reply = mInbox + std::to_string(call.id.number),
                   .headers = std::move(headers),
                   .payload = encodeValue(KXValue::arrayOf())});
  }
  void xEnd(std::uint64_t number, Outcome outcome) {
    mDestination.pending.erase(number);
    mPending.erase(number);
    mOutcomes[number] = outcome;
  }
  void xOnReply(KXBusMessage const& message) {
    if (message.isNoResponders) return;  // It is asked again.
    std::uint64_t const number = std::stoull(std::string(message.subject.substr(mInbox.size())));
    auto const found = mPending.find(number);
    if (found == mPending.end()) return;
    Pending& call = *found->second;
    if (message.header(kErrorCodeHeader) == kMovedCode) {
      std::string_view const instance = message.header(kInstanceHeader);
      if (call.sentCount != 1 || instance == call.id.to) return;
      call.id.to = instance;
      call.sentCount = 0;
      return xSend(call);
    }
    mDestination.hasRead(call.id);
    try {
      EXPECT_EQ(decodeReply(message.payload, ""), KXValue(static_cast<int>(number)));
      xEnd(number, Outcome::Result);
    } catch (KXError const&) {
      xEnd(number, Outcome::Error);
    }
  }

  KXBusNetwork& mNet;
  std::unique_ptr<KXBus> const mBus;
  std::string mInbox;
  KXDestination mDestination{"M"};
  std::map<std::uint64_t, std::unique_ptr<Pending>> mPending;
  std::map<std::uint64_t, Outcome> mOutcomes;
  std::unique_ptr<KXBusSubscription> mReplies;
  std::unique_ptr<KXBusSubscription> mObservation;
};

class CallSimulationRun {
 public:
  CallSimulationRun(std::uint32_t seed, CallFaults const& faults)
      : mRandom(seed), mFaults(faults), mCaller(mNet) {
    mNet.setFaults(KXBusNetwork::randomFaults(seed, faults.rates));
    xRestartCallee();
  }

  void run() {
    constexpr int kCallCount = 40;
    int left = kCallCount;
    std::string heardOf = mCallee->instance();
    while (left > 0 || mCaller.getPendingCount() > 0) {
      if (left > 0 && mCaller.getPendingCount() < 4 && xHappens(200)) {
        // What a caller knows of the callee may be old.
        if (xHappens(500)) heardOf = mCallee->instance();
        mCaller.start(heardOf);
        --left;
      }
      if (xHappens(mFaults.losesPerMille)) mCaller.giveUp(mRandom());
      if (left > 0 && xHappens(mFaults.cutsPerMille)) xCut();
      if (left > 0 && xHappens(mFaults.restartsPerMille)) xRestartCallee();
      // Long before replies are given up for their age.
      if (xHappens(10)) xMendAll();
      if (left == 0) mNet.setFaults({});
      if (left == 0) xMendAll();
      mNowMs += 10;
      mNet.runUntil(mNowMs * 1000);
      mCallee->work();
      mCaller.work();
      if (mNowMs > 300'000) break;
    }
    mCallee->check();
    EXPECT_EQ(mCaller.getOutcomes().size(), static_cast<std::size_t>(kCallCount));
    std::uint64_t results = 0;
    for (auto const& [number, outcome] : mCaller.getOutcomes()) {
      SCOPED_TRACE("call " + std::to_string(number));
      bool const isResult = outcome == Caller::Outcome::Result;
      EXPECT_LE(mRuns[number], 1);
      EXPECT_GE(mRuns[number], isResult ? 1 : 0);
      EXPECT_TRUE(isResult || outcome == Caller::Outcome::GivenUp || mMayFail);
      if (isResult) ++results;
    }
    EXPECT_LE(mCallee->getAcknowledgedCount(), results) << "counted as arrived, and it was not";
  }

 private:
  bool xHappens(int perMille) { return static_cast<int>(mRandom() % 1000) < perMille; }

  void xRestartCallee() {
    if (mIsServerDown) xToggleServer();  // nobody can be made without
    mIsCalleeCut = false;
    mMayFail = mCallee != nullptr;
    std::string const number = std::to_string(++mCalleeCount);
    mCallee.reset();
    mCallee = std::make_unique<Callee>(mNet, std::string(16 - number.size(), '0') + number, mFaults,
                                       mRuns);
  }
  void xCut() {
    if (xHappens(300)) return xToggleServer();
    if (xHappens(500)) return xToggle(mIsCalleeCut, mCallee->getBus());
    xToggle(mIsCallerCut, mCaller.getBus());
  }
  void xToggle(bool& isCut, KXBus const& bus) {
    isCut = !isCut;
    if (isCut) {
      mNet.cut(bus);
    } else {
      mNet.mend(bus);
    }
  }
  void xToggleServer() {
    mIsServerDown = !mIsServerDown;
    if (mIsServerDown) {
      mNet.stopServer();
    } else {
      mNet.startServer();
    }
  }
  void xMendAll() {
    if (mIsServerDown) xToggleServer();
    if (mIsCalleeCut) xToggle(mIsCalleeCut, mCallee->getBus());
    if (mIsCallerCut) xToggle(mIsCallerCut, mCaller.getBus());
  }

  std::mt19937 mRandom;
  CallFaults const mFaults;
  KXBusNetwork mNet{KXBusNetwork::Pacing::Stepped};
  Runs mRuns;
  Caller mCaller;
  std::unique_ptr<Callee> mCallee;
  std::int64_t mNowMs = 0;
  int mCalleeCount = 0;
  bool mIsCalleeCut = false;
  bool mIsCallerCut = false;
  bool mIsServerDown = false;
  bool mMayFail = false;
};

constexpr KXBusFaultRates kBadNetwork{
    .loss = 0.3, .duplicate = 0.3, .overtaken = 0.5, .maxDelayUs = 100'000};

TEST(CallSimulation, RunsEachCallOnceOverABadNetwork) {
  testing::forSeeds(700, [](std::uint32_t seed) {
    CallSimulationRun(seed, {.rates = kBadNetwork, .cutsPerMille = 20, .runMs = 1500}).run();
  });
}

TEST(CallSimulation, RunsNoCallTwiceWhenTheCalleeBeginsAnew) {
  testing::forSeeds(700, [](std::uint32_t seed) {
    CallSimulationRun(
        seed, {.rates = kBadNetwork, .cutsPerMille = 20, .restartsPerMille = 10, .runMs = 1500})
        .run();
  });
}

TEST(CallSimulation, CountsNoReplyAsArrivedThatWasGivenUp) {
  testing::forSeeds(700, [](std::uint32_t seed) {
    CallSimulationRun(
        seed, {.rates = kBadNetwork, .cutsPerMille = 20, .runMs = 1500, .losesPerMille = 20})
        .run();
  });
}

}  // namespace
}  // namespace KX
