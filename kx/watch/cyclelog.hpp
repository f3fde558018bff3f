// Which hardware cycles were raised during a watch, and when they had been due.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/signals2/connection.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

namespace KX {
class KXCallbackGuard;
class KXVsm;
}  // namespace KX

namespace KX::tool {

/// Listens to the hardware cycle. A log that is made before the watch is started hears of each
/// cycle before the watcher does.
/// Ownership: keeps the VSM alive. Threads: the cycle's thread writes, one other reads; the cycle
/// never waits for the reader.
class KXCycleLog {
 public:
  explicit KXCycleLog(boost::shared_ptr<KXVsm> vsm);
  /// Returns when no cycle is in here any more.
  ~KXCycleLog();
  KXCycleLog(KXCycleLog const&) = delete;
  KXCycleLog& operator=(KXCycleLog const&) = delete;

  /// The cycles raised so far.
  std::int64_t count() const noexcept { return mCount.load(std::memory_order_acquire); }
  /// When the cycles raised since the last call had been due, in order: microseconds on the
  /// monotonic clock. The very last one may come with the next call.
  std::vector<std::int64_t> takeDeadlinesUs();

 private:
  void xOnCycle();

  boost::shared_ptr<KXVsm> const mVsm;
  std::atomic<std::int64_t> mCount{0};
  std::vector<std::int64_t> mPending;  // of the cycle's thread
  std::mutex mMutex;
  std::vector<std::int64_t> mDeadlinesUs;  // guarded by mMutex
  std::shared_ptr<KXCallbackGuard> const mGuard;
  boost::signals2::connection mConnection;
};

}  // namespace KX::tool
