#include "natsserver.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace KX::testing {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLimit = std::chrono::seconds(30);
constexpr auto kLook = std::chrono::milliseconds(2);

/// Not everybody has the place in PATH.
std::string findServer() {
  char const* const path = std::getenv("PATH");
  std::istringstream places(std::string(path == nullptr ? "" : path) + ":/usr/sbin");
  for (std::string place; std::getline(places, place, ':');) {
    if (auto const file = place + "/nats-server"; ::access(file.c_str(), X_OK) == 0) return file;
  }
  throw std::runtime_error("there is no nats-server: ./dev test installs it");
}

std::string readAll(std::filesystem::path const& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

pid_t run(std::vector<std::string> arguments, std::string const& output) {
  std::vector<char*> pointers;
  for (auto& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  pid_t const parent = ::getpid();
  pid_t const pid = ::fork();
  if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid > 0) return pid;
  // Only what is allowed between fork and exec of a process with threads.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  ::sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  int const file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::dup2(file, STDOUT_FILENO);
  ::dup2(file, STDERR_FILENO);
  ::execv(pointers[0], pointers.data());
  ::_exit(127);
}

}  // namespace

NatsServer::NatsServer(std::string configuration) : mConfiguration(std::move(configuration)) {
  start();
}

NatsServer::~NatsServer() {
  kill();
}

void NatsServer::start() {
  kill();
  auto const file = mDirectory.file("server.conf");
  std::ofstream(file) << "listen: \"127.0.0.1:" << mPort << "\"\n"
                      << "ports_file_dir: \"" << mDirectory.path().string() << "\"\n"
                      << mConfiguration << '\n';
  auto const limit = Clock::now() + kLimit;
  while (Clock::now() < limit) {
    mPid = run({findServer(), "-c", file}, mDirectory.path() / "log");
    while (::waitpid(mPid, nullptr, WNOHANG) == 0) {
      if (int const port = xPortInFile(); port > 0) {
        mPort = port;
        return;
      }
      if (Clock::now() > limit)
        throw std::runtime_error("nats-server does not start: " + logText());
      std::this_thread::sleep_for(kLook);
    }
    mPid = -1;
    // It ended: somebody may have had the port for a moment.
    if (mPort <= 0 || logText().find("address already in use") == std::string::npos) break;
    std::this_thread::sleep_for(kLook);
  }
  throw std::runtime_error("nats-server has ended: " + logText());
}

void NatsServer::kill() {
  if (mPid <= 0) return;
  ::kill(mPid, SIGKILL);
  ::waitpid(mPid, nullptr, 0);
  std::error_code ignored;
  std::filesystem::remove(mDirectory.path() / ("nats-server_" + std::to_string(mPid) + ".ports"),
                          ignored);
  mPid = -1;
}

void NatsServer::hang() {
  ::kill(mPid, SIGSTOP);
  // It stops when it gets to it.
  int status = 0;
  ::waitpid(mPid, &status, WUNTRACED);
}

void NatsServer::goOn() {
  ::kill(mPid, SIGCONT);
}

std::string NatsServer::logText() const {
  return readAll(mDirectory.path() / "log");
}

/// Where it listens; 0 as long as it does not.
int NatsServer::xPortInFile() const {
  auto const text = readAll(mDirectory.path() / ("nats-server_" + std::to_string(mPid) + ".ports"));
  auto const host = text.find("127.0.0.1:");
  // Written completely?
  if (host == std::string::npos || text.find('}') == std::string::npos) return 0;
  return std::stoi(text.substr(host + 10));
}

}  // namespace KX::testing
