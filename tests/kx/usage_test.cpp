// Bad input and bad surroundings, given to the real tool.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/support/temporarydirectory.hpp>
#include "tool.hpp"

namespace KX::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Case {
  std::vector<std::string> arguments;
  std::string error;
};

TEST(Usage, WrongOnesAreOneLineAndExitCode2) {
  std::vector<Case> const cases{
      {{}, "kx: expected a verb: watch, list, describe, host or robots; kx --help tells more"},
      {{"wach"},
       "kx: unknown verb 'wach', expected one of watch, list, describe, host, robots; nearest is "
       "'watch'"},
      {{"record"},
       "kx: unknown verb 'record', expected one of watch, list, describe, host, robots"},
      {{"--versoin"}, "kx: unknown option '--versoin'; nearest is '--version'"},
      {{"watch", "--perod", "5"}, "kx: unknown option '--perod'; nearest is '--period'"},
      {{"watch", "--perod=5"}, "kx: unknown option '--perod'; nearest is '--period'"},
      {{"list", "--type"}, "kx: unknown option '--type'; nearest is '--types'"},
      {{"watch", "-z"}, "kx: unknown option '-z'"},
      {{"watch", "--period"}, "kx: --period: expected a value, got none"},
      {{"watch", "--period", "abc"},
       "kx: --period: expected a whole number of milliseconds, got 'abc'"},
      {{"list", "--load"}, "kx: --load: expected a value, got none"},
      {{"watch", "--for", "10"},
       "kx: --for: expected a duration like 500ms, 10s, 2m or 1h, got '10'"},
      {{"watch", "--for", ""}, "kx: --for: expected a duration like 500ms, 10s, 2m or 1h, got ''"},
      {{"watch", "--format", "json"},
       "kx: --format: expected table, jsonl or csv, got 'json'; nearest is 'jsonl'"},
      {{"list", "a", "b"}, "kx: unexpected argument 'b'"},
      {{"describe", "a", "b\x1b[2J"}, "kx: unexpected argument 'b\\x1b[2J'"},
      {{"watch", "Host/Cpu/Saturated", "--format", "csv"},
       "kx: --format csv: expected at least one data key, got event keys only; --format jsonl "
       "prints them"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.error);
    ToolResult const result = runTool(c.arguments);
    EXPECT_EQ(2, result.exitCode);
    EXPECT_EQ("", result.output);
    EXPECT_THAT(messagesOf(result), ElementsAre(c.error));
  }
}

TEST(Usage, LastOneOfARepeatedOptionCounts) {
  ToolResult const result = runTool({"watch", "--for", "10s", "--for", "never"});

  EXPECT_EQ(2, result.exitCode);
  EXPECT_THAT(messagesOf(result), ElementsAre("kx: --for: expected a duration like 500ms, 10s, 2m "
                                              "or 1h, got 'never'"));
}

TEST(Usage, HelpGoesToStdout) {
  for (std::vector<std::string> const& arguments : {std::vector<std::string>{"--help"},
                                                    {"watch", "--help"},
                                                    {"list", "-h"},
                                                    {"describe", "--help"},
                                                    {"host", "--help"},
                                                    {"robots", "--help"}}) {
    SCOPED_TRACE(arguments.front());
    ToolResult const result = runTool(arguments);
    EXPECT_EQ(0, result.exitCode);
    EXPECT_THAT(result.output, HasSubstr("Usage: kx"));
    EXPECT_THAT(result.output, HasSubstr("Exit codes: 0 ok, 1 failed, 2 wrong usage"));
    EXPECT_EQ("", result.errors);
  }
}

TEST(Usage, HelpOfWatchDocumentsEveryFormatAndOption) {
  std::string const help = runTool({"watch", "--help"}).output;

  for (char const* part : {"KEY", "--period MS (500)", "--for DURATION", "--format FORMAT (table)",
                           "--cycle", "--load LIB", "table ", "jsonl ", "csv "}) {
    EXPECT_THAT(help, HasSubstr(part));
  }
}

TEST(Usage, HelpIsWhatItWas) {
  EXPECT_EQ(goldenOf("help.txt"), runTool({"--help"}).output);
  for (std::string const verb : {"watch", "list", "describe", "host", "robots"}) {
    EXPECT_EQ(goldenOf("help_" + verb + ".txt"), runTool({verb, "--help"}).output);
  }
}

TEST(Usage, VersionGoesToStdout) {
  ToolResult const result = runTool({"--version"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, ::testing::MatchesRegex("kx [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(Output, ThatCannotBeWrittenFails) {
  ToolResult const result = runShell("\"$kx\" list > /dev/full");

  EXPECT_EQ(1, result.exitCode);
  EXPECT_THAT(messagesOf(result),
              ElementsAre("kx: cannot write to stdout: No space left on device"));
}

TEST(Messages, ThatCannotBeWrittenAreDropped) {
  for (std::string const errors : {"2>/dev/full", "2>&-"}) {
    SCOPED_TRACE(errors);
    EXPECT_EQ(2, runShell("\"$kx\" wach " + errors).exitCode);
    EXPECT_EQ(3, runShell("\"$kx\" list No/Such/Key " + errors).exitCode);
    ToolResult const watched =
        runShell("\"$kx\" watch Host/UptimeSeconds --for 50ms --format csv " + errors);
    EXPECT_EQ(0, watched.exitCode);
    EXPECT_GE(readCsv(watched.output).size(), 2U);
  }
}

TEST(Output, ThatIsClosedFromTheStartFails) {
  ToolResult const result = runShell("\"$kx\" list >&-");

  EXPECT_EQ(1, result.exitCode);
  EXPECT_THAT(messagesOf(result), ElementsAre("kx: expected an open stdout, got a closed one"));
}

// A copy of the tool among the real libraries, one of which can be spoilt.
class Libraries : public ::testing::Test {
 protected:
  Libraries() {
    std::filesystem::create_directories(mFolder.path() / "bin");
    std::filesystem::create_directories(mFolder.path() / "lib");
    std::filesystem::copy(toolPath(), mFolder.path() / "bin/kx");
    for (auto const& file : std::filesystem::directory_iterator(KX_LIB_DIR)) {
      std::filesystem::create_symlink(file.path(), library(file.path().filename()));
    }
  }
  std::filesystem::path library(std::filesystem::path const& name) const {
    return mFolder.path() / "lib" / name;
  }
  ToolResult watch() const {
    ChildProcess child({mFolder.path() / "bin/kx", "watch", "--for", "50ms"});
    return resultOf(child);
  }

 private:
  TemporaryDirectory mFolder;
};

TEST_F(Libraries, AreFoundBesideTheTool) {
  EXPECT_EQ(0, watch().exitCode);
}

TEST_F(Libraries, ThatAreNoneAreNamed) {
  std::filesystem::remove(library("libmemorywatcher.so"));
  std::ofstream(library("libmemorywatcher.so")) << "not a library";

  ToolResult const result = watch();

  EXPECT_EQ(1, result.exitCode);
  EXPECT_EQ("", result.output);
  ASSERT_EQ(1U, messagesOf(result).size());
  EXPECT_THAT(messagesOf(result)[0], HasSubstr("libmemorywatcher.so"));
}

TEST_F(Libraries, ThatAreMissingAreNamed) {
  std::filesystem::remove(library("libkxhostsensors.so"));

  ToolResult const result = watch();

  EXPECT_EQ(1, result.exitCode);
  ASSERT_EQ(1U, messagesOf(result).size());
  EXPECT_THAT(messagesOf(result)[0], HasSubstr("libkxhostsensors.so"));
}

}  // namespace
}  // namespace KX::testing
