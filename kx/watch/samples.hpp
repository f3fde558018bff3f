// What the watcher's getData returns, made into batches and events. Pure but for one question.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <kxvalue/kxvalue.hpp>

namespace KX::tool {

/// The keys of a watch, by the store's answer when it began. Each list is sorted.
struct KXWatchedKeys {
  std::vector<std::string> data{};     ///< sampled
  std::vector<std::string> unknown{};  ///< not there yet: sampled, and becoming events if they are
  std::vector<std::string> events{};   ///< events and micro-events: pushed

  /// The columns of a batch: data keys, then unknown keys.
  std::vector<std::string> columns() const;
};

/// What was sampled in one cycle.
struct KXBatch {
  std::int64_t timeUs;  ///< wall clock; several batches may carry one time, and it may step back
  std::vector<std::optional<KXValue>> values;  ///< one per column; none where it was not sampled

  std::int64_t sampleCount() const;
};

struct KXEvent {
  std::int64_t timeUs;  ///< wall clock
  std::string key;
  KXValue value;
};

/// What one fetch brought.
struct KXFetched {
  std::vector<KXBatch> batches;  ///< in the order in which they were taken
  std::vector<KXEvent> events;   ///< those of one key together, in the order of the raises
};

/// One value of one key, wherever it came from.
struct KXSample {
  std::int64_t timeUs;
  std::string_view key;  ///< borrowed from the columns and from what was fetched
  KXValue value;
};

/// All that was fetched, batches in their order and events between them by their times. Where the
/// wall clock was set back, what came later still stands later.
std::vector<KXSample> samplesInOrder(KXFetched const& fetched,
                                     std::vector<std::string> const& columns);

/// A watcher in another process, which others use too.
struct KXSharedWatcher {
  /// The event keys that it had before, while it was watching: there is no value to begin with.
  std::set<std::string> formerEvents{};
};

/// Takes fetches apart. The samples of one batch share one block with its time: by it, and not by
/// the time, a batch is recognised, so two batches of one microsecond stay two. Batches stand in
/// the order in which the keys have them; a key that came later lines up at the end. What comes
/// from another process has lost its blocks: there the time decides. Keys that nobody asked for are
/// left out. Threads: one. KXError if a fetch has not the form that getData promises.
class KXSampleReader {
 public:
  /// Whether the store says by now that a key, unknown at first, is an event.
  using IsEvent = std::function<bool(std::string const& key)>;

  KXSampleReader(KXWatchedKeys const& keys, IsEvent isEvent,
                 std::optional<KXSharedWatcher> const& shared = std::nullopt);

  /// `result` is what getData returned. The newest batch waits for the next fetch while it lacks
  /// keys, because a fetch may come between two parts of a cycle; with `isLast` nothing waits.
  KXFetched read(KXValue const& result, bool isLast);

 private:
  struct OpenBatch {
    KXValue time;  ///< keeps the block alive by which the batch is recognised
    KXBatch batch;
    std::size_t filled = 0;
  };
  using Batches = std::list<OpenBatch>;

  void xReadEvents(std::string const& key, KXValue const& taken, std::vector<KXEvent>& events);
  void xReadColumn(std::size_t column, KXValue const& taken, Batches& batches) const;
  Batches::iterator xFind(std::size_t column, KXValue const& time, Batches& batches,
                          Batches::iterator before) const;
  void xJoinHeld(Batches& batches);
  bool xIsRaise(OpenBatch const& open);
  bool xIsEvent(std::size_t column);

  std::vector<std::string> const mColumns;
  std::size_t const mDataCount;
  IsEvent const mIsEvent;
  bool const mHasBlocks;
  std::map<std::string, std::size_t> mColumnOfKey;
  std::set<std::string> const mEventKeys;
  std::set<std::string> mAwaitsFirst;  ///< event keys whose first sample has not come yet
  std::set<std::size_t> mBecameEvent;  ///< columns that are no longer sampled
  std::optional<OpenBatch> mHeld;
};

}  // namespace KX::tool
