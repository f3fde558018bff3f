#include "childprocess.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace KX::testing {
namespace {

constexpr int kLimitMs = 60'000;

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "pipe2");
    reading = ends[0];
    writing = ends[1];
  }
  int reading;
  int writing;
};

void closePipe(int& pipe) {
  if (pipe >= 0) ::close(pipe);
  pipe = -1;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentWith(
    std::vector<std::pair<std::string, std::string>> const& added) {
  std::vector<std::string> all;
  for (auto const& [name, value] : added) all.push_back(name + "=" + value);
  for (char** entry = environ; *entry != nullptr; ++entry) all.emplace_back(*entry);
  return all;
}

/// Appends what is there; closes the pipe at its end.
void readInto(std::string& text, int& pipe) {
  char buffer[4096];
  ::ssize_t const size = ::read(pipe, buffer, sizeof(buffer));
  if (size > 0)
    text.append(buffer, static_cast<std::size_t>(size));
  else
    closePipe(pipe);
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           std::vector<std::pair<std::string, std::string>> const& environment) {
  Pipe output;
  Pipe errors;
  ::posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, output.writing, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, errors.writing, STDERR_FILENO);
  // However the tests were started: what they ignore, the child would too.
  ::posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::sigset_t defaults;
  ::sigemptyset(&defaults);
  for (int const signal : {SIGHUP, SIGINT, SIGTERM}) ::sigaddset(&defaults, signal);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  auto variables = environmentWith(environment);
  int const error = ::posix_spawn(&mPid, arguments.at(0).c_str(), &actions, &attributes,
                                  pointersTo(arguments).data(), pointersTo(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  closePipe(output.writing);
  closePipe(errors.writing);
  mOutputPipe = output.reading;
  mErrorPipe = errors.reading;
  if (error != 0) {
    closePipe(mOutputPipe);
    closePipe(mErrorPipe);
    throw std::system_error(error, std::generic_category(), "cannot run " + arguments[0]);
  }
}

ChildProcess::~ChildProcess() {
  closePipe(mOutputPipe);
  closePipe(mErrorPipe);
  if (mPid > 0) {
    ::kill(mPid, SIGKILL);
    ::waitpid(mPid, nullptr, 0);
  }
}

void ChildProcess::waitForErrorText(std::string const& text) {
  while (mErrors.find(text) == std::string::npos) {
    if (!xReadSome())
      throw std::runtime_error("the child ended without '" + text + "', stderr: " + mErrors);
  }
}

void ChildProcess::waitForOutputText(std::string const& text) {
  while (mOutput.find(text) == std::string::npos) {
    if (!xReadSome())
      throw std::runtime_error("the child ended without '" + text + "', stderr: " + mErrors);
  }
}

void ChildProcess::sendSignal(int signal) {
  ::kill(mPid, signal);
}

void ChildProcess::closeErrors() {
  closePipe(mErrorPipe);
}

void ChildProcess::closeOutput() {
  closePipe(mOutputPipe);
}

int ChildProcess::waitForEnd() {
  while (xReadSome()) {
  }
  int status = 0;
  ::waitpid(mPid, &status, 0);
  mPid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// Waits for output; false when the child has closed both pipes.
bool ChildProcess::xReadSome() {
  if (mOutputPipe < 0 && mErrorPipe < 0) return false;
  ::pollfd pipes[] = {{mOutputPipe, POLLIN, 0}, {mErrorPipe, POLLIN, 0}};
  int const ready = ::poll(pipes, 2, kLimitMs);
  if (ready == 0)
    throw std::runtime_error("the child says no more, stdout: " + mOutput + ", stderr: " + mErrors);
  if (pipes[0].revents != 0) readInto(mOutput, mOutputPipe);
  if (pipes[1].revents != 0) readInto(mErrors, mErrorPipe);
  return true;
}

}  // namespace KX::testing
