#include <host/memory/kxsubscriberqueue.hpp>

#include <algorithm>
#include <iomanip>
#include <limits>

#include <ka/runlogged.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// After a burst, a buffer larger than this is given back.
constexpr std::size_t kKeptCapacity = 1 << 16;

// Later than any time: nothing is being served.
constexpr std::int64_t kIdle = std::numeric_limits<std::int64_t>::max();

// The store that this thread delivers for; null on all other threads.
thread_local KXDeliveryContext const* tContext = nullptr;

void logDropped(std::size_t count) {
  ka::log::LogStream(ka::log::Warning, "KXMemory", "", "exit", 0)
      << "the store ends, notifications not delivered: " << count;
}

}  // namespace

KXSubscriberQueue::KXSubscriberQueue(std::string moduleName,
                                     std::shared_ptr<KXDeliveryContext> context)
    : mModuleName(std::move(moduleName)), mContext(std::move(context)), mServingMs(kIdle) {}

void KXSubscriberQueue::hold() {
  {
    std::lock_guard const lock(mMutex);
    ++mHolderCount;
    mIsGoneForGood = false;
    if (mHasThread || mIsStopping) return;
    mHasThread = true;
  }
  try {
    xStart();
  } catch (...) {
    std::lock_guard const lock(mMutex);
    --mHolderCount;
    mHasThread = false;
    throw;
  }
}

void KXSubscriberQueue::xStart() {
  std::lock_guard const lock(mThreadMutex);
  // The former one ended for want of holders.
  if (mThread.joinable()) mThread.join();
  mThread = std::thread([self = shared_from_this()] { self->xRun(); });
  // Only now, when nothing can fail: the thread does not end before the caller is done.
  std::lock_guard const contextLock(mContext->mutex);
  ++mContext->threadCount;
}

void KXSubscriberQueue::release() {
  std::lock_guard const lock(mMutex);
  if (--mHolderCount == 0) mWakeUp.notify_one();
}

bool KXSubscriberQueue::post(std::shared_ptr<KXSubscription> const& subscription,
                             KXValue const& value) {
  std::int64_t const nowMs = mContext->nowMs();
  std::lock_guard const lock(mMutex);
  if (mIsStopping.load(std::memory_order_relaxed)) return false;
  mQueue.push_back({subscription, value, nowMs});
  std::size_t const postedCount = mPostedCount.load(std::memory_order_relaxed) + 1;
  mPostedCount.store(postedCount, std::memory_order_relaxed);
  bool const isToWake = std::exchange(mIsParked, false);
  // Here too, because a subscriber that hangs keeps the thread from noticing.
  std::size_t const waitingCount = postedCount - mServedCount.load(std::memory_order_relaxed);
  std::int64_t const lagMs = nowMs - mServingMs.load(std::memory_order_relaxed);
  if (waitingCount <= kMaxWaiting && lagMs <= kMaxLagMs) return isToWake;
  if (mIsToldBehind.load(std::memory_order_relaxed) || mIsToldBehind.exchange(true))
    return isToWake;
  mWaitingToTell = waitingCount;
  mLagMsToTell = std::max<std::int64_t>(lagMs, 0);
  return true;
}

void KXSubscriberQueue::attend() {
  mWakeUp.notify_one();
  std::size_t waitingCount = 0;
  std::int64_t lagMs = 0;
  {
    std::lock_guard const lock(mMutex);
    waitingCount = std::exchange(mWaitingToTell, 0);
    lagMs = mLagMsToTell;
  }
  if (waitingCount > 0) xTellBehind(waitingCount, lagMs);
}

void KXSubscriberQueue::stop() {
  std::lock_guard const lock(mMutex);
  mIsStopping = true;
  mWakeUp.notify_one();
}

void KXSubscriberQueue::join() {
  std::lock_guard const lock(mThreadMutex);
  if (mThread.joinable()) mThread.join();
}

void KXSubscriberQueue::detach() {
  std::lock_guard const lock(mThreadMutex);
  if (mThread.joinable()) mThread.detach();
}

bool KXSubscriberQueue::joinIfOver() {
  {
    std::lock_guard const lock(mMutex);
    if (mHasThread || mHolderCount > 0) return false;
  }
  join();
  return true;
}

bool KXSubscriberQueue::isServing(KXDeliveryContext const& context) {
  return tContext == &context;
}

void KXSubscriberQueue::xRun() {
  tContext = mContext.get();
  xServe();
  tContext = nullptr;
}

void KXSubscriberQueue::xServe() {
  std::vector<Notification> batch;
  std::size_t droppedCount = 0;
  while (xTake(batch)) {
    std::size_t served = 0;
    while (served < batch.size() && !mIsStopping.load(std::memory_order_relaxed)) {
      // Moved out: what has been served is not to be kept until the batch is through.
      xDeliver(std::exchange(batch[served++], {}));
    }
    droppedCount = batch.size() - served;
    xSendPack();
    batch.clear();
    mArguments = KXValue();
    if (batch.capacity() > kKeptCapacity) batch.shrink_to_fit();
  }
  {
    // Nothing is posted any more. What was dies behind the lock: it holds this queue.
    std::lock_guard const lock(mMutex);
    batch.swap(mQueue);
  }
  xCountThreadOut(droppedCount + batch.size());
}

// The last thread of a store that ends tells for all what was dropped.
void KXSubscriberQueue::xCountThreadOut(std::size_t droppedCount) {
  std::size_t toTell = 0;
  {
    std::lock_guard const lock(mContext->mutex);
    mContext->droppedCount += droppedCount;
    bool const isLast = --mContext->threadCount == 0;
    if (isLast && mContext->isStopping) toTell = mContext->droppedCount;
  }
  if (toTell > 0) logDropped(toTell);
}

// Swaps the queue against the empty batch; false when the thread is to end.
bool KXSubscriberQueue::xTake(std::vector<Notification>& batch) {
  std::unique_lock lock(mMutex);
  if (mQueue.empty()) {
    mServingMs.store(kIdle, std::memory_order_relaxed);
    mIsToldBehind = false;
  }
  // A queue that nobody holds is empty: each notification holds it.
  while (mQueue.empty() && !mIsStopping && mHolderCount > 0) {
    mIsParked = true;
    mWakeUp.wait(lock);
  }
  mIsParked = false;
  if (mIsStopping || mQueue.empty()) {
    mHasThread = false;
    return false;
  }
  batch.swap(mQueue);
  return true;
}

void KXSubscriberQueue::xDeliver(Notification const& notification) {
  KXSubscription& subscription = *notification.subscription;
  mServingMs.store(notification.raisedMs, std::memory_order_relaxed);
  std::int64_t const lagMs = mContext->nowMs() - notification.raisedMs;
  if (lagMs > kMaxLagMs && !mIsToldBehind.exchange(true)) {
    xTellBehind(mPostedCount - mServedCount, lagMs);
  }
  auto const failure = [&] {
    return "subscriber '" + mModuleName + "." + subscription.method + "' of key '" +
           subscription.key.toString() + "' failed";
  };
  if (!subscription.isGone.load(std::memory_order_relaxed)) {
    // A subscriber's failure concerns neither the raiser nor the other subscribers.
    ka::log::runLogged("KXMemory", "deliver", failure,
                       [&] { xCall(subscription, notification.value); });
  }
  mServedCount.store(mServedCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void KXSubscriberQueue::xCall(KXSubscription& subscription, KXValue const& value) {
  boost::shared_ptr<KXModule> module;
  if (!mRemote) {
    module = mLocal.lock();
    if (!module || module->isClosing()) module = xFind();
  }
  if (module) {
    xCallLocal(*module, subscription, value);
  } else if (mRemote) {
    mPack.push_back(
        {subscription.method, KXValue::arrayOf(subscription.key, value, subscription.message)});
  } else {
    subscription.isGone = true;
    if (mIsGoneForGood) return;  // said already
    ka::log::LogStream(ka::log::Warning, "KXMemory", "", "deliver", 0)
        << "module '" << mModuleName << "' is gone, its subscription to key '"
        << subscription.key.toString() << "' is dropped";
  }
}

// A method of the usual types is called directly, all others by name.
void KXSubscriberQueue::xCallLocal(KXModule& module, KXSubscription& subscription,
                                   KXValue const& value) {
  if (subscription.functorVersion != mModuleVersion) {
    subscription.functorVersion = mModuleVersion;
    KXMethodInfo const* const info =
        module.isScript() ? nullptr : module.findMethod(subscription.method);
    subscription.functor = info == nullptr
                               ? nullptr
                               : dynamic_cast<decltype(subscription.functor)>(info->functor.get());
  }
  if (subscription.functor != nullptr) {
    subscription.functor->invoke(static_cast<std::string const&>(subscription.key), value,
                                 subscription.message);
    return;
  }
  KXValue ignored;
  KXValue const& arguments = xArguments(subscription, value);
  if (module.isScript()) {
    module.execute(subscription.method, arguments, ignored);
  } else {
    // The base's, as for every call of a bound method.
    module.KXModule::execute(subscription.method, arguments, ignored);
  }
}

// One array serves call after call, unless a subscriber keeps it.
KXValue const& KXSubscriberQueue::xArguments(KXSubscription const& subscription,
                                             KXValue const& value) {
  mArguments.arraySetSize(3);
  KXValue* const arguments = mArguments.arrayData();
  arguments[0] = subscription.key;
  arguments[1] = value;
  arguments[2] = subscription.message;
  return mArguments;
}

// All that a batch has for a module in another process. The transport queues it: how long it takes
// to arrive delays nothing here.
void KXSubscriberQueue::xSendPack() {
  if (mPack.empty()) return;
  auto const failure = [&] {
    return "notifications to '" + mModuleName + "' failed";
  };
  ka::log::runLogged("KXMemory", "deliver", failure, [&] {
    try {
      mRemote->notify(mModuleName, std::exchange(mPack, {}));
    } catch (KXError const& error) {
      if (error.getKind() != KXError::Kind::NotFound) throw;
      mIsGoneForGood = true;
      mRemote.reset();
      ka::log::LogStream(ka::log::Warning, "KXMemory", "", "deliver", 0)
          << "module '" << mModuleName
          << "' is gone, its subscriptions are dropped: " << messageOf(error);
    }
  });
}

// The module if it is of this process; otherwise null, with mRemote set if there is a way to it.
boost::shared_ptr<KXModule> KXSubscriberQueue::xFind() {
  boost::shared_ptr<KXBroker> const broker = mContext->broker.lock();
  if (!broker || mIsGoneForGood) return {};
  boost::shared_ptr<KXTransport> const transport = broker->getTransport();
  // Whoever subscribed from another process has said where it is. It may be cut off for a while:
  // its notifications wait for it in the transport.
  bool const isQualified = mModuleName.find('@') != std::string::npos;
  if (transport && isQualified && !mModuleName.ends_with("@" + broker->getName())) {
    mRemote = transport;
    return {};
  }
  boost::shared_ptr<KXModule> local;
  try {
    local = broker->getProxy(mModuleName, 0)->getModule();
    if (!local) mRemote = transport;
  } catch (KXError const& error) {
    // Not there: the caller says so. What could not be asked may be there.
    if (error.getKind() == KXError::Kind::NotFound) return {};
    mRemote = transport;
  }
  mLocal = local;
  ++mModuleVersion;
  return local;
}

void KXSubscriberQueue::xTellBehind(std::size_t waitingCount, std::int64_t lagMs) {
  ka::log::LogStream(ka::log::Warning, "KXMemory", "", "deliver", 0)
      << "subscriber '" << mModuleName << "' is behind: " << waitingCount
      << " notifications not delivered, the oldest raised " << std::fixed << std::setprecision(1)
      << static_cast<double>(lagMs) / 1000 << " s ago";
}

}  // namespace KX
