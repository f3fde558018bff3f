// How the store's notifications reach their subscribers: a queue and a thread for each subscribing
// module, so that a slow one delays nobody else.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

#include <host/memory/kxsubscriberqueue.hpp>

namespace KX {

/// The queues of one store, by the subscribing module's name.
/// Ownership: a member of the store. The queues' threads do not need it, so that a subscriber may
/// destroy the store.
/// A module's thread is made at its first subscription and ends when its last one has. The queues
/// are unbounded: a subscriber that is slower than its events for ever uses up the memory.
/// Threads: every operation may be called from any thread, subscribers included.
class KX_API KXDelivery {
 public:
  /// How many modules of a user's, in other processes, may be told of anything. Each costs a thread
  /// and the room for what waits, whether it exists or not.
  static constexpr int kMaxOfUser = 32;

  /// Subscribers are looked up with the broker, which is not kept alive. The clock is a test's, or
  /// one of the system's that is cheap to read.
  explicit KXDelivery(boost::shared_ptr<KXBroker> const& broker, std::int64_t (*nowMs)() = nullptr);
  /// Stops.
  ~KXDelivery();
  KXDelivery(KXDelivery const&) = delete;
  KXDelivery& operator=(KXDelivery const&) = delete;

  /// A subscription, with the module's queue behind it. It ends when nobody owns it any more.
  /// KXError (Refused) if the module, "NAME@USER.NONCE", would be one too many of that user.
  std::shared_ptr<KXSubscription> subscribe(std::string const& key, std::string const& module,
                                            std::string const& method, KXValue const& message);

  /// Queues one raise for all subscribers. True if attend() is to be called, once the caller holds
  /// no lock. The caller's calls must not overlap: their order is the order of delivery.
  [[nodiscard]] static bool post(KXSubscriptionList const& subscribers, KXValue const& value);
  static void attend(KXSubscriptionList const& subscribers);

  /// Ends the threads after the calls in progress; what is queued is dropped and counted in the
  /// log. Waits for the threads, unless called by a subscriber on one of them.
  void stop();

 private:
  using QueuePointer = std::shared_ptr<KXSubscriberQueue>;

  QueuePointer xQueueOf(std::string const& module);
  void xCheckUser(std::string const& module) const;

  std::shared_ptr<KXDeliveryContext> const mContext;
  std::mutex mMutex;
  bool mIsStopping = false;                     // guarded by mMutex
  std::map<std::string, QueuePointer> mQueues;  // guarded by mMutex
};

}  // namespace KX
