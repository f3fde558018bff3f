#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tool.hpp"

namespace KX::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Describe, ShowsTheWatchersMethodsWordForWord) {
  ToolResult const result = runTool({"describe", "KXMemoryWatcher"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(goldenOf("describe_memorywatcher.txt"), result.output);
  EXPECT_THAT(messagesOf(result), ElementsAre());
}

TEST(Describe, ListsTheModulesWithoutAName) {
  ToolResult const result = runTool({"describe"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(5U, linesOf(result.output).size());
  for (char const* module : {"KXLauncher ", "KXMemory ", "VSM ", "KXHostSensors ",
                             "KXMemoryWatcher  This is a module design to buffer and log values "
                             "from KXMemory\n"}) {
    EXPECT_THAT(result.output, HasSubstr(module));
  }
}

TEST(Describe, UnknownModuleIsNothingThere) {
  ToolResult const result = runTool({"describe", "KXMemryWatcher"});

  EXPECT_EQ(3, result.exitCode);
  EXPECT_EQ("", result.output);
  EXPECT_THAT(messagesOf(result),
              ElementsAre("kx: unknown module 'KXMemryWatcher', loaded: 'KXLauncher', 'KXMemory', "
                          "'VSM', 'KXHostSensors', 'KXMemoryWatcher'; nearest is "
                          "'KXMemoryWatcher'"));
}

}  // namespace
}  // namespace KX::testing
