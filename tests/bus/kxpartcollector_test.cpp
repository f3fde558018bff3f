// Replies put together from parts, sound and hostile ones.
#include <host/bus/kxpartcollector.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace KX {
namespace {

using State = KXPartCollector::State;

TEST(KXPartCollector, TakesAWholeReply) {
  KXPartCollector reply;

  reply.take("", "whole");

  EXPECT_EQ(reply.state(), State::Complete);
  EXPECT_FALSE(reply.hasParts());
  EXPECT_EQ(reply.takePayload(), "whole");
}

TEST(KXPartCollector, AppendsPartsInOrder) {
  KXPartCollector reply;

  reply.take("0.3", "a");
  reply.take("1.3", "bc");
  EXPECT_EQ(reply.state(), State::Waiting);
  EXPECT_EQ(reply.nextPart(), 2U);
  reply.take("2.3", "d");

  EXPECT_EQ(reply.state(), State::Complete);
  EXPECT_TRUE(reply.hasParts());
  EXPECT_EQ(reply.takePayload(), "abcd");
}

TEST(KXPartCollector, AsksAtTheEndOfAWindow) {
  KXPartCollector reply;
  for (int i = 0; i < 7; ++i) reply.take(std::to_string(i) + ".20", "x");
  EXPECT_EQ(reply.state(), State::Waiting);

  reply.take("7.20", "x");
  EXPECT_EQ(reply.state(), State::Asking);
  reply.asked();
  EXPECT_EQ(reply.state(), State::Waiting);

  for (int i = 8; i < 16; ++i) reply.take(std::to_string(i) + ".20", "x");
  EXPECT_EQ(reply.state(), State::Asking);
  EXPECT_EQ(reply.nextPart(), 16U);
}

TEST(KXPartCollector, AsksOnceForAGap) {
  KXPartCollector reply;
  reply.take("0.5", "a");

  reply.take("2.5", "c");
  EXPECT_EQ(reply.state(), State::Asking);
  reply.asked();
  reply.take("3.5", "d");
  EXPECT_EQ(reply.state(), State::Waiting) << "has been asked for";
  EXPECT_EQ(reply.nextPart(), 1U);

  for (auto const& [header, payload] : std::vector<std::pair<char const*, char const*>>{
           {"1.5", "b"}, {"2.5", "c"}, {"3.5", "d"}, {"4.5", "e"}}) {
    reply.take(header, payload);
  }
  EXPECT_EQ(reply.takePayload(), "abcde");
}

TEST(KXPartCollector, IgnoresWhatItHas) {
  KXPartCollector reply;
  reply.take("0.2", "a");

  reply.take("0.2", "other");
  reply.take("1.2", "b");
  reply.take("1.2", "late");
  reply.take("", "late");

  EXPECT_EQ(reply.takePayload(), "ab");
}

TEST(KXPartCollector, TakesAnErrorInPlaceOfTheRest) {
  KXPartCollector reply;
  reply.take("0.3", "a");

  reply.take("", "gone");

  EXPECT_EQ(reply.state(), State::Complete);
  EXPECT_EQ(reply.takePayload(), "gone");
}

TEST(KXPartCollector, SaysWhatIsNoReply) {
  struct Case {
    std::vector<std::string> headers;
    std::string payload;
    std::string fault;
  };
  std::vector<Case> const cases{
      {{"nonsense"}, "x", "it has the part header 'nonsense', expected INDEX.COUNT"},
      {{"3.3"}, "x", "it has the part header '3.3', expected INDEX.COUNT"},
      {{"0.0"}, "x", "it has the part header '0.0', expected INDEX.COUNT"},
      {{"0.4294967295"}, "x", "it is said to have 4294967295 parts, at most 1048576 are taken"},
      {{"0.3", "1.4"}, "x", "its parts contradict each other: one is of 3 parts, another of 4"},
      {{"0.3"}, "", "its part 0 is empty"},
  };
  for (Case const& given : cases) {
    SCOPED_TRACE(given.fault);
    KXPartCollector reply;

    for (std::string const& header : given.headers) reply.take(header, given.payload);

    EXPECT_EQ(reply.state(), State::Broken);
    EXPECT_EQ(reply.fault(), given.fault);
    reply.take("", "x");
    EXPECT_EQ(reply.state(), State::Broken) << "and stays so";
  }
}

}  // namespace
}  // namespace KX
