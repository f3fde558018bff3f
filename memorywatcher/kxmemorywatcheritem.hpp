// The records that hold what was sampled: one sample, and one watched key with its samples.
// Plain values without locks; whoever owns the map that holds them sees to exclusion.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <ka/os.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// What was read at one time: the values of many keys, each at its place.
struct KXBatchColumn {
  ka::os::timeval time;
  KXValue const* values;
};

/// One sample: a value and the wall-clock time at which it was taken.
class KXMemoryWatcherData final {
 public:
  /// Time zero, invalid value.
  KXMemoryWatcherData() = default;
  KXMemoryWatcherData(ka::os::timeval time, KXValue value)
      : mTime(time), mValue(std::move(value)) {}
  /// Copies straight from where the values were read: this is the hot line of a watch.
  KXMemoryWatcherData(KXBatchColumn const& column, std::size_t place)
      : mTime(column.time), mValue(column.values[place]) {}
  KXMemoryWatcherData(KXMemoryWatcherData const&) = default;
  KXMemoryWatcherData(KXMemoryWatcherData&&) noexcept = default;
  KXMemoryWatcherData& operator=(KXMemoryWatcherData const&) = default;
  KXMemoryWatcherData& operator=(KXMemoryWatcherData&&) noexcept = default;
  virtual ~KXMemoryWatcherData() = default;

  /// `SECONDS.MICROSECONDS;VALUE;` with the value as JSON. The microseconds are a plain number:
  /// 7 us after a whole second is `.7`, half a second is `.500000`.
  std::string toString() const;

  ka::os::timeval mTime;
  KXValue mValue;
};

/// The [seconds, microseconds] values of a fetch. The samples of one cycle carry one time, so their
/// entries can share one block: give the times of each key in ascending order, after rewind().
class KXTimePairs {
 public:
  void rewind() noexcept { mNext = 0; }
  /// The pair for a time, cut to 32-bit ints; one that was made before if it is the next in order.
  KXValue get(ka::os::timeval time);

 private:
  struct Pair {
    ka::os::timeval time;
    KXValue value;
  };
  std::vector<Pair> mPairs;
  std::size_t mNext = 0;
};

/// One watched key with the samples taken since the last fetch, oldest first.
/// Ownership: a value, held in the module's listener maps. Unbounded: only clear() empties it.
/// Threads: not synchronised; the caller holds the mutex of the map that owns the item.
/// Times are wall clock, seconds and microseconds; they may step when the system clock is set.
class KXMemoryWatcherItem {
 public:
  /// What a map's index operator makes for a new name: no name, nature "Unknown data", no samples.
  KXMemoryWatcherItem() = default;
  KXMemoryWatcherItem(std::string const& name, std::string const& nature,
                      std::string const& fileName);
  KXMemoryWatcherItem(KXMemoryWatcherItem const&) = default;
  KXMemoryWatcherItem& operator=(KXMemoryWatcherItem const&) = default;
  virtual ~KXMemoryWatcherItem() = default;

  std::string const& getName() const { return mName; }
  /// The store's type string: "Event", "MicroEvent", "Unknown data"; any other means plain data.
  std::string const& getNature() const { return mNature; }
  void setNature(std::string const& nature) { mNature = nature; }

  void addData(ka::os::timeval time, KXValue value) {
    mSamples.emplace_back(time, std::move(value));
  }
  /// Adds one sample for each column: what it holds at `place`. Adds all or, if memory for them
  /// is missing, none.
  void addColumns(std::span<KXBatchColumn const> columns, std::size_t place);
  /// Ask the caches for what addColumns() will touch: first where the buffer stands, and once that
  /// is there, the buffer's end. Both only cost time if called too late or in vain.
  void prefetchBuffer() const { __builtin_prefetch(&mSamples); }
  void prefetchEnd() const { __builtin_prefetch(mSamples.data() + mSamples.size(), 1); }
  /// Drops all samples; keeps names, nature and the memory for new samples.
  void clear();

  /// The whole buffer as an array of [[seconds, microseconds], value], oldest first. Seconds and
  /// microseconds are cut to their low 32 bits.
  KXValue toKXValue() const;
  /// One line per sample: its text and a newline.
  std::string toString() const;
  /// Writes toString() and a newline to the item's file, which it truncates first. False if the
  /// item has no file name or the file cannot be opened; throws nothing of its own.
  bool writeToFile() const;

  /// For a fetch, which copies under the lock and clears in a later hold of it: the samples that
  /// no other fetch has handed out yet, in the form of toKXValue().
  KXValue newSamples(KXTimePairs& pairs) const;
  /// All samples in the buffer now count as handed out.
  void markHandedOut() { mHandedOut = mSamples.size(); }
  /// Drops the samples that were handed out and keeps those that came since.
  void clearHandedOut();

 private:
  KXValue xToKXValue(std::size_t first, KXTimePairs& pairs) const;

  std::string mName;
  std::string mFileName;
  std::string mNature = "Unknown data";
  std::vector<KXMemoryWatcherData> mSamples;
  std::size_t mHandedOut = 0;
};

}  // namespace KX
