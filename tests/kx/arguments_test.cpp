#include <kx/arguments.hpp>

#include <array>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KX::tool {
namespace {

using ::testing::HasSubstr;

template <class Call>
std::string usageErrorOf(Call call) {
  try {
    call();
  } catch (KXUsageError const& error) {
    return error.what();
  }
  return "no error";
}

TEST(Duration, HasAUnit) {
  EXPECT_EQ(500, parseDuration("500ms").count());
  EXPECT_EQ(10'000, parseDuration("10s").count());
  EXPECT_EQ(120'000, parseDuration("2m").count());
  EXPECT_EQ(3'600'000, parseDuration("1h").count());
}

TEST(Duration, OfAnotherFormIsRefused) {
  for (char const* text : {"", "10", "s", "-5s", "0s", "1.5s", "10 s", "10sec", "5d", "+3s",
                           "99999999999999999999s", "9000h"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(
        "--for: expected a duration like 500ms, 10s, 2m or 1h, got '" + std::string(text) + "'",
        usageErrorOf([&] { parseDuration(text); }));
  }
}

TEST(Period, IsAnyWholeNumber) {
  EXPECT_EQ(100, parsePeriodMs("100"));
  EXPECT_EQ(7, parsePeriodMs("7"));
  EXPECT_EQ(-20, parsePeriodMs("-20"));
  EXPECT_EQ(2147483647, parsePeriodMs("2147483647"));
}

TEST(Period, OfAnotherFormIsRefused) {
  for (char const* text : {"", "abc", "10ms", "1e3", "10.5", "2147483648", " 10"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ("--period: expected a whole number of milliseconds, got '" + std::string(text) + "'",
              usageErrorOf([&] { parsePeriodMs(text); }));
  }
}

TEST(Format, IsOneOfThree) {
  EXPECT_EQ(KXFormat::Table, parseFormat("table"));
  EXPECT_EQ(KXFormat::Jsonl, parseFormat("jsonl"));
  EXPECT_EQ(KXFormat::Csv, parseFormat("csv"));
}

TEST(Format, UnknownNamesTheNearest) {
  EXPECT_EQ("--format: expected table, jsonl or csv, got 'json'; nearest is 'jsonl'",
            usageErrorOf([] { parseFormat("json"); }));
  EXPECT_EQ("--format: expected table, jsonl or csv, got 'parquet'",
            usageErrorOf([] { parseFormat("parquet"); }));
}

TEST(Format, ErrorsEscapeWhatWasTyped) {
  EXPECT_THAT(usageErrorOf([] { parseFormat("\x1b[2J\n"); }), HasSubstr("got '\\x1b[2J\\n'"));
}

}  // namespace
}  // namespace KX::tool
