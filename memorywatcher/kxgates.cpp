#include <memorywatcher/kxgates.hpp>

namespace KX {

void KXCycleGate::lock() noexcept {
  while (mIsOpen.exchange(0, std::memory_order_acq_rel) == 0) {
    mIsOpen.wait(0, std::memory_order_relaxed);
  }
}

void KXCycleGate::unlock() noexcept {
  if (mIsOpen.exchange(1, std::memory_order_acq_rel) == 0) mIsOpen.notify_one();
}

void KXSleepGate::lock() {
  boost::unique_lock<boost::mutex> guard(mMutex);
  while (mIsLocked) mUnlocked.wait(guard);
  mIsLocked = true;
}

void KXSleepGate::unlock() {
  {
    boost::lock_guard<boost::mutex> const guard(mMutex);
    mIsLocked = false;
  }
  mUnlocked.notify_one();
}

bool KXSleepGate::lockUntil(boost::posix_time::ptime const& deadline) {
  boost::unique_lock<boost::mutex> guard(mMutex);
  // This form looks at the wall clock first and every 100 ms: the plain one refuses a deadline from
  // before the machine's start, which is what a clock that is set while we sleep makes of ours.
  if (!mUnlocked.timed_wait(guard, deadline, [this] { return !mIsLocked; })) return false;
  mIsLocked = true;
  return true;
}

}  // namespace KX
