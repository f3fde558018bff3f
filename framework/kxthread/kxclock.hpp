// Time and waiting as paced threads use them, so that tests can make time pass.
#pragma once

#include <cstdint>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <ka/os.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Two clocks and a wait. The wall clock may be set at any time; the monotonic one may not, and it
/// is the one that waits end by.
/// Threads: all operations may overlap.
class KX_API KXClock {
 public:
  /// This machine's clocks; lives as long as the process.
  static KXClock& system();

  virtual ~KXClock();
  /// Microseconds since 1970, UTC.
  virtual ka::os::timeval wallTime() = 0;
  /// Nanoseconds since a moment that does not change.
  virtual std::int64_t monotonicNs() = 0;
  /// Waits until the condition is notified or the monotonic clock has reached the deadline; may
  /// return earlier, so look again. `lock` is held on entry and on return, and not meanwhile.
  virtual void waitUntil(boost::condition_variable& condition,
                         boost::unique_lock<boost::mutex>& lock, std::int64_t deadlineNs) = 0;
};

/// What both clocks showed at one moment.
struct KXMoment {
  std::int64_t wallUs;
  std::int64_t monotonicNs;
};

/// Reads both clocks. False if the thread was interrupted between them at every try: then they do
/// not belong to one moment, but for a good millisecond.
KX_API bool readMoment(KXClock& clock, KXMoment& moment);

}  // namespace KX
