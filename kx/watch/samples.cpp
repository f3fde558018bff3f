#include <kx/watch/samples.hpp>

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace KX::tool {
namespace {

// The watcher gives seconds as 32 bits; read without sign they reach to the year 2106.
std::int64_t microseconds(KXValue const& time) {
  std::int64_t const seconds = static_cast<std::uint32_t>(static_cast<int>(time[0]));
  return seconds * 1'000'000 + static_cast<int>(time[1]);
}

}  // namespace

std::vector<std::string> KXWatchedKeys::columns() const {
  std::vector<std::string> columns = data;
  columns.insert(columns.end(), unknown.begin(), unknown.end());
  return columns;
}

std::int64_t KXBatch::sampleCount() const {
  return std::ranges::count_if(values, [](auto const& value) { return value.has_value(); });
}

std::vector<KXSample> samplesInOrder(KXFetched const& fetched,
                                     std::vector<std::string> const& columns) {
  struct Placed {
    std::int64_t orderUs;  // never falls within the batches, nor within one key's events
    bool isEvent;
    KXSample sample;
  };
  std::vector<Placed> placed;
  std::int64_t orderUs = 0;
  for (KXBatch const& batch : fetched.batches) {
    orderUs = std::max(orderUs, batch.timeUs);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (!batch.values[i]) continue;
      placed.push_back({orderUs, false, {batch.timeUs, columns[i], *batch.values[i]}});
    }
  }
  KXEvent const* before = nullptr;
  for (KXEvent const& event : fetched.events) {
    bool const isOfSameKey = before != nullptr && before->key == event.key;
    orderUs = isOfSameKey ? std::max(orderUs, event.timeUs) : event.timeUs;
    before = &event;
    placed.push_back({orderUs, true, {event.timeUs, event.key, event.value}});
  }
  std::ranges::stable_sort(placed, {},
                           [](Placed const& p) { return std::tuple(p.orderUs, p.isEvent); });
  std::vector<KXSample> samples;
  samples.reserve(placed.size());
  for (Placed& p : placed) samples.push_back(std::move(p.sample));
  return samples;
}

KXSampleReader::KXSampleReader(KXWatchedKeys const& keys, IsEvent isEvent,
                               std::optional<KXSharedWatcher> const& shared)
    : mColumns(keys.columns()),
      mDataCount(keys.data.size()),
      mIsEvent(std::move(isEvent)),
      mHasBlocks(!shared),
      mEventKeys(keys.events.begin(), keys.events.end()),
      mAwaitsFirst(mEventKeys) {
  if (shared) {
    for (std::string const& key : shared->formerEvents) mAwaitsFirst.erase(key);
  }
  for (std::string const& key : mColumns) mColumnOfKey.emplace(key, mColumnOfKey.size());
}

KXFetched KXSampleReader::read(KXValue const& result, bool isLast) {
  KXFetched fetched;
  Batches batches;
  for (int i = 0; i < result.getSize(); ++i) {
    auto const& key = static_cast<std::string const&>(result[i][0]);
    KXValue const& taken = result[i][1];
    auto const column = mColumnOfKey.find(key);
    if (column != mColumnOfKey.end()) {
      xReadColumn(column->second, taken, batches);
    } else if (mEventKeys.contains(key)) {
      xReadEvents(key, taken, fetched.events);
    }
  }
  xJoinHeld(batches);
  for (OpenBatch& open : batches) {
    bool const isNewest = &open == &batches.back();
    if (xIsRaise(open)) {
      for (std::size_t i = mDataCount; i < mColumns.size(); ++i) {
        if (!open.batch.values[i]) continue;
        fetched.events.push_back({open.batch.timeUs, mColumns[i], *open.batch.values[i]});
      }
    } else if (isNewest && !isLast && open.filled < mColumns.size() - mBecameEvent.size()) {
      mHeld = std::move(open);
    } else {
      fetched.batches.push_back(std::move(open.batch));
    }
  }
  // Raises of several keys that were unknown at first came in order of time.
  std::ranges::stable_sort(fetched.events, {}, &KXEvent::key);
  return fetched;
}

void KXSampleReader::xReadEvents(std::string const& key, KXValue const& taken,
                                 std::vector<KXEvent>& events) {
  int first = 0;
  // The watcher begins an event key that is added to a running watch with its value of that
  // moment. Nobody raised that.
  if (taken.getSize() > 0 && mAwaitsFirst.erase(key) > 0) first = 1;
  for (int i = first; i < taken.getSize(); ++i) {
    events.push_back({microseconds(taken[i][0]), key, taken[i][1]});
  }
}

// From the newest to the oldest: keys have their newest batches in common, not their oldest ones.
void KXSampleReader::xReadColumn(std::size_t column, KXValue const& taken, Batches& batches) const {
  auto next = batches.end();
  for (int i = taken.getSize() - 1; i >= 0; --i) {
    KXValue const& time = taken[i][0];
    auto place = xFind(column, time, batches, next);
    if (place == next) {
      KXBatch batch{microseconds(time), std::vector<std::optional<KXValue>>(mColumns.size())};
      place = batches.insert(next, OpenBatch{time, std::move(batch)});
    }
    next = place;
    // Filled already: the watcher has the key twice, since it failed half-way through making an
    // event of it.
    if (place->batch.values[column]) continue;
    place->batch.values[column] = taken[i][1];
    ++place->filled;
  }
}

// The batch that a time belongs to, before another; that other if there is none. What was sampled
// of a key before it became an event may have lost its block, and what came from another process
// has: there the time itself decides.
KXSampleReader::Batches::iterator KXSampleReader::xFind(std::size_t column, KXValue const& time,
                                                        Batches& batches,
                                                        Batches::iterator before) const {
  bool const mayHaveLostBlock = !mHasBlocks || column >= mDataCount;
  for (auto place = before; place != batches.begin();) {
    --place;
    if (place->time.sharesBlockWith(time)) return place;
    if (mayHaveLostBlock && place->time == time) return place;
  }
  return before;
}

// The rest of a batch that a fetch cut in two is the first of the next fetch.
void KXSampleReader::xJoinHeld(Batches& batches) {
  if (!mHeld) return;
  auto& held = *mHeld;
  bool isSame = !batches.empty() && batches.front().time == held.time;
  for (std::size_t i = 0; isSame && i < mColumns.size(); ++i) {
    isSame = !held.batch.values[i] || !batches.front().batch.values[i];
  }
  if (isSame) {
    OpenBatch& rest = batches.front();
    for (std::size_t i = 0; i < mColumns.size(); ++i) {
      if (held.batch.values[i]) rest.batch.values[i] = std::move(held.batch.values[i]);
    }
    rest.filled += held.filled;
  } else {
    batches.push_front(std::move(held));
  }
  mHeld.reset();
}

// A batch has samples of the data keys. Where there are none, what was sampled of a key that is not
// there yet has no value.
bool KXSampleReader::xIsRaise(OpenBatch const& open) {
  auto const& values = open.batch.values;
  for (std::size_t i = 0; i < mColumns.size(); ++i) {
    if (!values[i]) continue;
    if (i < mDataCount || (mDataCount == 0 && !values[i]->isValid()) || !xIsEvent(i)) return false;
  }
  return true;
}

bool KXSampleReader::xIsEvent(std::size_t column) {
  if (mBecameEvent.contains(column)) return true;
  if (!mIsEvent(mColumns[column])) return false;
  mBecameEvent.insert(column);
  return true;
}

}  // namespace KX::tool
