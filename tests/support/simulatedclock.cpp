#include <tests/support/simulatedclock.hpp>

#include <algorithm>
#include <chrono>

namespace KX {

ka::os::timeval SimulatedClock::wallTime() {
  std::lock_guard const lock(mMutex);
  std::int64_t const us = mNowNs / 1000 + mWallOffsetUs;
  return {us / 1'000'000, us % 1'000'000};
}

std::int64_t SimulatedClock::monotonicNs() {
  std::lock_guard const lock(mMutex);
  return mNowNs;
}

void SimulatedClock::waitUntil(boost::condition_variable& condition,
                               boost::unique_lock<boost::mutex>& lock, std::int64_t deadlineNs) {
  std::list<Sleeper>::iterator self;
  {
    std::lock_guard const guard(mMutex);
    if (mNowNs >= deadlineNs) return;
    self = mSleepers.insert(mSleepers.end(), {&condition, deadlineNs});
    mChanged.notify_all();
  }
  condition.wait(lock);
  lock.unlock();
  {
    std::lock_guard const guard(mMutex);
    mSleepers.erase(self);
    mChanged.notify_all();
  }
  lock.lock();
}

int SimulatedClock::xParked() const {
  return static_cast<int>(
      std::count_if(mSleepers.begin(), mSleepers.end(),
                    [this](Sleeper const& sleeper) { return sleeper.deadlineNs > mNowNs; }));
}

bool SimulatedClock::xWaitUntilParked(std::unique_lock<std::mutex>& lock, int sleepers) {
  return mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return xParked() >= sleepers; });
}

bool SimulatedClock::waitUntilParked(int sleepers) {
  std::unique_lock lock(mMutex);
  return xWaitUntilParked(lock, sleepers);
}

bool SimulatedClock::waitUntilParkedForMs(std::int64_t ms) {
  std::unique_lock lock(mMutex);
  std::int64_t const deadlineNs = mNowNs + ms * 1'000'000;
  return mChanged.wait_for(lock, std::chrono::seconds(30), [&] {
    return std::any_of(mSleepers.begin(), mSleepers.end(),
                       [&](Sleeper const& sleeper) { return sleeper.deadlineNs == deadlineNs; });
  });
}

// Sleepers hold their own mutex when they ask for ours, so we may not take theirs. Without it one
// that is on its way into the wait misses the call: therefore again, until all have left.
void SimulatedClock::xMoveTo(std::unique_lock<std::mutex>& lock, std::int64_t ns) {
  mNowNs = ns;
  auto const isDue = [this](Sleeper const& sleeper) {
    return sleeper.deadlineNs <= mNowNs;
  };
  while (std::any_of(mSleepers.begin(), mSleepers.end(), isDue)) {
    for (Sleeper const& sleeper : mSleepers) {
      if (isDue(sleeper)) sleeper.condition->notify_all();
    }
    mChanged.wait_for(lock, std::chrono::milliseconds(1));
  }
}

bool SimulatedClock::advanceByNs(std::int64_t ns, int sleepers) {
  std::unique_lock lock(mMutex);
  std::int64_t const target = mNowNs + ns;
  for (;;) {
    // With the lock kept: whoever is parked is still so when the next deadline is looked for.
    if (!xWaitUntilParked(lock, sleepers)) return false;
    std::int64_t next = std::max(target, mNowNs);  // a thread at work may have jumped ahead
    for (Sleeper const& sleeper : mSleepers) {
      if (sleeper.deadlineNs > mNowNs) next = std::min(next, sleeper.deadlineNs);
    }
    xMoveTo(lock, next);
    if (next >= target) break;
  }
  return xWaitUntilParked(lock, sleepers);
}

void SimulatedClock::jumpByMs(std::int64_t ms) {
  std::unique_lock lock(mMutex);
  xMoveTo(lock, mNowNs + ms * 1'000'000);
}

void SimulatedClock::stepWallByMs(std::int64_t ms) {
  std::lock_guard const lock(mMutex);
  mWallOffsetUs += ms * 1000;
}

}  // namespace KX
