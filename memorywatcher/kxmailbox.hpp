// Lock-free: any thread posts without waiting, one takes everything that is there.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

namespace KX {

/// Letters in the order of their posting. T has a member `T* next`, which belongs to the mailbox
/// while the letter is in it, and to whoever took it after that.
/// Ownership: owns its letters, from post() to takeAll(); the destructor drops what is left.
/// Threads: post() and size() from any thread, several at once; takeAll() likewise, and what one
/// caller takes no other gets. Unbounded.
template <class T>
class KXMailbox {
 public:
  KXMailbox() = default;
  ~KXMailbox() { drop(takeAll()); }
  KXMailbox(KXMailbox const&) = delete;
  KXMailbox& operator=(KXMailbox const&) = delete;

  // A stack onto which anybody pushes and which is only ever taken as a whole, so no letter can
  // come back under a pusher's hand.
  void post(std::unique_ptr<T> letter) noexcept {
    mCount.fetch_add(1, std::memory_order_relaxed);
    T* const posted = letter.release();
    posted->next = mNewest.load(std::memory_order_relaxed);
    while (!mNewest.compare_exchange_weak(posted->next, posted, std::memory_order_release,
                                          std::memory_order_relaxed)) {
    }
  }

  /// How many letters wait; letters that are just being posted may count already.
  std::size_t size() const noexcept { return mCount.load(std::memory_order_relaxed); }

  /// The letters that were there, linked from the oldest to the newest; null if there are none.
  T* takeAll() noexcept {
    if (mNewest.load(std::memory_order_relaxed) == nullptr) return nullptr;
    T* letter = mNewest.exchange(nullptr, std::memory_order_acquire);
    T* oldest = nullptr;
    std::size_t count = 0;
    for (; letter != nullptr; ++count) {
      T* const older = std::exchange(letter->next, oldest);
      oldest = std::exchange(letter, older);
    }
    mCount.fetch_sub(count, std::memory_order_relaxed);
    return oldest;
  }

  /// Deletes a chain of letters.
  static void drop(T* oldest) noexcept {
    while (oldest != nullptr) delete std::exchange(oldest, oldest->next);
  }

 private:
  std::atomic<T*> mNewest{nullptr};
  std::atomic<std::size_t> mCount{0};
};

}  // namespace KX
