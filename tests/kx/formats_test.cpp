#include <kx/watch/formats.hpp>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool.hpp"

namespace KX::tool {
namespace {

using KX::testing::readCsv;
using nlohmann::json;
using ::testing::ElementsAre;
using namespace std::string_literals;

constexpr std::int64_t kTimeUs = 1'700'000'000'010'000;
constexpr char const* kReplaced = "\xEF\xBF\xBD";

std::vector<std::string> cellsOf(std::vector<KXValue> values) {
  std::vector<std::string> cells =
      readCsv(csvLine({kTimeUs, {values.begin(), values.end()}})).at(0);
  cells.erase(cells.begin());
  return cells;
}

TEST(Seconds, KeepEveryMicrosecond) {
  EXPECT_EQ("1700000000.010000", secondsText(kTimeUs, 6));
  EXPECT_EQ("1700000000.000007000", secondsText(1'700'000'000'000'007, 9));
  EXPECT_EQ("0.000000", secondsText(0, 6));
}

TEST(JsonLine, IsOneObjectOnOneLine) {
  EXPECT_EQ("{\"time\":1700000000.010000,\"key\":\"Host/Load\",\"value\":0.5}\n",
            jsonLine({kTimeUs, "Host/Load", 0.5}));
}

TEST(JsonLine, KeepsTheMicrosecondThroughADouble) {
  json const parsed = json::parse(jsonLine({1'795'245'887'379'087, "a", 1}));

  EXPECT_EQ(1'795'245'887'379'087, std::llround(parsed["time"].get<double>() * 1e6));
}

TEST(JsonLine, ParsesWhateverKeyAndValueHold) {
  std::vector<std::pair<KXValue, json>> const cases{
      {KXValue(), nullptr},
      {true, true},
      {-7, -7},
      {0.1, 0.1},
      {std::numeric_limits<double>::quiet_NaN(), nullptr},
      {std::numeric_limits<double>::infinity(), nullptr},
      {"a\"b\\c\n\t\x01", "a\"b\\c\n\t\x01"},
      {"\xFF\x1b"s, kReplaced + "\x1b"s},
      {KXValue::arrayOf("eth0", true, KXValue::arrayOf(1, KXValue())),
       json::array({"eth0", true, json::array({1, nullptr})})},
      {KXValue::binary("\0\xFF"s), "AP8="},
  };
  std::string const key = "\xC3\x28\"\n\0k"s;
  for (auto const& [value, expected] : cases) {
    SCOPED_TRACE(value.toString(2));
    std::string const line = jsonLine({kTimeUs, key, value});
    json const parsed = json::parse(line);
    EXPECT_EQ(1, std::count(line.begin(), line.end(), '\n'));
    EXPECT_EQ(expected, parsed["value"]);
    EXPECT_EQ(kReplaced + "(\"\n\0k"s, parsed["key"].get<std::string>());
  }
}

TEST(CsvHeader, NamesTheTimeAndTheKeys) {
  EXPECT_EQ("time,arm/q1,arm/q2\n", csvHeader({"arm/q1", "arm/q2"}));
}

TEST(CsvHeader, ParsesWhateverTheKeysHold) {
  auto const rows = readCsv(csvHeader({"a,b", "say \"hi\"", "line\nbreak\r", "\xFF", ""}));

  EXPECT_THAT(rows,
              ElementsAre(ElementsAre("time", "a,b", "say 'hi'", "line break ", kReplaced, "")));
}

TEST(CsvLine, BeginsWithTheTimeOfTheBatch) {
  EXPECT_EQ("1700000000.010000000,1,0.5\n", csvLine({kTimeUs, {1, 0.5}}));
}

TEST(CsvLine, LeavesEmptyWhatIsNoNumber) {
  EXPECT_THAT(cellsOf({KXValue(), std::numeric_limits<double>::quiet_NaN(),
                       -std::numeric_limits<double>::infinity(), ""}),
              ElementsAre("", "", "", ""));
}

TEST(CsvLine, WritesFloatsThatReadBackTheSame) {
  EXPECT_THAT(
      cellsOf({0.1, 3.0, -0.0, 1e300, 22835490816.0, 1.0 / 3, 5e-324}),
      ElementsAre("0.1", "3.0", "-0.0", "1e+300", "22835490816.0", "0.3333333333333333", "5e-324"));
}

TEST(CsvLine, WritesBooleansAsNumbersAndIntegersBare) {
  EXPECT_THAT(cellsOf({true, false, -2147483647 - 1}), ElementsAre("1", "0", "-2147483648"));
}

TEST(CsvLine, KeepsTextInItsCell) {
  EXPECT_THAT(cellsOf({"plain", "a,b", "\"", "two\nlines", " blank ", "\xFFz"}),
              ElementsAre("plain", "a,b", "'", "two lines", " blank ", kReplaced + "z"s));
}

TEST(CsvLine, WritesArraysAndBinaryDataAsText) {
  EXPECT_THAT(cellsOf({KXValue::arrayOf(1, "x"), KXValue::binary("\0\xFF"s)}),
              ElementsAre("[1,'x']", "AP8="));
}

TEST(CsvLine, QuotesOnlyWhatNeedsIt) {
  EXPECT_EQ("1700000000.010000000,plain,\"a,b\"\n", csvLine({kTimeUs, {"plain", "a,b"}}));
}

}  // namespace
}  // namespace KX::tool
