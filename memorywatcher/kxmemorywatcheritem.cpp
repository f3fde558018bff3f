#include <memorywatcher/kxmemorywatcheritem.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace KX {

namespace {

bool isBefore(ka::os::timeval const& left, ka::os::timeval const& right) {
  return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_usec < right.tv_usec;
}

// On purpose the low 32 bits: clients receive 32-bit ints.
int low32(std::int64_t number) {
  return static_cast<std::int32_t>(number);
}

}  // namespace

std::string KXMemoryWatcherData::toString() const {
  // On purpose without leading zeros in the fraction.
  return std::to_string(mTime.tv_sec) + "." + std::to_string(mTime.tv_usec) + ";" +
         mValue.toString(1) + ";";
}

KXValue KXTimePairs::get(ka::os::timeval time) {
  while (mNext < mPairs.size() && isBefore(mPairs[mNext].time, time)) ++mNext;
  if (mNext < mPairs.size() && mPairs[mNext].time == time) return mPairs[mNext++].value;
  KXValue pair = KXValue::arrayOf(low32(time.tv_sec), low32(time.tv_usec));
  if (mNext == mPairs.size()) {
    mPairs.push_back({time, pair});
    ++mNext;
  }
  return pair;
}

KXMemoryWatcherItem::KXMemoryWatcherItem(std::string const& name, std::string const& nature,
                                         std::string const& fileName)
    : mName(name), mFileName(fileName), mNature(nature) {}

void KXMemoryWatcherItem::addColumns(std::span<KXBatchColumn const> columns, std::size_t place) {
  std::size_t const needed = mSamples.size() + columns.size();
  // Doubled, as appending one by one would.
  if (needed > mSamples.capacity()) mSamples.reserve(std::max(needed, 2 * mSamples.capacity()));
  for (KXBatchColumn const& column : columns) mSamples.emplace_back(column, place);
}

void KXMemoryWatcherItem::clear() {
  mSamples.clear();
  mHandedOut = 0;
}

KXValue KXMemoryWatcherItem::toKXValue() const {
  KXTimePairs pairs;
  return xToKXValue(0, pairs);
}

KXValue KXMemoryWatcherItem::newSamples(KXTimePairs& pairs) const {
  pairs.rewind();
  return xToKXValue(mHandedOut, pairs);
}

void KXMemoryWatcherItem::clearHandedOut() {
  mSamples.erase(mSamples.begin(), mSamples.begin() + static_cast<std::ptrdiff_t>(mHandedOut));
  mHandedOut = 0;
}

KXValue KXMemoryWatcherItem::xToKXValue(std::size_t first, KXTimePairs& pairs) const {
  KXMemoryWatcherData const* const samples = mSamples.data() + first;
  return KXValue::arrayFrom(mSamples.size() - first, [&](std::size_t i) {
    return KXValue::arrayOf(pairs.get(samples[i].mTime), samples[i].mValue);
  });
}

std::string KXMemoryWatcherItem::toString() const {
  std::string text;
  for (KXMemoryWatcherData const& sample : mSamples) text += sample.toString() + "\n";
  return text;
}

bool KXMemoryWatcherItem::writeToFile() const {
  if (mFileName.empty()) return false;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(ka::os::fopen(mFileName.c_str(), "wb"),
                                                             &std::fclose);
  if (file == nullptr) return false;
  std::fprintf(file.get(), "%s\n", toString().c_str());
  return true;
}

}  // namespace KX
