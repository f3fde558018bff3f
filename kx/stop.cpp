#include <kx/stop.hpp>

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace KX::tool {
namespace {

int openSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // Started by nohup it is ignored, and is to stay so; blocked, it would be read.
  struct sigaction hangUp {};
  sigaction(SIGHUP, nullptr, &hangUp);
  if (hangUp.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  int const descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return descriptor;
}

}  // namespace

KXStop::KXStop() : mDescriptor(openSignals()) {}

KXStop::~KXStop() {
  close(mDescriptor);
}

bool KXStop::isRequested() const {
  return waitUntil(std::chrono::steady_clock::time_point::min());
}

bool KXStop::waitUntil(std::chrono::steady_clock::time_point time) const {
  using std::chrono::milliseconds;
  constexpr milliseconds kLongest{60'000};  // poll's own limit lies at 24 days
  for (;;) {
    auto const now = std::chrono::steady_clock::now();
    milliseconds rest{0};
    if (time > now)
      rest =
          std::chrono::ceil<milliseconds>(std::min<std::chrono::nanoseconds>(time - now, kLongest));
    pollfd signals{mDescriptor, POLLIN, 0};
    if (poll(&signals, 1, static_cast<int>(rest.count())) > 0) return true;
    if (std::chrono::steady_clock::now() >= time) return false;
  }
}

}  // namespace KX::tool
