#include <host/ka/loglines.hpp>

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ka::log {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

Record record(int level, std::string const& text, std::string const& category = "net",
              std::string const& function = "send") {
  return Record{level, {}, category, "file.cpp", function, 7, text};
}

/// Lines with a clock that stands still until it is moved.
class Held : public testing::Test {
 protected:
  std::vector<std::string> take(Record const& entry) { return mLines.take(entry, mNow); }
  void move(milliseconds step) { mNow += step; }

  LogLines mLines;
  LogLines::TimePoint mNow{std::chrono::hours(5)};
};

TEST(Line, ShowsLevelCategoryFunctionAndText) {
  LogLines lines;

  EXPECT_THAT(lines.take(record(Error, "it broke"), {}), ElementsAre("[error] net.send: it broke"));
}

TEST(Line, HasNoFunctionWhereTheRecordHasNone) {
  LogLines lines;

  EXPECT_THAT(lines.take(record(Warning, "beware", "net", ""), {}),
              ElementsAre("[warning] net: beware"));
}

TEST(Line, NamesEveryLevel) {
  struct Row {
    int level;
    std::string expected;
  };
  Row const rows[] = {{Fatal, "[fatal] c: t"},     {Error, "[error] c: t"},
                      {Warning, "[warning] c: t"}, {Info, "[info] c: t"},
                      {Verbose, "[verbose] c: t"}, {Debug, "[debug] c: t"},
                      {-3, "[level -3] c: t"},     {9, "[level 9] c: t"}};
  for (auto const& row : rows) {
    SCOPED_TRACE(row.level);
    LogLines lines;

    EXPECT_THAT(lines.take(record(row.level, "t", "c", ""), {}), ElementsAre(row.expected));
  }
}

TEST(Line, EndsOnceThoughTheTextEndsWithALineBreak) {
  LogLines lines;

  EXPECT_THAT(lines.take(record(Error, "a\n", "c", ""), {}), ElementsAre("[error] c: a"));
  EXPECT_THAT(lines.take(record(Error, "a\n\n", "c", ""), {}), ElementsAre("[error] c: a\\n"));
}

TEST(Line, EscapesInEachOfItsParts) {
  LogLines lines;

  EXPECT_THAT(lines.take(record(Error, "x\ny", "c\x1b", "f\r"), {}),
              ElementsAre("[error] c\\x1b.f\\r: x\\ny"));
}

TEST(Printable, EscapesWhatATerminalObeysAndWhatIsNoUtf8) {
  struct Row {
    std::string_view text;
    std::string expected;
  };
  using namespace std::string_view_literals;
  Row const rows[] = {
      {"", ""},
      {"plain text ~ \\n", "plain text ~ \\n"},
      {"\n\r\t\0\x1f\x7f"sv, "\\n\\r\\t\\x00\\x1f\\x7f"},
      {"\x1b[31mred", "\\x1b[31mred"},
      {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\xa4\x96", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\xa4\x96"},
      {"\xc2\x9b\x33\x31m", "\\xc2\\x9b31m"},  // the one-character form of ESC [
      {"\xc2\xa0", "\xc2\xa0"},                // the first that is no control character
      {"\xff\xfe", "\\xff\\xfe"},              // never in UTF-8
      {"\xe2\x82", "\\xe2\\x82"},              // cut short
      {"\xe2(\x82", "\\xe2(\\x82"},            // broken by another character
      {"\x80\xbf", "\\x80\\xbf"},              // continuations of nothing
      {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},  // overlong
      {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},           // overlong
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},                    // a surrogate
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},           // beyond Unicode
      {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},           // beyond Unicode
      {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},               // the last character
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.expected);
    EXPECT_EQ(row.expected, printable(row.text));
  }
}

TEST_F(Held, RepeatedWarningsWithinASecondAreHeldBackAndTold) {
  EXPECT_THAT(take(record(Warning, "lost 1")), ElementsAre("[warning] net.send: lost 1"));

  for (int i = 0; i < 17; ++i) EXPECT_THAT(take(record(Warning, "lost again")), IsEmpty());
  move(milliseconds(999));
  EXPECT_THAT(take(record(Warning, "lost again")), IsEmpty());
  move(milliseconds(1));

  EXPECT_THAT(take(record(Warning, "lost 20")),
              ElementsAre("[warning] net.send: lost 20 (18 more held back before)"));
}

TEST_F(Held, TheCountStartsAnewAfterItWasTold) {
  for (int i = 0; i < 3; ++i) take(record(Warning, "a"));
  move(milliseconds(1000));
  take(record(Warning, "a"));
  take(record(Warning, "a"));
  move(milliseconds(1000));

  EXPECT_THAT(take(record(Warning, "a")),
              ElementsAre("[warning] net.send: a (1 more held back before)"));
}

TEST_F(Held, NothingIsSaidWhereNothingWasHeldBack) {
  take(record(Warning, "a"));
  move(milliseconds(1000));

  EXPECT_THAT(take(record(Warning, "a")), ElementsAre("[warning] net.send: a"));
}

TEST_F(Held, ASecondCountsFromTheLineThatWasWritten) {
  take(record(Warning, "a"));
  move(milliseconds(1500));
  take(record(Warning, "a"));
  move(milliseconds(999));

  EXPECT_THAT(take(record(Warning, "a")), IsEmpty());
}

TEST_F(Held, CategoriesAndFunctionsAreHeldApart) {
  EXPECT_THAT(take(record(Warning, "a", "one", "f")), ElementsAre("[warning] one.f: a"));
  EXPECT_THAT(take(record(Warning, "a", "one", "g")), ElementsAre("[warning] one.g: a"));
  EXPECT_THAT(take(record(Warning, "a", "two", "f")), ElementsAre("[warning] two.f: a"));

  EXPECT_THAT(take(record(Warning, "b", "one", "g")), IsEmpty());
}

TEST_F(Held, OnlyWarningsAre) {
  for (int const level : {int{Fatal}, int{Error}, int{Info}, int{Verbose}, int{Debug}, 0, 7}) {
    SCOPED_TRACE(level);
    take(record(level, "a"));

    EXPECT_EQ(1U, take(record(level, "a")).size());
  }
}

TEST_F(Held, AnErrorOfTheSameSourceIsWrittenAndLeavesTheCount) {
  take(record(Warning, "a"));
  take(record(Warning, "a"));

  EXPECT_THAT(take(record(Error, "broken")), ElementsAre("[error] net.send: broken"));
  move(milliseconds(1000));
  EXPECT_THAT(take(record(Warning, "a")),
              ElementsAre("[warning] net.send: a (1 more held back before)"));
}

TEST_F(Held, AnyRecordTellsTheCountOfASourceThatFellSilent) {
  for (int i = 0; i < 5; ++i) take(record(Warning, "a"));

  move(milliseconds(999));
  EXPECT_THAT(take(record(Info, "b", "other", "")), ElementsAre("[info] other: b"));
  move(milliseconds(1));
  EXPECT_THAT(take(record(Info, "b", "other", "")),
              ElementsAre("[warning] net.send: 4 more held back", "[info] other: b"));
  EXPECT_THAT(take(record(Info, "b", "other", "")), ElementsAre("[info] other: b"));
}

TEST_F(Held, AWarningThatIsHeldBackItselfTellsTheCountsOfOthers) {
  take(record(Warning, "a", "one"));
  take(record(Warning, "a", "one"));
  move(milliseconds(500));
  take(record(Warning, "a", "two"));
  move(milliseconds(500));

  EXPECT_THAT(take(record(Warning, "a", "two")),
              ElementsAre("[warning] one.send: 1 more held back"));
}

TEST_F(Held, TheRestIsToldOnceAtTheEnd) {
  for (int i = 0; i < 3; ++i) take(record(Warning, "a", "one"));
  for (int i = 0; i < 2; ++i) take(record(Warning, "a", "two"));
  take(record(Warning, "a", "three"));

  EXPECT_THAT(mLines.takeRest(), UnorderedElementsAre("[warning] one.send: 2 more held back",
                                                      "[warning] two.send: 1 more held back"));
  EXPECT_THAT(mLines.takeRest(), IsEmpty());
}

TEST_F(Held, TheOldestSourceGivesWayWhenTooManyAreRemembered) {
  take(record(Warning, "a", "oldest"));
  take(record(Warning, "a", "oldest"));
  move(milliseconds(1));
  for (std::size_t i = 1; i < LogLines::kMaxSources; ++i)
    EXPECT_EQ(1U, take(record(Warning, "a", std::to_string(i))).size());

  EXPECT_THAT(
      take(record(Warning, "a", "one too many")),
      ElementsAre("[warning] oldest.send: 1 more held back", "[warning] one too many.send: a"));
  EXPECT_THAT(take(record(Warning, "a", "200")), IsEmpty());
  EXPECT_THAT(take(record(Warning, "a", "oldest")), ElementsAre("[warning] oldest.send: a"));
}

}  // namespace
}  // namespace ka::log
