#include <kx/watch/table.hpp>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kx/text.hpp>
#include <kx/watch/writers.hpp>

namespace KX::tool {
namespace {

using ::testing::_;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr std::int64_t kTimeUs = 1'700'000'000'123'000;
constexpr KXTerminal kPipe{};
constexpr KXTerminal kScreen{.isLive = true, .hasColor = true, .columns = 60, .rows = 8};

/// One batch of a watch of one key.
KXFetched batchAt(std::int64_t timeUs) {
  return {{{timeUs, {KXValue(1)}}}, {}};
}

KXTable tableOf(std::size_t keyCount) {
  KXWatchedKeys keys;
  for (std::size_t i = 0; i < keyCount; ++i) keys.data.push_back("key" + std::to_string(i));
  return KXTable(keys);
}

TEST(Readable, RoundsFloats) {
  EXPECT_EQ("0.3333", readable(1.0 / 3));
  EXPECT_EQ("12.35", readable(12.3456));
  EXPECT_EQ("123456.8", readable(123456.78));
  EXPECT_EQ("22835490816", readable(22835490816.0));
  EXPECT_EQ("1e+300", readable(1e300));
}

TEST(Readable, ShowsEveryType) {
  EXPECT_EQ("-", readable(KXValue()));
  EXPECT_EQ("true", readable(true));
  EXPECT_EQ("-7", readable(-7));
  EXPECT_EQ("text", readable("text"));
  EXPECT_EQ("[\"eth0\",true]", readable(KXValue::arrayOf("eth0", true)));
}

TEST(Readable, EscapesControlCharacters) {
  EXPECT_EQ("\\x1b[2J\\n", readable("\x1b[2J\n"));
  EXPECT_THAT(readable(KXValue::arrayOf("\x7F")), HasSubstr("\\x7f"));
}

TEST(Table, HasALinePerKeyInTheOrderOfTheWatch) {
  KXTable table({.data = {"b"}, .unknown = {"a"}, .events = {"e"}});
  table.add({{kTimeUs, "b", 1}, {kTimeUs, "e", "up"}});

  auto const lines = table.lines(kPipe);

  ASSERT_EQ(5U, lines.size());
  EXPECT_THAT(lines[0], HasSubstr("3 keys, 2 samples"));
  EXPECT_THAT(lines[1], StartsWith("KEY"));
  EXPECT_THAT(lines[2], StartsWith("b    1 "));
  EXPECT_THAT(lines[2], EndsWith("       1"));
  EXPECT_THAT(lines[2], HasSubstr(".123"));
  EXPECT_THAT(lines[3], StartsWith("a    - "));
  EXPECT_THAT(lines[3], EndsWith("       0"));
  EXPECT_THAT(lines[4], StartsWith("e    up "));
}

TEST(Table, EscapesKeys) {
  KXTable const table({.data = {"\x1b]0;title\x07"}});

  EXPECT_THAT(table.lines(kPipe).back(), StartsWith("\\x1b]0;title\\x07"));
}

TEST(Table, FitsTheTerminal) {
  KXWatchedKeys const keys{.data = {std::string(100, 'k') + "end", "\xC3\xA4short"}};
  for (int const columns : {1, 10, 20, 28, 40, 60, 200}) {
    SCOPED_TRACE(columns);
    KXTable table(keys);
    table.add({{kTimeUs, "\xC3\xA4short", std::string(500, 'v')}});
    for (std::string const& line :
         table.lines({.isLive = true, .hasColor = false, .columns = columns, .rows = 24})) {
      EXPECT_LT(displayWidth(line), static_cast<std::size_t>(columns)) << line;
    }
  }
}

TEST(Table, ShowsTheEndOfAKeyThatIsTooLong) {
  KXTable const table({.data = {"Host/" + std::string(100, 'k') + "/end"}});

  std::string const line = table.lines(kScreen).back();

  EXPECT_THAT(line, StartsWith("\xE2\x80\xA6kk"));
  EXPECT_THAT(line, HasSubstr("/end "));
}

TEST(Table, LeavesOutColumnsWhereKeysWouldFindNoRoom) {
  KXTable table({.data = {"Host/Network/eth0/ReceivedBytesPerSecond", "Host/Cpu/Usage"}});
  table.add({{kTimeUs, "Host/Cpu/Usage", 12.5}});
  auto const shown = [&](int columns) {
    return table.lines({.isLive = true, .hasColor = false, .columns = columns, .rows = 24});
  };

  EXPECT_THAT(shown(80)[1], AllOf(HasSubstr("TAKEN"), HasSubstr("SAMPLES")));
  EXPECT_THAT(shown(50)[1], AllOf(HasSubstr("TAKEN"), Not(HasSubstr("SAMPLES"))));
  EXPECT_THAT(shown(40), ElementsAre(_, "KEY                        VALUE       ",
                                     "\xE2\x80\xA6"
                                     "0/ReceivedBytesPerSecond  -           ",
                                     "Host/Cpu/Usage             12.5        "));
  EXPECT_THAT(shown(24)[3], StartsWith("\xE2\x80\xA6"
                                       "Cpu/Usage  12.5"));
}

TEST(Table, TellsOfKeysThatFindNoRoom) {
  auto const lines = tableOf(10).lines(kScreen);

  EXPECT_EQ(7U, lines.size());
  EXPECT_EQ("and 6 more: enlarge the window", lines.back());
  EXPECT_EQ(12U, tableOf(10).lines(kPipe).size());
}

TEST(Table, GoesBackOverTheOneBefore) {
  KXTable table = tableOf(2);

  std::string const first = table.draw(kScreen);
  std::string const second = table.draw(kScreen);

  EXPECT_THAT(first, Not(HasSubstr("\x1b[J")));
  EXPECT_THAT(second, StartsWith("\x1b[4A\r\x1b[J"));
}

// A line of the log came between: neither it nor the table may be wiped out in part.
TEST(Table, BeginsAnewBelowWhatSomebodyElseWrote) {
  KXTable table = tableOf(2);
  KXTerminal disturbed = kScreen;
  disturbed.isDisturbed = true;
  table.draw(kScreen);

  EXPECT_THAT(table.draw(disturbed), Not(HasSubstr("\x1b[J")));
  EXPECT_THAT(table.draw(kScreen), StartsWith("\x1b[4A\r\x1b[J"));
}

TEST(Table, HasColorOnlyWhereItIsWanted) {
  KXTable table = tableOf(2);
  KXTerminal const plain{.isLive = true, .hasColor = false, .columns = 60, .rows = 8};

  EXPECT_THAT(table.draw(kScreen), HasSubstr("\x1b[1mKEY"));
  EXPECT_THAT(table.draw(plain), Not(HasSubstr("\x1b[1m")));
  EXPECT_THAT(table.draw(kPipe), Not(HasSubstr("\x1b")));
}

TEST(TableWriter, PrintsATableForEverySecondOfSamples) {
  auto const writer = makeWriter(KXFormat::Table, {.data = {"a"}}, [] { return kPipe; });
  auto const at = [&](std::int64_t ms, bool isLast) {
    return writer->next(batchAt(kTimeUs + ms * 1000), isLast);
  };

  EXPECT_THAT(at(0, false), HasSubstr("1 key, 1 sample\n"));
  EXPECT_EQ("", at(500, false));
  EXPECT_EQ("", at(999, false));
  EXPECT_THAT(at(1000, false), HasSubstr("4 samples"));
  EXPECT_THAT(at(1100, true), HasSubstr("5 samples"));
}

TEST(TableWriter, GoesOnWhenTheWallClockIsSetBack) {
  auto const writer = makeWriter(KXFormat::Table, {.data = {"a"}}, [] { return kPipe; });
  writer->next(batchAt(kTimeUs), false);

  EXPECT_THAT(writer->next(batchAt(kTimeUs - 3'600'000'000), false), HasSubstr("2 samples"));
}

TEST(TableWriter, ShowsAtTheEndThatNothingCame) {
  auto const writer = makeWriter(KXFormat::Table, {.events = {"e"}}, [] { return kPipe; });

  EXPECT_EQ("", writer->next({}, false));
  EXPECT_THAT(writer->next({}, true),
              AllOf(StartsWith("1 key, no sample yet\n"), HasSubstr("\ne ")));
}

TEST(TableWriter, RepeatsNothingAtTheEnd) {
  auto const writer = makeWriter(KXFormat::Table, {.data = {"a"}}, [] { return kPipe; });
  writer->next(batchAt(kTimeUs), false);

  EXPECT_EQ("", writer->next({}, true));
}

TEST(TableWriter, RedrawsATerminalWithEveryFetch) {
  auto const writer = makeWriter(KXFormat::Table, {.data = {"a"}}, [] { return kScreen; });

  EXPECT_THAT(writer->next({}, false), HasSubstr("no sample yet"));
  EXPECT_THAT(writer->next({}, false), StartsWith("\x1b["));
}

}  // namespace
}  // namespace KX::tool
