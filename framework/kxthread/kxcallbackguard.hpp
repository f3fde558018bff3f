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
    int state = mState.load(std::memory_order_relaxed);
    do {
      if ((state & kClosed) != 0) return false;
    } while (!mState.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel));
    return true;
  }
  /// True for the last one that leaves after abandon(): what abandon() left undone is its to do.
  bool leave() noexcept {
    int const before = mState.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & kAbandoned) != 0) return before == (kClosed | kAbandoned | 1);
    if ((before & kClosed) != 0) mState.notify_all();
    return false;
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

  /// As close(), for who cannot wait: one of those inside may be waiting for the caller. True if
  /// nobody is inside; otherwise the last one is told by leave().
  bool abandon() noexcept {
    int const before = mState.fetch_or(kClosed | kAbandoned, std::memory_order_acq_rel);
    return (before & ~(kClosed | kAbandoned)) == 0;
  }

 private:
  static constexpr int kClosed = 1 << 30;
  static constexpr int kAbandoned = 1 << 29;
  std::atomic<int> mState{0};  // how many are inside, kClosed and kAbandoned
};

}  // namespace KX
