// A module's own process on a robot, over a real server.
#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxannounced.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxproxy.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/childprocess.hpp>

namespace KX::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

std::string library(std::string const& name) {
  return std::string(KX_TEST_LIBRARY_DIR) + "/" + name + ".so";
}

class ProcessOnARobot : public ::testing::Test {
 protected:
  std::vector<std::string> commandLine(std::vector<std::string> const& more) const {
    std::vector<std::string> all{KX_TEST_PROGRAM, "--bus", mServer.url(), "--robot", "r1"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }
  std::unique_ptr<ChildProcess> start(std::vector<std::string> const& more = {}) const {
    auto child = std::make_unique<ChildProcess>(commandLine(more));
    child->waitForErrorText("; Ctrl-C");
    return child;
  }
  std::pair<int, std::string> run(std::vector<std::string> const& more = {}) const {
    ChildProcess child(commandLine(more));
    int const exitCode = child.waitForEnd();
    return {exitCode, child.getErrors()};
  }
  std::vector<std::string> announced() const {
    auto const bus = connectNats({.url = mServer.url()});
    std::vector<std::string> names;
    for (auto const& each : findAnnounced(*bus)) names.push_back(each.robot + '/' + each.module);
    return names;
  }

  NatsServer mServer;
};

TEST_F(ProcessOnARobot, AnnouncesItsModulesAndNeitherStoreNorLauncher) {
  auto const child = start({"--load", library("good")});

  EXPECT_THAT(child->getErrors(),
              StartsWith("testprogram: serving 'good', 'own' on robot 'r1' at " + mServer.url() +
                         " as process "));
  EXPECT_THAT(announced(), ElementsAre("r1/good", "r1/own"));

  child->sendSignal(SIGTERM);
  EXPECT_EQ(child->waitForEnd(), 0);
  EXPECT_THAT(announced(), ElementsAre());
}

TEST_F(ProcessOnARobot, IsReachedByTheModulesOfOtherProcesses) {
  auto const child = start();
  KXHost const other(
      {.withStore = false, .bus = KXBusOptions{.url = mServer.url(), .robot = "r1"}});

  EXPECT_EQ(other.getBroker()->getProxy("own", 0)->describe().name, "own");
}

TEST_F(ProcessOnARobot, IsRefusedWholeWhereOneOfItsNamesIsTaken) {
  auto const first = start({"--load", library("good")});

  auto const [exitCode, errors] = run({"--load", library("second")});

  EXPECT_EQ(exitCode, 1);
  EXPECT_THAT(errors, MatchesRegex(
                          "testprogram: cannot serve the module: module 'own' is already on robot "
                          "'r1' \\(process [0-9]+ on host [^ ]+, since [^ ]+\\), expected its name "
                          "to be free\n"));
  EXPECT_THAT(announced(), ElementsAre("r1/good", "r1/own"));
  auto const elsewhere = std::make_unique<ChildProcess>(
      std::vector<std::string>{KX_TEST_PROGRAM, "--bus", mServer.url(), "--robot", "r2"});
  elsewhere->waitForErrorText("on robot 'r2'");
}

TEST_F(ProcessOnARobot, SaysInOneLineThatItCannotJoin) {
  mServer.kill();

  auto const [exitCode, errors] = run();

  EXPECT_EQ(exitCode, 1);
  EXPECT_THAT(errors, MatchesRegex("testprogram: cannot join the robot: [^\n]+\n"));
}

}  // namespace
}  // namespace KX::testing
