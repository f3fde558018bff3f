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

bool KXCallbackGuard::enter() noexcept {
  if ((mState.fetch_add(1, std::memory_order_acq_rel) & kClosed) == 0) return true;
  leave();
  return false;
}

void KXCallbackGuard::leave() noexcept {
  if (mState.fetch_sub(1, std::memory_order_acq_rel) == (kClosed | 1)) mState.notify_all();
}

void KXCallbackGuard::close() noexcept {
  int state = mState.fetch_or(kClosed, std::memory_order_acq_rel) | kClosed;
  while (state != kClosed) {
    mState.wait(state, std::memory_order_acquire);
    state = mState.load(std::memory_order_acquire);
  }
}

}  // namespace KX
