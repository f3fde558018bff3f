// Lets the owner of a callback wait until the callback runs no more.
#pragma once

#include <atomic>

namespace KX {

/// Stands between a callback, which runs on a thread of somebody else's, and the owner of what it
/// touches. Shared by both sides, so that it outlives the owner.
class KXCallbackGuard {
 public:
  /// False if the callback has been closed; otherwise leave() must follow.
  bool enter() noexcept {
    if ((mState.fetch_add(1, std::memory_order_acq_rel) & kClosed) == 0) return true;
    leave();
    return false;
  }
  void leave() noexcept {
    if ((mState.fetch_sub(1, std::memory_order_acq_rel) & kClosed) != 0) mState.notify_all();
  }
  /// From now on enter() fails; returns when everybody who had entered has left, but for `inside`
  /// callers: 1 if the caller itself has entered.
  void close(int inside = 0) noexcept {
    int state = mState.fetch_or(kClosed, std::memory_order_acq_rel) | kClosed;
    while (state != (kClosed | inside)) {
      mState.wait(state, std::memory_order_acquire);
      state = mState.load(std::memory_order_acquire);
    }
  }

 private:
  static constexpr int kClosed = 1 << 30;
  std::atomic<int> mState{0};  // how many are inside, and kClosed
};

}  // namespace KX
