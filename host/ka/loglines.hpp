// What of the log is written to stderr: one printable line per record, repeated warnings held back.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ka/log.hpp>
#include <kxerror/kxapi.hpp>

namespace ka::log {

/// The text with everything that a terminal would obey, or that is not UTF-8, as `\n` or `\x1b`.
KX_API std::string printable(std::string_view text);

/// Turns records into lines, without the time. After a warning was written, further ones of the
/// same category and function are held back for a second and counted. The count is told in the next
/// line of that category and function, or in a line of its own by whatever is written once the
/// second is over.
/// Memory is bounded: at most kMaxSources pairs are remembered; beyond, the oldest gives way.
/// Threads: not synchronised. The clock is the caller's, so that a test needs no waiting.
class KX_API LogLines {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kHoldTime{1};
  static constexpr std::size_t kMaxSources = 256;

  /// The lines to write now, the record's own last; it is missing if the record is held back.
  std::vector<std::string> take(Record const& record, TimePoint now);
  /// The counts not told yet, a line each; forgets all.
  std::vector<std::string> takeRest();

 private:
  using Source = std::pair<std::string, std::string>;
  struct Held {
    TimePoint end;
    std::uint64_t count = 0;
  };
  using HeldBySource = std::map<Source, Held>;

  HeldBySource::iterator xForget(HeldBySource::iterator source, std::vector<std::string>& lines);
  void xForgetEnded(TimePoint now, std::vector<std::string>& lines);
  void xRemember(Source const& source, TimePoint now, std::vector<std::string>& lines);

  HeldBySource mHeld;
};

}  // namespace ka::log
