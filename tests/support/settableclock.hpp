// The machine's clocks, with a wall clock that the test sets.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include <kxthread/kxclock.hpp>

namespace KX {

/// Shows the system's wall clock and what it has been stepped by. Threads: as KXClock.
class SettableClock : public KXClock {
 public:
  void step(std::chrono::milliseconds by) { mOffsetUs += std::chrono::microseconds(by).count(); }

  ka::os::timeval wallTime() override {
    ka::os::timeval const time = KXClock::system().wallTime();
    std::int64_t const us = time.tv_sec * 1'000'000 + time.tv_usec + mOffsetUs;
    return {us / 1'000'000, us % 1'000'000};
  }
  std::int64_t monotonicNs() override { return KXClock::system().monotonicNs(); }
  void waitUntil(boost::condition_variable& condition, boost::unique_lock<boost::mutex>& lock,
                 std::int64_t deadlineNs) override {
    KXClock::system().waitUntil(condition, lock, deadlineNs);
  }

 private:
  std::atomic<std::int64_t> mOffsetUs{0};
};

}  // namespace KX
