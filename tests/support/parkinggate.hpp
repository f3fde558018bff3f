// A gate that threads wait at until the test opens it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace KX::testing {

/// Closed at first. Once open it stays open. All operations from any thread.
class ParkingGate {
 public:
  /// Waits at the gate while it is closed.
  void pass() {
    std::unique_lock lock(mMutex);
    ++mParked;
    mChanged.notify_all();
    mChanged.wait(lock, [this] { return mIsOpen; });
    --mParked;
  }
  void open() {
    std::lock_guard const lock(mMutex);
    mIsOpen = true;
    mChanged.notify_all();
  }
  /// Waits until so many threads wait at the closed gate; false after 30 s.
  bool waitUntilParked(int count) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mParked >= count; });
  }
  /// True once the gate is open; false after 30 s.
  bool waitUntilOpen() {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30), [this] { return mIsOpen; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  int mParked = 0;
  bool mIsOpen = false;
};

}  // namespace KX::testing
