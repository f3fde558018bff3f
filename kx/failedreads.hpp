// The one cause of a missed period that the watcher tells: in its log.
#pragma once

#include <atomic>
#include <cstdint>

namespace KX::tool {

/// Counts the reads of the store that the watcher logs as failed, from construction on.
/// Ownership: at most one at a time. Threads: any logs, any asks.
class KXFailedReads {
 public:
  KXFailedReads();
  ~KXFailedReads();
  KXFailedReads(KXFailedReads const&) = delete;
  KXFailedReads& operator=(KXFailedReads const&) = delete;

  std::int64_t count() const noexcept { return mCount.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::int64_t> mCount{0};
};

}  // namespace KX::tool
