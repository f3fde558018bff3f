// kx watch on this machine's sensors: streams, formats, ends.
#include <csignal>

#include <algorithm>
#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tool.hpp"

namespace KX::testing {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

struct Summary {
  long asked = -1, periodMs = -1, taken = -1, missed = -1, samples = -1, keys = -1, events = 0;
  std::string causes;  ///< of what was missed: ` (2 skipped)`
};

Summary summaryOf(ToolResult const& result) {
  static std::regex const kForm(
      "kx: asked (\\d+) periods? of (\\d+) ms, took (\\d+), missed (\\d+)((?: \\([^)]*\\))?); "
      "(\\d+) samples? of (\\d+) data keys?(?:, (\\d+) events? of \\d+ event keys?)?; "
      "lateness (?:unknown|p50 [\\d.]+ ms, p99 [\\d.]+ ms, max [\\d.]+ ms)");
  std::vector<std::string> const messages = messagesOf(result);
  std::smatch parts;
  if (messages.empty() || !std::regex_match(messages.back(), parts, kForm)) {
    ADD_FAILURE() << "no summary in: " << result.errors;
    return {};
  }
  auto const number = [&](int i) {
    return parts[i].matched ? std::stol(parts[i]) : 0;
  };
  return {number(1), number(2), number(3), number(4), number(6), number(7), number(8), parts[5]};
}

std::vector<json> jsonLinesOf(ToolResult const& result) {
  std::vector<json> objects;
  for (std::string const& line : linesOf(result.output)) objects.push_back(json::parse(line));
  return objects;
}

TEST(WatchJsonl, PrintsEverySampleAndCountsIt) {
  ToolResult const result = runTool({"watch", "Host/Load/1min", "Host/UptimeSeconds", "--period",
                                     "50", "--for", "500ms", "--format", "jsonl"});
  Summary const summary = summaryOf(result);
  std::vector<json> const samples = jsonLinesOf(result);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(10, summary.asked);
  EXPECT_EQ(50, summary.periodMs);
  EXPECT_EQ(2, summary.keys);
  EXPECT_EQ(summary.asked, summary.taken + summary.missed);
  EXPECT_EQ(summary.taken * 2, summary.samples);
  ASSERT_EQ(static_cast<std::size_t>(summary.samples), samples.size());
  double lastTime = 0;
  for (json const& sample : samples) {
    EXPECT_TRUE(sample["value"].is_number()) << sample;
    EXPECT_GE(sample["time"].get<double>(), lastTime);
    lastTime = sample["time"].get<double>();
  }
}

TEST(WatchJsonl, PrintsEventsAsTheyAreRaised) {
  // Each of the many sleeps is a process to be noticed.
  ToolResult const result = runShell(
      "\"$kx\" watch Host/Process/Started --period 20 --for 2s --format jsonl & "
      "for i in $(seq 30); do sleep 0.05; done; wait $!");

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, HasSubstr("\"sleep\""));
  std::string const count = std::to_string(jsonLinesOf(result).size());
  EXPECT_THAT(messagesOf(result),
              ElementsAre(StartsWith("kx: no data key was watched, so no period was seen; " +
                                     count + " event")));
  for (json const& sample : jsonLinesOf(result)) {
    EXPECT_EQ("Host/Process/Started", sample["key"]);
  }
}

TEST(WatchCsv, HasARowPerBatchAndAColumnPerDataKey) {
  ToolResult const result = runTool({"watch", "Host/UptimeSeconds", "Host/Load/*", "Host/Cpu/Sat*",
                                     "--period", "50", "--for", "400ms", "--format", "csv"});
  Summary const summary = summaryOf(result);
  auto const rows = readCsv(result.output);

  EXPECT_THAT(rows.at(0), ElementsAre("time", "Host/Load/15min", "Host/Load/1min", "Host/Load/5min",
                                      "Host/UptimeSeconds"));
  EXPECT_EQ(static_cast<std::size_t>(summary.taken), rows.size() - 1);
  EXPECT_THAT(messagesOf(result),
              Contains("kx: --format csv has one row per batch: event keys are left out; --format "
                       "jsonl prints them"));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    for (std::string const& cell : rows[i]) EXPECT_GT(std::stod(cell), 0) << cell;
  }
}

TEST(WatchTable, AppendsTablesWhereNothingIsLive) {
  ToolResult const result =
      runTool({"watch", "Host/UptimeSeconds", "--period", "50", "--for", "300ms"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, Not(HasSubstr("\x1b")));
  EXPECT_THAT(result.output, HasSubstr("\nKEY "));
  EXPECT_THAT(result.output, HasSubstr("\nHost/UptimeSeconds  "));
}

TEST(WatchTable, IsRedrawnOnATerminal) {
  ToolResult const result =
      runOnTerminal("\"$kx\" watch Host/UptimeSeconds --period 100 --for 500ms", 70, 20);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(result.output, HasSubstr("\x1b[3A\r\x1b[J"));
  EXPECT_THAT(result.output, HasSubstr("\x1b[1mKEY"));
}

TEST(WatchTable, HasNoColorWithNoColor) {
  ToolResult const result =
      runOnTerminal("NO_COLOR=1 \"$kx\" watch Host/UptimeSeconds --period 100 --for 300ms", 70, 20);

  EXPECT_THAT(result.output, HasSubstr("\x1b[3A\r\x1b[J"));
  EXPECT_THAT(result.output, Not(HasSubstr("\x1b[1m")));
}

TEST(WatchTable, IsNotLiveOnADumbTerminal) {
  ToolResult const result =
      runOnTerminal("TERM=dumb \"$kx\" watch Host/UptimeSeconds --period 100 --for 300ms", 70, 20);

  EXPECT_THAT(result.output, HasSubstr("KEY"));
  EXPECT_THAT(result.output, Not(HasSubstr("\x1b")));
}

TEST(Watch, WithoutKeysShowsTheMachine) {
  ToolResult const result = runTool({"watch", "--period", "100", "--for", "200ms"});

  EXPECT_EQ(0, result.exitCode);
  for (char const* key : {"Host/Cpu/Usage", "Host/Load/1min", "Host/Memory/AvailableBytes",
                          "Host/UptimeSeconds", "Host/Memory/Low", "Host/Process/Started"}) {
    EXPECT_THAT(result.output, HasSubstr("\n" + std::string(key) + " "));
  }
}

TEST(Watch, RunsUnderTheHardwareCycle) {
  ToolResult const result = runTool({"watch", "Host/UptimeSeconds", "--cycle", "--period", "30",
                                     "--for", "300ms", "--format", "csv"});
  Summary const summary = summaryOf(result);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(10, summary.asked);
  EXPECT_GE(summary.taken, 2);
  EXPECT_EQ(summary.asked, summary.taken + summary.missed);
  EXPECT_EQ(static_cast<std::size_t>(summary.taken) + 1, linesOf(result.output).size());
}

TEST(Watch, LeavesThePeriodToTheWatcherWhichCorrectsIt) {
  struct Case {
    char const* period;
    long corrected;
  };
  for (Case const& c : {Case{"25", 20}, Case{"0", 10}, Case{"-5", 10}}) {
    SCOPED_TRACE(c.period);
    ToolResult const result = runTool(
        {"watch", "Host/UptimeSeconds", "--period", c.period, "--for", "100ms", "--format", "csv"});
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ(c.corrected, summaryOf(result).periodMs);
    EXPECT_THAT(result.errors,
                HasSubstr("Period have to be multiple of 10 ms, Value will be truncated to " +
                          std::to_string(c.corrected)));
  }
}

TEST(Watch, GoesOnWithoutTheKeysThatAreNotThere) {
  ToolResult const result = runTool({"watch", "Host/UptimeSecnds", "No/*", "Host/UptimeSeconds",
                                     "--period", "50", "--for", "200ms", "--format", "csv"});

  EXPECT_EQ(0, result.exitCode);
  EXPECT_THAT(messagesOf(result), Contains("kx: no key matches 'Host/UptimeSecnds' (nearest is "
                                           "'Host/UptimeSeconds'), 'No/*'"));
  auto const rows = readCsv(result.output);
  EXPECT_THAT(rows.at(0), ElementsAre("time", "Host/UptimeSeconds", "Host/UptimeSecnds"));
  EXPECT_EQ("", rows.at(1).at(2));
}

TEST(Watch, OfNothingThatIsThereIsNothingThere) {
  ToolResult const result = runTool({"watch", "Host/Cpu/Usge\x1b"});

  EXPECT_EQ(3, result.exitCode);
  EXPECT_EQ("", result.output);
  EXPECT_THAT(messagesOf(result),
              ElementsAre("kx: no key matches 'Host/Cpu/Usge\\x1b' (nearest is 'Host/Cpu/Usage')"));
}

TEST(Watch, NamesAKeyOnceThatSeveralPatternsMean) {
  ToolResult const result = runTool({"watch", "Host/Up*", "Host/UptimeSeconds", "Host/*Seconds",
                                     "--for", "50ms", "--format", "csv"});

  EXPECT_THAT(readCsv(result.output).at(0), ElementsAre("time", "Host/UptimeSeconds"));
}

TEST(Watch, FetchesOnceMoreAtTheEnd) {
  // The first regular fetch would come after half a second.
  ToolResult const result = runTool(
      {"watch", "Host/UptimeSeconds", "--period", "1000", "--for", "100ms", "--format", "csv"});

  EXPECT_EQ(2U, readCsv(result.output).size());
}

TEST(Watch, EndsCleanlyAtASignal) {
  for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(signal);
    ChildProcess child(
        {toolPath(), "watch", "Host/UptimeSeconds", "--period", "20", "--format", "jsonl"});
    child.waitForOutputText("\n");
    child.sendSignal(signal);
    ToolResult const result = resultOf(child);

    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ(static_cast<std::size_t>(summaryOf(result).samples), jsonLinesOf(result).size());
  }
}

TEST(Watch, EndsQuietlyWhenItsReaderGoes) {
  ChildProcess child(
      {toolPath(), "watch", "Host/UptimeSeconds", "--period", "20", "--format", "jsonl"});
  child.waitForOutputText("\n");
  child.closeOutput();
  ToolResult const result = resultOf(child);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_GT(summaryOf(result).taken, 0);
  EXPECT_EQ(1U, messagesOf(result).size());
}

TEST(Watch, NoticesThatItsReaderWentWithoutWriting) {
  ChildProcess child(
      {toolPath(), "watch", "Host/Memory/Low", "--period", "20", "--format", "jsonl"});
  child.closeOutput();

  EXPECT_EQ(0, resultOf(child).exitCode);
}

TEST(Watch, EndsAtASignalWhileItsReaderSleeps) {
  // Nobody reads the pipe: it fills up, and the tool waits for room.
  ToolResult const result = runShell(
      "d=$(mktemp -d) && mkfifo \"$d/pipe\" && exec 3<>\"$d/pipe\" && "
      "{ timeout -s TERM 2 \"$kx\" watch 'Host/*' --period 10 --format jsonl > \"$d/pipe\"; "
      "echo \"code $?\"; rm -r \"$d\"; }");

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ("code 124\n", result.output);
  EXPECT_GT(summaryOf(result).samples, 0);
  EXPECT_THAT(messagesOf(result),
              Contains(MatchesRegex("kx: nobody reads stdout: [0-9]+ lines were "
                                    "lost")));
}

TEST(Watch, EndsWithItsDurationWhileItsReaderSleeps) {
  // A pipe that does not block is one that somebody else uses too, and has set so.
  for (std::string const mode : {"", "O_NONBLOCK|"}) {
    SCOPED_TRACE(mode);
    ToolResult const result = runShell(
        "d=$(mktemp -d) && mkfifo \"$d/pipe\" && exec 3<>\"$d/pipe\" && "
        "{ perl -MFcntl -e 'fcntl(STDOUT, F_SETFL, " +
        mode +
        "O_WRONLY); exec @ARGV' "
        "\"$kx\" watch 'Host/*' --period 10 --for 2s --format jsonl > \"$d/pipe\"; "
        "echo \"code $?\"; rm -r \"$d\"; }");

    EXPECT_EQ("code 1\n", result.output);
    EXPECT_EQ(200, summaryOf(result).asked);
    EXPECT_THAT(messagesOf(result), Contains(MatchesRegex("kx: nobody reads stdout: [0-9]+ lines "
                                                          "were lost")));
  }
}

TEST(Watch, EndsWithItsDurationWhileNobodyReadsWhatItSaysEither) {
  ToolResult const result = runShell(
      "d=$(mktemp -d) && mkfifo \"$d/pipe\" && exec 3<>\"$d/pipe\" && "
      "{ \"$kx\" watch 'Host/*' --period 10 --for 2s --format jsonl > \"$d/pipe\" 2>&1; "
      "echo \"code $?\"; rm -r \"$d\"; }");

  EXPECT_EQ("code 1\n", result.output);
}

TEST(Watch, LosesNothingToAReaderThatComesLate) {
  ToolResult const result =
      runShell("\"$kx\" watch 'Host/*' --period 10 --for 1s --format jsonl | { sleep 1.5; cat; }");

  EXPECT_EQ(100, summaryOf(result).asked);
  EXPECT_EQ(static_cast<std::size_t>(summaryOf(result).samples + summaryOf(result).events),
            jsonLinesOf(result).size());
}

// What was printed, what was counted and what the periods of the watch were agree.
void expectNothingIsMadeUpOrLost(ToolResult const& result, long asked) {
  Summary const summary = summaryOf(result);
  auto const rows = readCsv(result.output);
  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(asked, summary.asked) << result.errors;
  EXPECT_EQ(summary.asked, summary.taken + summary.missed);
  EXPECT_EQ(static_cast<std::size_t>(summary.taken) + 1, rows.size());
  long cells = 0;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    cells += std::count_if(rows[i].begin() + 1, rows[i].end(),
                           [](std::string const& cell) { return !cell.empty(); });
  }
  EXPECT_EQ(summary.samples, cells);
  EXPECT_EQ(summary.taken * summary.keys, summary.samples);
}

// The tool, stopped for a while in the midst of its watch.
ToolResult watchStopped(std::vector<std::string> const& arguments, std::chrono::seconds stopped) {
  std::vector<std::string> all{toolPath(),           "watch",    "Host/Load/*",
                               "Host/UptimeSeconds", "--format", "csv"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  ChildProcess child(std::move(all));
  child.waitForOutputText(".");
  child.sendSignal(SIGSTOP);
  std::this_thread::sleep_for(stopped);
  child.sendSignal(SIGCONT);
  return resultOf(child);
}

TEST(TimingWatch, StoppedProcessMakesUpForTheStop) {
  struct Case {
    std::chrono::seconds stopped;
    std::vector<std::string> arguments;
    long asked;
    long askedMeanwhile;
  };
  for (Case const& c :
       {Case{std::chrono::seconds(1), {"--period", "50", "--for", "3s"}, 60, 20},
        Case{std::chrono::seconds(1), {"--period", "10", "--for", "3s"}, 300, 100},
        Case{std::chrono::seconds(5), {"--period", "100", "--for", "7s"}, 70, 50}}) {
    SCOPED_TRACE(c.asked);
    ToolResult const result = watchStopped(c.arguments, c.stopped);
    expectNothingIsMadeUpOrLost(result, c.asked);
    // A busy machine may cost one for other reasons.
    EXPECT_LT(summaryOf(result).missed * 10, c.askedMeanwhile) << result.errors;
  }
}

TEST(TimingWatch, StoppedProcessMissesCyclesOfTheHardware) {
  struct Case {
    std::chrono::seconds stopped;
    std::vector<std::string> arguments;
    long asked;
    long missed;  // at least
  };
  for (Case const& c :
       {Case{std::chrono::seconds(1), {"--period", "10", "--for", "3s"}, 300, 98},
        Case{std::chrono::seconds(1), {"--period", "50", "--for", "3s"}, 60, 19},
        Case{std::chrono::seconds(5), {"--period", "50", "--for", "7s"}, 140, 99}}) {
    SCOPED_TRACE(c.asked);
    std::vector<std::string> arguments = c.arguments;
    arguments.emplace_back("--cycle");
    ToolResult const result = watchStopped(arguments, c.stopped);
    expectNothingIsMadeUpOrLost(result, c.asked);
    EXPECT_GE(summaryOf(result).missed, c.missed);
    EXPECT_THAT(summaryOf(result).causes, HasSubstr("hardware cycle late"));
  }
}

TEST(TimingWatch, StopThatLastsBeyondTheEndCountsNothingTwice) {
  for (std::vector<std::string> const& arguments :
       {std::vector<std::string>{"--period", "50", "--for", "1s"},
        {"--period", "50", "--for", "1s", "--cycle"}}) {
    SCOPED_TRACE(arguments.size());
    expectNothingIsMadeUpOrLost(watchStopped(arguments, std::chrono::seconds(3)), 20);
  }
}

TEST(TimingWatch, BusyMachineMakesNothingUp) {
  std::vector<std::unique_ptr<ChildProcess>> loops;
  for (int i = 0; i < 4; ++i) {
    loops.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{"/bin/sh", "-c", "while :; do :; done"}));
  }
  for (std::vector<std::string> const& pacing : {std::vector<std::string>{}, {"--cycle"}}) {
    for (std::string const period : {"10", "50"}) {
      SCOPED_TRACE(period + (pacing.empty() ? "" : " --cycle"));
      std::vector<std::string> arguments{"watch",    "Host/Load/*", "--format", "csv",
                                         "--period", period,        "--for",    "2s"};
      arguments.insert(arguments.end(), pacing.begin(), pacing.end());
      expectNothingIsMadeUpOrLost(runTool(arguments), 2000 / std::stol(period));
    }
  }
}

TEST(TimingWatch, TakesEveryPeriodOfTwoSeconds) {
  ToolResult const result =
      runTool({"watch", "--period", "100", "--for", "2s", "--format", "jsonl"});
  Summary const summary = summaryOf(result);

  EXPECT_EQ(0, result.exitCode);
  EXPECT_EQ(20, summary.asked);
  EXPECT_EQ(summary.asked, summary.taken + summary.missed);
  // On a busy machine the last one may come after the stop.
  EXPECT_GE(summary.taken, summary.asked - 1);
  EXPECT_EQ(summary.taken * summary.keys, summary.samples);
  EXPECT_EQ(static_cast<std::size_t>(summary.samples + summary.events), jsonLinesOf(result).size());
}

TEST(TimingWatch, EndsWithItsDuration) {
  auto const start = std::chrono::steady_clock::now();
  runTool({"watch", "--period", "5000", "--for", "1s"});
  auto const took = std::chrono::steady_clock::now() - start;

  EXPECT_GE(took, std::chrono::milliseconds(999));
  EXPECT_LT(took, std::chrono::milliseconds(2500));
}

}  // namespace
}  // namespace KX::testing
