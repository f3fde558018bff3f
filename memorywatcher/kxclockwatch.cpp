#include <memorywatcher/kxclockwatch.hpp>

#include <algorithm>
#include <cstdlib>

namespace KX {

void KXClockWatch::restart() {
  mReference.reset();
  look(0);
}

std::int64_t KXClockWatch::look(int periodMs) {
  bool const isGood = readMoment(mClock, mMoment);
  if (!mReference) {
    if (isGood) mReference = mMoment;
    return 0;
  }
  if (!isGood) {
    // A torn reading says nothing about a step: the next good one is held against the last good
    // one.
    mMoment.wallUs = mReference->wallUs + (mMoment.monotonicNs - mReference->monotonicNs) / 1000;
    return 0;
  }
  KXMoment const before = *mReference;
  mReference = mMoment;
  std::int64_t const setUs =
      (mMoment.wallUs - before.wallUs) - (mMoment.monotonicNs - before.monotonicNs) / 1000;
  constexpr std::int64_t kLeastStepUs = 5000;
  std::int64_t const quarterUs = std::int64_t{periodMs} * 1000 / 4;
  return std::abs(setUs) > std::max(quarterUs, kLeastStepUs) ? setUs : 0;
}

}  // namespace KX
