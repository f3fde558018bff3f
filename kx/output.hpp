// stdout, written so that neither a reader that went away nor one that sleeps can hold the tool.
#pragma once

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
  KXOutput(int descriptor, KXStop const& stop) : mDescriptor(descriptor), mStop(stop) {}

  /// Writes all of it. False, and from then on without effect, if the reader went away, or if the
  /// end is wished for and nobody has read for a second. std::system_error if the write fails.
  bool write(std::string_view text);
  /// True if nobody can read any more, also when nothing was written since.
  bool isClosed();

  /// As it is now: terminals change their size. NO_COLOR, set and not empty, means no colour.
  KXTerminal terminal() const;

 private:
  bool xWaitUntilWritable();

  int const mDescriptor;
  KXStop const& mStop;
  bool mIsClosed = false;
};

/// Writes `kx: `, the text and a line break to stderr, if that can be written to.
void say(std::string_view text);

}  // namespace KX::tool
