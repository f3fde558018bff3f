#include <memorywatcher/kxclockwatch.hpp>

#include <algorithm>
#include <cstdlib>

namespace KX {

std::int64_t KXClockWatch::look(int periodMs) {
  // A torn reading says nothing about a step: the next good one is held against the last good one.
  if (!readMoment(mClock, mMoment)) return 0;
  KXMoment const before = mReference.value_or(mMoment);
  mReference = mMoment;
  std::int64_t const setUs =
      (mMoment.wallUs - before.wallUs) - (mMoment.monotonicNs - before.monotonicNs) / 1000;
  constexpr std::int64_t kLeastStepUs = 5000;
  std::int64_t const quarterUs = std::int64_t{periodMs} * 1000 / 4;
  return std::abs(setUs) > std::max(quarterUs, kLeastStepUs) ? setUs : 0;
}

}  // namespace KX
