// Wake-up signals between threads. They are no data locks: one thread locks, another unlocks.
#pragma once

#include <atomic>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <kxthread/kxcallbackguard.hpp>

namespace KX {

/// The gate of the hardware cycle, initially open. Opening it is one atomic exchange and, if
/// somebody waits, one wake-up: no lock, no allocation. Opening it twice is opening it once.
class KXCycleGate {
 public:
  /// Waits until the gate is open, and closes it.
  void lock() noexcept;
  /// Opens the gate: one pass of lock() goes through.
  void unlock() noexcept;

 private:
  // An int, because that is what the kernel can wait on.
  std::atomic<int> mIsOpen{1};
};

/// The interruptible sleep, initially unlocked: a lock that can be waited for until a moment of the
/// UTC wall clock, and that any thread may unlock.
class KXSleepGate {
 public:
  /// Throws boost::thread_resource_error if the system is out of mutexes or condition variables.
  KXSleepGate() = default;

  void lock();
  void unlock();
  /// True if the gate could be locked before the deadline; false when the deadline has passed.
  bool lockUntil(boost::posix_time::ptime const& deadline);

 private:
  boost::mutex mMutex;
  boost::condition_variable mUnlocked;
  bool mIsLocked = false;
};

}  // namespace KX
