// What the watcher's getData returns, made into samples in order of time and into batches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <kxvalue/kxvalue.hpp>

namespace KX::tool {

/// The keys of a watch, by the store's answer when it began. Each list is sorted.
struct KXWatchedKeys {
  std::vector<std::string> data{};     ///< sampled
  std::vector<std::string> unknown{};  ///< not there yet: sampled, and becoming events if they are
  std::vector<std::string> events{};   ///< events and micro-events: pushed

  std::size_t count() const noexcept { return data.size() + unknown.size() + events.size(); }
  /// The columns of a batch: data keys, then unknown keys.
  std::vector<std::string> columns() const;
};

struct KXSample {
  std::int64_t timeUs;  ///< wall clock
  std::string key;
  KXValue value;
  bool isEvent;
};

/// The samples that were taken at one moment.
struct KXBatch {
  std::int64_t timeUs;
  std::vector<KXValue>
      values;  ///< one per KXWatchedKeys::columns(); invalid where the key has none
};

/// What one fetch brought.
struct KXFetched {
  std::vector<KXSample> samples;  ///< in order of time
  std::vector<KXBatch> batches;   ///< in order of time
};

/// Takes fetches apart. The samples of one cycle carry the same time: by it a batch is recognised.
/// Keys that were unknown when the watch began make no batches of their own, since they may become
/// events and then carry times of their own.
/// Threads: one. KXError if a fetch has not the form that getData promises.
class KXSampleReader {
 public:
  explicit KXSampleReader(KXWatchedKeys const& keys);

  /// `result` is what getData returned. The newest batch waits for the next fetch while it lacks
  /// keys, because a fetch may come between two parts of a cycle; with `isLast` nothing waits.
  KXFetched read(KXValue const& result, bool isLast);

 private:
  void xReadEntry(KXValue const& entry, std::vector<KXSample>& samples);
  void xFile(KXSample& sample);
  void xTakeBatches(bool isLast, std::vector<KXBatch>& batches);

  struct OpenBatch {
    std::vector<KXValue> values;
    std::size_t filled = 0;
  };

  std::size_t const mColumnCount;
  std::size_t const mDataCount;
  std::map<std::string, std::size_t> mColumnOfKey;
  std::set<std::string> mAwaitsFirst;  ///< event keys whose first sample has not come yet
  std::map<std::int64_t, OpenBatch> mOpenBatches;
};

}  // namespace KX::tool
