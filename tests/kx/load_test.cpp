// Modules of the user's own, loaded into each verb.
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/support/temporarydirectory.hpp>
#include "tool.hpp"

namespace KX::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr char const* kThermometer = KX_LIB_DIR "/libthermometer.so";
constexpr char const* kLateKey = KX_TEST_LIBRARY_DIR "/latekey.so";

TEST(Load, ListsTheKeysOfTheModule) {
  ToolResult const result = runTool({"list", "--types", "Room/*", "--load", kThermometer});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("Event        Room/TooHot\n", result.output);
}

TEST(Load, DescribesTheModule) {
  ToolResult const result = runTool({"describe", "Thermometer", "--load", kThermometer});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, StartsWith("Thermometer\nTells the temperature of the room.\n"));
  EXPECT_THAT(result.output, HasSubstr("\nsetCelsius(float) -> void\n"));
}

TEST(Load, TakesTheNameOfALibraryBesideTheTool) {
  EXPECT_EQ(0, runTool({"describe", "Thermometer", "--load", "thermometer"}).exitCode);
}

TEST(Load, MayBeRepeatedAndLeavesKeysAlone) {
  ToolResult const result =
      runTool({"watch", "--load", kLateKey, "Late/Key", "--load", kThermometer, "Room/TooHot",
               "--for", "100ms", "--period", "50", "--format", "jsonl"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, HasSubstr("\"key\":\"Late/Key\",\"value\":7}"));
  EXPECT_THAT(messagesOf(result).back(), HasSubstr(" of 1 data key, 0 events of 1 event key"));
}

TEST(Load, WaitsForKeysThatTheModuleWritesLater) {
  EXPECT_EQ("Late/Key\n", runTool({"list", "Late/*", "--load", kLateKey}).output);
}

TEST(Load, OfWhatIsNoModuleFailsInOneLine) {
  TemporaryDirectory const folder;
  std::string const text = folder.path() / "text.so";
  std::string const absent = folder.path() / "absent.so";
  std::ofstream(text) << "no library\n";
  struct Case {
    std::string library;
    std::string error;
  };
  for (Case const& c :
       {Case{absent, "kx: cannot load '" + absent + "': expected a module library, but "},
        Case{text, "kx: cannot load '" + text + "': expected "},
        Case{KX_LIB_DIR "/libkxvalue.so",
             "kx: cannot load '" KX_LIB_DIR "/libkxvalue.so': expected "
             "the entry points '_createModule' and '_closeModule', but"},
        Case{"nothing", "kx: no module library 'nothing', looked for '"}}) {
    for (std::string const verb : {"watch", "list", "describe"}) {
      SCOPED_TRACE(verb + " " + c.library);
      ToolResult const result = runTool({verb, "--load", c.library});
      EXPECT_EQ(1, result.exitCode);
      EXPECT_EQ("", result.output);
      EXPECT_THAT(messagesOf(result), ElementsAre(StartsWith(c.error)));
    }
  }
}

TEST(Load, OfAModuleThatIsThereAlreadyFails) {
  ToolResult const result = runTool({"list", "--load", "kxhostsensors"});

  EXPECT_EQ(1, result.exitCode);
  EXPECT_THAT(messagesOf(result),
              ElementsAre(EndsWith("a module named 'KXHostSensors' is already published")));
}

}  // namespace
}  // namespace KX::testing
