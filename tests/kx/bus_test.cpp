// The verbs on a robot: real processes over a real server.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <kxerror/kxerror.hpp>
#include <tests/support/waituntil.hpp>

#include "robot.hpp"
#include "tool.hpp"

namespace KX::testing {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// What its line on stderr says.
pid_t pidOf(ChildProcess& child) {
  child.waitForErrorText("; Ctrl-C");
  std::string const& errors = child.getErrors();
  return std::stoi(errors.substr(errors.find("as process ") + 11));
}

std::size_t socketsOf(pid_t pid) {
  std::size_t count = 0;
  for (auto const& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    auto const target = std::filesystem::read_symlink(entry.path(), gone).string();
    if (target.starts_with("socket:")) ++count;
  }
  return count;
}

TEST_F(Robot, IsServedUntilASignalEndsIt) {
  for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
    auto const host =
        std::make_unique<ChildProcess>(withBus({toolPath(), "host", "--robot", "r2"}));
    host->waitForErrorText("\n");
    host->sendSignal(signal);

    EXPECT_EQ(host->waitForEnd(), 0);
    EXPECT_EQ(host->getOutput(), "");
    EXPECT_THAT(host->getErrors(),
                MatchesRegex("kx: serving 'KXLauncher', 'KXMemory', 'KXHostSensors' on robot 'r2' "
                             "at nats://127.0.0.1:[0-9]+ as process [0-9]+; Ctrl-C or SIGTERM ends "
                             "it\n"));
  }
}

TEST_F(Robot, HasACycleAndMoreModulesOnRequest) {
  ChildProcess host(withBus(
      {toolPath(), "host", "--robot", "r2", "--cycle", "--load", KX_LIB_DIR "/libthermometer.so"}));
  host.waitForErrorText("\n");

  EXPECT_THAT(host.getErrors(), StartsWith("kx: serving 'KXLauncher', 'KXMemory', 'VSM', "
                                           "'KXHostSensors', 'Thermometer' on robot 'r2'"));
  ToolResult const described = runTool(withBus({"describe", "--robot", "r2", "Thermometer"}));
  EXPECT_EQ(described.exitCode, 0);
  EXPECT_THAT(described.output, StartsWith("Thermometer\nTells the temperature of the room.\n"));
}

TEST_F(Robot, HasOneHost) {
  ToolResult const second = run({"host"});

  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(messagesOf(second),
              ElementsAre(MatchesRegex("kx: module '[A-Za-z]+' is already on robot 'r1' \\(process "
                                       "[0-9]+ on host [^ ]+, since 20[^ ]+Z\\), expected its name "
                                       "to be free")));
}

TEST_F(Robot, TellsItsKeysToWhoeverLists) {
  ToolResult const result = run({"list", "Host/Cpu/*", "--types"});

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(linesOf(result.output),
              IsSupersetOf({"Data         Host/Cpu/Usage", "Event        Host/Cpu/Saturated"}));
  EXPECT_THAT(messagesOf(result), IsEmpty());
}

TEST_F(Robot, DescribesItsModulesAsTheyDescribeThemselves) {
  auto const watcher = startWatcher();

  ToolResult const all = run({"describe"});
  EXPECT_EQ(all.exitCode, 0);
  std::vector<std::string> const lines = linesOf(all.output);
  ASSERT_THAT(lines, SizeIs(4));
  EXPECT_THAT(lines[0], MatchesRegex("KXHostSensors +[^ (].*"));
  EXPECT_THAT(lines[3], StartsWith("KXMemoryWatcher  This is a module design"));

  ToolResult const one = run({"describe", "KXMemoryWatcher"});
  EXPECT_EQ(one.exitCode, 0);
  EXPECT_EQ(one.output, goldenOf("describe_memorywatcher.txt"));

  ToolResult const none = run({"describe", "KXMemryWatcher"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_THAT(messagesOf(none),
              ElementsAre("kx: unknown module 'KXMemryWatcher', loaded: 'KXHostSensors', "
                          "'KXLauncher', 'KXMemory', 'KXMemoryWatcher'; nearest is "
                          "'KXMemoryWatcher'"));
}

TEST_F(Robot, IsListedWithItsModules) {
  auto const watcher = startWatcher();
  ChildProcess other(withBus({toolPath(), "host", "--robot", "a robot"}));
  other.waitForErrorText("serving");

  ToolResult const table = runTool(withBus({"robots"}));
  ToolResult const json = runTool(withBus({"robots", "--format", "json"}));

  EXPECT_EQ(table.exitCode, 0);
  std::vector<std::string> const lines = linesOf(table.output);
  ASSERT_THAT(lines, SizeIs(10));
  EXPECT_EQ(lines[0], "a robot");
  EXPECT_EQ(lines[4], "");
  EXPECT_EQ(lines[5], "r1");
  EXPECT_THAT(lines[9], MatchesRegex("  KXMemoryWatcher  since 20[0-9-]+T[0-9:.]+Z  version "
                                     "[0-9.]+[^ ]*.*  in any\\.[0-9a-f]+"));
  EXPECT_EQ(json.exitCode, 0);
  Json const robots = Json::parse(json.output);
  ASSERT_EQ(robots.size(), 2U);
  EXPECT_EQ(robots[1].at("robot"), "r1");
  std::set<std::string> modules;
  for (Json const& module : robots[1].at("modules")) {
    modules.insert(module.at("module").get<std::string>());
    EXPECT_NE(module.at("since").get<std::string>(), "");
  }
  EXPECT_EQ(modules,
            (std::set<std::string>{"KXLauncher", "KXMemory", "KXHostSensors", "KXMemoryWatcher"}));
}

TEST_F(Robot, IsWatchedBySeveralWithoutTakingEachOthersSamples) {
  auto const announced = startWatcher();
  call("KXMemory", "declareEvent", {"Test/Raised"});
  std::vector<std::unique_ptr<ChildProcess>> viewers;
  for (int i = 0; i < 2; ++i) {
    viewers.push_back(start({toolPath(), "watch", "Host/UptimeSeconds", "Test/Raised", "--for",
                             "3s", "--period", "50", "--format", "jsonl"}));
  }
  for (auto const& viewer : viewers) viewer->waitForOutputText("Host/UptimeSeconds");

  raise("Test/Raised", 50);

  for (auto const& viewer : viewers) {
    EXPECT_EQ(viewer->waitForEnd(), 0);
    int samples = 0;
    std::vector<int> events;
    for (std::string const& line : linesOf(viewer->getOutput())) {
      Json const sample = Json::parse(line);
      if (sample.at("key") == "Test/Raised") {
        events.push_back(sample.at("value").get<int>());
      } else {
        ++samples;
      }
    }
    ASSERT_THAT(events, SizeIs(50));
    for (int i = 0; i < 50; ++i) EXPECT_EQ(events[static_cast<std::size_t>(i)], i);
    EXPECT_GE(samples, 40);
    EXPECT_THAT(viewer->getErrors(), Not(HasSubstr("skipped")));
  }
  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(false));
}

TEST_F(Robot, IsWatchedOnWhileItsServerIsAway) {
  auto const viewer = start({toolPath(), "watch", "Host/UptimeSeconds", "--for", "4s", "--period",
                             "100", "--format", "csv"});
  viewer->waitForOutputText("\n1");

  mServer.kill();
  std::this_thread::sleep_for(1s);  // what is tested: an absence of some time
  mServer.start();

  EXPECT_EQ(viewer->waitForEnd(), 0);
  EXPECT_THAT(viewer->getErrors(), ContainsRegex("[0-9]+ read failed"));
  EXPECT_GE(readCsv(viewer->getOutput()).size(), 10U);
}

TEST_F(Robot, HasOneWatcherAndAnotherSoonAfterThatWasKilled) {
  auto const first = startWatcher();

  auto const second = start({watcherPath()});
  EXPECT_EQ(second->waitForEnd(), 1);
  EXPECT_THAT(second->getErrors(),
              MatchesRegex("memorywatcher: cannot serve the module: module 'KXMemoryWatcher' is "
                           "already on robot 'r1' \\(process " +
                           std::to_string(pidOf(*first)) +
                           " on host [^ ]+, since 20[^ ]+Z\\), expected its name to be free\n"));

  first->sendSignal(SIGKILL);
  first->waitForEnd();
  auto const start = std::chrono::steady_clock::now();
  auto const third = startWatcher();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(false));
}

TEST_F(Robot, LosesAHungWatcherToTheNextOneForGood) {
  auto const first = startWatcher();
  first->sendSignal(SIGSTOP);
  auto const begin = std::chrono::steady_clock::now();

  auto const second = startWatcher();

  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
  first->sendSignal(SIGCONT);
  first->waitForErrorText("module 'KXMemoryWatcher' is withdrawn from robot 'r1': process " +
                          std::to_string(pidOf(*second)));
  EXPECT_EQ(first->waitForEnd(), 1);
  call("KXMemoryWatcher", "addListener", {"Host/UptimeSeconds"});
  for (int i = 0; i < 20; ++i) {
    EXPECT_THAT(listeners(), ElementsAre("Host/UptimeSeconds"));
  }
}

TEST_F(Robot, EndsAHostWhoseNamesWereTaken) {
  mHost->sendSignal(SIGSTOP);
  auto const next = start({toolPath(), "host"});
  next->waitForErrorText("serving");

  mHost->sendSignal(SIGCONT);

  EXPECT_EQ(mHost->waitForEnd(), 1);
  EXPECT_THAT(mHost->getErrors(), HasSubstr("module 'KXMemory' is withdrawn from robot 'r1'"));
  EXPECT_EQ(run({"list"}).exitCode, 0);
}

TEST_F(Robot, KeepsNoWatcherFromEndingWhileItsHostHangs) {
  mHost->sendSignal(SIGSTOP);
  auto const watcher = start({watcherPath(), "--bus-timeout", "600000"});
  watcher->waitForErrorText("serving");

  watcher->sendSignal(SIGTERM);

  EXPECT_EQ(watcher->waitForEnd(), 0);
  mHost->sendSignal(SIGCONT);
}

TEST_F(Robot, ThatHangsIsATimeOut) {
  mHost->sendSignal(SIGSTOP);

  ToolResult const result = run({"list", "--bus-timeout", "500"});

  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(messagesOf(result), SizeIs(1));
  mHost->sendSignal(SIGCONT);
  EXPECT_EQ(run({"list"}).exitCode, 0);
}

TEST_F(Robot, IsNamedByTheEnvironmentToo) {
  std::string const environment = "KX_BUS=" + mServer.url() + " KX_ROBOT=r1 ";

  ToolResult const listed = runShell(environment + "\"$kx\" list Host/UptimeSeconds");
  EXPECT_EQ(listed.exitCode, 0);
  EXPECT_EQ(listed.output, "Host/UptimeSeconds\n");
  EXPECT_EQ(runShell(environment + "\"$kx\" list --robot r2").exitCode, 3);
  // Without a bus, libraries of one's own are welcome again.
  EXPECT_EQ(runShell(environment + "\"$kx\" list --load thermometer").exitCode, 2);
  EXPECT_EQ(runShell(environment + "\"$kx\" list --bus '' --load thermometer Room/*").exitCode, 0);
}

TEST_F(OnABus, ARobotThatIsNotThereIsNothingThere) {
  for (std::string const verb : {"watch", "list", "describe"}) {
    ToolResult const result = run({verb});

    EXPECT_EQ(result.exitCode, 3) << verb;
    EXPECT_THAT(messagesOf(result),
                ElementsAre("kx: no robot 'r1' on " + mServer.url() +
                            ": nobody there has its store (KXMemory); kx robots lists those that "
                            "are there"));
  }
  ToolResult const robots = runTool(withBus({"robots"}));
  EXPECT_EQ(robots.exitCode, 3);
  EXPECT_THAT(messagesOf(robots),
              ElementsAre("kx: no robot on " + mServer.url() + "; kx host puts one there"));
}

TEST_F(OnABus, AWatcherMayBeThereBeforeTheRobotsHost) {
  auto const watcher = start({watcherPath()});
  watcher->waitForErrorText("serving 'KXMemoryWatcher' on robot 'r1'");
  watcher->waitForErrorText("memorywatcher: robot 'r1' has no store (KXMemory) yet");
  auto const host = start({toolPath(), "host"});
  host->waitForErrorText("serving");

  ToolResult const result = run({"watch", "--shared", "Host/UptimeSeconds", "--for", "500ms",
                                 "--period", "50", "--format", "csv"});

  EXPECT_EQ(result.exitCode, 0);
  EXPECT_GE(readCsv(result.output).size(), 5U);
}

TEST_F(OnABus, AServerThatIsNotThereIsOneLine) {
  mServer.kill();
  for (std::string const verb : {"watch", "list", "describe", "robots", "host"}) {
    std::vector<std::string> arguments = withBus({verb});
    ToolResult const result = runTool(arguments);

    EXPECT_EQ(result.exitCode, 1) << verb;
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(messagesOf(result), SizeIs(1)) << verb;
    EXPECT_THAT(result.errors, HasSubstr(std::to_string(mServer.port())));
  }
  auto const watcher = start({watcherPath()});
  EXPECT_EQ(watcher->waitForEnd(), 1);
  EXPECT_THAT(watcher->getErrors(), MatchesRegex("memorywatcher: cannot join the robot: .*\n"));
}

TEST_F(OnABus, SocketsAreOpenAndWithoutABusTheyAreNot) {
  ChildProcess withoutBus({watcherPath()});
  ChildProcess host(onRobot({toolPath(), "host"}));

  EXPECT_EQ(socketsOf(pidOf(withoutBus)), 0U);
  EXPECT_GE(socketsOf(pidOf(host)), 1U);
}

TEST_F(OnABus, WrongOptionsAreOneLineAndExitCodeTwo) {
  struct Case {
    std::vector<std::string> arguments;
    std::string error;
  };
  std::vector<Case> const cases{
      {{"host"}, "kx: expected a bus (--bus URL or KX_BUS), got none: nobody could reach the host"},
      {{"robots"}, "kx: expected a bus (--bus URL or KX_BUS), got none: robots are found on a bus"},
      {{"list", "--robot", "r1"},
       "kx: --robot: expected a bus as well (--bus URL or KX_BUS), got none"},
      {{"watch", "--shared"},
       "kx: --shared: expected a bus as well (--bus URL or KX_BUS), got none"},
      {withBus({"watch", "--cycle"}),
       "kx: --cycle: expected no bus, got one: the modules are those of the robot; --bus '' means "
       "none"},
      {withBus({"list", "--load", "x"}),
       "kx: --load: expected no bus, got one: the modules are those of the robot; --bus '' means "
       "none"},
      {withBus({"robots", "--format", "csv"}), "kx: --format: expected table or json, got 'csv'"},
      {withBus({"robots", "--robot", "r1"}), "kx: unknown option '--robot'"},
      {withBus({"list", "--bus-timeout", "0"}),
       "kx: --bus-timeout: expected milliseconds, more than 0, got '0'"},
      {{"list", "--bus", "127.0.0.1:4222"},
       "kx: a bus's URL is nats://HOST[:PORT] or tls://HOST[:PORT], not '127.0.0.1:4222'"},
      {withBus({"list", "--bus-user", "me"}),
       "kx: a user needs a password file, credentials or a certificate"},
      {withBus({"host", "--bus-backlog", "much"}),
       "kx: --bus-backlog: expected megabytes, more than 0, got 'much'"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.error);
    ToolResult const result = runTool(c.arguments);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(messagesOf(result), ElementsAre(StartsWith(c.error)));
  }
}

}  // namespace
}  // namespace KX::testing
