#include <kx/watch/clocks.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace KX::tool {
namespace {

template <class Clock>
std::int64_t nowUs() {
  auto const time = Clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

}  // namespace

KXClocks readClocks() {
  constexpr int kAttempts = 5;
  constexpr std::int64_t kCloseUs = 5;
  KXClocks closest{};
  std::int64_t least = INT64_MAX;
  for (int i = 0; i < kAttempts && least > kCloseUs; ++i) {
    std::int64_t const before = nowUs<std::chrono::steady_clock>();
    std::int64_t const wall = nowUs<std::chrono::system_clock>();
    std::int64_t const took = nowUs<std::chrono::steady_clock>() - before;
    if (took >= least) continue;
    least = took;
    closest = {wall, before + took / 2};
  }
  return closest;
}

KXTimeline::KXTimeline(int periodMs, KXClocks start)
    : mPeriodUs(std::int64_t{periodMs} * 1000),
      mLastFetch(start),
      mFormerOffsetUs(start.offsetUs()),
      mLastUs(start.monotonicUs) {}

std::vector<std::int64_t> KXTimeline::toMonotonic(std::vector<std::int64_t> wallTimesUs,
                                                  KXClocks fetch) {
  // Less than this is what reading the clocks one after the other makes of them.
  constexpr std::int64_t kLeastStepUs = 1000;
  std::int64_t const stepUs = fetch.offsetUs() - mLastFetch.offsetUs();
  bool const wasSet = std::abs(stepUs) >= kLeastStepUs;
  std::size_t const firstAfter = wasSet ? xFirstAfterStep(wallTimesUs, stepUs) : 0;

  std::vector<std::int64_t> times = std::move(wallTimesUs);
  for (std::size_t i = 0; i < times.size(); ++i) {
    std::int64_t const wallUs = times[i];
    std::int64_t const latestUs = std::max(mLastUs, fetch.monotonicUs);
    auto const isPossible = [&](std::int64_t timeUs) {
      return timeUs >= mLastUs - kLeastStepUs && timeUs <= latestUs + kLeastStepUs;
    };
    std::int64_t timeUs = wallUs - (i < firstAfter ? mLastFetch.offsetUs() : fetch.offsetUs());
    // Stamped before the fetch before, but handed over only now.
    if (!isPossible(timeUs) && isPossible(wallUs - mFormerOffsetUs))
      timeUs = wallUs - mFormerOffsetUs;
    times[i] = std::clamp(timeUs, mLastUs, latestUs);
    mLastUs = times[i];
    mLastWallUs = wallUs;
  }
  if (wasSet) mFormerOffsetUs = mLastFetch.offsetUs();
  mLastFetch = fetch;
  return times;
}

std::size_t KXTimeline::xFirstAfterStep(std::vector<std::int64_t> const& wallTimesUs,
                                        std::int64_t stepUs) const {
  std::int64_t lastUs = mLastWallUs.value_or(mLastFetch.wallUs - mPeriodUs);
  std::size_t best = wallTimesUs.size();
  std::int64_t leastUs = 0;  // after the last batch: nothing jumps
  for (std::size_t i = 0; i < wallTimesUs.size(); ++i) {
    std::int64_t const beyondPeriodUs = wallTimesUs[i] - lastUs - mPeriodUs;
    std::int64_t const costUs = std::abs(beyondPeriodUs - stepUs) - std::abs(beyondPeriodUs);
    if (costUs < leastUs) {
      leastUs = costUs;
      best = i;
    }
    lastUs = wallTimesUs[i];
  }
  return best;
}

}  // namespace KX::tool
