// The sending end of packs: what goes when, and what becomes of it.
#include <host/bus/kxpackstream.hpp>

#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/bus/notifications.hpp>

namespace KX {

bool operator==(KXNotificationCounts const& one, KXNotificationCounts const& other) {
  auto const all = [](KXNotificationCounts const& counts) {
    return std::tie(counts.posted, counts.delivered, counts.dropped, counts.waiting,
                    counts.waitingBytes, counts.unhandled);
  };
  return all(one) == all(other);
}
void PrintTo(KXNotificationCounts const& counts, std::ostream* out) {
  *out << counts.posted << " posted = " << counts.delivered << " delivered + " << counts.dropped
       << " dropped + " << counts.unhandled << " unhandled + " << counts.waiting << " waiting, "
       << counts.waitingBytes << " bytes";
}

namespace {

using KX::testing::numbered;
using KX::testing::numberedFrom;
using KX::testing::numbersIn;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char const* kEpoch = "0123456789abcdef";

/// A pack that went, in short.
struct Sent {
  std::uint64_t holeFrom;
  std::uint64_t first;
  std::uint64_t oldest;
  std::vector<int> numbers;

  bool operator==(Sent const&) const = default;
};
void PrintTo(Sent const& sent, std::ostream* out) {
  *out << "hole from " << sent.holeFrom << ", first " << sent.first << ", oldest " << sent.oldest
       << ", numbers " << ::testing::PrintToString(sent.numbers);
}

/// A sender, what it sends, and the time.
class PackSender : public ::testing::Test {
 protected:
  /// All that it sends now.
  std::vector<Sent> taken() {
    std::vector<Sent> all;
    while (sender.hasToSend(nowMs)) {
      auto const pack = sender.take(nowMs);
      if (!pack) {
        ADD_FAILURE() << "has something to send, and does not give it";
        break;
      }
      EXPECT_EQ(pack->header.epoch, kEpoch);
      EXPECT_EQ(pack->header.count, numbersIn(*pack->bytes, pack->header.count).size());
      all.push_back({pack->header.holeFrom, pack->header.first, pack->header.oldest,
                     numbersIn(*pack->bytes, pack->header.count)});
    }
    EXPECT_FALSE(sender.take(nowMs));
    return all;
  }
  /// Only their numbers.
  std::vector<std::vector<int>> takenNumbers() {
    std::vector<std::vector<int>> all;
    for (Sent& sent : taken()) all.push_back(std::move(sent.numbers));
    return all;
  }
  void ack(std::uint64_t next, bool isGap = false) { sender.onAck({kEpoch, next, isGap}, nowMs); }
  /// Puts the numbers in packs of one each and sends them.
  void sendFull(int first, int last) {
    sender.post(numberedFrom(first, last, kFull));
    taken();
  }

  // A pack holds one such notification, ten may be in flight, and twenty wait.
  static constexpr std::size_t kFull = 1000;
  static constexpr std::size_t kBytes = kFull + 20;  // as it is encoded
  static constexpr KXPackLimits kLimits{
      .pack = kFull, .message = 4 * kFull, .inFlight = 10 * kBytes, .waiting = 20 * kBytes};

  KXPackSender sender{kEpoch, kLimits};
  std::int64_t nowMs = 5000;
};

TEST_F(PackSender, HasNothingToSendAtFirst) {
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_EQ(sender.getCounts(), KXNotificationCounts{});
}

TEST_F(PackSender, SendsASingleOneAtOnce) {
  sender.post({numbered(1)});

  EXPECT_THAT(taken(), ElementsAre(Sent{1, 1, 1, {1}}));
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{.posted = 1, .waiting = 1}));
}

TEST_F(PackSender, PacksWhatIsPostedUntilAnAcknowledgementComes) {
  sender.post({numbered(1)});
  taken();
  sender.post({numbered(2)});
  sender.post({numbered(3), numbered(4)});

  EXPECT_THAT(taken(), IsEmpty());
  ack(2);
  EXPECT_THAT(taken(), ElementsAre(Sent{2, 2, 2, {2, 3, 4}}));
  ack(5);
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{.posted = 4, .delivered = 4}));
}

TEST_F(PackSender, SendsAFullPackThoughAnotherIsInFlight) {
  sender.post({numbered(1)});
  taken();
  sender.post(numberedFrom(2, 3, kFull));

  EXPECT_THAT(taken(), ElementsAre(Sent{2, 2, 1, {2}}, Sent{3, 3, 1, {3}}));
}

TEST_F(PackSender, SendsAPackThatIsToGrowNoMore) {
  sender.post({numbered(1)});
  taken();
  sender.post({numbered(2), numbered(3, kFull - 50), numbered(4, 100)});

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{2, 3}));
}

TEST_F(PackSender, KeepsTheBoundOfWhatIsInFlight) {
  sender.post(numberedFrom(1, 15, kFull));

  EXPECT_EQ(taken().size(), 10u);
  ack(4);
  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{11}, std::vector{12}, std::vector{13}));
}

TEST_F(PackSender, SendsAPackLargerThanTheBoundAlone) {
  KXPackLimits limits = kLimits;
  limits.inFlight = kFull / 2;
  KXPackSender narrow(kEpoch, limits);
  narrow.post(numberedFrom(1, 2, kFull));

  EXPECT_TRUE(narrow.take(nowMs));
  EXPECT_FALSE(narrow.take(nowMs));
}

TEST_F(PackSender, SendsWhatIsLargerThanAPackAlone) {
  sender.post({numbered(1), numbered(2, 2 * kFull), numbered(3)});

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{1}, std::vector{2}));
}

TEST_F(PackSender, AsksAfterTheSilenceAndLessAndLessOften) {
  sender.post({numbered(1), numbered(2)});
  taken();

  for (std::int64_t const pauseMs : {100, 200, 400, 800, 1000, 1000}) {
    SCOPED_TRACE(pauseMs);
    nowMs += pauseMs - 1;
    EXPECT_THAT(taken(), IsEmpty());
    nowMs += 1;
    EXPECT_THAT(taken(), ElementsAre(Sent{3, 3, 1, {}}));
  }
}

TEST_F(PackSender, DoesNotAskWithNothingInFlight) {
  sender.post({numbered(1)});
  taken();
  ack(2);
  nowMs += 10'000;

  EXPECT_THAT(taken(), IsEmpty());
  sender.onBack(nowMs);
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(PackSender, ProgressWithinAPackPutsOffAsking) {
  sender.post(numberedFrom(1, 5));
  taken();
  nowMs += 100;
  taken();
  nowMs += 150;
  ack(3);

  nowMs += 99;
  EXPECT_THAT(taken(), IsEmpty());
  nowMs += 1;
  EXPECT_THAT(taken(), ElementsAre(Sent{6, 6, 1, {}}));
}

TEST_F(PackSender, ARepeatedAcknowledgementIsNoProgress) {
  sendFull(1, 3);
  ack(2);
  nowMs += 99;
  ack(2);
  nowMs += 1;

  EXPECT_THAT(taken(), ElementsAre(Sent{4, 4, 2, {}}));
}

TEST_F(PackSender, GoesBackToTheFirstNotAcknowledgedAtAGap) {
  sendFull(1, 5);
  ack(3, true);

  EXPECT_THAT(taken(), ElementsAre(Sent{3, 3, 3, {3}}, Sent{4, 4, 3, {4}}, Sent{5, 5, 3, {5}}));
  EXPECT_EQ(sender.getCounts().delivered, 2u);
  EXPECT_EQ(sender.getCounts().waiting, 3u);
}

TEST_F(PackSender, GoesBackWithWhatWasPackedOnly) {
  sender.post({numbered(1)});
  taken();
  sender.post({numbered(2)});
  ack(1, true);

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{1}));
}

TEST_F(PackSender, HeedsTheReportsOfOneGapOnce) {
  sendFull(1, 5);
  ack(2, true);
  EXPECT_EQ(taken().size(), 4u);

  // The receiver says it of each pack behind the gap.
  for (int i = 0; i < 3; ++i) ack(2, true);
  EXPECT_THAT(taken(), IsEmpty());
  ack(4);
  ack(4, true);
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(PackSender, HeedsAGapOfTheNextRound) {
  sendFull(1, 3);
  ack(2, true);
  taken();
  ack(4);
  sendFull(4, 6);
  ack(4, true);

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{4}, std::vector{5}, std::vector{6}));
}

TEST_F(PackSender, HeedsTheAnswerWhenItAsked) {
  sendFull(1, 3);
  ack(2, true);
  taken();
  nowMs += 100;
  EXPECT_THAT(taken(), ElementsAre(Sent{4, 4, 2, {}}));
  ack(2, true);

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{2}, std::vector{3}));
}

TEST_F(PackSender, AGapWithNothingInFlightIsNone) {
  sendFull(1, 3);
  ack(1, true);
  ack(1, true);

  EXPECT_EQ(taken().size(), 3u);
}

TEST_F(PackSender, AcknowledgementsOfTheFormerRoundCount) {
  sendFull(1, 5);
  ack(1, true);
  EXPECT_TRUE(sender.take(nowMs));  // 1 goes again
  ack(4);                           // and had arrived with 2 and 3

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{4}, std::vector{5}));
  ack(6);
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{.posted = 5, .delivered = 5}));
}

TEST_F(PackSender, DoesNotCallDeliveredWhatWasGivenUp) {
  struct Step {
    char const* what;
    std::uint64_t next;
    KXUnhandled unhandled;
    std::uint64_t expected;
  };
  sender.post(numberedFrom(1, 12, kFull));
  for (Step const& step :
       {Step{"none", 2, {}, 0}, Step{"two of two", 4, {1, 2}, 2}, Step{"said again", 4, {1, 2}, 2},
        Step{"overtaken", 3, {1, 1}, 2}, Step{"no more", 5, {1, 2}, 2},
        Step{"one of two", 7, {1, 3}, 3}, Step{"another receiver that handles", 8, {}, 3},
        Step{"and gives up", 9, {7, 1}, 4}, Step{"more than there were", 10, {7, 1000}, 5},
        Step{"and none again", 11, {7, 1000}, 5}, Step{"the greatest", 12, {8, ~0ull}, 6}}) {
    SCOPED_TRACE(step.what);
    while (sender.take(nowMs)) {
    }

    sender.onAck({kEpoch, step.next, false, step.unhandled}, nowMs);

    KXNotificationCounts const counts = sender.getCounts();
    EXPECT_EQ(counts.unhandled, step.expected);
    EXPECT_EQ(counts.posted, counts.delivered + counts.unhandled + counts.dropped + counts.waiting);
  }
}

TEST_F(PackSender, IgnoresAcknowledgementsThatCannotBe) {
  struct Case {
    char const* what;
    KXPackAck ack;
  };
  for (Case const& wrong : {Case{"another epoch", {"fedcba9876543210", 3, false}},
                            Case{"of what was not sent", {kEpoch, 4, false}},
                            Case{"of what is not there", {kEpoch, ~0ull, true}},
                            Case{"of an empty epoch", {"", 3, true}}}) {
    SCOPED_TRACE(wrong.what);
    KXPackSender one(kEpoch, kLimits);
    one.post(numberedFrom(1, 2, kFull));
    while (one.take(nowMs)) {
    }
    one.post({numbered(3)});

    one.onAck(wrong.ack, nowMs);

    EXPECT_FALSE(one.hasToSend(nowMs));
    EXPECT_EQ(one.getCounts().delivered, 0u);
    EXPECT_EQ(one.getCounts().waiting, 3u);
  }
}

TEST_F(PackSender, AnAcknowledgementOfLongAgoChangesNothing) {
  sendFull(1, 5);
  ack(5);
  ack(2);

  EXPECT_EQ(sender.getCounts().delivered, 4u);
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(PackSender, DropsTheOldestThatWereNeverSentAndNamesTheHole) {
  sender.post(numberedFrom(1, 35, kFull));  // 20 wait, for nothing was sent

  EXPECT_EQ(sender.getCounts().dropped, 15u);
  EXPECT_THAT(taken().front(), (Sent{1, 16, 1, {16}}));
}

TEST_F(PackSender, DropsNothingThatWasSent) {
  sendFull(1, 10);
  ack(3, true);  // going back makes nothing of it new
  sender.post(numberedFrom(11, 40, kFull));

  EXPECT_EQ(sender.getCounts().dropped, 10u);
  std::vector<Sent> const sent = taken();
  ASSERT_EQ(sent.size(), 10u);
  EXPECT_EQ(sent[0], (Sent{3, 3, 3, {3}}));
  EXPECT_EQ(sent[7], (Sent{10, 10, 3, {10}}));
  EXPECT_EQ(sent[8], (Sent{11, 21, 3, {21}}));
  EXPECT_EQ(sent[9], (Sent{22, 22, 3, {22}}));
}

TEST_F(PackSender, HolesThatMeetAreOne) {
  sendFull(1, 10);
  sender.post(numberedFrom(11, 35, kFull));
  sender.post(numberedFrom(36, 36, kFull));
  ack(11);

  EXPECT_THAT(taken().front(), (Sent{11, 17, 11, {17}}));
  EXPECT_EQ(sender.getCounts().dropped, 6u);
}

TEST_F(PackSender, ANewReceiverIsToBeginBeforeTheHole) {
  sendFull(1, 10);
  sender.post(numberedFrom(11, 35, kFull));
  ack(11);
  ack(11, true);

  EXPECT_THAT(taken().front(), (Sent{11, 16, 11, {16}}));
}

TEST_F(PackSender, CountsWhatWaits) {
  sendFull(1, 10);
  sender.post(numberedFrom(11, 35, kFull));
  KXNotificationCounts const behind = sender.getCounts();
  ack(11);
  KXNotificationCounts const acknowledged = sender.getCounts();
  taken();
  KXNotificationCounts const sent = sender.getCounts();

  auto const bytesOf = [](int count) {
    std::string one;
    appendNotification(one, "onEvent", numbered(11, kFull).arguments);
    return one.size() * static_cast<std::size_t>(count);
  };
  EXPECT_EQ(behind, (KXNotificationCounts{35, 0, 5, 30, bytesOf(20)}));
  EXPECT_EQ(acknowledged, (KXNotificationCounts{35, 10, 5, 20, bytesOf(20)}));
  EXPECT_EQ(sent, (KXNotificationCounts{35, 10, 5, 20, bytesOf(10)}));
}

TEST_F(PackSender, KeepsTheNewestWhateverItsSize) {
  KXPackLimits limits = kLimits;
  limits.waiting = 10;
  KXPackSender narrow(kEpoch, limits);
  narrow.post(numberedFrom(1, 3, kFull));

  EXPECT_EQ(narrow.getCounts().dropped, 2u);
  EXPECT_EQ(narrow.take(nowMs)->header.first, 3u);
}

TEST_F(PackSender, DropsWhatNoMessageHoldsAndNamesTheHole) {
  sender.post({numbered(1), numbered(2, 5 * kFull), numbered(3)});

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{1}));
  ack(2);
  EXPECT_THAT(taken(), ElementsAre(Sent{2, 3, 2, {3}}));
  ack(4);
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{3, 2, 1, 0, 0}));
}

TEST_F(PackSender, NamesAHoleThatNothingFollows) {
  sender.post(numberedFrom(1, 2, 5 * kFull));

  EXPECT_THAT(taken(), ElementsAre(Sent{1, 3, 1, {}}));
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{2, 0, 2, 0, 0}));
  EXPECT_FALSE(sender.isDone());
  ack(3);
  EXPECT_TRUE(sender.isDone());
  nowMs += 10'000;
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(PackSender, AsksForTheHoleToBeHeardOf) {
  sender.post({numbered(1, 5 * kFull)});
  taken();
  nowMs += 100;

  EXPECT_THAT(taken(), ElementsAre(Sent{2, 2, 1, {}}));
  ack(1, true);
  EXPECT_THAT(taken(), ElementsAre(Sent{1, 2, 1, {}}));
}

TEST_F(PackSender, DropsWhatHasNoFormOnTheWire) {
  KXValue nested = KXValue::arrayOf(1);
  for (int level = 0; level < 40; ++level) nested = KXValue::arrayOf(nested);
  sender.post({numbered(1), {"onEvent", nested}, numbered(3)});

  EXPECT_THAT(takenNumbers(), ElementsAre(std::vector{1}));
  EXPECT_EQ(sender.getCounts().dropped, 1u);
}

TEST_F(PackSender, GivesUpWhatTheServerTakesNoMore) {
  sender.post({numbered(1, 3 * kFull), numbered(2, kFull)});
  KXOutgoingPack const pack = *sender.take(nowMs);
  sender.onRejected(pack.header);

  EXPECT_EQ(sender.getCounts().dropped, 1u);
  EXPECT_THAT(taken(), ElementsAre(Sent{1, 2, 1, {}}, Sent{2, 2, 1, {2}}));
  ack(3);
  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{2, 1, 1, 0, 0}));
}

TEST_F(PackSender, GivesUpNothingThatArrivedMeanwhile) {
  sender.post({numbered(1, 3 * kFull)});
  KXOutgoingPack const pack = *sender.take(nowMs);
  ack(2);
  sender.onRejected(pack.header);

  EXPECT_EQ(sender.getCounts(), (KXNotificationCounts{1, 1, 0, 0, 0}));
}

TEST_F(PackSender, WaitsLongestWhenNobodyListens) {
  sender.post({numbered(1)});
  taken();
  sender.onNoResponders(nowMs);

  nowMs += 999;
  EXPECT_THAT(taken(), IsEmpty());
  nowMs += 1;
  EXPECT_EQ(taken().size(), 1u);
  sender.onNoResponders(nowMs);
  nowMs += 1000;
  EXPECT_EQ(taken().size(), 1u);
}

TEST_F(PackSender, AsksAtOnceWhenTheConnectionOrAReceiverIsBack) {
  sendFull(1, 3);
  sender.onNoResponders(nowMs);
  sender.onBack(nowMs);

  EXPECT_THAT(taken(), ElementsAre(Sent{4, 4, 1, {}}));
  nowMs += 199;
  EXPECT_THAT(taken(), IsEmpty());
  nowMs += 1;
  EXPECT_EQ(taken().size(), 1u);
}

TEST_F(PackSender, AsksOnceForManyWhoAreBackInATenthOfASecond) {
  sendFull(1, 3);
  std::size_t asked = 0;
  std::vector<std::int64_t> timesMs;

  for (std::int64_t const endMs = nowMs + 1000; nowMs < endMs; ++nowMs) {
    for (int i = 0; i < 3; ++i) {
      sender.onBack(nowMs);
      asked += taken().size();
    }
    if (asked > timesMs.size()) timesMs.push_back(nowMs);
  }

  EXPECT_EQ(asked, 10u);
  for (std::size_t i = 1; i < timesMs.size(); ++i) EXPECT_EQ(timesMs[i], timesMs[i - 1] + 100);
}

TEST_F(PackSender, ChangesNothingOfWhatIsOnItsWay) {
  sender.post({numbered(1)});
  KXOutgoingPack const pack = *sender.take(nowMs);
  std::string const bytes = *pack.bytes;
  sender.post(numberedFrom(2, 100));
  ack(2);
  taken();

  EXPECT_EQ(*pack.bytes, bytes);
}

}  // namespace
}  // namespace KX
