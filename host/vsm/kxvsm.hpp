// The hardware cycle: a signal every 10 ms, raised on the module's own thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxapi.hpp>
#include <kxthread/kxclock.hpp>

namespace KX {

/// When the next cycle is due, and how many that were due before it are skipped.
struct KXCycleStep {
  std::int64_t deadlineNs;
  int missedCycles;

  bool operator==(KXCycleStep const&) const = default;
};

/// The step after the cycle that was due at `deadlineNs` and ended at `nowNs`, both on one clock:
/// the first deadline on the grid that has not passed. Cycles whose time has passed are missed;
/// they are not made up, because a burst would tell the listeners a wrong time.
KX_API KXCycleStep nextCycle(std::int64_t deadlineNs, std::int64_t nowNs) noexcept;

/// The module "VSM". From init() to exit() it raises cycleSignal() every 10 ms on the monotonic
/// clock, on a thread of real-time priority where the system grants it.
/// Ownership: the broker's. Threads: all operations may overlap; slots run on the cycle thread and
/// may call any of them. exit() and destruction wait for the cycle in progress, unless it is that
/// cycle which calls. Errors: what a slot throws is logged; it ends that cycle, not the next ones.
class KX_API KXVsm : public KXModule {
 public:
  static constexpr std::int64_t kCycleNs = 10'000'000;

  /// `clock` is not owned and must live as long as the process's threads.
  explicit KXVsm(boost::shared_ptr<KXBroker> const& broker, KXClock& clock = KXClock::system());
  ~KXVsm() override;
  void init() override;
  void exit() override;

  /// The cycles raised since init(); wraps after 248 days.
  int getCycleCount();
  /// The cycles that were skipped because their time had passed.
  int getMissedCycleCount();
  /// When the last raised cycle was due, on the monotonic clock; 0 before the first one. Slots can
  /// tell by it how late they are.
  std::int64_t getDeadlineNs() const noexcept { return mDeadlineNs; }

 private:
  struct Alarm;

  static void xRun(boost::weak_ptr<KXModuleCore> const& module, Alarm& alarm);
  void xCycle() noexcept;
  void xStop();

  // Shared with the thread, which may outlive the module by a moment when a slot destroys it.
  std::shared_ptr<Alarm> const mAlarm;
  std::atomic<std::uint32_t> mCycleCount{0};
  std::atomic<std::uint32_t> mMissedCycleCount{0};
  std::atomic<std::int64_t> mDeadlineNs{0};
  boost::mutex mMutex;
  std::thread mThread;  // guarded by mMutex
};

}  // namespace KX
