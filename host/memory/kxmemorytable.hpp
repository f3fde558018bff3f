// The store's keys: types, values, subscriber lists, and the memory of resolved batch reads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <kxvalue/kxvalue.hpp>

#include <host/memory/kxsubscriberqueue.hpp>

namespace KX {

enum class KXKeyType { None, Data, Event, MicroEvent };

/// One name that somebody wrote, subscribed to or asked for. Its address never changes.
struct KXMemorySlot {
  KXValue* value = nullptr;          ///< in the table's cells
  KXKeyType type = KXKeyType::None;  ///< None: nobody wrote the key (yet, or again)
  bool isReserved = false;           ///< of type None, and asked for by a batch read
  bool isInBatch = false;            ///< a remembered batch read may point here
  /// Null while nobody subscribed. A subscription outlives the key and waits for one of its type.
  std::shared_ptr<KXSubscriptionList const> eventSubscribers;
  std::shared_ptr<KXSubscriptionList const> microEventSubscribers;

  std::shared_ptr<KXSubscriptionList const>& subscribers(KXKeyType kind) {
    return kind == KXKeyType::MicroEvent ? microEventSubscribers : eventSubscribers;
  }
};

/// The keys by name. Threads: not synchronised; the caller holds the store's mutex.
/// Errors: KXError from the store's method named by `method`; nothing is changed then.
class KXMemoryTable {
 public:
  /// How many names that nobody wrote may be reserved by batch reads.
  static constexpr std::size_t kMaxReserved = 100000;
  /// In bytes, of such a name: who only reads is not to use up the memory.
  static constexpr std::size_t kMaxReservedName = 1024;

  /// The key's slot, made if nobody wrote it yet. KXError if the key is of another type.
  KXMemorySlot& slotToWrite(std::string const& name, KXKeyType type, char const* method);
  /// KXError if the key is there and of another type.
  void checkType(std::string const& name, KXKeyType type, char const* method) const;
  /// The slot of a key that somebody wrote. KXError if there is none.
  KXMemorySlot const& slotToRead(std::string const& name, char const* method) const;
  /// The name of the key's type, or "Unknown data" if the name is reserved. KXError otherwise.
  std::string typeName(std::string const& name, char const* method) const;
  /// Takes a key out; its value is left in `former`. KXError if nobody wrote it.
  void remove(std::string const& name, KXValue& former, char const* method);
  /// The names of the keys that match the glob, sorted; an empty glob matches all.
  std::vector<std::string> keys(std::string const& pattern) const;
  /// The values of `names`, an array of strings, in the same order.
  KXValue read(KXValue const& names, char const* method);

  /// Subscribes a module, in place of its former subscription to that key if there is one.
  void subscribe(std::string const& name, KXKeyType kind,
                 std::shared_ptr<KXSubscription> subscription, char const* method);
  void unsubscribe(std::string const& name, KXKeyType kind, std::string const& module,
                   char const* method);
  /// The subscribers to notify, without those that are gone; null if there are none.
  static std::shared_ptr<KXSubscriptionList const> const& currentSubscribers(KXMemorySlot& slot,
                                                                             KXKeyType kind);

 private:
  // A list of names that was read, with the cells found for it. The copy of the names keeps their
  // block alive and unchanged, so whoever comes with the same block means the same names.
  struct Batch {
    KXValue names;
    std::uint64_t version = 0;
    std::uint64_t lastUse = 0;
    std::vector<KXValue const*> values;
  };
  using Slots = std::unordered_map<std::string, KXMemorySlot>;

  Batch const& xResolve(KXValue const& names, char const* method);
  KXMemorySlot* xReserve(std::string const& name);
  Slots::iterator xFindOrMake(std::string const& name);
  void xForgetBatches(KXMemorySlot& slot);
  void xEraseIfUnused(Slots::iterator place);

  Slots mSlots;
  // The values lie apart from the slots, side by side in the order in which keys were made: a batch
  // read walks them much as it walks an array. Their addresses never change.
  std::deque<KXValue> mCells;
  std::vector<KXValue*> mFreeCells;
  std::size_t mReservedCount = 0;
  std::uint64_t mVersion = 1;  ///< batches of another version point to slots that may be gone
  std::uint64_t mUseCount = 0;
  std::array<Batch, 8> mBatches;
};

}  // namespace KX
