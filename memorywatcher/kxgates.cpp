#include <memorywatcher/kxgates.hpp>

#include <utility>

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
  boost::unique_lock<boost::mutex> guard(*mMutex);
  while (mIsLocked) mChanged.wait(guard);
  mIsLocked = true;
  mIsInterrupted = false;
}

void KXSleepGate::unlock() {
  boost::lock_guard<boost::mutex> const guard(*mMutex);
  mIsLocked = false;
  // Within the lock: the next holder may end, and the gate with it, before we are out of here.
  mChanged.notify_all();
}

void KXSleepGate::interrupt() {
  boost::lock_guard<boost::mutex> const guard(*mMutex);
  if (!mIsLocked) return;
  mIsInterrupted = true;
  mChanged.notify_all();
}

bool KXSleepGate::sleepUntil(std::int64_t deadlineNs) {
  boost::unique_lock<boost::mutex> guard(*mMutex);
  while (!mIsInterrupted && mClock.monotonicNs() < deadlineNs) {
    mClock.waitUntil(mChanged, guard, deadlineNs);
  }
  return std::exchange(mIsInterrupted, false);
}

}  // namespace KX
