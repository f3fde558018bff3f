#include <memorywatcher/kxmemorywatcheritem.hpp>

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>

namespace KX {

namespace {

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

void pushTime(KXRows& times, ka::os::timeval time) noexcept {
  times.push(low32(time.tv_sec), low32(time.tv_usec));
}

KXMemoryWatcherItem::KXMemoryWatcherItem(std::string const& name, std::string const& nature,
                                         std::string const& fileName)
    : mName(name), mFileName(fileName), mNature(nature) {}

void KXMemoryWatcherItem::putSamplesInFront(std::vector<KXMemoryWatcherData> samples) {
  if (!mSamples.empty()) {
    samples.insert(samples.end(), std::make_move_iterator(mSamples.begin()),
                   std::make_move_iterator(mSamples.end()));
  }
  mSamples.swap(samples);
}

KXValue KXMemoryWatcherItem::toKXValue() const {
  KXRows times(mSamples.size());
  KXRows rows(mSamples.size());
  for (KXMemoryWatcherData const& sample : mSamples) pushTime(times, sample.mTime);
  KXValue pairs = times.take();
  KXValue* pair = pairs.arrayData();
  for (KXMemoryWatcherData const& sample : mSamples) rows.push(std::move(*pair++), sample.mValue);
  return rows.take();
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
