// Failures that others may cause as often as they like, of which few are told. Any thread may
// enter.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

#include <ka/log.hpp>

namespace KX {

/// Those of one kind: one in ten seconds is a warning in the log, and tells how many there were.
class KXRareLine {
 public:
  KXRareLine(char const* category, char const* function)
      : mCategory(category), mFunction(function) {}

  /// `text` is a function that gives what is to be told.
  template <class Text>
  void tell(Text const& text) {
    std::uint64_t count = 0;
    {
      std::lock_guard const lock(mMutex);
      ++mUntold;
      Clock::time_point const now = Clock::now();
      if (mToldAt && now - *mToldAt < kPause) return;
      mToldAt = now;
      count = std::exchange(mUntold, 0);
    }
    ka::log::LogStream line(ka::log::Warning, mCategory, "", mFunction, 0);
    line << text();
    if (count > 1) line << "; so for the " << count << "th time since the last line";
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kPause{10};

  char const* const mCategory;
  char const* const mFunction;
  std::mutex mMutex;
  std::uint64_t mUntold = 0;                 // guarded by mMutex
  std::optional<Clock::time_point> mToldAt;  // guarded by mMutex
};

}  // namespace KX
