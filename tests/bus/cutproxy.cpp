#include "cutproxy.hpp"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace KX::testing {
namespace {

constexpr std::size_t kChunk = 65536;

int check(int result, char const* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

::sockaddr_in localAddress(int port) {
  ::sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

void sendAtOnce(int socket) {
  int const on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

}  // namespace

CutProxy::CutProxy(int targetPort) : mTargetPort(targetPort) {
  mWake = check(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
  mListener = check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
  auto address = localAddress(0);
  ::socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<::sockaddr*>(&address);
  check(::bind(mListener, generic, size), "bind");
  check(::listen(mListener, 64), "listen");
  check(::getsockname(mListener, generic, &size), "getsockname");
  mPort = ntohs(address.sin_port);
  mThread = std::thread([this] { xRun(); });
}

CutProxy::~CutProxy() {
  xSet(Mode::End);
  mThread.join();
  ::close(mListener);
  ::close(mWake);
}

void CutProxy::cut() {
  xSet(Mode::Cut);
}

void CutProxy::hang() {
  xSet(Mode::Hang);
}

void CutProxy::resume() {
  xSet(Mode::Pass);
}

void CutProxy::xSet(Mode mode) {
  std::unique_lock lock(mMutex);
  mWanted = mode;
  std::uint64_t const one = 1;
  check(static_cast<int>(::write(mWake, &one, sizeof(one))), "write");
  mChanged.wait(lock, [&] { return mReached == mode; });
}

void CutProxy::xRun() {
  Mode mode = Mode::Pass;
  while (mode != Mode::End) {
    std::vector<::pollfd> sockets{{mWake, POLLIN, 0}, {mListener, POLLIN, 0}};
    for (auto const& [up, down] : mPairs) {
      auto const interest = [&](Way const& in, Way const& out) {
        return static_cast<short>((in.waiting.empty() ? POLLIN : 0) |
                                  (out.waiting.empty() ? 0 : POLLOUT));
      };
      bool const hangs = mode == Mode::Hang;
      sockets.push_back({hangs ? -1 : up.from, interest(up, down), 0});
      sockets.push_back({hangs ? -1 : down.from, interest(down, up), 0});
    }
    ::poll(sockets.data(), sockets.size(), -1);

    std::uint64_t ignored = 0;
    if (::read(mWake, &ignored, sizeof(ignored)) > 0) {
      std::lock_guard const lock(mMutex);
      mode = mWanted;
    }
    std::size_t i = 2;
    for (auto pair = mPairs.begin(); pair != mPairs.end(); i += 2) {
      auto const has = [&](std::size_t index, int events) {
        return (sockets[index].revents & events) != 0;
      };
      constexpr int kEnd = POLLIN | POLLHUP | POLLERR;
      bool const isOpen =
          mode != Mode::Cut && mode != Mode::End &&
          (mode == Mode::Hang || (xForward(pair->up, has(i, kEnd), has(i + 1, POLLOUT)) &&
                                  xForward(pair->down, has(i + 1, kEnd), has(i, POLLOUT))));
      if (isOpen) {
        ++pair;
        continue;
      }
      ::close(pair->up.from);
      ::close(pair->up.to);
      pair = mPairs.erase(pair);
    }
    if ((sockets[1].revents & POLLIN) != 0) xAccept(mode);
    std::lock_guard const lock(mMutex);
    mReached = mode;
    mChanged.notify_all();
  }
}

void CutProxy::xAccept(Mode mode) {
  int const client = ::accept4(mListener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) return;
  int const server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  auto const address = localAddress(mTargetPort);
  if (mode == Mode::Cut ||
      ::connect(server, reinterpret_cast<::sockaddr const*>(&address), sizeof(address)) != 0) {
    ::close(server);
    ::close(client);
    return;
  }
  sendAtOnce(client);
  sendAtOnce(server);
  mPairs.push_back({{client, server}, {server, client}});
}

/// False when an end has closed.
bool CutProxy::xForward(Way& way, bool canRead, bool canWrite) {
  if (canRead && way.waiting.empty()) {
    way.waiting.resize(kChunk);
    auto const size = ::recv(way.from, way.waiting.data(), kChunk, MSG_DONTWAIT);
    way.waiting.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    if (size == 0 || (size < 0 && errno != EAGAIN)) return false;
    canWrite = true;
  }
  if (!canWrite || way.waiting.empty()) return true;
  auto const size =
      ::send(way.to, way.waiting.data(), way.waiting.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (size < 0) return errno == EAGAIN;
  way.waiting.erase(0, static_cast<std::size_t>(size));
  return true;
}

}  // namespace KX::testing
