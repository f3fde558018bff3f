// What is logged during a watch, as far as the tool must know of it.
#pragma once

#include <atomic>
#include <cstdint>

#include <kx/output.hpp>

namespace KX::tool {

/// Counts, from construction on, the reads of the store that the watcher logs as failed: the one
/// cause of a missed period that it tells. Notices what may have been written to stderr.
/// Ownership: at most one at a time. Threads: any logs, any asks.
class KXWatchLog {
 public:
  KXWatchLog();
  ~KXWatchLog();
  KXWatchLog(KXWatchLog const&) = delete;
  KXWatchLog& operator=(KXWatchLog const&) = delete;

  std::int64_t failedReads() const noexcept { return mFailedReads.load(std::memory_order_relaxed); }
  /// True if a warning or worse has been logged since the last time this was asked.
  bool takeHasWarned() noexcept { return mHasWarned.exchange(false, std::memory_order_relaxed); }

 private:
  std::atomic<std::int64_t> mFailedReads{0};
  std::atomic<bool> mHasWarned{false};
};

/// The terminal, disturbed if what was logged since the last time this was asked is shown there
/// too.
KXTerminal terminalOf(KXOutput const& output, KXWatchLog& log);

}  // namespace KX::tool
