// What a caller says in its requests of the calls before, and whom it takes for the server.
#include <host/bus/kxdestination.hpp>

#include <deque>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char const* kOne = "00000000000000aa";
constexpr char const* kOther = "00000000000000bb";

class Destination : public ::testing::Test {
 protected:
  KXCallId begin() { return mDestination.begin(mCalls.emplace_back()); }
  void end(std::uint64_t number) { mDestination.pending.erase(number); }
  void lose(std::uint64_t number) {
    end(number);
    mDestination.giveUp(number);
  }

  KXDestination mDestination{"M"};
  std::deque<KXPendingCall> mCalls;
};

TEST_F(Destination, CountsItsCallsAndSaysUpToWhichNoneIsWaitedFor) {
  KXCallId const first = begin();
  KXCallId const second = begin();
  end(1);
  KXCallId const third = begin();
  end(3);
  end(2);

  EXPECT_EQ(first.number, 1U);
  EXPECT_EQ(first.done, 0U);
  EXPECT_EQ(second.number, 2U);
  EXPECT_EQ(second.done, 0U);
  EXPECT_EQ(third.done, 1U);
  EXPECT_EQ(begin().done, 3U);
  EXPECT_EQ(third.caller, mDestination.callerId);
}

TEST_F(Destination, NamesWhatWasGivenUpUntilTheServerHasReadIt) {
  for (int i = 0; i < 4; ++i) begin();
  lose(3);
  lose(1);

  KXCallId const told = begin();
  EXPECT_THAT(told.lost, ElementsAre(1U)) << "2 is still waited for";
  lose(2);
  mDestination.hasRead(told);
  end(4);

  KXCallId const next = begin();
  EXPECT_EQ(next.done, 4U);
  EXPECT_THAT(next.lost, ElementsAre(2U, 3U));
  mDestination.hasRead(next);
  EXPECT_THAT(begin().lost, IsEmpty());
}

TEST_F(Destination, IsDoneWithNoMoreThanItCanName) {
  for (std::uint64_t i = 1; i <= KXCallId::kMaxLost + 10; ++i) {
    begin();
    lose(i);
  }

  KXCallId const first = begin();
  EXPECT_EQ(first.lost.size(), KXCallId::kMaxLost);
  EXPECT_EQ(first.done, KXCallId::kMaxLost);
  mDestination.hasRead(first);
  end(first.number);

  KXCallId const second = begin();
  EXPECT_EQ(second.lost.size(), 10U);
  EXPECT_EQ(second.done, first.number);
}

TEST_F(Destination, ForgetsTheOldestOfVeryManyThatWereGivenUp) {
  for (std::uint64_t i = 1; i <= KXDestination::kMaxLost + 1; ++i) {
    begin();
    lose(i);
  }

  EXPECT_EQ(begin().lost.front(), 2U);
}

TEST_F(Destination, AsksTheServerThatItHasHeardOf) {
  EXPECT_EQ(begin().to, "");
  mDestination.learn(kOne);
  EXPECT_EQ(begin().to, kOne);
  mDestination.learn(kOther);
  EXPECT_EQ(begin().to, kOther);
  for (std::string const nothing : {"", "x", "00000000000000bb0", "0000000000000\nbb"}) {
    mDestination.learn(nothing);
    EXPECT_EQ(begin().to, kOther) << nothing;
  }
}

TEST_F(Destination, DoesNotGoBackToAServerThatWasReplaced) {
  mDestination.learn(kOne);
  mDestination.learn(kOther);

  mDestination.learn(kOne);
  EXPECT_EQ(mDestination.instance, kOther);
  EXPECT_EQ(mDestination.formerInstance, kOne);

  mDestination.moveTo(kOne);
  EXPECT_EQ(mDestination.instance, kOne);
  EXPECT_EQ(mDestination.formerInstance, kOther);
}

TEST_F(Destination, RemembersWhoWasThereBeforeNobodyWas) {
  mDestination.learn(kOne);
  mDestination.forgetInstance();
  mDestination.forgetInstance();
  EXPECT_EQ(begin().to, "");

  mDestination.learn(kOther);
  EXPECT_EQ(mDestination.formerInstance, kOne);

  mDestination.forgetInstance();
  mDestination.learn(kOther);
  EXPECT_EQ(mDestination.instance, kOther);
  EXPECT_EQ(mDestination.formerInstance, "") << "it came back, and is not its own predecessor";
}

TEST(Destinations, AreFoundByModuleAndByCaller) {
  KXDestinations destinations;

  auto const one = destinations.find("One");

  EXPECT_EQ(destinations.find("One"), one);
  EXPECT_NE(destinations.find("Other"), one);
  EXPECT_EQ(destinations.findCaller(one->callerId), one.get());
  EXPECT_EQ(destinations.findCaller("0123456789abcdef"), nullptr);
}

TEST(Destinations, ForgetThoseThatNobodyUses) {
  KXDestinations destinations;
  auto const used = destinations.find("Used");
  std::string const unused = destinations.find("Unused")->callerId;

  for (int i = 0; i < 1000; ++i) destinations.find("M" + std::to_string(i));

  EXPECT_EQ(destinations.all().size(), 1000U);
  EXPECT_EQ(destinations.findCaller(unused), nullptr);
  EXPECT_EQ(destinations.findCaller(used->callerId), used.get());
}

}  // namespace
}  // namespace KX
