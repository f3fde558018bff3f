#include <kx/watch/samples.hpp>

#include <algorithm>
#include <iterator>
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

KXSampleReader::KXSampleReader(KXWatchedKeys const& keys)
    : mColumnCount(keys.data.size() + keys.unknown.size()),
      mDataCount(keys.data.size()),
      mAwaitsFirst(keys.events.begin(), keys.events.end()) {
  for (std::string const& key : keys.columns()) mColumnOfKey.emplace(key, mColumnOfKey.size());
}

KXFetched KXSampleReader::read(KXValue const& result, bool isLast) {
  KXFetched fetched;
  for (int i = 0; i < result.getSize(); ++i) xReadEntry(result[i], fetched.samples);
  // Data keys come first, so that a batch is open before unknown keys ask for it.
  std::ranges::stable_sort(fetched.samples, {}, [](KXSample const& sample) {
    return std::pair(sample.timeUs, sample.isEvent);
  });
  for (KXSample& sample : fetched.samples) xFile(sample);
  xTakeBatches(isLast, fetched.batches);
  return fetched;
}

void KXSampleReader::xReadEntry(KXValue const& entry, std::vector<KXSample>& samples) {
  auto const& key = static_cast<std::string const&>(entry[0]);
  KXValue const& taken = entry[1];
  auto const column = mColumnOfKey.find(key);
  bool const isData = column != mColumnOfKey.end() && column->second < mDataCount;
  int first = 0;
  // The watcher begins an event key that is added to a running watch with its value of that
  // moment. Nobody raised that.
  if (taken.getSize() > 0 && mAwaitsFirst.erase(key) > 0) first = 1;
  for (int i = first; i < taken.getSize(); ++i) {
    KXValue const& sample = taken[i];
    samples.push_back({microseconds(sample[0]), key, sample[1], !isData});
  }
}

void KXSampleReader::xFile(KXSample& sample) {
  auto const column = mColumnOfKey.find(sample.key);
  if (column == mColumnOfKey.end()) return;
  auto batch = mOpenBatches.find(sample.timeUs);
  if (batch == mOpenBatches.end()) {
    // A sample of an unknown key that belongs to no batch was pushed: the key became an event.
    if (sample.isEvent) return;
    batch = mOpenBatches.try_emplace(sample.timeUs).first;
    batch->second.values.resize(mColumnCount);
  }
  sample.isEvent = false;
  batch->second.values[column->second] = sample.value;
  ++batch->second.filled;
}

void KXSampleReader::xTakeBatches(bool isLast, std::vector<KXBatch>& batches) {
  while (!mOpenBatches.empty()) {
    auto const batch = mOpenBatches.begin();
    bool const isNewest = std::next(batch) == mOpenBatches.end();
    if (isNewest && !isLast && batch->second.filled < mColumnCount) return;
    batches.push_back({batch->first, std::move(batch->second.values)});
    mOpenBatches.erase(batch);
  }
}

}  // namespace KX::tool
