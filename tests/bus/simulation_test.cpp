// Senders and receivers of events on a bus in simulated time: thousands of random schedules of
// loss, delay, cuts and restarts, each of which can be run again by its seed.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxpackstream.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/bus/notifications.hpp>
#include <tests/bus/seeds.hpp>

namespace KX {
namespace {

using KX::testing::numbered;
using KX::testing::numberOf;

constexpr char const* kEvents = "kx.r.@events.M";
constexpr char const* kHello = "kx.r.@hello";

/// What befalls a schedule.
struct Faults {
  KXBusFaultRates rates{};
  int cutsPerMille = 0;      ///< of a turn: one of the connections, or the server
  int restartsPerMille = 0;  ///< of a turn: the receiver or the sender
  int handlingMs = 0;        ///< of one notification, at most
  int notifications = 150;
  bool isTiny = false;  ///< little may be in flight, and little wait
};

/// What one sender posted, and what became of it, whoever handled it.
struct Life {
  KXNotificationCounts counts{};
  int posted = 0;
  std::set<int> handled{};
};
using Lives = std::map<std::string, Life>;

/// A sending end on the bus, as a process has it.
class Sender {
 public:
  Sender(KXBusNetwork& net, std::string const& epoch, KXPackLimits const& limits, Life& life)
      : mNet(net), mEpoch(epoch), mSender(epoch, limits), mLife(life), mBus(net.connect()) {
    mReply = mBus->inboxPrefix() + "." + epoch + ".1";
    mAcks = mBus->subscribe(mReply, "", 1, [this](KXBusMessage const& message) {
      if (message.isNoResponders) {
        mSender.onNoResponders(nowMs());
      } else {
        mSender.onAck(packAckOf(message).value(), nowMs());
      }
      send();
    });
    mHellos = mBus->subscribe(kHello, "", 1, [this](KXBusMessage const&) { xAsk(); });
    mObservation = mBus->observe([this](KXBusEvent const& event) {
      if (event.kind == KXBusEvent::Kind::Back) xAsk();
    });
  }

  void post(std::vector<KXNotification> const& notifications) {
    mSender.post(notifications);
    send();
  }

  void send() {
    while (mBus->isConnected()) {
      auto const pack = mSender.take(nowMs());
      if (!pack) break;
      mBus->publish({.subject = kEvents,
                     .reply = mReply,
                     .headers = {{kPackHeader, formatPackHeader(pack->header)}},
                     .payload = *pack->bytes});
      if (pack->header.count == 0) continue;
      ++mSentCount;
      mSentOnce.insert(pack->header.first);
    }
    mLife.counts = mSender.getCounts();
    KXNotificationCounts const& counts = mLife.counts;
    EXPECT_EQ(counts.posted, static_cast<std::uint64_t>(mLife.posted));
    EXPECT_EQ(counts.posted, counts.delivered + counts.dropped + counts.waiting);
  }

  KXBus const& getBus() const { return *mBus; }
  std::string const& getEpoch() const { return mEpoch; }
  bool isDone() const { return mSender.isDone(); }
  std::size_t getSentCount() const { return mSentCount; }
  std::size_t getSentOnceCount() const { return mSentOnce.size(); }

 private:
  std::int64_t nowMs() const { return mNet.nowUs() / 1000; }
  void xAsk() {
    mSender.onBack(nowMs());
    send();
  }

  KXBusNetwork& mNet;
  std::string const mEpoch;
  std::string mReply;
  KXPackSender mSender;
  Life& mLife;
  std::size_t mSentCount = 0;  ///< of packs
  std::set<std::uint64_t> mSentOnce;
  std::unique_ptr<KXBus> const mBus;
  std::unique_ptr<KXBusSubscription> mAcks;
  std::unique_ptr<KXBusSubscription> mHellos;
  std::unique_ptr<KXBusSubscription> mObservation;
};

/// A receiving end on the bus, whose module takes its time.
class Receiver {
 public:
  Receiver(KXBusNetwork& net, Lives& lives, int handlingMs)
      : mNet(net), mLives(lives), mHandlingMs(handlingMs), mBus(net.connect()) {
    mPacks = mBus->subscribe(kEvents, "", 1, [this](KXBusMessage const& message) {
      mArrived.push_back({parsePackHeader(message.header(kPackHeader)).value(),
                          std::string(message.payload), std::string(message.reply)});
      work();
    });
    mObservation = mBus->observe([this](KXBusEvent const& event) {
      if (event.kind == KXBusEvent::Kind::Back) mBus->publish({.subject = kHello, .payload = {}});
    });
    if (mBus->isConnected()) mBus->publish({.subject = kHello, .payload = {}});
  }

  /// Handles what is due by now.
  void work() {
    while (!mArrived.empty() && mFreeMs <= nowMs()) {
      if (mTodo.empty() && !mIsHandling) xBegin(mArrived.front());
      if (!mTodo.empty()) {
        xHandle(mArrived.front());
        if (mHandlingMs > 0) continue;
      }
      if (!mTodo.empty()) continue;
      xAck(mArrived.front());
      mArrived.pop_front();
      mIsHandling = false;
    }
  }

  KXBus const& getBus() const { return *mBus; }
  std::uint64_t getHandled() const { return mHandled; }
  std::uint64_t getHoles() const { return mHoles; }

 private:
  struct Pack {
    KXPackHeader header;
    std::string bytes;
    std::string reply;
  };

  std::int64_t nowMs() const { return mNet.nowUs() / 1000; }

  void xBegin(Pack const& pack) {
    mIsHandling = true;
    KXPackReceiver::Arrival const arrival = mReceivers.of(pack.header.epoch).onPack(pack.header);
    mHoles += arrival.dropped;
    if (arrival.from == pack.header.count) return;
    auto const all = decodePack(pack.bytes, pack.header.count);
    for (std::uint32_t i = arrival.from; i < all.size(); ++i) mTodo.push_back(numberOf(all[i]));
    mAckedMs = nowMs();
  }

  void xHandle(Pack const& pack) {
    int const number = mTodo.front();
    mTodo.pop_front();
    int& last = mLastHandled[pack.header.epoch];
    EXPECT_GT(number, last) << "handled again, or out of order";
    last = number;
    mLives[pack.header.epoch].handled.insert(number);
    ++mHandled;
    KXPackReceiver& receiver = mReceivers.of(pack.header.epoch);
    receiver.onHandled();
    EXPECT_EQ(receiver.ack().next, static_cast<std::uint64_t>(number) + 1);
    mFreeMs = nowMs() + (mHandlingMs == 0 ? 0 : 1 + number % mHandlingMs);
    if (nowMs() - mAckedMs < 50) return;
    mAckedMs = nowMs();
    xAck(pack);
  }

  void xAck(Pack const& pack) {
    if (!mBus->isConnected()) return;
    KXPackAck const ack = mReceivers.of(pack.header.epoch).ack();
    mBus->publish({.subject = pack.reply, .headers = packAckHeaders(ack), .payload = {}});
  }

  KXBusNetwork& mNet;
  Lives& mLives;
  int const mHandlingMs;
  std::unique_ptr<KXBus> const mBus;
  KXPackReceivers mReceivers;
  std::deque<Pack> mArrived;  ///< the first is being handled
  std::deque<int> mTodo;      ///< the numbers of it
  bool mIsHandling = false;
  std::int64_t mFreeMs = 0;  ///< when it has handled the last one
  std::int64_t mAckedMs = 0;
  std::map<std::string, int> mLastHandled;
  std::uint64_t mHandled = 0;
  std::uint64_t mHoles = 0;
  std::unique_ptr<KXBusSubscription> mPacks;
  std::unique_ptr<KXBusSubscription> mObservation;
};

class Simulation {
 public:
  Simulation(std::uint32_t seed, Faults const& faults) : mRandom(seed), mFaults(faults) {
    if (faults.isTiny) {
      mLimits = {.pack = 200, .message = 900, .inFlight = 600, .waiting = 1200};
    } else {
      mLimits.pack = 400;
    }
    mNet.setFaults(KXBusNetwork::randomFaults(seed, faults.rates));
    xRestartSender();
    mReceiver = std::make_unique<Receiver>(mNet, mLives, faults.handlingMs);
  }

  void run() {
    int left = mFaults.notifications;
    while (left > 0) {
      if (xHappens(250)) {
        int const count = std::min(left, 1 + xRandom(30));
        xPost(count);
        left -= count;
      }
      if (xHappens(mFaults.cutsPerMille)) xCut();
      if (xHappens(mFaults.restartsPerMille)) xRestart();
      xTurn();
    }
    xMendAll();
    mNet.setFaults({});
    std::int64_t const latestMs = mNowMs + 60'000 + mFaults.notifications * mFaults.handlingMs;
    while (!mSender->isDone() && mNowMs < latestMs) xTurn();
    xCheck();
  }

 private:
  static constexpr int kTurnMs = 10;

  int xRandom(int below) { return static_cast<int>(mRandom() % static_cast<unsigned>(below)); }
  bool xHappens(int perMille) { return xRandom(1000) < perMille; }

  void xPost(int count) {
    Life& life = mLives[mSender->getEpoch()];
    std::vector<KXNotification> notifications;
    for (int i = 0; i < count; ++i) {
      std::size_t const size = xHappens(10) ? 1000 : static_cast<std::size_t>(xRandom(60));
      notifications.push_back(numbered(++life.posted, size));
    }
    mSender->post(notifications);
  }

  void xTurn() {
    mNowMs += kTurnMs;
    for (std::int64_t timeMs = mNowMs - kTurnMs; timeMs <= mNowMs; timeMs += 2) {
      mNet.runUntil(timeMs * 1000);
      mReceiver->work();
      if (mFaults.handlingMs == 0) timeMs = std::max(timeMs, mNowMs - 2);
    }
    if (mNowMs % 50 == 0) mSender->send();
  }

  void xCut() {
    switch (xRandom(3)) {
      case 0:
        xToggle(mIsSenderCut, mSender->getBus());
        break;
      case 1:
        xToggle(mIsReceiverCut, mReceiver->getBus());
        break;
      default:
        mIsServerDown = !mIsServerDown;
        if (mIsServerDown) {
          mNet.stopServer();
        } else {
          mNet.startServer();
        }
    }
  }
  void xToggle(bool& isCut, KXBus const& bus) {
    isCut = !isCut;
    if (isCut) {
      mNet.cut(bus);
    } else {
      mNet.mend(bus);
    }
  }
  void xMendAll() {
    if (mIsServerDown) xStartServer();
    if (mIsSenderCut) xToggle(mIsSenderCut, mSender->getBus());
    if (mIsReceiverCut) xToggle(mIsReceiverCut, mReceiver->getBus());
  }
  void xStartServer() {
    mIsServerDown = false;
    mNet.startServer();
  }

  void xRestart() {
    if (mIsServerDown) xStartServer();  // nobody can be made without
    if (xRandom(3) == 0) {
      xRestartSender();
    } else {
      mIsReceiverCut = false;
      mReceiver.reset();
      mReceiver = std::make_unique<Receiver>(mNet, mLives, mFaults.handlingMs);
      mHasRestarted = true;
    }
  }
  void xRestartSender() {
    mIsSenderCut = false;
    std::string const number = std::to_string(mLives.size());
    std::string const epoch = std::string(16 - number.size(), 'e') + number;
    mSender.reset();
    mSender = std::make_unique<Sender>(mNet, epoch, mLimits, mLives[epoch]);
    mHasRestarted = mHasRestarted || mLives.size() > 1;
  }

  void xCheck() {
    for (auto const& [epoch, life] : mLives) {
      SCOPED_TRACE("sender " + epoch);
      // Nothing is acknowledged that nobody handled.
      EXPECT_LE(life.counts.delivered, life.handled.size());
    }
    Life const& last = mLives[mSender->getEpoch()];
    EXPECT_TRUE(mSender->isDone());
    EXPECT_EQ(last.counts.waiting, 0u);
    EXPECT_EQ(last.counts.delivered, last.handled.size());
    EXPECT_EQ(last.counts.posted, last.handled.size() + last.counts.dropped);
    if (mHasRestarted) return;
    EXPECT_EQ(mReceiver->getHandled(), last.counts.delivered);
    EXPECT_EQ(mReceiver->getHoles(), last.counts.dropped);
    bool const isLossless =
        mFaults.rates.loss == 0 && mFaults.rates.overtaken == 0 && mFaults.cutsPerMille == 0;
    // A receiver that is merely slow is asked now and then, and sent nothing twice.
    if (!isLossless) return;
    EXPECT_EQ(mSender->getSentCount(), mSender->getSentOnceCount());
  }

  std::mt19937 mRandom;
  Faults const mFaults;
  KXPackLimits mLimits;
  KXBusNetwork mNet{KXBusNetwork::Pacing::Stepped};
  Lives mLives;
  std::unique_ptr<Sender> mSender;
  std::unique_ptr<Receiver> mReceiver;
  std::int64_t mNowMs = 0;
  bool mIsSenderCut = false;
  bool mIsReceiverCut = false;
  bool mIsServerDown = false;
  bool mHasRestarted = false;
};

/// So many schedules with these faults, of which each draws its own share.
void simulate(std::uint32_t count, Faults const& worst) {
  testing::forSeeds(count, [&](std::uint32_t seed) {
    std::mt19937 random(seed * 7919);
    auto const share = [&] {
      return static_cast<double>(random()) * 0x1p-32;
    };
    auto const part = [&](int most) {
      return static_cast<int>(share() * (most + 1));
    };
    Faults faults = worst;
    faults.rates.loss *= share();
    faults.rates.duplicate *= share();
    faults.rates.overtaken *= share();
    faults.rates.maxDelayUs = part(static_cast<int>(worst.rates.maxDelayUs));
    faults.cutsPerMille = part(worst.cutsPerMille);
    faults.restartsPerMille = part(worst.restartsPerMille);
    faults.handlingMs = part(worst.handlingMs);
    faults.notifications = worst.notifications / 3 + part(worst.notifications * 5 / 3);
    Simulation(seed, faults).run();
  });
}

constexpr KXBusFaultRates kBadNetwork{
    .loss = 0.4, .duplicate = 0.3, .overtaken = 0.5, .maxDelayUs = 60'000};

TEST(EventSimulation, DeliversOnceAndInOrderOverABadNetwork) {
  simulate(3000, {.rates = kBadNetwork});
}

TEST(EventSimulation, DeliversOverCutsAndServersThatRestart) {
  simulate(2500, {.rates = {.maxDelayUs = 30'000}, .cutsPerMille = 150});
}

TEST(EventSimulation, CountsTheSameHolesAtBothEnds) {
  simulate(1500, {.rates = kBadNetwork, .cutsPerMille = 80, .isTiny = true});
}

TEST(EventSimulation, SendsASlowReceiverNothingTwice) {
  simulate(
      500,
      {.rates = {.duplicate = 0.2, .maxDelayUs = 20'000}, .handlingMs = 300, .notifications = 30});
}

TEST(EventSimulation, CountsTheSameHolesWithASlowReceiver) {
  simulate(500, {.rates = kBadNetwork, .cutsPerMille = 30, .handlingMs = 20, .isTiny = true});
}

TEST(EventSimulation, SkipsNothingWhenEitherEndBeginsAnew) {
  simulate(2000, {.rates = {.loss = 0.2, .duplicate = 0.2, .overtaken = 0.2, .maxDelayUs = 30'000},
                  .cutsPerMille = 60,
                  .restartsPerMille = 60});
}

TEST(StressEventSimulation, LongSchedulesOfEverything) {
  simulate(150, {.rates = kBadNetwork, .cutsPerMille = 20, .notifications = 5000});
  simulate(100, {.rates = kBadNetwork,
                 .cutsPerMille = 20,
                 .restartsPerMille = 5,
                 .handlingMs = 3,
                 .notifications = 2000,
                 .isTiny = true});
}

}  // namespace
}  // namespace KX
