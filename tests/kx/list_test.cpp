#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tool.hpp"

namespace KX::testing {
namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::StartsWith;

TEST(List, PrintsTheSensorsKeysSorted) {
  ToolResult const result = runTool({"list"});
  std::vector<std::string> const keys = linesOf(result.output);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_TRUE(std::ranges::is_sorted(keys));
  EXPECT_THAT(keys, Each(StartsWith("Host/")));
  EXPECT_THAT(keys, Contains("Host/Cpu/Usage"));
  EXPECT_THAT(keys, Contains("Host/Process/Started"));
}

TEST(List, PrintsOnlyWhatMatches) {
  ToolResult const result = runTool({"list", "Host/Load/*min"});

  EXPECT_THAT(linesOf(result.output),
              ElementsAre("Host/Load/15min", "Host/Load/1min", "Host/Load/5min"));
}

TEST(List, PrintsTypesBeforeKeys) {
  ToolResult const result = runTool({"list", "--types", "Host/[CLP]*/[SU1]*"});

  EXPECT_THAT(linesOf(result.output), Contains("Data         Host/Cpu/Usage"));
  EXPECT_THAT(linesOf(result.output), Contains("Event        Host/Cpu/Saturated"));
  EXPECT_THAT(linesOf(result.output), Contains("MicroEvent   Host/Process/Started"));
}

TEST(List, NothingThatMatchesIsNothingThere) {
  ToolResult const result = runTool({"list", "Host/Cpu/Usge"});

  EXPECT_EQ(3, result.exitCode);
  EXPECT_EQ("", result.output);
  EXPECT_THAT(messagesOf(result),
              ElementsAre("kx: no key matches 'Host/Cpu/Usge' (nearest is 'Host/Cpu/Usage')"));
}

TEST(List, NamesUpToThreeKeysThatAreNear) {
  EXPECT_THAT(messagesOf(runTool({"list", "Host/Load/2min"})),
              ElementsAre("kx: no key matches 'Host/Load/2min' (nearest are 'Host/Load/1min', "
                          "'Host/Load/5min', 'Host/Load/15min')"));
}

TEST(List, TakesADashedPatternBehindTwoDashes) {
  EXPECT_THAT(messagesOf(runTool({"list", "--", "--nothing"})),
              ElementsAre("kx: no key matches '--nothing'"));
}

TEST(List, EndsQuietlyWhenNobodyReads) {
  ToolResult const result = runShell("{ \"$kx\" list; echo \"code $?\" >&2; } | true");

  EXPECT_THAT(linesOf(result.errors), Contains("code 0"));
  EXPECT_THAT(messagesOf(result), ElementsAre());
}

}  // namespace
}  // namespace KX::testing
