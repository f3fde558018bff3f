// From the wall clock, which the watcher stamps with and anybody may set, to the monotonic one.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace KX::tool {

/// Both clocks at one moment, in microseconds.
struct KXClocks {
  std::int64_t wallUs;
  std::int64_t monotonicUs;

  std::int64_t offsetUs() const noexcept { return wallUs - monotonicUs; }
};

/// Read so closely together that no more than a few microseconds lie between them.
KXClocks readClocks();

/// Tells when batches were taken on the monotonic clock, by the offset between the clocks at the
/// fetch that brought them. Where the offset has changed since the fetch before, the wall clock was
/// set in between: that was where the times of two neighbours jump by as much.
/// Threads: one. Times in microseconds.
class KXTimeline {
 public:
  KXTimeline(int periodMs, KXClocks start);

  /// The batches of one fetch, in their order, and the clocks after it. The result never falls and
  /// lies between this fetch and the one before.
  std::vector<std::int64_t> toMonotonic(std::vector<std::int64_t> wallTimesUs, KXClocks fetch);

 private:
  std::size_t xFirstAfterStep(std::vector<std::int64_t> const& wallTimesUs,
                              std::int64_t stepUs) const;

  std::int64_t const mPeriodUs;
  KXClocks mLastFetch;
  std::int64_t mFormerOffsetUs;               // before the wall clock was last set
  std::int64_t mLastUs;                       // the last batch, or the start
  std::optional<std::int64_t> mLastWallUs{};  // the last batch
};

}  // namespace KX::tool
