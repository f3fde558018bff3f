// The mailbox in front of a listener map: lock-free for those who post, emptied into the map only
// by a holder of the map's mutex.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <ka/os.hpp>
#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxmemorywatcheritem.hpp>

namespace KX {

/// Watched keys by name, in byte order.
using KXListenerMap = std::map<std::string, KXMemoryWatcherItem>;

/// The keys of one listener map as an update cycle needs them. Guarded by the map's mutex.
/// Whoever adds, removes or retypes an entry of the map sets isCurrent to false.
struct KXWatchList {
  bool isCurrent = false;
  KXValue names;  ///< the items' names, in map order: what the store is asked
  KXValue keys;   ///< the map's keys, in the same order
  std::vector<KXMemoryWatcherItem*> items;  ///< the map's items, in the same order
  std::vector<std::uint32_t> unknown;       ///< places of the keys whose nature is not known yet

  /// Makes the list anew from the map unless it is current.
  void refresh(KXListenerMap& map);
};

/// Contract, one sentence each:
/// - Any thread may post at any time, without waiting for anybody.
/// - What is posted stays in the inbox until a holder of the map's mutex files it.
/// - Posts are filed in the order of posting, and those of one thread in the order it made them.
/// - Everything that was posted before fileInto() began is in the map when it returns.
/// - A sample for a name that is not in the map makes a default entry of that name.
/// - A batch files each value under the key it was read for, whatever was added or removed since.
/// - A value of a batch whose key has left the map is dropped.
/// - If filing throws, what was not filed yet stays and is filed next time.
/// - The destructor drops what is waiting.
/// Unbounded, as are the buffers behind it.
class KXSampleInbox {
 public:
  KXSampleInbox() = default;
  ~KXSampleInbox();
  KXSampleInbox(KXSampleInbox const&) = delete;
  KXSampleInbox& operator=(KXSampleInbox const&) = delete;

  /// Posts one value of one key.
  void postSample(std::string const& name, ka::os::timeval time, KXValue value);
  /// Posts the elements [begin, end) of `values`, read for the elements at the same places of
  /// `keys`, an array of strings; both arrays reach at least to `end`.
  void postBatch(ka::os::timeval time, KXValue keys, KXValue values, std::size_t begin,
                 std::size_t end);
  /// True once so much waits that filing it pays. Filing touches the memory of every key: some
  /// batches at once cost little more than one. Not so many, though, that filing them takes a
  /// noticeable part of a period. Any thread may ask.
  bool isFilingDue() const noexcept {
    return mWaitingValues.load(std::memory_order_relaxed) >= kValuesPerFiling;
  }
  /// Files everything that waits. The caller holds the mutex that guards the map and its list.
  void fileInto(KXListenerMap& map, KXWatchList& list);

 private:
  struct Post;
  struct SamplePost;
  struct BatchPost;

  // Filing so many takes one or two milliseconds with cold caches.
  static constexpr std::size_t kValuesPerFiling = 32768;
  // What a batch counts for at least, so that no more than 16 wait.
  static constexpr std::size_t kLeastValuesPerBatch = 2048;

  void xPost(Post* post) noexcept;
  void xTakeWaiting() noexcept;
  void xDropOldest() noexcept;
  std::vector<BatchPost*> xOldestBatches(KXWatchList const& list) const;

  std::atomic<Post*> mNewest{nullptr};
  std::atomic<std::size_t> mWaitingValues{0};
  // Taken out of the mailbox but not filed yet, oldest first; belongs to the mutex's holder.
  Post* mOldestTaken = nullptr;
  Post* mNewestTaken = nullptr;
};

}  // namespace KX
