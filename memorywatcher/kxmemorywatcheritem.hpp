// The records that hold what was sampled: one sample, and one watched key with its samples.
// Plain values without locks; whoever owns the table that holds them sees to exclusion.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <ka/os.hpp>
#include <kxvalue/kxrows.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

// Natures that mean something here, as the store calls them; any other is plain data.
inline constexpr char const* kEvent = "Event";
inline constexpr char const* kMicroEvent = "MicroEvent";
inline constexpr char const* kUnknownData = "Unknown data";

/// One sample: a value and the wall-clock time at which it was taken.
class KXMemoryWatcherData {
 public:
  /// Time zero, invalid value.
  KXMemoryWatcherData() = default;
  KXMemoryWatcherData(ka::os::timeval time, KXValue value)
      : mTime(time), mValue(std::move(value)) {}
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

/// Appends a time as clients receive it, [seconds, microseconds], both cut to their low 32 bits.
void pushTime(KXRows& times, ka::os::timeval time) noexcept;

/// One watched key with the samples taken since the last fetch, oldest first.
/// Ownership: a value, held in the module's listener tables. Unbounded. What the update cycle reads
/// does not come here: it stays in batches, beside the items (KXListenerTable).
/// Threads: not synchronised; the caller holds the mutex of the table that owns the item.
/// Times are wall clock, seconds and microseconds; they may step when the system clock is set.
class KXMemoryWatcherItem {
 public:
  /// What a map's index operator makes for a new name: no name, nature "Unknown data", no samples.
  KXMemoryWatcherItem() = default;
  KXMemoryWatcherItem(std::string const& name, std::string const& nature,
                      std::string const& fileName);
  KXMemoryWatcherItem(KXMemoryWatcherItem const&) = default;
  KXMemoryWatcherItem(KXMemoryWatcherItem&&) noexcept = default;
  KXMemoryWatcherItem& operator=(KXMemoryWatcherItem const&) = default;
  KXMemoryWatcherItem& operator=(KXMemoryWatcherItem&&) noexcept = default;
  virtual ~KXMemoryWatcherItem() = default;

  std::string const& getName() const { return mName; }
  /// The store's type string: "Event", "MicroEvent", "Unknown data"; any other means plain data.
  std::string const& getNature() const { return mNature; }
  void setNature(std::string const& nature) { mNature = nature; }

  void addData(ka::os::timeval time, KXValue value) {
    mSamples.emplace_back(time, std::move(value));
  }
  bool hasSamples() const { return !mSamples.empty(); }
  /// Moves the samples out, oldest first, and their memory with them.
  std::vector<KXMemoryWatcherData> takeSamples() { return std::exchange(mSamples, {}); }
  /// Puts samples before those that are there.
  void putSamplesInFront(std::vector<KXMemoryWatcherData> samples);
  /// Drops all samples; keeps names, nature and the memory for new samples.
  void clear() { mSamples.clear(); }

  /// The whole buffer as an array of [[seconds, microseconds], value], oldest first. Seconds and
  /// microseconds are cut to their low 32 bits.
  KXValue toKXValue() const;
  /// One line per sample: its text and a newline.
  std::string toString() const;
  /// Writes toString() and a newline to the item's file, which it truncates first. False if the
  /// item has no file name or the file cannot be opened; throws nothing of its own.
  bool writeToFile() const;

 private:
  std::string mName;
  std::string mFileName;
  std::string mNature = "Unknown data";
  std::vector<KXMemoryWatcherData> mSamples;
};

}  // namespace KX
