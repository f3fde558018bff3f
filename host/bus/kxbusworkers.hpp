// The threads that serve a subscription.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <ka/runlogged.hpp>

namespace KX {

/// Subscriptions that were ended from within, so that nobody could wait for their handlers.
/// Ownership: of a bus. Threads: any.
class KXBusRetired {
 public:
  /// `wait` returns when the handlers have, but for one that is its caller; `alive` is gone when
  /// that takes no time.
  void add(std::function<void()> wait, std::weak_ptr<void> alive) {
    std::lock_guard const lock(mMutex);
    std::erase_if(mEntries, [](Entry const& entry) {
      if (!entry.alive.expired()) return false;
      entry.wait();
      return true;
    });
    mEntries.push_back({std::move(wait), std::move(alive)});
  }
  /// Waits for all.
  void end() {
    std::vector<Entry> entries;
    {
      std::lock_guard const lock(mMutex);
      entries.swap(mEntries);
    }
    for (auto const& entry : entries) entry.wait();
  }

 private:
  struct Entry {
    std::function<void()> wait;
    std::weak_ptr<void> alive;
  };
  std::mutex mMutex;
  std::vector<Entry> mEntries;  // guarded by mMutex
};

/// Waits until they end, but not for the caller.
inline void joinThreads(std::vector<std::thread>& threads) {
  for (auto& thread : threads) {
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
}

/// One thread at a time waits for a message; when it has one it lets another thread wait and
/// handles the message itself, so a message never changes threads. Threads are made when nobody is
/// left to wait.
/// Ownership: shared with its threads, so that it can be ended by one of them.
template <class Item>
class KXBusWorkers : public std::enable_shared_from_this<KXBusWorkers<Item>> {
 public:
  using Take = std::function<std::optional<Item>()>;
  using Handle = std::function<void(Item&)>;

  /// `take` waits for the next message; none: it has been told to give no more.
  KXBusWorkers(int threads, Take take, Handle handle)
      : mMaxThreads(static_cast<std::size_t>(threads)),
        mTake(std::move(take)),
        mHandle(std::move(handle)) {}

  void start() {
    std::lock_guard const lock(mMutex);
    xAddThread();
  }
  /// To be called when `take` gives no more. Waits until no thread is left; called by one of the
  /// threads, it returns at once and leaves them to `retired`.
  void end(KXBusRetired& retired) {
    std::vector<std::thread> threads;
    {
      std::lock_guard const lock(mMutex);
      mHasEnded = true;
      mChanged.notify_all();
      threads.swap(mThreads);
    }
    bool const isInside = std::any_of(threads.begin(), threads.end(), [](auto const& thread) {
      return thread.get_id() == std::this_thread::get_id();
    });
    if (!isInside) return joinThreads(threads);
    auto left = std::make_shared<std::vector<std::thread>>(std::move(threads));
    retired.add([left] { joinThreads(*left); }, this->weak_from_this());
  }

 private:
  /// The caller holds mMutex.
  void xAddThread() {
    mThreads.emplace_back([self = this->shared_from_this()] { self->xServe(); });
  }
  void xServe() {
    std::unique_lock lock(mMutex);
    while (true) {
      ++mIdle;
      mChanged.wait(lock, [this] { return !mIsWaiting || mHasEnded; });
      --mIdle;
      if (mHasEnded) return;
      mIsWaiting = true;
      lock.unlock();
      auto item = mTake();
      lock.lock();
      mIsWaiting = false;
      if (!item) mHasEnded = true;
      if (mHasEnded) {
        mChanged.notify_all();
        return;
      }
      xLetAnotherWait();
      lock.unlock();
      ka::log::runLogged("KXBus", "handle", "a handler failed", [&] { mHandle(*item); });
      item.reset();
      lock.lock();
    }
  }
  /// The caller holds mMutex.
  void xLetAnotherWait() {
    if (mIdle > 0)
      mChanged.notify_one();
    else if (mThreads.size() < mMaxThreads)
      ka::log::runLogged("KXBus", "handle", "no further thread", [this] { xAddThread(); });
  }

  std::size_t const mMaxThreads;
  Take const mTake;
  Handle const mHandle;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::thread> mThreads;  // guarded by mMutex, as all that follows
  std::size_t mIdle = 0;              // threads that wait to be the one that waits
  bool mIsWaiting = false;            // a thread waits in mTake
  bool mHasEnded = false;
};

}  // namespace KX
