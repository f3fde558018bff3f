// What loops wait at: the gate that the hardware cycle opens, and the sleep of timed pacing.
// Neither guards any data.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <kxthread/kxclock.hpp>

namespace KX {

/// The gate of the hardware cycle, initially open, so that a loop's first cycle comes at once.
/// Opening it is one atomic exchange and, if
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

/// The interruptible sleep of one loop at a time: the loop locks it for its whole run, and sleeps
/// by waiting within for a moment of the monotonic clock or for an interruption.
class KXSleepGate {
 public:
  /// Throws boost::thread_resource_error if the system is out of mutexes or condition variables.
  explicit KXSleepGate(KXClock& clock) : mMutex(std::in_place), mClock(clock) {}
  /// The mutex is made first and goes first.
  ~KXSleepGate() { mMutex.reset(); }
  KXSleepGate(KXSleepGate const&) = delete;
  KXSleepGate& operator=(KXSleepGate const&) = delete;

  /// Waits while another loop has it. Forgets interruptions from before.
  void lock();
  /// The loop's end.
  void unlock();
  /// Ends the sleep that the gate's holder is in or will next begin: one, however often it is
  /// called until then. Does nothing if no loop has the gate.
  void interrupt();
  /// For the loop that has the gate. True if it was interrupted, false when the deadline has
  /// passed.
  bool sleepUntil(std::int64_t deadlineNs);

 private:
  std::optional<boost::mutex> mMutex;
  boost::condition_variable mChanged;
  bool mIsLocked = false;
  bool mIsInterrupted = false;
  KXClock& mClock;
};

}  // namespace KX
