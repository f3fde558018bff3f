#include <kx/output.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

std::string_view environment(char const* name) {
  char const* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

constexpr int kGraceMs = 1000;

// Whether a terminal's writes block belongs to everybody who has it open; to us if we open it.
int openTerminal(int descriptor) {
  char const* const name = ttyname(descriptor);
  if (name == nullptr) return -1;
  return open(name, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
}

bool isSocket(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

bool waitForWriting(int descriptor, int timeoutMs) {
  pollfd output{descriptor, POLLOUT, 0};
  return poll(&output, 1, timeoutMs) > 0;  // an error, too, is for write() to tell
}

}  // namespace

KXOutput::KXOutput(int descriptor, KXStop const& stop)
    : mDescriptor(descriptor),
      mOwnTerminal(openTerminal(descriptor)),
      mIsSocket(isSocket(descriptor)),
      mStop(stop) {}

KXOutput::~KXOutput() {
  if (mOwnTerminal >= 0) close(mOwnTerminal);
}

void KXOutput::write(std::string_view text, TimePoint until) {
  mWaiting += text;
  xWriteWhile([&] { return xWaitUntil(until); });
}

bool KXOutput::finish() {
  xWriteWhile([this] { return waitForWriting(mDescriptor, kGraceMs); });
  if (mWaiting.empty()) return !mHasLost;
  mHasLost = true;
  auto const lines = std::ranges::count(mWaiting, '\n');
  say("nobody reads stdout: " + counted(lines, "line") + (lines == 1 ? " was" : " were") + " lost");
  mWaiting.clear();
  return false;
}

template <class Wait>
void KXOutput::xWriteWhile(Wait isWritable) {
  std::size_t done = 0;
  while (done < mWaiting.size() && !mIsClosed && isWritable()) {
    // A pipe that is writable takes this much without blocking.
    ssize_t const written = xWrite(std::string_view(mWaiting).substr(done, PIPE_BUF));
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno == EPIPE || errno == ECONNRESET) {
      mIsClosed = true;
    } else if (errno != EINTR && errno != EAGAIN) {
      int const error = errno;
      mWaiting.clear();
      throw std::system_error(error, std::generic_category(), "cannot write to stdout");
    }
  }
  mIsClosed ? mWaiting.clear() : static_cast<void>(mWaiting.erase(0, done));
}

ssize_t KXOutput::xWrite(std::string_view text) const {
  if (mIsSocket) return send(mDescriptor, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return ::write(mOwnTerminal >= 0 ? mOwnTerminal : mDescriptor, text.data(), text.size());
}

bool KXOutput::isClosed() {
  pollfd output{mDescriptor, 0, 0};
  if (poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0) mIsClosed = true;
  return mIsClosed;
}

// True when the descriptor is writable; false when the time has come or the end is wished for.
bool KXOutput::xWaitUntil(TimePoint until) const {
  using std::chrono::milliseconds;
  constexpr milliseconds kLongest{60'000};
  for (;;) {
    auto const now = std::chrono::steady_clock::now();
    milliseconds rest{0};
    if (until > now) {
      rest = std::chrono::ceil<milliseconds>(
          std::min<std::chrono::nanoseconds>(until - now, kLongest));
    }
    std::array<pollfd, 2> waited{{{mDescriptor, POLLOUT, 0}, {mStop.descriptor(), POLLIN, 0}}};
    poll(waited.data(), waited.size(), static_cast<int>(rest.count()));
    if (waited[0].revents != 0) return true;
    if (waited[1].revents != 0 || std::chrono::steady_clock::now() >= until) return false;
  }
}

KXTerminal KXOutput::terminal() const {
  KXTerminal terminal;
  terminal.isLive = isatty(mDescriptor) == 1 && environment("TERM") != "dumb";
  terminal.hasColor = terminal.isLive && environment("NO_COLOR").empty();
  winsize size{};
  if (terminal.isLive && ioctl(mDescriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    terminal.columns = size.ws_col;
    terminal.rows = size.ws_row;
  }
  return terminal;
}

void say(std::string_view text) {
  // Dropped where it cannot be written: no message is worth the tool's life, or its end.
  static int graceMs = kGraceMs;
  std::string const line = fmt::format("kx: {}\n", text);
  std::string_view rest = line;
  while (!rest.empty()) {
    if (!waitForWriting(STDERR_FILENO, graceMs)) graceMs = 0;
    if (graceMs == 0) return;
    ssize_t const written =
        ::write(STDERR_FILENO, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace KX::tool
