#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxprocessgroup.hpp>

#include "fakeroot.hpp"

namespace KX {
namespace {

using testing::FakeRoot;
using testing::find;
using testing::readGroup;

std::string started(KXHostReport const& report) {
  std::string text;
  for (KXHostEvent const& event : report.events) {
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
    mKnown[pid] = KXProcess{pid, name, true};
    mRoot.makeFolder("proc/" + std::to_string(pid));
    writeLoad(pid);
  }
  void end(int pid) {
    mKnown.erase(pid);
    mRoot.remove("proc/" + std::to_string(pid));
  }
  void writeLoad(int lastPid) {
    mRoot.write("proc/loadavg", "0.10 0.20 0.30 2/345 " + std::to_string(lastPid) + "\n");
  }
  std::string read(int ms) {
    mReport = readGroup(mGroup, ms);
    return started(mReport);
  }

  FakeRoot mRoot;
  std::map<int, KXProcess> mKnown;
  int mLookups = 0;
  KXProcessGroup mGroup{mRoot.path(), [this](std::vector<int> const& pids) {
                          ++mLookups;
                          std::vector<KXProcess> found;
                          for (int const pid : pids) {
                            if (mKnown.contains(pid)) found.push_back(mKnown[pid]);
                          }
                          return found;
                        }};
  KXHostReport mReport;
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
  EXPECT_EQ(0, mLookups);
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
  start(20, "shell");
  mKnown[20].hasOwnProgram = false;

  EXPECT_EQ("", read(100));
  mKnown[20] = KXProcess{20, "program", true};
  EXPECT_EQ(R"(["program",20])", read(200));
  EXPECT_EQ("", read(300));
}

TEST_F(Processes, ThatNeverExecAreReportedUnderTheirParentsName) {
  read(0);
  start(20, "shell");
  mKnown[20].hasOwnProgram = false;

  EXPECT_EQ("", read(100));
  EXPECT_EQ(R"(["shell",20])", read(200));
  EXPECT_EQ("", read(300));
}

TEST_F(Processes, ThatEndWhileTheyAreLookedUpAreLeftOut) {
  read(0);
  start(20, "a");
  mKnown.clear();

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
  KXProcessGroup mGroup{""};
};

TEST_F(RealProcesses, AreReportedWithTheirName) {
  readGroup(mGroup, 0);

  std::string const expected = R"(["sleep",)" + std::to_string(spawnSleep()) + "]";
  std::string const reported = started(readGroup(mGroup, 100)) + started(readGroup(mGroup, 200));

  EXPECT_NE(std::string::npos, reported.find(expected)) << reported;
}

TEST_F(RealProcesses, AreReportedHoweverManyStartAtOnce) {
  readGroup(mGroup, 0);
  // More than libproc2 looks up at once.
  std::vector<std::string> expected;
  for (int i = 0; i < 300; ++i) {
    expected.push_back(R"(["sleep",)" + std::to_string(spawnSleep()) + "]");
  }

  std::string const reported = started(readGroup(mGroup, 100)) + started(readGroup(mGroup, 200));

  auto const isReported = [&](std::string const& one) {
    return reported.find(one) != one.npos;
  };
  EXPECT_EQ(300, std::count_if(expected.begin(), expected.end(), isReported));
}

}  // namespace
}  // namespace KX
