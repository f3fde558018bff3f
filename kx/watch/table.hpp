// The keys of a watch as a table for people. Pure: no clock, no terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <kxvalue/kxvalue.hpp>

#include <kx/output.hpp>
#include <kx/watch/samples.hpp>

namespace KX::tool {

/// The last value of each key, when it was taken, and how many samples came.
/// Threads: one.
class KXTable {
 public:
  explicit KXTable(KXWatchedKeys const& keys);

  /// Samples of the keys of the watch, in the order in which they came.
  void add(std::vector<KXSample> const& samples);

  /// The time of the newest sample; 0 before the first.
  std::int64_t newestUs() const noexcept { return mNewestUs; }

  /// A title, a head, and one line per key: at most the terminal's rows, each line shorter than
  /// its columns. Where it is not live, all keys, and long values cut at 100 columns.
  std::vector<std::string> lines(KXTerminal const& terminal) const;

  /// The table as text. A live one begins by going back over the one drawn before it, unless it was
  /// disturbed.
  std::string draw(KXTerminal const& terminal);

 private:
  struct Row {
    std::string key;  // fit for a terminal
    KXValue value;
    std::int64_t timeUs = 0;
    std::int64_t samples = 0;
  };
  struct Widths {
    std::size_t key;
    std::size_t value;
    std::size_t taken;    ///< 0: there is no room for this column
    std::size_t samples;  ///< likewise, and the first to go
  };

  Widths xWidths(KXTerminal const& terminal) const;
  static std::string xLine(std::string_view key, std::string_view value, std::string_view taken,
                           std::string_view samples, Widths const& widths);
  std::string xTitle() const;

  std::vector<Row> mRows;
  std::map<std::string, std::size_t, std::less<>> mRowOfKey;
  std::int64_t mNewestUs = 0;
  std::int64_t mSamples = 0;
  std::size_t mDrawnLines = 0;
};

/// A value as people read it: floats rounded, texts bare, everything else JSON; fit for a terminal.
std::string readable(KXValue const& value);

}  // namespace KX::tool
