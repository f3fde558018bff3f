// How the store's notifications reach their subscribers: one thread, one queue, in order of
// raising. Any thread posts; the delivery thread alone calls subscribers.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// One subscriber of one key. Ownership: shared by the key's list and the notifications on their
/// way. Threads: what is const is free for all; `isGone` is set by the delivery thread, which alone
/// touches the rest.
struct KXSubscription {
  KXSubscription(std::string moduleName, std::string methodName, KXValue callbackMessage)
      : module(std::move(moduleName)),
        method(std::move(methodName)),
        message(std::move(callbackMessage)) {}

  std::string const module;
  std::string const method;
  KXValue const message;
  std::atomic<bool> isGone{false};  ///< the module left service: nothing is delivered any more

  // Where the module was found last. A module of this process is not kept alive by being watched.
  boost::weak_ptr<KXModule> local;
  boost::shared_ptr<KXProxy> remote;
};

/// The subscribers of one key, in the order of their subscribing. Never changed once it is posted:
/// whoever subscribes or ends a subscription makes a new list.
struct KXSubscriptionList {
  KXValue name;  ///< the key's name, made once and not at each raise
  std::vector<std::shared_ptr<KXSubscription>> subscriptions;
  std::atomic<bool> hasGone{false};  ///< one of them is gone: the owner may drop it
};

/// The delivery thread and its queue.
/// Ownership: held by the store; the thread shares it, so that a subscriber may destroy the store.
/// The queue is unbounded: a subscriber that is slower than its events for ever uses up the memory.
/// Threads: every operation may be called from any thread, subscribers included.
/// Errors: what a subscriber throws is logged, and the others are served.
class KXDelivery {
 public:
  /// Starts the thread. Subscribers are looked up with the broker, which is not kept alive.
  static std::shared_ptr<KXDelivery> start(boost::shared_ptr<KXBroker> const& broker);
  KXDelivery(KXDelivery const&) = delete;
  KXDelivery& operator=(KXDelivery const&) = delete;

  /// Queues one raise. True if the thread sleeps: the caller calls wake() once it holds no lock,
  /// because waking costs more than queueing. Ignored after stop().
  [[nodiscard]] bool post(std::shared_ptr<KXSubscriptionList> const& subscribers,
                          KXValue const& value);
  void wake() { mWakeUp.notify_one(); }

  /// Ends the thread after the call in progress; what is queued is dropped and counted in the log.
  /// Waits for the thread, unless called by a subscriber on the thread itself.
  void stop();

 private:
  struct Notification {
    std::shared_ptr<KXSubscriptionList> subscribers;
    KXValue value;
  };

  explicit KXDelivery(boost::shared_ptr<KXBroker> const& broker) : mBroker(broker) {}

  void xRun();
  bool xTake(std::vector<Notification>& batch);
  void xDeliver(Notification const& notification, KXValue& arguments);
  void xCall(KXSubscriptionList& list, KXSubscription& subscription, KXValue const& arguments);
  boost::shared_ptr<KXModule> xFind(KXSubscription& subscription);

  boost::weak_ptr<KXBroker> const mBroker;
  std::atomic<bool> mIsStopping{false};
  std::mutex mMutex;
  std::condition_variable mWakeUp;
  std::vector<Notification> mQueue;  // guarded by mMutex, as all below
  bool mIsParked = false;
  std::thread mThread;
};

}  // namespace KX
