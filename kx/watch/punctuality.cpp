#include <kx/watch/punctuality.hpp>

#include <algorithm>

namespace KX::tool {
namespace {

// Bounds what waits for a decision; a watcher that is further behind is counted as it looks.
constexpr std::size_t kMaxRun = 4096;

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

KXPunctuality::KXPunctuality(int periodMs, std::int64_t startUs, KXPacing pacing)
    : mPeriodUs(std::int64_t{periodMs} * 1000), mPacing(pacing), mStartUs(startUs) {}

void KXPunctuality::addBatch(std::int64_t timeUs) {
  ++mTaken;
  if (mPacing == KXPacing::Timed) {
    xAddTimed(timeUs);
  } else {
    xAddCyclePaced(timeUs);
  }
}

void KXPunctuality::xAddTimed(std::int64_t timeUs) {
  std::int64_t const due = floorDivide(timeUs - mStartUs, mPeriodUs);
  if (due > xLastPeriod()) {
    if (due > xLastPeriod() + 1) {
      xSettleRun();
      mRunFirst = due;
    }
    mRunTimesUs.push_back(timeUs);
  } else if (mRunFirst > mSettledPeriod + 1) {
    --mRunFirst;
    mRunTimesUs.push_back(timeUs);
  } else {
    // More batches than periods: only a clock that was set back does this.
    ++mLatenessUs[std::max<std::int64_t>(0, xLateness(timeUs, xLastPeriod()))];
  }
  if (mRunFirst == mSettledPeriod + 1 || mRunTimesUs.size() > kMaxRun) xSettleRun();
}

void KXPunctuality::xAddCyclePaced(std::int64_t timeUs) {
  if (mTaken == 1) {
    mSettledPeriod = 0;
    return;
  }
  if (mTaken == 2) mStartUs = timeUs - mPeriodUs;
  // The second batch, which gives the grid for now, may have been late itself: then others seem
  // to come early.
  std::int64_t const due = floorDivide(timeUs - mStartUs + mPeriodUs / 4, mPeriodUs);
  ++mLatenessUs[xLateness(timeUs, due)];
  mSettledPeriod = std::max(mSettledPeriod, due);
}

std::int64_t KXPunctuality::xLastPeriod() const noexcept {
  if (mRunTimesUs.empty()) return mSettledPeriod;
  return mRunFirst + static_cast<std::int64_t>(mRunTimesUs.size()) - 1;
}

std::int64_t KXPunctuality::xLateness(std::int64_t timeUs, std::int64_t period) const noexcept {
  return timeUs - mStartUs - period * mPeriodUs;
}

void KXPunctuality::xSettleRun() {
  std::int64_t const last = xLastPeriod();
  for (std::int64_t const timeUs : mRunTimesUs) ++mLatenessUs[xLateness(timeUs, mRunFirst++)];
  mRunTimesUs.clear();
  mSettledPeriod = last;
  mRunFirst = last + 1;
}

KXPunctualityReport KXPunctuality::report(std::int64_t stopUs, std::int64_t failedReads) const {
  KXPunctuality settled = *this;
  settled.xSettleRun();
  auto const& lateness = settled.mLatenessUs;

  KXPunctualityReport report;
  std::int64_t const ended = floorDivide(stopUs - mStartUs, mPeriodUs);
  report.asked = std::max({mTaken, settled.mSettledPeriod + 1, ended});
  report.taken = mTaken;
  std::int64_t missed = report.asked - mTaken;
  report.failedReads = std::min(failedReads, missed);
  missed -= report.failedReads;
  report.overdue = std::min(report.asked - 1 - settled.mSettledPeriod, missed);
  report.skipped = missed - report.overdue;

  for (auto const& [value, count] : lateness) report.latenessCount += count;
  if (report.latenessCount == 0) return report;
  std::int64_t const earliest = mPacing == KXPacing::Cycle ? lateness.begin()->first : 0;
  report.p50Us = percentile(lateness, report.latenessCount, 50) - earliest;
  report.p99Us = percentile(lateness, report.latenessCount, 99) - earliest;
  report.maxUs = lateness.rbegin()->first - earliest;
  return report;
}

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
