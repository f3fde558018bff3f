#include <modules/hostsensors/kxcounters.hpp>

#include <algorithm>
#include <chrono>

namespace KX {

namespace {

constexpr std::uint64_t kTwoTo31 = 1ULL << 31;
constexpr std::uint64_t kTwoTo32 = 1ULL << 32;
constexpr std::chrono::seconds kUsageWindow(1);

double secondsBetween(KXMachineTime from, KXMachineTime to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

std::uint64_t counterIncrease(std::uint64_t before, std::uint64_t now) {
  if (now >= before) return now - before;
  bool const hasWrapped = before >= kTwoTo31 && before < kTwoTo32 && now < kTwoTo31;
  return hasWrapped ? kTwoTo32 - before + now : now;
}

std::string keySegment(std::string_view text) {
  std::string segment(text);
  auto const isUnfit = [](unsigned char c) {
    return c == '/' || c <= ' ' || c == 0x7f;
  };
  std::replace_if(segment.begin(), segment.end(), isUnfit, '_');
  return segment;
}

KXValue KXRates::update(std::string const& counter, std::uint64_t count, double unit,
                        KXMachineTime now) {
  auto const [entry, isNew] = mReadings.try_emplace(counter, Reading{count, now});
  if (isNew) return KXValue();
  Reading const before = entry->second;
  entry->second = Reading{count, now};
  double const seconds = secondsBetween(before.time, now);
  if (seconds <= 0) return KXValue();
  return KXValue(unit * static_cast<double>(counterIncrease(before.count, count)) / seconds);
}

void KXRates::forgetOthers(KXMachineTime now) {
  std::erase_if(mReadings, [now](auto const& entry) { return entry.second.time != now; });
}

KXValue KXUsage::update(std::uint64_t busyTicks, std::uint64_t totalTicks, KXMachineTime now) {
  mReadings.push_back({busyTicks, totalTicks, now});
  // The oldest kept is the youngest that is a whole window old.
  while (mReadings.size() > 2 && now - mReadings[1].time >= kUsageWindow) mReadings.pop_front();
  Reading const& oldest = mReadings.front();
  // Idle time can be taken back by the kernel, so the differences may be odd by a tick.
  if (totalTicks > oldest.totalTicks) {
    double const busy = static_cast<double>(busyTicks) - static_cast<double>(oldest.busyTicks);
    double const total = static_cast<double>(totalTicks - oldest.totalTicks);
    mUsage = KXValue(std::clamp(100.0 * busy / total, 0.0, 100.0));
  }
  return mUsage;
}

bool KXUsage::isSettled() const {
  return mUsage.isValid() && mReadings.back().time - mReadings.front().time >= kUsageWindow;
}

std::optional<bool> KXHysteresis::update(double value) {
  bool const isEntered = value >= (mIsEntered ? mLeaveBelow : mEnterAt);
  if (isEntered == mIsEntered) return std::nullopt;
  mIsEntered = isEntered;
  return isEntered;
}

}  // namespace KX
