#include <algorithm>
#include <string>
#include <vector>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

#include "fakeroot.hpp"

namespace KX {
namespace {

using testing::FakeRoot;
using testing::find;
using testing::readGroup;

std::string started(KXMachineReport const& report) {
  std::string text;
  for (KXMachineEvent const& event : report.events) {
    EXPECT_EQ("Host/Process/Started", event.key);
    EXPECT_TRUE(event.isMicroEvent);
    text += event.value.toString(1);
  }
  return text;
}

/// A machine with processes of the test's making.
class Processes : public ::testing::Test {
 protected:
  Processes() {
    mRoot.makeFolder("proc/sys");
    start(1, "init");
  }
  void start(int pid, std::string const& name) {
    exec(pid, name);
    writeLoad(pid);
  }
  // The kernel marks a process that has not yet an own program by 64 in its flags.
  void fork(int pid, std::string const& parent) {
    write(pid, parent, 64 + 256);
    writeLoad(pid);
  }
  void exec(int pid, std::string const& name) { write(pid, name, 256); }
  void write(int pid, std::string const& name, int flags) {
    std::string const text = std::to_string(pid);
    mRoot.write("proc/" + text + "/stat",
                text + " (" + name + ") S 1 1 1 0 -1 " + std::to_string(flags) + " 5 6\n");
  }
  void end(int pid) { mRoot.remove("proc/" + std::to_string(pid)); }
  void writeLoad(int lastPid) {
    mRoot.write("proc/loadavg", "0.10 0.20 0.30 2/345 " + std::to_string(lastPid) + "\n");
  }
  std::string read(int ms) {
    mReport = readGroup(*mGroup, ms);
    return started(mReport);
  }

  FakeRoot mRoot;
  std::unique_ptr<KXMachineGroup> const mGroup = makeProcessGroup(mRoot.path());
  KXMachineReport mReport;
};

TEST_F(Processes, AreCountedWithTheirThreads) {
  start(20, "a");

  read(0);

  EXPECT_EQ(KXValue(2), find(mReport, "Host/Process/Count"));
  EXPECT_EQ(KXValue(2), find(mReport, "Host/Process/RunningThreads"));
  EXPECT_EQ(KXValue(345), find(mReport, "Host/Process/Threads"));
}

TEST_F(Processes, ThatWereThereBeforeAreNotReported) {
  start(20, "a");

  EXPECT_EQ("", read(0));
  EXPECT_EQ("", read(1000));
}

TEST_F(Processes, AreReportedOnceWhenTheyHaveStarted) {
  read(0);
  start(20, "b");
  start(21, "a");

  EXPECT_EQ(R"(["b",20]["a",21])", read(100));
  EXPECT_EQ("", read(200));
  EXPECT_EQ("", read(2000));
}

TEST_F(Processes, AreHeldBackForOneListBetweenForkAndExec) {
  read(0);
  fork(20, "shell");

  EXPECT_EQ("", read(100));
  exec(20, "program");
  EXPECT_EQ(R"(["program",20])", read(200));
  EXPECT_EQ("", read(300));
}

TEST_F(Processes, ThatNeverExecAreReportedUnderTheirParentsName) {
  read(0);
  fork(20, "shell");

  EXPECT_EQ("", read(100));
  EXPECT_EQ(R"(["shell",20])", read(200));
  EXPECT_EQ("", read(300));
}

TEST_F(Processes, ThatEndWhileTheyAreLookedUpAreLeftOut) {
  read(0);
  start(20, "a");
  mRoot.remove("proc/20/stat");

  EXPECT_EQ("", read(100));
}

TEST_F(Processes, MayUseAPidAgain) {
  start(20, "a");
  read(0);
  end(20);
  writeLoad(30);
  read(100);

  start(20, "b");

  EXPECT_EQ(R"(["b",20])", read(200));
}

TEST_F(Processes, AreListedAtLatestAfterASecond) {
  start(20, "a");
  read(0);
  end(20);

  read(900);
  EXPECT_EQ(KXValue(2), find(mReport, "Host/Process/Count"));
  read(1000);
  EXPECT_EQ(KXValue(1), find(mReport, "Host/Process/Count"));
}

TEST_F(Processes, FailWithoutTheirSource) {
  mRoot.write("proc/loadavg", "0.10 0.20\n");
  EXPECT_THROW(read(0), KXError);
  mRoot.remove("proc/loadavg");
  EXPECT_THROW(read(100), KXError);
}

TEST(ThreadCounts, RefuseWhatIsNotALineOfLoadAverages) {
  for (char const* const text :
       {"", "\n", "1 2 3 4 5", "1 2 3 4/ 5", "1 2 3 /4 5", "1 2 3 4/5 x"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(parseThreadCounts(text));
  }
}

TEST(ProcessStat, GivesTheNameWhateverItIs) {
  for (std::string const name : {"sleep", "", "a b", ") R 1 (", "two\nlines", "((", "))"}) {
    SCOPED_TRACE(name);
    auto const process = parseProcessStat("12 (" + name + ") S 1 2 3 0 -1 4194304 5\n");
    ASSERT_TRUE(process);
    EXPECT_EQ(12, process->pid);
    EXPECT_EQ(name, process->name);
    EXPECT_TRUE(process->hasOwnProgram);
  }
}

TEST(ProcessStat, TellsAForkFromAnExec) {
  EXPECT_FALSE(parseProcessStat("12 (sh) S 1 2 3 0 -1 4194368 5")->hasOwnProgram);
  EXPECT_TRUE(parseProcessStat("12 (sh) S 1 2 3 0 -1 4194304 5")->hasOwnProgram);
}

TEST(ProcessStat, RefusesWhatIsNotWellFormed) {
  for (char const* const text : {"", "12", "12 sh S 1 2 3 0 -1 4 5", ")(", "12 (sh) S 1 2 3 0 -1",
                                 "x (sh) S 1 2 3 0 -1 4", "12 (sh) S 1 2 3 0 -1 x"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(parseProcessStat(text));
  }
}

/// This machine's processes.
class RealProcesses : public ::testing::Test {
 protected:
  ~RealProcesses() override {
    for (pid_t const pid : mChildren) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
  pid_t spawnSleep() {
    std::string program = "sleep";
    std::string time = "1000";
    char* const arguments[] = {program.data(), time.data(), nullptr};
    pid_t pid = 0;
    if (::posix_spawnp(&pid, "sleep", nullptr, nullptr, arguments, environ) != 0) return 0;
    mChildren.push_back(pid);
    return pid;
  }

  std::vector<pid_t> mChildren;
  std::unique_ptr<KXMachineGroup> const mGroup = makeProcessGroup("");
};

TEST_F(RealProcesses, AreReportedWithTheirName) {
  readGroup(*mGroup, 0);

  std::string const expected = R"(["sleep",)" + std::to_string(spawnSleep()) + "]";
  std::string const reported = started(readGroup(*mGroup, 100)) + started(readGroup(*mGroup, 200));

  EXPECT_NE(std::string::npos, reported.find(expected)) << reported;
}

TEST_F(RealProcesses, AreReportedHoweverManyStartAtOnce) {
  readGroup(*mGroup, 0);
  std::vector<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    expected.push_back(R"(["sleep",)" + std::to_string(spawnSleep()) + "]");
  }

  std::string const reported = started(readGroup(*mGroup, 100)) + started(readGroup(*mGroup, 200));

  auto const isReported = [&](std::string const& one) {
    return reported.find(one) != one.npos;
  };
  EXPECT_EQ(300, std::count_if(expected.begin(), expected.end(), isReported));
}

}  // namespace
}  // namespace KX
