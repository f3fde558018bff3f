// The threads that serve a subscription.
#pragma once

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

/// Threads whose subscription ended from within, so that nobody could wait for them.
/// Ownership: of a bus. Threads: any.
class KXBusRetired {
 public:
  /// `workers` is gone when the threads have nothing more to do.
  void add(std::vector<std::thread> threads, std::weak_ptr<void> workers) {
    std::lock_guard const lock(mMutex);
    std::erase_if(mBatches, [](Batch& batch) {
      if (!batch.workers.expired()) return false;
      for (auto& thread : batch.threads) thread.join();
      return true;
    });
    mBatches.push_back({std::move(threads), std::move(workers)});
  }
  /// Waits for all, but for the caller if it is one of them.
  void end() {
    std::vector<Batch> batches;
    {
      std::lock_guard const lock(mMutex);
      batches.swap(mBatches);
    }
    for (auto& batch : batches) {
      for (auto& thread : batch.threads) {
        if (thread.get_id() == std::this_thread::get_id())
          thread.detach();
        else
          thread.join();
      }
    }
  }

 private:
  struct Batch {
    std::vector<std::thread> threads;
    std::weak_ptr<void> workers;
  };
  std::mutex mMutex;
  std::vector<Batch> mBatches;  // guarded by mMutex
};

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
    for (auto const& thread : threads) {
      if (thread.get_id() == std::this_thread::get_id()) {
        retired.add(std::move(threads), this->weak_from_this());
        return;
      }
    }
    for (auto& thread : threads) thread.join();
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
