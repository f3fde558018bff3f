// stdout, written so that neither a reader that went away nor one that sleeps can hold the tool.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>

#include <kx/stop.hpp>

namespace KX::tool {

/// What a terminal can show. Nothing is live where output is no terminal or the terminal is dumb.
struct KXTerminal {
  bool isLive = false;  ///< output can be redrawn in place
  bool hasColor = false;
  bool isDisturbed = false;  ///< somebody else wrote below what was drawn last
  int columns = 80;
  int rows = 24;
};

/// Writes to a descriptor.
/// Ownership: borrows the stop, which outlives it. Threads: one.
class KXOutput {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  KXOutput(int descriptor, KXStop const& stop);
  ~KXOutput();
  KXOutput(KXOutput const&) = delete;
  KXOutput& operator=(KXOutput const&) = delete;

  /// Writes all of it as fast as it is read. What nobody has read when the time comes, or when the
  /// end is wished for, waits for the next call. Without effect once the reader has gone away.
  /// std::system_error if the write fails.
  void write(std::string_view text, TimePoint until = TimePoint::max());
  /// Writes what waits, and gives up when nobody reads for a second: then it tells on stderr how
  /// many lines were lost. False if any were, by this call or one before.
  bool finish();
  /// True if nobody can read any more, also when nothing was written since.
  bool isClosed();

  /// As it is now: terminals change their size. NO_COLOR, set and not empty, means no colour.
  KXTerminal terminal() const;

 private:
  template <class Wait>
  void xWriteWhile(Wait isWritable);
  ssize_t xWrite(std::string_view text) const;
  bool xWaitUntil(TimePoint until) const;

  int const mDescriptor;
  int const mOwnTerminal;  ///< the same terminal, opened anew so that no write to it can block
  bool const mIsSocket;
  KXStop const& mStop;
  std::string mWaiting;
  bool mIsClosed = false;
  bool mHasLost = false;
};

/// Writes `kx: `, the text and a line break to stderr, if that can be written to within a second.
void say(std::string_view text);

}  // namespace KX::tool
