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

// A sleeper stands in the list only while it waits, and never holds its own mutex when it asks for
// ours to leave it: so we may take a sleeper's mutex while we hold ours.
void SimulatedClock::waitUntil(boost::condition_variable& condition,
                               boost::unique_lock<boost::mutex>& lock, std::int64_t deadlineNs) {
  std::list<Sleeper>::iterator self;
  {
    std::lock_guard const guard(mMutex);
    if (mNowNs >= deadlineNs) return;
    self = mSleepers.insert(mSleepers.end(), {&condition, lock.mutex(), deadlineNs});
    mChanged.notify_all();
  }
  condition.wait(lock);
  lock.unlock();
  {
    std::lock_guard const guard(mMutex);
    mSleepers.erase(self);
  }
  lock.lock();
}

int SimulatedClock::xParked() const {
  return static_cast<int>(
      std::count_if(mSleepers.begin(), mSleepers.end(),
                    [this](Sleeper const& sleeper) { return sleeper.deadlineNs > mNowNs; }));
}

bool SimulatedClock::waitUntilParked(int sleepers) {
  std::unique_lock lock(mMutex);
  return mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return xParked() >= sleepers; });
}

bool SimulatedClock::waitUntilParkedForMs(std::int64_t ms) {
  std::unique_lock lock(mMutex);
  std::int64_t const deadlineNs = mNowNs + ms * 1'000'000;
  return mChanged.wait_for(lock, std::chrono::seconds(30), [&] {
    return std::any_of(mSleepers.begin(), mSleepers.end(),
                       [&](Sleeper const& sleeper) { return sleeper.deadlineNs == deadlineNs; });
  });
}

void SimulatedClock::xMoveTo(std::int64_t ns) {
  mNowNs = ns;
  for (Sleeper const& sleeper : mSleepers) {
    if (sleeper.deadlineNs > mNowNs) continue;
    // Through its mutex: it may be on its way into the wait.
    boost::lock_guard<boost::mutex> const guard(*sleeper.mutex);
    sleeper.condition->notify_all();
  }
}

bool SimulatedClock::advanceByNs(std::int64_t ns, int sleepers) {
  std::int64_t const target = monotonicNs() + ns;
  for (;;) {
    if (!waitUntilParked(sleepers)) return false;
    std::lock_guard const lock(mMutex);
    std::int64_t next = std::max(target, mNowNs);  // a thread at work may have jumped ahead
    for (Sleeper const& sleeper : mSleepers) {
      if (sleeper.deadlineNs > mNowNs) next = std::min(next, sleeper.deadlineNs);
    }
    xMoveTo(next);
    if (next >= target) break;
  }
  return waitUntilParked(sleepers);
}

void SimulatedClock::jumpByMs(std::int64_t ms) {
  std::lock_guard const lock(mMutex);
  xMoveTo(mNowNs + ms * 1'000'000);
}

void SimulatedClock::stepWallByMs(std::int64_t ms) {
  std::lock_guard const lock(mMutex);
  mWallOffsetUs += ms * 1000;
}

}  // namespace KX
