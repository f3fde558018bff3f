#include <kx/text.hpp>

#include <array>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KX::tool {
namespace {

using ::testing::ElementsAre;

using namespace std::string_literals;

struct Case {
  std::string given;
  std::string expected;
};

TEST(Utf8Repair, ReplacesEachByteThatBelongsToNoCharacter) {
  std::string const r = "\xEF\xBF\xBD";
  std::array const cases{
      Case{"plain", "plain"},
      Case{"gr\xC3\xBC\xC3\x9F"s, "gr\xC3\xBC\xC3\x9F"s},
      Case{"\xF0\x9F\xA4\x96", "\xF0\x9F\xA4\x96"},
      Case{"a\xFFz", "a" + r + "z"},
      Case{"\xC3", r},                          // cut short
      Case{"\xC0\xAF", r + r},                  // longer than needed
      Case{"\xE0\x80\xAF", r + r + r},          // longer than needed
      Case{"\xED\xA0\x80", r + r + r},          // half of a pair
      Case{"\xF4\x90\x80\x80", r + r + r + r},  // beyond the last
      Case{"\x80", r},                          // in the middle of nothing
      Case{"a\0b"s, "a\0b"s},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.given));
    EXPECT_EQ(c.expected, asUtf8(c.given));
  }
}

TEST(TerminalText, EscapesWhateverWouldMoveTheCursor) {
  std::array const cases{
      Case{"a b\\n", "a b\\n"},
      Case{"a\nb\rc\td", "a\\nb\\rc\\td"},
      Case{"\x1b[2J", "\\x1b[2J"},
      Case{"\0\x07\x7F"s, "\\x00\\x07\\x7f"},
      Case{"\xC2\x9B"s + "31m", "\\u009b31m"},
      Case{"\xE2\x80\xA8", "\\u2028"},
      Case{"\x9B"s, "\xEF\xBF\xBD"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(c.expected, forTerminal(c.given));
  }
}

TEST(FitToWidth, FillsUpWhatIsShort) {
  EXPECT_EQ("ab   ", fitToWidth("ab", 5));
}

TEST(FitToWidth, CutsTheEnd) {
  EXPECT_EQ("abc\xE2\x80\xA6", fitToWidth("abcdef", 4));
}

TEST(FitToWidth, CutsTheStart) {
  EXPECT_EQ("\xE2\x80\xA6wxyz", fitToWidth("abcdefwxyz", 5, KXCut::Start));
  EXPECT_EQ("\xE2\x80\xA6", fitToWidth("abc", 1, KXCut::Start));
}

TEST(FitToWidth, CountsCharactersAndNotBytes) {
  EXPECT_EQ("\xC3\xA4\xC3\xB6", fitToWidth("\xC3\xA4\xC3\xB6", 2));
  EXPECT_EQ("\xC3\xA4\xE2\x80\xA6", fitToWidth("\xC3\xA4\xC3\xB6\xC3\xBC", 2));
}

TEST(FitToWidth, OfNoWidthIsEmpty) {
  EXPECT_EQ("", fitToWidth("abc", 0));
}

TEST(NearestNames, ToleratesTheUsualSlips) {
  std::vector<std::string> const names{"watch", "list", "describe"};
  std::array const cases{
      Case{"wach", "watch"},
      Case{"wacth", "watch"},
      Case{"watchh", "watch"},
      Case{"WATCH", "watch"},
      Case{"lsit", "list"},
      Case{"discribe", "describe"},
      Case{"descrbie", "describe"},
      Case{"record", ""},
      Case{"", ""},
      Case{"x", ""},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.given);
    std::vector<std::string> const found = nearest(c.given, names);
    EXPECT_EQ(c.expected, found.empty() ? "" : found.front());
  }
}

TEST(NearestNames, AreTheFirstThreeOfThoseEquallyNear) {
  std::vector<std::string> const names{"arm/q11", "arm/q1", "leg", "arm/q2", "arm/q4"};

  EXPECT_THAT(nearest("arm/q3", names), ElementsAre("arm/q1", "arm/q2", "arm/q4"));
  EXPECT_THAT(nearest("arm/q12", names), ElementsAre("arm/q11", "arm/q1", "arm/q2"));
}

TEST(NearestNames, AreNamedInTheHint) {
  std::vector<std::string> const names{"a1", "a2"};

  EXPECT_EQ("; nearest are 'a1', 'a2'", nearestHint("a3", names));
}

TEST(NearestNames, IsNamedInTheHint) {
  std::vector<std::string> const names{"evil\x1b[2J"};

  EXPECT_EQ("; nearest is 'evil\\x1b[2J'", nearestHint("evil[2J", names));
  EXPECT_EQ("", nearestHint("something else", names));
}

}  // namespace
}  // namespace KX::tool
