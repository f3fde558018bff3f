#include <host/memory/kxdelivery.hpp>

#include <utility>

#include <ka/runlogged.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// After a burst, a buffer larger than this is given back.
constexpr std::size_t kKeptCapacity = 1 << 16;

void logGone(KXSubscription const& subscription, KXValue const& name) {
  ka::log::LogStream(ka::log::Warning, "KXMemory", "", "deliver", 0)
      << "module '" << subscription.module << "' is gone, its subscription to key '"
      << name.toString() << "' is dropped";
}

void logDropped(std::size_t count) {
  ka::log::LogStream(ka::log::Warning, "KXMemory", "", "exit", 0)
      << "the store ends, notifications not delivered: " << count;
}

}  // namespace

std::shared_ptr<KXDelivery> KXDelivery::start(boost::shared_ptr<KXBroker> const& broker) {
  std::shared_ptr<KXDelivery> delivery(new KXDelivery(broker));
  std::lock_guard const lock(delivery->mMutex);
  delivery->mThread = std::thread([delivery] { delivery->xRun(); });
  return delivery;
}

bool KXDelivery::post(std::shared_ptr<KXSubscriptionList> const& subscribers,
                      KXValue const& value) {
  std::lock_guard const lock(mMutex);
  if (mIsStopping) return false;
  mQueue.push_back({subscribers, value});
  return std::exchange(mIsParked, false);
}

void KXDelivery::stop() {
  std::thread thread;
  {
    std::lock_guard const lock(mMutex);
    mIsStopping = true;
    thread.swap(mThread);
  }
  wake();
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void KXDelivery::xRun() {
  std::vector<Notification> batch;
  std::size_t doneCount = 0;
  while (xTake(batch)) {
    // One array of arguments serves the whole batch, unless a subscriber keeps it.
    KXValue arguments;
    arguments.arraySetSize(3);
    for (; doneCount < batch.size() && !mIsStopping; ++doneCount) {
      xDeliver(batch[doneCount], arguments);
    }
    if (mIsStopping) break;
    batch.clear();
    doneCount = 0;
    if (batch.capacity() > kKeptCapacity) batch.shrink_to_fit();
  }
  std::size_t droppedCount = batch.size() - doneCount;
  {
    std::lock_guard const lock(mMutex);
    droppedCount += mQueue.size();
  }
  if (droppedCount > 0) logDropped(droppedCount);
}

// Swaps the queue against the empty batch; false when the thread is to end.
bool KXDelivery::xTake(std::vector<Notification>& batch) {
  std::unique_lock lock(mMutex);
  while (mQueue.empty() && !mIsStopping) {
    mIsParked = true;
    mWakeUp.wait(lock);
  }
  mIsParked = false;
  if (mIsStopping) return false;
  batch.swap(mQueue);
  return true;
}

void KXDelivery::xDeliver(Notification const& notification, KXValue& arguments) {
  KXSubscriptionList& list = *notification.subscribers;
  for (auto const& subscription : list.subscriptions) {
    if (subscription->isGone.load(std::memory_order_relaxed)) continue;
    auto const failure = [&] {
      return "subscriber '" + subscription->module + "." + subscription->method + "' of key '" +
             list.name.toString() + "' failed";
    };
    // A subscriber's failure concerns neither the raiser nor the other subscribers.
    ka::log::runLogged("KXMemory", "deliver", failure, [&] {
      KXValue* const argument = arguments.arrayData();
      argument[0] = list.name;
      argument[1] = notification.value;
      argument[2] = subscription->message;
      xCall(list, *subscription, arguments);
    });
  }
}

void KXDelivery::xCall(KXSubscriptionList& list, KXSubscription& subscription,
                       KXValue const& arguments) {
  if (subscription.remote) {
    subscription.remote->genericCall(subscription.method, arguments);
    return;
  }
  boost::shared_ptr<KXModule> module = subscription.local.lock();
  if (!module || module->isClosing()) module = xFind(subscription);
  if (module) {
    KXValue ignored;
    module->execute(subscription.method, arguments, ignored);
  } else if (subscription.remote) {
    subscription.remote->genericCall(subscription.method, arguments);
  } else {
    subscription.isGone = true;
    list.hasGone = true;
    logGone(subscription, list.name);
  }
}

// The module if it is of this process; otherwise null, with `remote` set if there is a way to it.
boost::shared_ptr<KXModule> KXDelivery::xFind(KXSubscription& subscription) {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  if (!broker) return {};
  boost::shared_ptr<KXProxy> proxy;
  try {
    proxy = broker->getProxy(subscription.module, 0);
  } catch (KXError const&) {
    return {};  // Not there: the caller says so.
  }
  if (proxy->isLocal()) {
    subscription.local = proxy->getModule();
  } else {
    subscription.remote = proxy;
  }
  return proxy->getModule();
}

}  // namespace KX
