// Which periods of a watch were taken, which were missed and why, and how late the batches were.
#pragma once

#include <cstdint>
#include <deque>
#include <map>

namespace KX::tool {

enum class KXPacing { Timed, Cycle };

/// The account of a watch. asked = taken + failedReads + skipped + overdue.
struct KXPunctualityReport {
  std::int64_t asked = 0;
  std::int64_t taken = 0;
  std::int64_t failedReads = 0;  ///< the watcher logged that its read failed
  std::int64_t skipped = 0;      ///< gaps between batches of which the watcher said nothing
  std::int64_t overdue = 0;      ///< periods after the last batch, not caught up with at the stop
  std::int64_t latenessCount = 0;
  std::int64_t p50Us = 0;
  std::int64_t p99Us = 0;
  std::int64_t maxUs = 0;
};

/// Puts each batch to the period it was due in. Period k is due at `start + k * period`, k from 0.
/// With timed pacing the start is the moment before the watch was started. The watcher takes
/// overrun periods later, one after the other, so of several batches within one period the last
/// is put to that period and the others to the free ones before it: their lateness counts whole.
/// With cycle pacing the first batch comes at once and the others on the grid of the hardware
/// cycle, whose place on the wall clock nobody tells: the earliest batch of all gives the grid, and
/// lateness is measured against it, the first batch left out.
/// Threads: one. Times are wall clock, in microseconds. Memory: one entry per lateness that
/// occurred, so at most one per microsecond of a period in normal operation.
class KXPunctuality {
 public:
  KXPunctuality(int periodMs, std::int64_t startUs, KXPacing pacing);

  /// One batch; in the order of their times.
  void addBatch(std::int64_t timeUs);

  /// Some moment at which a period was due, best known so far.
  std::int64_t dueTimeUs() const noexcept { return mStartUs; }

  /// Asked are the periods that ended before the stop or were taken: one that the stop cut short
  /// was not missed.
  KXPunctualityReport report(std::int64_t stopUs, std::int64_t failedReads) const;

 private:
  void xAddTimed(std::int64_t timeUs);
  void xAddCyclePaced(std::int64_t timeUs);
  std::int64_t xLastPeriod() const noexcept;
  std::int64_t xLateness(std::int64_t timeUs, std::int64_t period) const noexcept;
  void xSettleRun();

  std::int64_t const mPeriodUs;
  KXPacing const mPacing;
  std::int64_t mStartUs;
  std::int64_t mTaken = 0;
  std::map<std::int64_t, std::int64_t> mLatenessUs;  // lateness, how often it occurred
  std::int64_t mSettledPeriod = -1;                  // the last period that is settled
  // Batches behind a gap: they belong to successive periods from mRunFirst on, but may move back
  // into the gap when more of them come than periods are due.
  std::int64_t mRunFirst = 0;
  std::deque<std::int64_t> mRunTimesUs;
};

/// The next moment to fetch: half-way between two periods, so that the fetch does not hold the
/// buffer when a period is due, after at least 100 ms where periods are shorter and after at most
/// a second where they are longer. `dueUs` is a moment at which a period was due.
std::int64_t nextFetchUs(std::int64_t nowUs, std::int64_t dueUs, int periodMs) noexcept;

/// The period that the watcher makes of the one it is given: a multiple of 10 ms, at least 10.
int correctedPeriodMs(int periodMs) noexcept;

}  // namespace KX::tool
