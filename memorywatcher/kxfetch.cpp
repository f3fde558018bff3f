#include <memorywatcher/kxfetch.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <kxvalue/kxrows.hpp>

namespace KX {

namespace {

constexpr std::uint32_t kNoPlace = ~std::uint32_t{0};

/// Batches in a row that were read for one list.
struct Run {
  KXKeyList const* list;
  std::size_t first;  // place among all batches
  std::size_t end;
  // For each key of the table, its place in the list or kNoPlace; empty if the list is the table's.
  std::vector<std::uint32_t> places;
};

/// One half of the result: the keys of one table.
class Half {
 public:
  explicit Half(KXTaken& taken);
  std::size_t size() const { return mRows.size(); }
  void moveInto(KXRows& entries) noexcept;

 private:
  void xFindRuns();
  void xMapPlaces(Run& run) const;
  void xMakeTimes();
  std::vector<std::size_t> xCountRows() const;
  void xMoveOwn() noexcept;
  void xMoveRun(Run const& run) noexcept;

  KXTaken& mTaken;
  std::vector<KXBatch*> mBatches;
  std::vector<KXValue*> mValues;  // of each batch
  std::vector<Run> mRuns;
  KXValue mTimes;                  // of each batch
  std::vector<KXValue> mOwnTimes;  // of the samples of each key that has its own
  std::vector<std::size_t> mOwnPlaces;
  std::vector<KXRows> mRows;  // of each key
};

std::string const& textOf(KXValue const& value) {
  return static_cast<std::string const&>(value);
}

Half::Half(KXTaken& taken) : mTaken(taken) {
  for (std::vector<KXBatch>& piece : taken.batches) {
    for (KXBatch& batch : piece) mBatches.push_back(&batch);
  }
  // The answer may be shared, with the store or with a cycle that is still at work: then this makes
  // a copy that may be taken apart.
  for (KXBatch* batch : mBatches) mValues.push_back(batch->values.arrayData());
  xFindRuns();
  xMakeTimes();
  std::vector<std::size_t> const counts = xCountRows();
  mRows.reserve(counts.size());
  for (std::size_t const count : counts) mRows.emplace_back(count, mTimes);
}

void Half::xFindRuns() {
  for (std::size_t i = 0; i < mBatches.size(); ++i) {
    KXKeyList const* const list = mBatches[i]->list.get();
    if (mRuns.empty() || mRuns.back().list != list) {
      Run& run = mRuns.emplace_back(Run{list, i, i, {}});
      if (list != mTaken.list.get()) xMapPlaces(run);
    }
    mRuns.back().end = i + 1;
  }
}

// Both lists are sorted: one walk over the two finds what they have in common.
void Half::xMapPlaces(Run& run) const {
  KXKeyList const& now = *mTaken.list;
  std::size_t const size = now.since.size();
  std::size_t const listSize = run.list->since.size();
  run.places.assign(size, kNoPlace);
  KXValue const* const keys = now.keys.arrayData();
  KXValue const* const listKeys = run.list->keys.arrayData();
  std::size_t place = 0;
  for (std::size_t i = 0; i < size && place < listSize; ++i) {
    // A key that stayed has its text in one block.
    while (place < listSize && !listKeys[place].sharesBlockWith(keys[i]) &&
           textOf(listKeys[place]) < textOf(keys[i])) {
      ++place;
    }
    bool const isSame = place < listSize && (listKeys[place].sharesBlockWith(keys[i]) ||
                                             textOf(listKeys[place]) == textOf(keys[i]));
    // Not what was read for a key of that name that has been removed since.
    if (isSame && now.since[i] <= run.list->version) {
      run.places[i] = static_cast<std::uint32_t>(place);
    }
  }
}

void Half::xMakeTimes() {
  KXRows times(mBatches.size());
  for (KXBatch const* batch : mBatches) {
    pushTime(times, {batch->timeUs / 1'000'000, batch->timeUs % 1'000'000});
  }
  mTimes = times.take();
  KXValue const* const keys = mTaken.list->keys.arrayData();
  KXValue const* const end = keys + mTaken.list->keys.getSize();
  for (KXOwnSamples const& own : mTaken.own) {
    KXRows ownTimes(own.samples.size());
    for (KXMemoryWatcherData const& sample : own.samples) pushTime(ownTimes, sample.mTime);
    mOwnTimes.push_back(ownTimes.take());
    KXValue const* const key = std::lower_bound(
        keys, end, own.key,
        [](KXValue const& left, KXValue const& right) { return textOf(left) < textOf(right); });
    mOwnPlaces.push_back(static_cast<std::size_t>(key - keys));
  }
}

std::vector<std::size_t> Half::xCountRows() const {
  std::size_t const size = mTaken.list->since.size();
  std::vector<std::size_t> counts(size, 0);
  for (std::size_t i = 0; i < mOwnPlaces.size(); ++i) {
    counts[mOwnPlaces[i]] += mTaken.own[i].samples.size();
  }
  for (Run const& run : mRuns) {
    for (std::size_t key = 0; key < size; ++key) {
      std::uint32_t const place =
          run.places.empty() ? static_cast<std::uint32_t>(key) : run.places[key];
      if (place != kNoPlace) counts[key] += run.end - run.first;
    }
  }
  return counts;
}

void Half::moveInto(KXRows& entries) noexcept {
  xMoveOwn();
  for (Run const& run : mRuns) xMoveRun(run);
  KXValue const* key = std::as_const(mTaken.list->keys).arrayData();
  for (KXRows& rows : mRows) entries.push(*key++, rows.take());
}

void Half::xMoveOwn() noexcept {
  for (std::size_t i = 0; i < mOwnPlaces.size(); ++i) {
    KXRows& rows = mRows[mOwnPlaces[i]];
    KXValue* time = mOwnTimes[i].arrayData();
    for (KXMemoryWatcherData& sample : mTaken.own[i].samples) {
      rows.push(std::move(*time++), std::move(sample.mValue));
    }
  }
}

// Key by key each batch would be touched once for every key. Some keys at a time share its cache
// lines, and their rows still go out in a few straight lines.
void Half::xMoveRun(Run const& run) noexcept {
  constexpr std::size_t kKeysAtATime = 16;
  for (std::size_t first = 0; first < mRows.size(); first += kKeysAtATime) {
    std::size_t const end = std::min(first + kKeysAtATime, mRows.size());
    for (std::size_t batch = run.first; batch < run.end; ++batch) {
      std::uint32_t const from = mBatches[batch]->begin;
      std::uint32_t const length = mBatches[batch]->end - from;
      KXValue* const values = mValues[batch];
      for (std::size_t key = first; key < end; ++key) {
        std::uint32_t const place =
            run.places.empty() ? static_cast<std::uint32_t>(key) : run.places[key];
        // Also false for kNoPlace, and for what a broken-off answer lacks.
        if (place - from < length) mRows[key].pushShared(batch, std::move(values[place]));
      }
    }
  }
}

}  // namespace

KXValue buildFetch(KXTaken& data, KXTaken& events) {
  Half dataHalf(data);
  Half eventHalf(events);
  KXRows entries(dataHalf.size() + eventHalf.size());
  dataHalf.moveInto(entries);
  eventHalf.moveInto(entries);
  return entries.take();
}

}  // namespace KX
