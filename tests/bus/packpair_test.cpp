// Both ends of packs over a channel that loses, delays, doubles and reorders, in simulated time.
#include <host/bus/kxpackstream.hpp>

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <tests/bus/notifications.hpp>
#include <tests/bus/seeds.hpp>

namespace KX {
namespace {

using KX::testing::numbered;
using KX::testing::numbersIn;

/// Messages on their way to one end, each with the time when it arrives.
template <class Message>
class Channel {
 public:
  Channel(std::mt19937& random, double trouble) : mRandom(random), mTrouble(trouble) {}

  void put(Message const& message, std::int64_t nowMs) {
    if (happens(mTrouble)) return;
    mOnTheWay.push_back({nowMs + delayMs(), message});
    if (happens(mTrouble / 2)) mOnTheWay.push_back({nowMs + delayMs(), message});
  }
  /// One that has arrived, in any order.
  std::optional<Message> get(std::int64_t nowMs) {
    auto const found = std::find_if(mOnTheWay.begin(), mOnTheWay.end(),
                                    [&](auto const& one) { return one.first <= nowMs; });
    if (found == mOnTheWay.end()) return {};
    Message message = std::move(found->second);
    mOnTheWay.erase(found);
    return message;
  }
  void calm() { mTrouble = 0; }

 private:
  bool happens(double rate) { return mRandom() < rate * 0x1p32; }
  std::int64_t delayMs() {
    if (mTrouble == 0) return 1;
    return happens(mTrouble) ? static_cast<std::int64_t>(mRandom() % 300) : 1;
  }

  std::mt19937& mRandom;
  double mTrouble;
  std::vector<std::pair<std::int64_t, Message>> mOnTheWay;
};

/// What one sender posted, and what became of it.
struct Life {
  std::string epoch;
  KXPackSender sender;
  int posted = 0;
  std::set<int> handled{};    // by any receiver
  std::set<int> unhandled{};  // given up, likewise
  std::uint64_t holes = 0;
};

class Pair {
 public:
  Pair(std::uint32_t seed, double trouble, bool hasRestarts)
      : mRandom(seed),
        mHasRestarts(hasRestarts),
        mPacks(mRandom, trouble),
        mAcks(mRandom, trouble) {
    restartSender();
  }

  void run() {
    for (mNowMs = 0; mNowMs < 3000; ++mNowMs) {
      if (mRandom() % 40 == 0) post(1 + static_cast<int>(mRandom() % 12));
      if (mHasRestarts && mRandom() % 500 == 0) mReceivers = {};
      if (mHasRestarts && mRandom() % 1000 == 0) restartSender();
      turn();
    }
    mPacks.calm();
    mAcks.calm();
    Life& life = mLives.back();
    for (; !life.sender.isDone() && mNowMs < 30'000; ++mNowMs) turn();
    check();
  }

 private:
  void restartSender() {
    std::string const number = std::to_string(mLives.size());
    std::string const epoch = std::string(16 - number.size(), 'e') + number;
    mLives.push_back(
        {epoch,
         KXPackSender(epoch, {.pack = 100, .message = 900, .inFlight = 300, .waiting = 600})});
  }

  void post(int count) {
    Life& life = mLives.back();
    std::vector<KXNotification> notifications;
    for (int i = 0; i < count; ++i) {
      bool const isTooLarge = mRandom() % 100 == 0;
      notifications.push_back(numbered(++life.posted, isTooLarge ? 1000 : mRandom() % 50));
    }
    life.sender.post(notifications);
  }

  void turn() {
    Life& life = mLives.back();
    while (auto const pack = life.sender.take(mNowMs)) mPacks.put(*pack, mNowMs);
    while (auto const pack = mPacks.get(mNowMs)) arrive(*pack);
    while (auto const ack = mAcks.get(mNowMs)) life.sender.onAck(*ack, mNowMs);
    KXNotificationCounts const& counts = life.sender.getCounts();
    EXPECT_EQ(counts.posted, counts.delivered + counts.unhandled + counts.dropped + counts.waiting);
  }

  void arrive(KXOutgoingPack const& pack) {
    auto const life = std::find_if(mLives.begin(), mLives.end(),
                                   [&](Life const& one) { return one.epoch == pack.header.epoch; });
    KXPackReceiver& receiver = mReceivers.of(pack.header.epoch);
    KXPackReceiver::Arrival const arrival = receiver.onPack(pack.header);
    life->holes += arrival.dropped;
    std::vector<int> const numbers = numbersIn(*pack.bytes, pack.header.count);
    for (std::uint32_t i = arrival.from; i < pack.header.count; ++i) {
      EXPECT_EQ(pack.header.first + i, static_cast<std::uint64_t>(numbers[i]));
      bool const isGivenUp = numbers[i] % 50 < 7;
      bool const isNew = (isGivenUp ? life->unhandled : life->handled).insert(numbers[i]).second;
      EXPECT_TRUE(isNew || mHasRestarts) << numbers[i] << " was handled again";
      if (isGivenUp) {
        receiver.onUnhandled();
      } else {
        receiver.onHandled();
      }
      if (mRandom() % 8 == 0) mAcks.put(receiver.ack(), mNowMs);
    }
    mAcks.put(receiver.ack(), mNowMs);
  }

  void check() {
    for (Life const& life : mLives) {
      KXNotificationCounts const& counts = life.sender.getCounts();
      EXPECT_LE(counts.delivered + counts.unhandled, life.handled.size() + life.unhandled.size());
    }
    Life const& last = mLives.back();
    KXNotificationCounts const& counts = last.sender.getCounts();
    EXPECT_EQ(counts.waiting, 0u);
    EXPECT_EQ(counts.posted, static_cast<std::uint64_t>(last.posted));
    EXPECT_EQ(counts.delivered + counts.unhandled, last.handled.size() + last.unhandled.size());
    if (mHasRestarts) return;
    EXPECT_EQ(counts.delivered, last.handled.size());
    EXPECT_EQ(counts.unhandled, last.unhandled.size());
    EXPECT_EQ(counts.dropped, last.holes);
  }

  std::mt19937 mRandom;
  bool const mHasRestarts;
  std::int64_t mNowMs = 0;
  std::vector<Life> mLives;
  KXPackReceivers mReceivers;
  Channel<KXOutgoingPack> mPacks;
  Channel<KXPackAck> mAcks;
};

TEST(PackPair, LosesNothingOverABadChannel) {
  testing::forSeeds(300, [](std::uint32_t seed) { Pair(seed, 0.3, false).run(); });
}

TEST(PackPair, LosesNothingOverAnAwfulChannel) {
  testing::forSeeds(100, [](std::uint32_t seed) { Pair(seed, 0.7, false).run(); });
}

TEST(PackPair, SkipsNothingWhenEitherEndBeginsAnew) {
  testing::forSeeds(300, [](std::uint32_t seed) { Pair(seed, 0.2, true).run(); });
}

}  // namespace
}  // namespace KX
