// kx watch --shared: real processes over a real server.
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <tests/bus/listener.hpp>

#include "robot.hpp"
#include "tool.hpp"

namespace KX::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

TEST_F(Robot, LendsItsWatcherAndGetsItBackAsItWas) {
  auto const announced = startWatcher();

  ToolResult const first = run({"watch", "--shared", "Host/UptimeSeconds", "Host/Cpu/Usage",
                                "--for", "1s", "--period", "50", "--format", "csv"});

  EXPECT_EQ(first.exitCode, 0);
  auto const rows = readCsv(first.output);
  EXPECT_GE(rows.size(), 10U);
  for (std::size_t i = 2; i < rows.size(); ++i) {
    EXPECT_NE(rows[i][1], "") << i;
    EXPECT_NE(rows[i][2], "") << i;
  }
  EXPECT_THAT(messagesOf(first), ElementsAre(MatchesRegex("kx: [0-9]+ samples of 2 data keys, 0 "
                                                          "events, from the robot's watcher")));
  EXPECT_THAT(listeners(), IsEmpty());
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(false));

  call("KXMemoryWatcher", "addListener", {"Host/UptimeSeconds"});
  call("KXMemoryWatcher", "startWatching", {50});
  ToolResult const second = run({"watch", "--shared", "Host/UptimeSeconds", "Host/Cpu/Usage",
                                 "--for", "300ms", "--period", "50", "--format", "csv"});

  EXPECT_EQ(second.exitCode, 0);
  EXPECT_THAT(listeners(), ElementsAre("Host/UptimeSeconds"));
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(true));
}

TEST_F(Robot, WithoutAWatcherHasNoneToShare) {
  ToolResult const result = run({"watch", "--shared", "--for", "1s"});

  EXPECT_EQ(result.exitCode, 3);
  EXPECT_THAT(messagesOf(result),
              ElementsAre("kx: the robot has no watcher that is shared (KXMemoryWatcher); "
                          "memorywatcher --bus URL puts one there"));
}

/// A watch with the robot's watcher, while that is killed, hung and replaced.
class SharedRobot : public Robot {
 protected:
  SharedRobot() { mViewer->waitForOutputText("Host/UptimeSeconds"); }

  std::unique_ptr<ChildProcess> startViewer() {
    call("KXMemory", "declareEvent", {"Test/Raised"});
    return start({toolPath(), "watch", "--shared", "Host/UptimeSeconds", "Test/Raised", "--period",
                  "50", "--format", "jsonl", "--bus-timeout", "1000"});
  }
  void killWatcher() {
    mWatcher->sendSignal(SIGKILL);
    mWatcher->waitForEnd();
  }
  /// Ends the watch, which has to be in progress and to have taken back what it gave.
  void expectTheWatchGoesOn() {
    call("KXMemory", "raiseEvent", {"Test/Raised", 17});
    mViewer->waitForOutputText("\"value\":17}");
    // Samples come too: how soon depends on when each process is back.
    std::size_t const printed = mViewer->getOutput().size();
    int last = 17;
    EXPECT_TRUE(waitUntil([&] {
      call("KXMemory", "raiseEvent", {"Test/Raised", ++last});
      mViewer->waitForOutputText("\"value\":" + std::to_string(last) + "}");
      return mViewer->getOutput().find("Host/UptimeSeconds", printed) != std::string::npos;
    }));
    mViewer->sendSignal(SIGINT);
    EXPECT_EQ(mViewer->waitForEnd(), 0);
    EXPECT_THAT(listeners(), IsEmpty());
    EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(false));
  }
  /// Before the watch asks again.
  void replaceWatcherThatOthersUse(std::vector<std::string> const& theirs) {
    mViewer->sendSignal(SIGSTOP);
    killWatcher();
    mWatcher = startWatcher();
    call("KXMemoryWatcher", "addListeners", {theirs});
    call("KXMemoryWatcher", "startWatching", {50});
    mViewer->sendSignal(SIGCONT);
  }
  /// Ends with the summary.
  std::vector<std::string> messages() const {
    return messagesOf({0, mViewer->getOutput(), mViewer->getErrors()});
  }

  std::unique_ptr<ChildProcess> mWatcher = startWatcher();
  std::unique_ptr<ChildProcess> const mViewer = startViewer();
};

TEST_F(SharedRobot, IsWatchedOnWithTheWatcherAfterTheOneThatWasKilled) {
  killWatcher();
  mViewer->waitForErrorText("does not answer");
  mWatcher = startWatcher();
  mViewer->waitForErrorText("is back");

  expectTheWatchGoesOn();
  EXPECT_THAT(
      messages(),
      ElementsAre(MatchesRegex("kx: the robot's watcher does not answer and is asked again: "
                               ".*'KXMemoryWatcher'.*"),
                  "kx: the robot's watcher is back", HasSubstr("samples of 1 data key")));
}

TEST_F(SharedRobot, IsWatchedOnWithAWatcherReplacedBetweenTwoFetches) {
  mViewer->sendSignal(SIGSTOP);
  killWatcher();
  mWatcher = startWatcher();
  mViewer->sendSignal(SIGCONT);
  mViewer->waitForErrorText("is back");

  expectTheWatchGoesOn();
  EXPECT_THAT(messages(), ElementsAre("kx: the robot's watcher is back", HasSubstr("samples")));
}

TEST_F(SharedRobot, KeepsWhatOthersGaveTheWatcherAfterTheOneThatWasKilled) {
  std::vector<std::string> const theirs{"Host/UptimeSeconds", "Test/Raised"};
  replaceWatcherThatOthersUse(theirs);

  mViewer->sendSignal(SIGINT);

  EXPECT_EQ(mViewer->waitForEnd(), 0);
  EXPECT_EQ(listeners(), theirs);
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(true));
}

TEST_F(SharedRobot, GetsBackWhatTheWatchGaveTheWatcherAfterTheOneThatWasKilledAndNoMore) {
  replaceWatcherThatOthersUse({"Host/UptimeSeconds"});
  mViewer->waitForErrorText("is back");
  EXPECT_THAT(listeners(), SizeIs(2));

  mViewer->sendSignal(SIGINT);

  EXPECT_EQ(mViewer->waitForEnd(), 0);
  EXPECT_THAT(listeners(), ElementsAre("Host/UptimeSeconds"));
  EXPECT_EQ(call("KXMemoryWatcher", "isWatching"), KXValue(true));
}

TEST_F(SharedRobot, IsWatchedOnWithAWatcherThatHung) {
  mWatcher->sendSignal(SIGSTOP);
  mViewer->waitForErrorText("does not answer");
  mWatcher->sendSignal(SIGCONT);
  mViewer->waitForErrorText("is back");

  expectTheWatchGoesOn();
  EXPECT_THAT(messages(), SizeIs(3));
}

TEST_F(SharedRobot, IsWatchedOnAfterItsServerWasAway) {
  mServer.kill();
  mViewer->waitForErrorText("does not answer");
  mServer.start();
  mViewer->waitForErrorText("is back");
  // This process comes back in its own time.
  EXPECT_TRUE(waitUntil([&] {
    try {
      return listeners().size() == 2;
    } catch (KXError const&) {
      return false;
    }
  }));

  expectTheWatchGoesOn();
}

TEST_F(SharedRobot, WhoseWatcherStaysAwayEndsTheWatchInTime) {
  killWatcher();
  mViewer->waitForErrorText("does not answer");
  mViewer->sendSignal(SIGINT);

  EXPECT_EQ(mViewer->waitForEnd(), 0);
  EXPECT_THAT(messages(), ElementsAre(HasSubstr("does not answer"), HasSubstr("samples")));
}

}  // namespace
}  // namespace KX::testing
