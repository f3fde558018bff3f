#include <kx/watch/punctuality.hpp>

#include <algorithm>

namespace KX::tool {
namespace {

// Bounds what waits for a decision; a watcher that is further behind is counted as it looks.
constexpr std::size_t kMaxRun = 4096;
constexpr std::int64_t kCycleUs = 10'000;
// A batch may seem to come before its cycle by what two clocks differ when they are compared.
constexpr std::int64_t kToleranceUs = 500;

std::int64_t floorDivide(std::int64_t a, std::int64_t b) {
  return a / b - (a % b < 0 ? 1 : 0);
}

// The smallest lateness that this part of all batches does not exceed (nearest rank).
std::int64_t percentile(std::map<std::int64_t, std::int64_t> const& counts, std::int64_t total,
                        std::int64_t percent) {
  std::int64_t const rank = (total * percent + 99) / 100;
  std::int64_t seen = 0;
  for (auto const& [value, count] : counts) {
    seen += count;
    if (seen >= rank) return value;
  }
  return 0;
}

}  // namespace

std::int64_t periodsAsked(std::chrono::microseconds duration, int periodMs) noexcept {
  std::int64_t const periodUs = std::int64_t{periodMs} * 1000;
  return (duration.count() + periodUs - 1) / periodUs;
}

// ---- what both pacings have in common

void KXPunctuality::addFailedReads(std::int64_t count) noexcept {
  mFailedReads += count;
}

void KXPunctuality::xTake(std::int64_t period, std::optional<std::int64_t> latenessUs) {
  if (period >= mLimit) {
    ++mBeyondLimit;
    return;
  }
  mLastPeriod = period;
  ++mTaken;
  if (latenessUs) ++mLatenessUs[std::max<std::int64_t>(*latenessUs, 0)];
}

void KXPunctuality::finish(std::int64_t stopUs) {
  xSettle(stopUs);
  mAsked = mLimit != kNoLimit ? mLimit : std::max(mLastPeriod + 1, xEndedPeriods(stopUs));
}

KXPunctualityReport KXPunctuality::report() const {
  KXPunctualityReport report;
  report.asked = mAsked;
  report.taken = mTaken;
  std::int64_t missed = mAsked - mTaken;
  auto const explain = [&missed](std::int64_t count) {
    std::int64_t const explained = std::clamp<std::int64_t>(count, 0, missed);
    missed -= explained;
    return explained;
  };
  report.failedReads = explain(mFailedReads);
  report.overdue = explain(mAsked - 1 - mLastPeriod);
  report.cyclesSkipped = explain(xCyclesSkipped());
  report.skipped = missed;

  for (auto const& [value, count] : mLatenessUs) report.latenessCount += count;
  if (report.latenessCount == 0) return report;
  report.p50Us = percentile(mLatenessUs, report.latenessCount, 50);
  report.p99Us = percentile(mLatenessUs, report.latenessCount, 99);
  report.maxUs = mLatenessUs.rbegin()->first;
  return report;
}

// ---- timed pacing

void KXTimedPunctuality::addBatch(std::int64_t timeUs) {
  std::int64_t const due = floorDivide(timeUs - mStartUs, mPeriodUs);
  if (due > xLastPeriod()) {
    if (due > xLastPeriod() + 1) {
      xSettleRun();
      mRunFirst = due;
    }
  } else if (mRunFirst > mSettledPeriod + 1) {
    --mRunFirst;
  } else {
    mStartUs = timeUs - (xLastPeriod() + 1) * mPeriodUs;
  }
  mRunTimesUs.push_back(timeUs);
  if (mRunFirst == mSettledPeriod + 1 || mRunTimesUs.size() > kMaxRun) xSettleRun();
}

std::int64_t KXTimedPunctuality::xLastPeriod() const noexcept {
  if (mRunTimesUs.empty()) return mSettledPeriod;
  return mRunFirst + static_cast<std::int64_t>(mRunTimesUs.size()) - 1;
}

void KXTimedPunctuality::xSettleRun() {
  std::int64_t const last = xLastPeriod();
  for (std::int64_t const timeUs : mRunTimesUs) {
    xTake(mRunFirst, timeUs - mStartUs - mRunFirst * mPeriodUs);
    ++mRunFirst;
  }
  mRunTimesUs.clear();
  mSettledPeriod = last;
  mRunFirst = last + 1;
}

void KXTimedPunctuality::xSettle(std::int64_t stopUs) {
  if (xIsCutShort(stopUs)) mRunFirst = mSettledPeriod + 1;
  xSettleRun();
}

// True if the stop came while the watcher was catching up: then its batches belong to the periods
// right behind the gap. One that has caught up is on time, or sleeps until the next period.
bool KXTimedPunctuality::xIsCutShort(std::int64_t stopUs) const {
  if (mRunTimesUs.empty()) return false;
  std::int64_t const last = mRunTimesUs.back();
  if (stopUs - last >= mPeriodUs / 2) return false;
  auto const steps = static_cast<std::int64_t>(mRunTimesUs.size()) - 1;
  if (steps > 0) return last - mRunTimesUs.front() < steps * mPeriodUs / 2;
  return (last - mStartUs) % mPeriodUs > mPeriodUs / 4;
}

std::int64_t KXTimedPunctuality::xEndedPeriods(std::int64_t stopUs) const {
  return floorDivide(stopUs - mStartUs, mPeriodUs);
}

// ---- pacing by the hardware cycle

void KXCyclePunctuality::addCycles(std::span<std::int64_t const> deadlinesUs) {
  for (std::int64_t const deadlineUs : deadlinesUs) mCycles.push_back({mCycleCount++, deadlineUs});
}

void KXCyclePunctuality::setFirstCycle(std::int64_t least, std::int64_t most) noexcept {
  mLeastFirst = least;
  mMostFirst = most;
}

void KXCyclePunctuality::addBatch(std::int64_t timeUs) {
  bool const isFirst = mLastPeriod < 0;
  if (isFirst) {
    xTake(0, std::nullopt);
  } else {
    if (!mFirstNumber) xFindPhase(timeUs);
    std::optional<std::int64_t> const dueUs = xServed(timeUs);
    std::int64_t period = mLastPeriod + 1;
    std::optional<std::int64_t> latenessUs;
    if (dueUs) {
      period = std::max(period, xPeriodOf(*dueUs));
      latenessUs = timeUs - *dueUs;
    }
    for (; !mUnservedPeriods.empty() && mUnservedPeriods.front() <= period; ++mPacedPeriods) {
      mUnservedPeriods.pop_front();
    }
    xTake(period, latenessUs);
  }
  mLastBatchUs = timeUs;
}

// The watcher counted from some cycle on, and the second batch came when it had counted as many as
// a period has. Batches are rarely as late as a whole cycle, so the one before it was the last.
void KXCyclePunctuality::xFindPhase(std::int64_t secondBatchUs) {
  std::int64_t last = 0;
  for (Cycle const& cycle : mCycles) {
    if (cycle.deadlineUs <= secondBatchUs + kToleranceUs) last = cycle.number;
  }
  std::int64_t const first = std::clamp(last - mCyclesPerPeriod + 1, mLeastFirst, mMostFirst);
  auto const counted = std::ranges::find(mCycles, first, &Cycle::number);
  if (counted == mCycles.end()) return;
  mFirstNumber = first + mCyclesPerPeriod - 1;
  mFirstDueUs = counted->deadlineUs + (mCyclesPerPeriod - 1) * kCycleUs;
}

void KXCyclePunctuality::xKeepDue() {
  for (; mFirstNumber && !mCycles.empty(); mCycles.pop_front()) {
    std::int64_t const counted = mCycles.front().number - *mFirstNumber;
    if (counted >= 0 && counted % mCyclesPerPeriod == 0) {
      mDueUs.push_back(mCycles.front().deadlineUs);
    }
  }
}

// When the cycle was due that a batch of this time served: the first since the last batch, but for
// those that a failed read served. If there is none, the watcher came between the cycle before and
// its own look at the clock.
std::optional<std::int64_t> KXCyclePunctuality::xServed(std::int64_t timeUs) {
  xKeepDue();
  std::optional<std::int64_t> served;
  for (; !mDueUs.empty() && mDueUs.front() <= timeUs + kToleranceUs; mDueUs.pop_front()) {
    std::int64_t const dueUs = mDueUs.front();
    mUnservedPeriods.push_back(xPeriodOf(dueUs));
    mLastDueUs = dueUs;
    if (dueUs <= mLastBatchUs) continue;
    if (!served) {
      served = dueUs;
    } else if (mFailedReadsServed < mFailedReads) {
      ++mFailedReadsServed;
      served = dueUs;
    }
  }
  return served ? served : mLastDueUs;
}

std::int64_t KXCyclePunctuality::xPeriodOf(std::int64_t dueUs) const noexcept {
  return 1 + floorDivide(dueUs - *mFirstDueUs, mPeriodUs);
}

std::int64_t KXCyclePunctuality::xEndedPeriods(std::int64_t stopUs) const {
  if (!mFirstDueUs) return floorDivide(stopUs - mStartUs, mPeriodUs);
  return 1 + floorDivide(stopUs - *mFirstDueUs, mPeriodUs);
}

std::int64_t KXCyclePunctuality::xCyclesSkipped() const {
  return mLastPeriod - mPacedPeriods;
}

// ---- when to fetch

std::int64_t nextFetchUs(std::int64_t nowUs, std::int64_t dueUs, int periodMs) noexcept {
  constexpr std::int64_t kLeastUs = 100'000;
  constexpr std::int64_t kMostUs = 1'000'000;
  std::int64_t const periodUs = std::int64_t{periodMs} * 1000;
  std::int64_t stepUs = periodUs;
  if (periodUs < kLeastUs) stepUs = (kLeastUs + periodUs - 1) / periodUs * periodUs;
  if (periodUs > kMostUs) stepUs = periodUs / ((periodUs + kMostUs - 1) / kMostUs);
  std::int64_t const firstUs = dueUs + std::min(periodUs, stepUs) / 2;
  return firstUs + (floorDivide(nowUs - firstUs, stepUs) + 1) * stepUs;
}

int correctedPeriodMs(int periodMs) noexcept {
  return std::max(periodMs / 10 * 10, 10);
}

}  // namespace KX::tool
