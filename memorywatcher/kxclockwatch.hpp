// Tells when the wall clock was set: then it has moved otherwise than the monotonic clock.
#pragma once

#include <cstdint>
#include <optional>

#include <kxthread/kxclock.hpp>

namespace KX {

/// Threads: not synchronised.
class KXClockWatch {
 public:
  explicit KXClockWatch(KXClock& clock) : mClock(clock) {}

  /// Forgets what the wall clock did before, and looks.
  void restart();
  /// By how many microseconds the wall clock has been set since the last look; 0 if it was not.
  /// What is not more than a quarter of a period, nor than 5 ms, is the clocks' own unevenness.
  std::int64_t look(int periodMs);
  /// What both clocks showed at the last look. Where they could not be read together, the wall
  /// clock is told from the monotonic one, so that a step in between stays to be found.
  KXMoment const& moment() const noexcept { return mMoment; }

 private:
  KXClock& mClock;
  KXMoment mMoment{};
  std::optional<KXMoment> mReference;  // the last reading of both clocks at one moment
};

}  // namespace KX
