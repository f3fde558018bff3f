// The receiving end of packs: what is handled, and what the sender is told.
#include <host/bus/kxpackstream.hpp>

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KX {
namespace {

constexpr char const* kEpoch = "0123456789abcdef";

KXPackHeader header(std::uint64_t holeFrom, std::uint64_t first, std::uint32_t count,
                    std::uint64_t oldest) {
  return {kEpoch, first, count, holeFrom, oldest};
}

/// What a receiver does with a pack: the numbers that it handles and what it says.
struct Taken {
  std::vector<std::uint64_t> handled{};
  std::uint64_t dropped = 0;
  std::uint32_t repeats = 0;
  std::uint64_t next = 0;
  bool isGap = false;

  bool operator==(Taken const&) const = default;
};
void PrintTo(Taken const& outcome, std::ostream* out) {
  *out << "handled " << ::testing::PrintToString(outcome.handled) << ", " << outcome.dropped
       << " dropped, " << outcome.repeats << " repeats, next " << outcome.next
       << (outcome.isGap ? ", gap" : "");
}

Taken give(KXPackReceiver& receiver, KXPackHeader const& pack) {
  Taken outcome;
  KXPackReceiver::Arrival const arrival = receiver.onPack(pack);
  for (std::uint32_t i = arrival.from; i < pack.count; ++i) {
    outcome.handled.push_back(pack.first + i);
    receiver.onHandled();
  }
  outcome.dropped = arrival.dropped;
  outcome.repeats = arrival.repeats;
  KXPackAck const ack = receiver.ack();
  EXPECT_EQ(ack.epoch, kEpoch);
  outcome.next = ack.next;
  outcome.isGap = ack.isGap;
  return outcome;
}

TEST(PackReceiver, CountsWhatItGaveUpOfPacksThatAreOver) {
  KXPackReceiver receiver(kEpoch);
  auto const said = [&] {
    KXUnhandled const unhandled = receiver.ack().unhandled;
    return std::vector<std::uint64_t>{unhandled.from, unhandled.count};
  };

  receiver.onPack(header(5, 5, 4, 5));
  receiver.onUnhandled(2);
  EXPECT_EQ(said(), (std::vector<std::uint64_t>{5, 0}));
  receiver.onHandled();
  receiver.onUnhandled();
  EXPECT_EQ(said(), (std::vector<std::uint64_t>{5, 3}));

  receiver.onPack(header(9, 9, 2, 9));
  receiver.onUnhandled();
  EXPECT_EQ(said(), (std::vector<std::uint64_t>{5, 3}));
  receiver.onHandled();
  EXPECT_EQ(said(), (std::vector<std::uint64_t>{5, 4}));

  receiver.onPack(header(20, 20, 2, 11));  // there is a gap
  receiver.onPack(header(5, 5, 4, 5));     // had before
  EXPECT_EQ(said(), (std::vector<std::uint64_t>{5, 4}));
}

TEST(PackReceiver, DoesWhatThePackMeans) {
  struct Case {
    char const* what;
    std::vector<KXPackHeader> before;
    KXPackHeader pack;
    Taken expected;
  };
  KXPackHeader const upToFive = header(1, 1, 5, 1);
  Case const cases[] = {
      {"a new receiver begins with the oldest", {}, header(7, 7, 2, 7), {{7, 8}, 0, 0, 9, false}},
      {"or with the hole before it", {}, header(3, 7, 2, 3), {{7, 8}, 4, 0, 9, false}},
      {"else it asks for the oldest", {}, header(7, 7, 2, 4), {{}, 0, 0, 4, true}},
      {"also when it is asked", {}, header(7, 7, 0, 4), {{}, 0, 0, 4, true}},
      {"an old receiver goes on", {upToFive}, header(6, 6, 2, 6), {{6, 7}, 0, 0, 8, false}},
      {"says how far it is", {upToFive}, header(6, 6, 0, 1), {{}, 0, 0, 6, false}},
      {"and what it has not got", {upToFive}, header(8, 8, 0, 6), {{}, 0, 0, 6, true}},
      {"reports a gap", {upToFive}, header(7, 7, 1, 6), {{}, 0, 0, 6, true}},
      {"also before a hole", {upToFive}, header(7, 9, 1, 6), {{}, 0, 0, 6, true}},
      {"takes a hole", {upToFive}, header(6, 9, 1, 6), {{9}, 3, 0, 10, false}},
      {"a hole that nothing follows", {upToFive}, header(6, 9, 0, 6), {{}, 3, 0, 9, false}},
      {"a hole that it heard of in part",
       {upToFive, header(6, 8, 0, 6)},
       header(6, 10, 1, 6),
       {{10}, 2, 0, 11, false}},
      {"a hole that it heard of",
       {upToFive, header(6, 9, 1, 6)},
       header(6, 9, 1, 6),
       {{}, 0, 1, 10, false}},
      {"leaves a repeat alone", {upToFive}, upToFive, {{}, 0, 5, 6, false}},
      {"takes the rest of one it knows", {upToFive}, header(1, 1, 7, 1), {{6, 7}, 0, 5, 8, false}},
      {"an old repeat is no gap", {upToFive}, header(2, 2, 1, 1), {{}, 0, 1, 6, false}},
      {"goes on where a former receiver was told to",
       {upToFive},
       header(9, 9, 1, 9),
       {{9}, 0, 0, 10, false}},
      {"and asks from there", {upToFive}, header(11, 11, 1, 9), {{}, 0, 0, 9, true}},
      {"a gap that was closed is none",
       {upToFive, header(8, 8, 1, 6)},
       header(6, 6, 2, 6),
       {{6, 7}, 0, 0, 8, false}},
  };
  for (Case const& one : cases) {
    SCOPED_TRACE(one.what);
    KXPackReceiver receiver(kEpoch);
    for (KXPackHeader const& pack : one.before) give(receiver, pack);

    EXPECT_EQ(give(receiver, one.pack), one.expected);
  }
}

TEST(PackReceiver, SaysHowFarItIsWithinAPack) {
  KXPackReceiver receiver(kEpoch);
  receiver.onPack(header(1, 1, 5, 1));
  receiver.onHandled();
  receiver.onHandled();

  EXPECT_EQ(receiver.ack().next, 3u);
  EXPECT_FALSE(receiver.ack().isGap);
}

TEST(PackReceiver, BearsTheLargestNumbers) {
  constexpr std::uint64_t kLast = ~0ull;
  KXPackReceiver receiver(kEpoch);

  EXPECT_EQ(give(receiver, header(1, kLast - 2, 2, 1)),
            (Taken{{kLast - 2, kLast - 1}, kLast - 3, 0, kLast, false}));
  EXPECT_EQ(give(receiver, header(1, 1, 3, 1)), (Taken{{}, 0, 3, kLast, false}));
}

std::string epochOf(int number) {
  std::string text = std::to_string(number);
  return std::string(16 - text.size(), '0') + text;
}

TEST(PackReceivers, KeepEachSendersNumbering) {
  KXPackReceivers receivers;
  for (int sender = 0; sender < 16; ++sender) {
    receivers.of(epochOf(sender)).onPack({epochOf(sender), 1, 0, 1, 1});
    for (int i = 0; i <= sender; ++i) receivers.of(epochOf(sender)).onHandled();
  }

  for (int sender = 0; sender < 16; ++sender) {
    EXPECT_EQ(receivers.of(epochOf(sender)).ack().epoch, epochOf(sender));
    EXPECT_EQ(receivers.of(epochOf(sender)).ack().next, sender + 2u);
  }
}

TEST(PackReceivers, ForgetTheOneThatWasSilentForLongest) {
  KXPackReceivers receivers;
  for (int sender = 0; sender < 16; ++sender) {
    receivers.of(epochOf(sender)).onPack({epochOf(sender), 1, 0, 1, 1});
  }
  receivers.of(epochOf(0));
  receivers.of(epochOf(16));

  EXPECT_EQ(receivers.getCount(), 16u);
  EXPECT_EQ(receivers.of(epochOf(0)).ack().next, 1u);
  EXPECT_EQ(receivers.of(epochOf(1)).ack().next, 0u);  // begins anew
  for (int sender = 1; sender < 100'000; ++sender) receivers.of(epochOf(sender));
  EXPECT_EQ(receivers.getCount(), 16u);
}

}  // namespace
}  // namespace KX
