// Clocks that stand still until the test moves them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

#include <kxthread/kxclock.hpp>

namespace KX {

/// Time for paced threads: it passes only in advanceBy(), from one deadline to the next, and at
/// each of them the threads that were due do their work before it goes on.
///
///     SimulatedClock clock;
///     auto watcher = KXModule::createModule<KXMemoryWatcher>(broker, clock);
///     watcher->startWatching(50);
///     clock.advanceByMs(1000);   // twenty periods, in no time
///
/// Threads: one moves it; any number read it and wait by it. Must outlive those.
class SimulatedClock : public KXClock {
 public:
  static constexpr std::int64_t kStartUs = 1'000'000'000'000'000;  ///< the wall clock's at first

  ka::os::timeval wallTime() override;
  std::int64_t monotonicNs() override;
  void waitUntil(boost::condition_variable& condition, boost::unique_lock<boost::mutex>& lock,
                 std::int64_t deadlineNs) override;

  /// Lets both clocks go on. Before, and at each deadline that is passed, waits until `sleepers`
  /// threads wait for a later one. False, at the moment it has come to, if they do not within 30 s.
  bool advanceByMs(std::int64_t ms, int sleepers = 1) {
    return advanceByNs(ms * 1'000'000, sleepers);
  }
  bool advanceByNs(std::int64_t ns, int sleepers = 1);
  /// Lets time pass without looking after anybody: a thread that was at work finds that it is late.
  void jumpByMs(std::int64_t ms);
  /// Sets the wall clock, as an administrator would; nobody is told.
  void stepWallByMs(std::int64_t ms);
  /// Waits until so many threads wait for a deadline to come; false after 30 s.
  bool waitUntilParked(int sleepers = 1);
  /// Waits until a thread waits for the moment that is so far ahead; false after 30 s. After a
  /// deadline was moved: who has not woken yet is still parked for the old one.
  bool waitUntilParkedForMs(std::int64_t ms);
  std::int64_t nowMs() { return monotonicNs() / 1'000'000; }

 private:
  struct Sleeper {
    boost::condition_variable* condition;
    std::int64_t deadlineNs;
  };

  int xParked() const;
  bool xWaitUntilParked(std::unique_lock<std::mutex>& lock, int sleepers);
  void xMoveTo(std::unique_lock<std::mutex>& lock, std::int64_t ns);

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::list<Sleeper> mSleepers;
  std::int64_t mNowNs = 1'000'000'000'000;
  std::int64_t mWallOffsetUs = kStartUs - 1'000'000'000;
};

}  // namespace KX
