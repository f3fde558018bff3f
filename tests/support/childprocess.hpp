// A program run as a child, with its output kept. For one thread of a test.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace KX::testing {

/// Runs a program until it ends, or until destruction kills it.
///
///     ChildProcess child({program, "--load", library});
///     child.waitForErrorText("serving");
///     child.sendSignal(SIGTERM);
///     EXPECT_EQ(0, child.waitForEnd());
///
/// Waiting has a limit of a minute; std::runtime_error that shows the output when it is reached.
class ChildProcess {
 public:
  /// `arguments` begins with the program's path. `environment` is added to this process's.
  explicit ChildProcess(std::vector<std::string> arguments,
                        std::vector<std::pair<std::string, std::string>> const& environment = {});
  ~ChildProcess();
  ChildProcess(ChildProcess const&) = delete;
  ChildProcess& operator=(ChildProcess const&) = delete;

  /// Returns when the text has appeared on stderr.
  void waitForErrorText(std::string const& text);
  /// Returns when the text has appeared on stdout.
  void waitForOutputText(std::string const& text);
  void sendSignal(int signal);
  /// Reads stderr no more: what the child writes there meets a broken pipe.
  void closeErrors();
  /// Reads stdout no more.
  void closeOutput();
  /// Reads until the child ends; its exit code, or the negative number of the signal it died of.
  int waitForEnd();

  pid_t getPid() const { return mPid; }
  std::string const& getOutput() const { return mOutput; }
  std::string const& getErrors() const { return mErrors; }

 private:
  bool xReadSome();

  pid_t mPid = -1;
  int mOutputPipe = -1;
  int mErrorPipe = -1;
  std::string mOutput;
  std::string mErrors;
};

}  // namespace KX::testing
