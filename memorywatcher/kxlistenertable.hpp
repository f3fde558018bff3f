// The watched keys of one kind, what was read for them, and the mailbox in front.
// Any thread posts; everything else goes through KXListenerTable::Access, which holds the mutex.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <ka/os.hpp>
#include <kxthread/kxannotations.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>
#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxmailbox.hpp>
#include <memorywatcher/kxmemorywatcheritem.hpp>

namespace KX {

/// The keys of a table at one of its versions, in byte order. Never changed once it is made.
struct KXKeyList : boost::intrusive_ref_counter<KXKeyList> {
  std::uint64_t version = 0;         ///< counted up by each insertion, removal and change of nature
  KXValue keys;                      ///< an array of strings
  KXValue names;                     ///< the items' names: what the store is asked
  std::vector<std::uint64_t> since;  ///< for each key, the version since which it is there
  std::vector<std::uint32_t> unknown;  ///< the places of the keys of unknown nature
};
using KXKeyListPtr = boost::intrusive_ptr<KXKeyList const>;

/// What the store answered when it was asked for a list's names: `values[i]` is for
/// `list->keys[i]`, for i from `begin` to before `end`. A value belongs to the key that is there
/// now if that key has been there since the list's version or before.
struct KXBatch {
  std::int64_t timeUs;  ///< microseconds since 1970
  KXKeyListPtr list;
  KXValue values;
  std::uint32_t begin;
  std::uint32_t end;
};
/// In order of posting, in pieces of a fixed size: growing moves none, and two are joined in
/// constant time and without memory, which putBack() needs.
using KXBatches = std::list<std::vector<KXBatch>>;

/// The samples that stand in an item itself: its first one, and events.
struct KXOwnSamples {
  KXValue key;
  std::uint64_t since;
  std::vector<KXMemoryWatcherData> samples;
};

/// Everything that a table had buffered, taken out for a client.
struct KXTaken {
  KXKeyListPtr list;  ///< the keys at that moment
  KXBatches batches;
  std::vector<KXOwnSamples> own;  ///< of keys of the list, in no order; all older than the batches
};

/// Contract, one sentence each:
/// - Any thread may post at any time, without waiting for anybody.
/// - Posts are taken in by the next access, in the order of posting.
/// - What waits in front counts for everybody: an access takes it in before it does anything else.
/// - A batch stays as it was read; only who asks for one key's samples has them picked out.
/// - A sample for a key that is not there makes a default item under that key.
/// - A removed key's samples are gone, also those that were still on their way.
/// - If memory for taking in is missing, what was not taken in is the next access's.
/// Unbounded: only Access::take() and the removal of keys empty it.
class KXListenerTable {
 public:
  class Access;
  /// What left the table: to be destroyed when no lock is held.
  struct Dropped;

  /// `mutex` is what accesses hold.
  explicit KXListenerTable(boost::shared_ptr<KXMutex> mutex);
  ~KXListenerTable();
  KXListenerTable(KXListenerTable const&) = delete;
  KXListenerTable& operator=(KXListenerTable const&) = delete;

  boost::shared_ptr<KXMutex> const& mutex() const noexcept { return mMutex; }

  /// Posts one value of one key.
  void postSample(std::string const& key, ka::os::timeval time, KXValue value);
  /// Posts the elements [begin, end) of `values`, an array that was read for `list`.
  void postBatch(KXKeyListPtr list, ka::os::timeval time, KXValue values, std::size_t begin,
                 std::size_t end);
  /// Puts back what an access took, in front of what has come since, and of what still waits.
  /// Leaves out what keys that were removed meanwhile had of their own. Waits for the mutex.
  /// Batches always go back; std::bad_alloc if there is no memory to put an item's own samples
  /// before newer ones.
  void putBack(KXTaken&& taken);
  /// Counts the removals of keys. Told without the mutex: whoever finds it as it was under the
  /// mutex knows that no key has been removed since.
  std::uint64_t removals() const noexcept { return mRemovals; }
  /// How many posts wait to be taken in.
  std::size_t waiting() const noexcept { return mMailbox.size(); }

 private:
  struct Post;
  struct Entry {
    KXMemoryWatcherItem item;
    KXValue key;
    std::uint64_t since = 0;
    std::size_t ownPlace = 0;  // in mWithOwnSamples, counted from 1; 0 if it is not there
  };
  using Entries = std::map<std::string, Entry, std::less<>>;

  void xTakeIn() KX_REQUIRES(*mMutex);
  void xTakeInWaiting() KX_REQUIRES(*mMutex);
  void xTakeInBatch(Post& post) KX_REQUIRES(*mMutex);
  void xTakeInSample(Post& post) KX_REQUIRES(*mMutex);
  void xSpreadBatches() KX_REQUIRES(*mMutex);
  void xAddSample(Entry& entry, ka::os::timeval time, KXValue const& value) KX_REQUIRES(*mMutex);
  Entry& xEntry(std::string_view key) KX_REQUIRES(*mMutex);
  void xMarkOwn(Entry& entry) KX_REQUIRES(*mMutex);
  void xUnmarkOwn(Entry& entry) noexcept KX_REQUIRES(*mMutex);
  void xChangeKeys() noexcept KX_REQUIRES(*mMutex);

  boost::shared_ptr<KXMutex> const mMutex;
  KXMailbox<Post> mMailbox;
  Post* mWaiting KX_GUARDED_BY(*mMutex) = nullptr;  // taken out of the mailbox, not taken in yet
  Entries mEntries KX_GUARDED_BY(*mMutex);
  KXBatches mBatches KX_GUARDED_BY(*mMutex);
  std::vector<Entry*> mWithOwnSamples KX_GUARDED_BY(*mMutex);
  std::uint64_t mVersion KX_GUARDED_BY(*mMutex) = 1;
  std::atomic<std::uint64_t> mRemovals{0};
  KXKeyListPtr mList KX_GUARDED_BY(*mMutex);  // null when the keys have changed since it was made
};

struct KXListenerTable::Dropped {
  Entries entries;
  KXBatches batches;
};

/// The only way to the keys and their samples. Holds the table's mutex while it lives, or stands on
/// a probe that does, and has taken in everything that was posted before.
/// Calls to the store and to the log may come back on the same thread with an access of their own:
/// after such a call, look keys up anew.
class KXListenerTable::Access {
 public:
  /// Waits for the mutex.
  explicit Access(KXListenerTable& table);
  /// `probe` has found the table's mutex free, and outlives this.
  Access(KXListenerTable& table, KXCriticalTrueIfLocked const& probe);
  Access(Access const&) = delete;
  Access& operator=(Access const&) = delete;

  /// Takes in what was posted since. For after a call to the store, before an entry is replaced or
  /// erased: what arrived meanwhile belongs to the old one.
  void takeIn();

  /// Null if the key is not there. What batches hold for the key does not stand in the item.
  KXMemoryWatcherItem const* find(std::string const& key) const;
  /// A copy with all samples, those that batches hold included. The key is there.
  KXMemoryWatcherItem itemWithSamples(std::string const& key) const;
  /// The keys as they are; made anew only if they have changed.
  KXKeyListPtr const& list();
  /// Key and nature of every item, in byte order of the keys.
  std::vector<std::pair<std::string, std::string>> natures() const;

  /// Puts an item under a key, in place of what was there.
  void insert(std::string const& key, KXMemoryWatcherItem item);
  void retype(std::string const& key, std::string const& nature);
  [[nodiscard]] Dropped erase(std::string const& key);
  [[nodiscard]] Dropped eraseAll();

  /// Moves out everything buffered; the keys stay. Moves as many things as there are batches and
  /// items with samples of their own, however many samples those hold.
  KXTaken take();
  /// As take(), but for the list of keys, which is left null.
  KXTaken takeSamples();

 private:
  std::optional<KXCriticalSection> mLock;
  KXListenerTable& mTable;
};

}  // namespace KX
