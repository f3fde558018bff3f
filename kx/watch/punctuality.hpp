// Which periods of a watch were taken, which were missed and how, and how late the batches were.
// All times are of the monotonic clock, in microseconds. Threads: one.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <span>
#include <utility>

namespace KX::tool {

/// The account of a watch. asked = taken + failedReads + cyclesSkipped + skipped + overdue.
struct KXPunctualityReport {
  std::int64_t asked = 0;
  std::int64_t taken = 0;
  std::int64_t failedReads = 0;    ///< the watcher logged that its read failed
  std::int64_t cyclesSkipped = 0;  ///< the hardware cycle did not come in time to pace them
  std::int64_t skipped = 0;        ///< the watcher took no batch, and said nothing of it
  std::int64_t overdue = 0;        ///< after the last batch, and not caught up with at the stop
  std::int64_t latenessCount = 0;
  std::int64_t p50Us = 0;
  std::int64_t p99Us = 0;
  std::int64_t maxUs = 0;
};

/// The periods that a watch of this length asks for: those that are due before it ends. The first
/// is due at its start.
std::int64_t periodsAsked(std::chrono::microseconds duration, int periodMs) noexcept;

/// Puts each batch to the period it was taken for; periods count from 0.
/// Memory: one entry per lateness that occurred.
class KXPunctuality {
 public:
  static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

  /// `limit` is the number of periods asked for, if that is known before the end.
  KXPunctuality(int periodMs, std::int64_t limit)
      : mPeriodUs(std::int64_t{periodMs} * 1000), mLimit(limit) {}
  virtual ~KXPunctuality() = default;

  /// Reads that the watcher logged as failed since the last call; before the batches after them.
  void addFailedReads(std::int64_t count) noexcept;
  /// One batch; in the order in which they were taken.
  virtual void addBatch(std::int64_t timeUs) = 0;
  /// Some moment at which a period was due, best known so far.
  virtual std::int64_t dueTimeUs() const noexcept = 0;
  /// How many of the last batches belong to periods beyond the limit, as far as they are settled,
  /// without those told by a former call: nobody asked for them.
  std::int64_t takeBeyondLimit() noexcept { return std::exchange(mBeyondLimit, 0); }
  /// No batch comes any more: all are settled. Without a limit those periods were asked that ended
  /// before the stop or were taken: one that the stop cut short was not missed.
  void finish(std::int64_t stopUs);
  /// After finish().
  KXPunctualityReport report() const;

 protected:
  void xTake(std::int64_t period, std::optional<std::int64_t> latenessUs);
  virtual void xSettle(std::int64_t stopUs) = 0;
  virtual std::int64_t xEndedPeriods(std::int64_t stopUs) const = 0;
  /// The periods up to the last batch for which the hardware cycle did not come in time.
  virtual std::int64_t xCyclesSkipped() const = 0;

  std::int64_t const mPeriodUs;
  std::int64_t mFailedReads = 0;
  std::int64_t mLastPeriod = -1;  ///< the last one that was taken

 private:
  std::int64_t const mLimit;
  std::int64_t mTaken = 0;
  std::int64_t mBeyondLimit = 0;
  std::int64_t mAsked = 0;
  std::map<std::int64_t, std::int64_t> mLatenessUs;  // lateness, how often it occurred
};

/// Timed pacing: period k is due at `start + k * period`, the start being the moment before the
/// watch was started. The watcher makes up for overrun periods, one after the other, so of several
/// batches within one period the last is put to that period and the others to the free ones before
/// it: their lateness counts whole. A batch that comes before anything is due shows that the
/// schedule was moved, as small steps of the wall clock do; the later ones are measured by it.
class KXTimedPunctuality : public KXPunctuality {
 public:
  KXTimedPunctuality(int periodMs, std::int64_t startUs, std::int64_t limit = kNoLimit)
      : KXPunctuality(periodMs, limit), mStartUs(startUs) {}

  void addBatch(std::int64_t timeUs) override;
  std::int64_t dueTimeUs() const noexcept override { return mStartUs; }

 private:
  void xSettle(std::int64_t stopUs) override;
  std::int64_t xEndedPeriods(std::int64_t stopUs) const override;
  std::int64_t xCyclesSkipped() const override { return 0; }

  void xSettleRun();
  bool xIsCutShort(std::int64_t stopUs) const;
  std::int64_t xLastPeriod() const noexcept;

  std::int64_t mStartUs;
  std::int64_t mSettledPeriod = -1;
  // Batches behind a gap: they belong to successive periods from mRunFirst on, but may move back
  // into the gap when more of them come than periods are due.
  std::int64_t mRunFirst = 0;
  std::deque<std::int64_t> mRunTimesUs;
};

/// Pacing by the hardware cycle: the first batch comes at once, then one at every `period / 10
/// ms`th cycle. Period k is due as many cycles after the start, on the cycle's own 10 ms grid. A
/// cycle that is skipped is not made up for, and cycles that fall due while the watcher is busy are
/// served by one batch: both are periods missed. A batch is put to the first cycle that waited for
/// it and measured against that cycle's deadline; the first one has none.
class KXCyclePunctuality : public KXPunctuality {
 public:
  KXCyclePunctuality(int periodMs, std::int64_t startUs, std::int64_t limit = kNoLimit)
      : KXPunctuality(periodMs, limit), mCyclesPerPeriod(periodMs / 10), mStartUs(startUs) {}

  /// The cycles raised since the last call, by deadline; before the batches that they paced.
  void addCycles(std::span<std::int64_t const> deadlinesUs);
  /// The first cycle that the watcher counted, by its number among those added, from 0: it lies
  /// between these, which differ if a cycle came in the midst of the start.
  void setFirstCycle(std::int64_t least, std::int64_t most) noexcept;

  void addBatch(std::int64_t timeUs) override;
  std::int64_t dueTimeUs() const noexcept override { return mFirstDueUs.value_or(mStartUs); }

 private:
  struct Cycle {
    std::int64_t number;
    std::int64_t deadlineUs;
  };

  void xSettle(std::int64_t) override {}
  std::int64_t xEndedPeriods(std::int64_t stopUs) const override;
  std::int64_t xCyclesSkipped() const override;

  void xFindPhase(std::int64_t secondBatchUs);
  void xKeepDue();
  std::optional<std::int64_t> xServed(std::int64_t timeUs);
  std::int64_t xPeriodOf(std::int64_t dueUs) const noexcept;

  std::int64_t const mCyclesPerPeriod;
  std::int64_t const mStartUs;
  std::int64_t mLeastFirst = 0;
  std::int64_t mMostFirst = 0;
  std::int64_t mCycleCount = 0;
  std::deque<Cycle> mCycles;                 // not looked at yet
  std::optional<std::int64_t> mFirstNumber;  // of the cycle that begins period 1
  std::optional<std::int64_t> mFirstDueUs;   // when that was due
  std::deque<std::int64_t> mDueUs;           // cycles that begin a period, after the last batch
  std::optional<std::int64_t> mLastDueUs;    // the last of those before
  std::int64_t mLastBatchUs = 0;
  std::int64_t mFailedReadsServed = 0;
  std::deque<std::int64_t> mUnservedPeriods;  // had their cycle, and lie behind the last batch
  std::int64_t mPacedPeriods = 0;             // had their cycle, up to the last batch
};

/// The next moment to fetch: half-way between two periods, so that the fetch does not hold the
/// buffer when a period is due, after at least 100 ms where periods are shorter and after at most
/// a second where they are longer. `dueUs` is a moment at which a period was due.
std::int64_t nextFetchUs(std::int64_t nowUs, std::int64_t dueUs, int periodMs) noexcept;

/// The period that the watcher makes of the one it is given: a multiple of 10 ms, at least 10.
int correctedPeriodMs(int periodMs) noexcept;

}  // namespace KX::tool
