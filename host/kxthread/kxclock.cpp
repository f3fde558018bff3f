#include <kxthread/kxclock.hpp>

#include <ctime>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace KX {

namespace {

class SystemClock final : public KXClock {
 public:
  ka::os::timeval wallTime() override {
    ka::os::timeval time;
    ka::os::gettimeofday(&time);
    return time;
  }

  std::int64_t monotonicNs() override {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
  }

  void waitUntil(boost::condition_variable& condition, boost::unique_lock<boost::mutex>& lock,
                 std::int64_t deadlineNs) override {
    std::int64_t const leftNs = deadlineNs - monotonicNs();
    if (leftNs <= 0) return;
    // A span, which the condition measures on the monotonic clock. Rounded up, so that nobody
    // wakes before the time and has to go back to sleep.
    condition.timed_wait(lock, boost::posix_time::microseconds((leftNs + 999) / 1000));
  }
};

}  // namespace

KXClock::~KXClock() = default;

KXClock& KXClock::system() {
  // Never destroyed: threads may still wait while the process ends.
  static KXClock& clock = *new SystemClock;
  return clock;
}

bool readMoment(KXClock& clock, KXMoment& moment) {
  constexpr int kTries = 10;
  constexpr std::int64_t kTogetherNs = 1'000'000;
  for (int i = 0; i < kTries; ++i) {
    std::int64_t const beforeNs = clock.monotonicNs();
    ka::os::timeval const wall = clock.wallTime();
    std::int64_t const afterNs = clock.monotonicNs();
    moment = {wall.tv_sec * 1'000'000 + wall.tv_usec, beforeNs + (afterNs - beforeNs) / 2};
    if (afterNs - beforeNs <= kTogetherNs) return true;
  }
  return false;
}

}  // namespace KX
