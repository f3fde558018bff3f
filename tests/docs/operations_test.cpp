// The commands of docs/operations.md, as they stand there.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/bus/robotserver.hpp>
#include <tests/support/childprocess.hpp>

namespace KX::testing {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

std::string replacedAll(std::string text, std::string const& from, std::string const& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

/// Runs the script in a new directory, on a port that is free.
class Commands {
 public:
  explicit Commands(std::string const& part) {
    std::string const port = [] {
      NatsServer const server;
      return std::to_string(server.port());
    }();
    for (std::string const name : {"three-processes.sh", "certificates.sh", "robot-server.conf"}) {
      std::string const text = readFile(KX_SOURCE_DIR "/docs/examples/" + name);
      mDirectory.write(name, replacedAll(replacedAll(text, "4222", port), "0.0.0.0", "127.0.0.1"));
    }
    // nats-server lies where plain users have no PATH.
    ChildProcess child({"/bin/sh", "-c",
                        "PATH=$2:$PATH:/usr/sbin && mkdir \"$0/robot\" && cd \"$0/robot\" && "
                        "exec sh ../three-processes.sh \"$1\"",
                        mDirectory.path(), part, KX_BIN_DIR});
    exitCode = child.waitForEnd();
    output = child.getOutput();
    errors = child.getErrors();
  }

  int exitCode = -1;
  std::string output;
  std::string errors;

 private:
  TemporaryDirectory mDirectory;
};

TEST(Operations, RunsARobotInThreeProcesses) {
  Commands const commands("plain");

  EXPECT_EQ(commands.exitCode, 0) << commands.errors;
  EXPECT_THAT(commands.output,
              AllOf(HasSubstr("Host/Load/1min "), HasSubstr("  KXMemoryWatcher  since "),
                    HasSubstr("\nHost/Load/5min\n"), HasSubstr("startWatching(int) -> void")));
  EXPECT_THAT(commands.errors, HasSubstr("kx: asked 4 periods of 500 ms, took 4, missed 0"));
}

TEST(Operations, LetsInWhoMayAndNobodyElse) {
  Commands const commands("secured");

  EXPECT_EQ(commands.exitCode, 0) << commands.errors;
  EXPECT_THAT(commands.output, AllOf(HasSubstr("Host/Load/1min "), HasSubstr("exit code 1")));
  EXPECT_THAT(commands.errors,
              AllOf(HasSubstr("TLS required for client connections"),
                    HasSubstr("kx: asked 4 periods of 500 ms"),
                    HasSubstr("kx: the server forbids to call 'KXMemoryWatcher.listeners'"),
                    HasSubstr("events, from the robot's watcher")));
  // The one call that is not for a viewer, and nothing that a role lacks.
  std::string const violation = "Violation - User ";
  auto const first = commands.errors.find(violation);
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(commands.errors.find(violation, first + 1), std::string::npos) << commands.errors;
}

}  // namespace
}  // namespace KX::testing
