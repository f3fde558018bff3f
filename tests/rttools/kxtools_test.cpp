#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/support/childprocess.hpp>

namespace KX::testing {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

std::string library(std::string const& name) {
  return std::string(KX_TEST_LIBRARY_DIR) + "/" + name + ".so";
}

std::vector<std::string> commandLine(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), KX_TEST_PROGRAM);
  return arguments;
}

std::size_t countOf(std::string const& part, std::string const& text) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

/// What the modules told in the log, in order.
std::vector<std::string> told(std::string const& errors) {
  std::string const mark = "[info] testmodule: ";
  std::vector<std::string> texts;
  for (auto at = errors.find(mark); at != std::string::npos; at = errors.find(mark, at + 1)) {
    auto const begin = at + mark.size();
    texts.push_back(errors.substr(begin, errors.find('\n', begin) - begin));
  }
  return texts;
}

struct Ended {
  int exitCode;
  std::string output;
  std::string errors;
};

/// For children that end by themselves.
Ended run(std::vector<std::string> const& arguments,
          std::vector<std::pair<std::string, std::string>> const& environment = {}) {
  ChildProcess child(commandLine(arguments), environment);
  int const exitCode = child.waitForEnd();
  return {exitCode, child.getOutput(), child.getErrors()};
}

TEST(Process, ServesUntilItIsToldToEndAndEndsWell) {
  for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(signal);
    ChildProcess child(commandLine({}));
    child.waitForErrorText("\n");

    child.sendSignal(signal);

    EXPECT_EQ(0, child.waitForEnd());
    EXPECT_EQ("", child.getOutput());
    EXPECT_THAT(child.getErrors(),
                MatchesRegex("testprogram: serving 'KXLauncher', 'KXMemory', 'own' as process "
                             "[0-9]+; Ctrl-C or SIGTERM ends it\n"));
  }
}

TEST(Process, ShutsDownInReverseOrder) {
  ChildProcess child(
      commandLine({"--log-level", "info", "--load", library("good"), "--load", library("second")}));
  child.waitForErrorText("serving");

  child.sendSignal(SIGTERM);

  EXPECT_EQ(0, child.waitForEnd());
  EXPECT_THAT(told(child.getErrors()),
              ElementsAre("made good", "made second", "made own", "exit of own", "destroyed own",
                          "exit of second", "destroyed second", "exit of good", "destroyed good",
                          "closed second", "closed good"));
  EXPECT_EQ(1U, countOf("serving", child.getErrors()));
}

TEST(Process, ASignalWhileTheModuleIsMadeEndsItAfterwards) {
  auto const ended = run({"--log-level", "info"}, {{"KX_TEST_CREATE", "is signalled"}});

  EXPECT_EQ(0, ended.exitCode);
  EXPECT_THAT(told(ended.errors), ElementsAre("made own", "exit of own", "destroyed own"));
}

TEST(Process, ShutsDownWhenItsTerminalHangsUp) {
  ChildProcess child(commandLine({"--log-level", "info", "--load", library("good")}));
  child.waitForErrorText("serving");

  child.sendSignal(SIGHUP);

  EXPECT_EQ(0, child.waitForEnd());
  EXPECT_THAT(told(child.getErrors()),
              ElementsAre("made good", "made own", "exit of own", "destroyed own", "exit of good",
                          "destroyed good", "closed good"));
}

TEST(Process, LeavesTheHangUpToNohup) {
  ChildProcess child({"/usr/bin/nohup", KX_TEST_PROGRAM});
  child.waitForErrorText("; Ctrl-C");
  std::string const& errors = child.getErrors();
  std::string const mark = "as process ";
  auto const at = errors.find(mark) + mark.size();
  std::string const pid = errors.substr(at, errors.find(';', at) - at);

  std::ifstream file("/proc/" + pid + "/status");
  std::string const status(std::istreambuf_iterator<char>(file), {});

  // Ignored, and neither blocked nor waited for: the masks' lowest bit stands for SIGHUP.
  EXPECT_THAT(status, ContainsRegex("SigBlk:\t[0-9a-f]{15}[02468ace]\n"));
  EXPECT_THAT(status, ContainsRegex("SigIgn:\t[0-9a-f]{15}[13579bdf]\n"));
  child.sendSignal(SIGTERM);
  EXPECT_EQ(0, child.waitForEnd());
}

TEST(Process, FurtherSignalsLeaveTheShutdownAlone) {
  ChildProcess child(commandLine({"--log-level", "info"}));
  child.waitForErrorText("serving");

  for (int i = 0; i < 20; ++i)
    child.sendSignal(i % 3 == 0 ? SIGHUP : i % 3 == 1 ? SIGTERM : SIGINT);

  EXPECT_EQ(0, child.waitForEnd());
  EXPECT_THAT(told(child.getErrors()), ElementsAre("made own", "exit of own", "destroyed own"));
}

TEST(Process, OutlivesTheReaderOfItsMessages) {
  ChildProcess child(commandLine({"--log-level", "debug"}));
  child.waitForErrorText("serving");

  child.closeErrors();
  child.sendSignal(SIGINT);

  EXPECT_EQ(0, child.waitForEnd());
}

TEST(Process, SaysInOneLineWhyTheModuleCannotBeMade) {
  struct Row {
    std::string create;
    std::string expected;
  };
  Row const rows[] = {
      {"returns 3", "expected its creation to return 0, but it returned 3"},
      {"throws KXError", "no such device"},
      {"throws std", "no such\\ndevice"},
      {"throws int", "an exception of unknown type"},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.create);

    auto const ended = run({}, {{"KX_TEST_CREATE", row.create}});

    EXPECT_EQ(1, ended.exitCode);
    EXPECT_EQ("", ended.output);
    EXPECT_EQ("testprogram: cannot make the module: " + row.expected + "\n", ended.errors);
  }
}

TEST(Process, SurvivesAnEmptyCreation) {
  auto const ended = run({}, {{"KX_TEST_EMPTY", "1"}});

  EXPECT_EQ(1, ended.exitCode);
  EXPECT_THAT(ended.errors, StartsWith("testprogram: cannot make the module: "));
}

TEST(Process, FailsWhereALibraryDoes) {
  auto const ended = run({"--load", library("good"), "--load", library("missing")});

  EXPECT_EQ(1, ended.exitCode);
  EXPECT_EQ("testprogram: cannot make the module: cannot load '" + library("missing") +
                "': expected a module library, but there is no such file\n",
            ended.errors);
}

TEST(Process, FindsLibrariesByTheirPlainName) {
  auto const ended = run({"--load", "nothere"});

  EXPECT_EQ(1, ended.exitCode);
  EXPECT_THAT(ended.errors, AllOf(HasSubstr("no module library 'nothere', looked for '"),
                                  EndsWith("/lib/libnothere.so'\n")));
}

TEST(Options, HelpSaysAll) {
  for (auto const* flag : {"--help", "-h"}) {
    auto const ended = run({flag});

    EXPECT_EQ(0, ended.exitCode);
    EXPECT_EQ("", ended.errors);
    for (auto const* part :
         {"Runs the module 'testprogram' as a process of its own", "KXLauncher", "KXMemory",
          "Usage: testprogram [OPTIONS]", "-h,--help", "--version", "--log-level LEVEL=warning",
          "none, fatal, error, warning", "--load LIBRARY", "SIGINT (Ctrl-C), SIGTERM", "SIGHUP",
          "SIGQUIT", "--bus URL", "--robot NAME (robot)", "KX_BUS_PASSWORD_FILE",
          "Exit codes:", "\n  0  ", "\n  1  ", "\n  2  "}) {
      EXPECT_THAT(ended.output, HasSubstr(part));
    }
  }
}

TEST(Options, VersionIsOneLine) {
  auto const ended = run({"--version"});

  EXPECT_EQ(0, ended.exitCode);
  EXPECT_THAT(ended.output, MatchesRegex("testprogram [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ("", ended.errors);
}

TEST(Options, WrongOnesAreOneLineAndExitCodeTwo) {
  struct Row {
    std::vector<std::string> arguments;
    std::string expected;
  };
  std::string const known =
      "', expected --help, --version, --log-level LEVEL, --load LIBRARY, --bus URL or --robot "
      "NAME; "
      "--help lists all\n";
  std::string const levels =
      "', expected one of 'none', 'fatal', 'error', 'warning', 'info', 'verbose', 'debug'\n";
  Row const rows[] = {
      {{"--nonsense"}, "unexpected argument '--nonsense" + known},
      {{"-x"}, "unexpected argument '-x" + known},
      {{"word"}, "unexpected argument 'word" + known},
      {{"--log-level", "info", "a\nb\x1b[2J"}, "unexpected argument 'a\\nb\\x1b[2J" + known},
      {{"--load", library("good"), library("second")},
       "unexpected argument '" + library("second") + known},
      {{"--log-level", "loud"}, "unknown log level 'loud" + levels},
      {{"--log-level", ""}, "unknown log level '" + levels},
      {{"--log-level", "Warning"}, "unknown log level 'Warning" + levels},
      {{"--log-level="}, "--log-level: 1 required LEVEL missing\n"},
      {{"--load"}, "--load: 1 required LIBRARY missing\n"},
      {{"--robot", "r1"}, "--robot: expected a bus as well (--bus URL or KX_BUS), got none\n"},
      {{"--bus", "nats://127.0.0.1", "--bus-timeout", "soon"},
       "--bus-timeout: expected milliseconds, more than 0, got 'soon'\n"},
      {{"--bus", "http://127.0.0.1"},
       "a bus's URL is nats://HOST[:PORT] or tls://HOST[:PORT], not 'http://127.0.0.1'\n"},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.expected);

    auto const ended = run(row.arguments);

    EXPECT_EQ(2, ended.exitCode);
    EXPECT_EQ("", ended.output);
    EXPECT_EQ("testprogram: " + row.expected, ended.errors);
  }
}

TEST(Options, LogLevelSaysWhatGoesToStderr) {
  ChildProcess child(commandLine({"--log-level", "none", "--load", library("closefails")}));
  child.waitForErrorText("serving");
  child.sendSignal(SIGTERM);
  EXPECT_EQ(0, child.waitForEnd());
  EXPECT_EQ(1U, countOf("\n", child.getErrors()));

  ChildProcess usual(commandLine({"--load", library("closefails")}));
  usual.waitForErrorText("serving");
  usual.sendSignal(SIGTERM);
  EXPECT_EQ(0, usual.waitForEnd());
  EXPECT_EQ(2U, countOf("\n", usual.getErrors()));
  EXPECT_THAT(usual.getErrors(), HasSubstr("[error] KXHost.shutdown: module library '"));
}

}  // namespace
}  // namespace KX::testing
