// The notifications on their way to one subscribing module, and the thread that brings them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <binding/kxfunctor.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

class KXSubscriberQueue;

/// One subscription of a module to a key. Ownership: shared by the key's list and the notifications
/// on their way. Threads: what is const is free for all; `isGone` is set by the queue's thread,
/// which alone touches the rest.
struct KXSubscription {
  KXSubscription(std::shared_ptr<KXSubscriberQueue> itsQueue, std::string const& keyName,
                 std::string callbackMethod, KXValue callbackMessage)
      : queue(std::move(itsQueue)),
        key(keyName),
        method(std::move(callbackMethod)),
        message(std::move(callbackMessage)) {}

  std::shared_ptr<KXSubscriberQueue> const queue;
  KXValue const key;
  std::string const method;
  KXValue const message;
  std::atomic<bool> isGone{false};  ///< the module left service: nothing is delivered any more

  // The method as it was last found: null if it takes other types, and has to be called by name.
  detail::KXTypedFunctor<void, std::string, KXValue, KXValue>* functor = nullptr;
  std::uint64_t functorVersion = 0;
};

/// The subscribers of one key, in the order of their subscribing. Never changed once it is in use:
/// whoever subscribes or ends a subscription makes a new list.
using KXSubscriptionList = std::vector<std::shared_ptr<KXSubscription>>;

/// What the queues of one store share.
struct KXDeliveryContext {
  boost::weak_ptr<KXBroker> broker;   ///< finds the subscribers
  std::int64_t (*nowMs)() = nullptr;  ///< steady; some milliseconds of error do no harm
  std::mutex mutex;                   ///< guards all below
  bool isStopping = false;
  int threadCount = 0;
  std::size_t droppedCount = 0;
};

/// The queue of one subscribing module and its thread, which alone calls the module.
/// Ownership: shared by the thread and by whoever posts, so that a subscriber may destroy the
/// store. The thread ends when nobody holds the queue any more, or at stop(). Threads: every
/// operation may be called from any thread, subscribers included. None but join() waits for a
/// subscriber. Errors: what a subscriber throws is logged, and the next notification served.
class KXSubscriberQueue : public std::enable_shared_from_this<KXSubscriberQueue> {
 public:
  /// A queue is behind, and says so once until it is empty again, beyond either of these.
  static constexpr std::size_t kMaxWaiting = 100'000;
  static constexpr std::int64_t kMaxLagMs = 1000;

  KXSubscriberQueue(std::string moduleName, std::shared_ptr<KXDeliveryContext> context);
  KXSubscriberQueue(KXSubscriberQueue const&) = delete;
  KXSubscriberQueue& operator=(KXSubscriberQueue const&) = delete;

  std::string const& getModuleName() const noexcept { return mModuleName; }

  /// One holder more: starts the thread if there is none. std::system_error, and nothing has
  /// changed, if the system grants none. Calls of hold() and joinIfOver() must not overlap.
  void hold();
  void release();
  /// True if nobody holds the queue and its thread has ended.
  bool joinIfOver();

  /// Queues one notification; ignored after stop(). True if attend() is to be called, once the
  /// caller holds no lock: to wake the thread, which costs more than queueing, or to log.
  [[nodiscard]] bool post(std::shared_ptr<KXSubscription> const& subscription,
                          KXValue const& value);
  void attend();

  /// Ends the thread after the call in progress; what is queued is dropped and counted.
  void stop();
  /// Waits for the thread to end; never on a thread that delivers for the same store.
  void join();
  /// Gives up waiting for the thread.
  void detach();
  /// True on the threads that deliver for that store.
  static bool isServing(KXDeliveryContext const& context);

 private:
  struct Notification {
    std::shared_ptr<KXSubscription> subscription;
    KXValue value;
    std::int64_t raisedMs;
  };

  void xStart();
  void xRun();
  void xServe();
  void xCountThreadOut(std::size_t droppedCount);
  bool xTake(std::vector<Notification>& batch);
  void xDeliver(Notification const& notification);
  void xCall(KXSubscription& subscription, KXValue const& value);
  void xCallLocal(KXModule& module, KXSubscription& subscription, KXValue const& value);
  void xSendPack();
  KXValue const& xArguments(KXSubscription const& subscription, KXValue const& value);
  boost::shared_ptr<KXModule> xFind();
  void xTellBehind(std::size_t waitingCount, std::int64_t lagMs);

  std::string const mModuleName;
  std::shared_ptr<KXDeliveryContext> const mContext;

  std::mutex mMutex;
  std::condition_variable mWakeUp;
  std::vector<Notification> mQueue;  // guarded by mMutex, as all down to the empty line
  int mHolderCount = 0;
  bool mHasThread = false;
  bool mIsParked = false;
  std::size_t mWaitingToTell = 0;  ///< attend() logs these two, unless there is nothing to tell
  std::int64_t mLagMsToTell = 0;

  std::atomic<bool> mIsStopping{false};
  std::atomic<bool> mIsGoneForGood{false};  ///< until a new subscription says otherwise
  // How far the queue is behind: each is written by one side and read by both.
  std::atomic<std::size_t> mPostedCount{0};
  std::atomic<std::size_t> mServedCount{0};
  std::atomic<std::int64_t> mServingMs;    ///< when what is being served was raised
  std::atomic<bool> mIsToldBehind{false};  ///< in this episode, which ends when the queue is empty

  // The thread's own. A module of this process is not kept alive by being watched.
  boost::weak_ptr<KXModule> mLocal;
  boost::shared_ptr<KXTransport> mRemote;  ///< the way to it, if it is in another process
  std::vector<KXNotification> mPack;       ///< what is to go that way when the batch is through
  std::uint64_t mModuleVersion = 0;        ///< counts the modules found
  KXValue mArguments;                      ///< kept for the next call by name

  std::mutex mThreadMutex;
  std::thread mThread;  // guarded by mThreadMutex
};

}  // namespace KX
