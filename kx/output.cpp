#include <kx/output.hpp>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include <fmt/format.h>

namespace KX::tool {
namespace {

std::string_view environment(char const* name) {
  char const* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

bool KXOutput::write(std::string_view text) {
  while (!text.empty() && !mIsClosed) {
    if (!xWaitUntilWritable()) {
      say("nobody reads stdout: what was left is dropped");
      mIsClosed = true;
      break;
    }
    // A pipe that is writable takes this much without blocking.
    ssize_t const written =
        ::write(mDescriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      mIsClosed = true;
    } else if (errno != EINTR && errno != EAGAIN) {
      throw std::system_error(errno, std::generic_category(), "cannot write to stdout");
    }
  }
  return !mIsClosed;
}

bool KXOutput::isClosed() {
  pollfd output{mDescriptor, 0, 0};
  if (poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0) mIsClosed = true;
  return mIsClosed;
}

bool KXOutput::xWaitUntilWritable() {
  constexpr int kGraceMs = 1000;
  for (;;) {
    bool const isStopping = mStop.isRequested();
    std::array<pollfd, 2> waited{
        {{mDescriptor, POLLOUT, 0}, {isStopping ? -1 : mStop.descriptor(), POLLIN, 0}}};
    int const ready = poll(waited.data(), waited.size(), isStopping ? kGraceMs : -1);
    if (waited[0].revents != 0) return true;  // an error, too, is for write() to tell
    if (ready == 0) return false;
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
  // Dropped where it cannot be written: no message is worth the tool's life.
  std::fputs(fmt::format("kx: {}\n", text).c_str(), stderr);
}

}  // namespace KX::tool
