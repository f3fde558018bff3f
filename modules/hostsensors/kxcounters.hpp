// The arithmetic between what the kernel counts and what is published. No reading here.
// Threads: not synchronised; each group has its own.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <kxvalue/kxvalue.hpp>
#include <modules/hostsensors/kxmachinegroup.hpp>

namespace KX {

/// How far a counter went between two readings. One that fell has passed 2^32, if it was in the
/// upper half of 32 bits and is in the lower now, or else has begun again from zero.
std::uint64_t counterIncrease(std::uint64_t before, std::uint64_t now);

/// `text` as one segment of a key: slashes, blanks and control characters become underscores.
std::string keySegment(std::string_view text);

/// Rates per second of any number of counters.
class KXRates {
 public:
  /// The rate since the last reading of the counter, times `unit`; invalid at the first.
  KXValue update(std::string const& counter, std::uint64_t count, double unit, KXMachineTime now);
  /// Forgets the counters that were not updated at `now`: their devices are gone.
  void forgetOthers(KXMachineTime now);

 private:
  struct Reading {
    std::uint64_t count;
    KXMachineTime time;
  };
  std::map<std::string, Reading> mReadings;
};

/// The share of busy ticks over the last second, in percent. Ticks are 10 ms, so over a short
/// period alone the share would be coarse.
class KXUsage {
 public:
  /// Invalid until there are two readings with ticks between them.
  KXValue update(std::uint64_t busyTicks, std::uint64_t totalTicks, KXMachineTime now);
  /// True once there is a value and the readings span a second.
  bool isSettled() const;

 private:
  struct Reading {
    std::uint64_t busyTicks;
    std::uint64_t totalTicks;
    KXMachineTime time;
  };
  std::deque<Reading> mReadings;
  KXValue mUsage;
};

/// A state that is entered at one threshold and left at a lower one, so that a value that hovers
/// does not flicker.
class KXHysteresis {
 public:
  KXHysteresis(double enterAt, double leaveBelow) : mEnterAt(enterAt), mLeaveBelow(leaveBelow) {}
  /// The new state if this value changes it.
  std::optional<bool> update(double value);

 private:
  double const mEnterAt;
  double const mLeaveBelow;
  bool mIsEntered = false;
};

}  // namespace KX
