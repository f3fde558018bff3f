// The shared store: values, events and micro-events under string keys.
// Any thread calls it; each subscribing module is called on a thread of its own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxapi.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <kxvalue/kxvalue.hpp>

#include <host/memory/kxdelivery.hpp>
#include <host/memory/kxmemorytable.hpp>

namespace KX {

/// The module "KXMemory". A key is of the type "Data", "Event" or "MicroEvent", given by its first
/// write and kept until it is removed. Names and texts may hold any bytes.
/// An event keeps its last value; a micro-event's value is delivered and not kept.
/// Ownership: the broker's. Threads: all operations may overlap, and subscribers may call any of
/// them; none waits for a subscriber, but exit() and destruction for the call in progress.
/// Notifications reach each module in order of raising, outside the store's lock, through a queue
/// without bound. Errors: KXError that names the key; nothing is changed then.
class KX_API KXMemory : public KXModule {
 public:
  explicit KXMemory(boost::shared_ptr<KXBroker> const& broker);
  /// Ends the delivery; notifications on their way are dropped.
  void exit() override;

  void insertData(std::string const& name, KXValue const& value);
  /// `pairs` is an array of [name, value]: all are written, or none if one cannot be.
  void insertListData(KXValue const& pairs);
  void raiseEvent(std::string const& name, KXValue const& value);
  void raiseMicroEvent(std::string const& name, KXValue const& value);
  /// Makes an event of invalid value, so that its type is known before it is first raised.
  void declareEvent(std::string const& name);
  void declareMicroEvent(std::string const& name);
  /// The key may come back as another type. Its subscriptions stay, and wait for their type.
  void removeData(std::string const& name);

  std::vector<std::string> getKeys(std::string const& pattern);
  /// Invalid for a micro-event and for an event that was declared and never raised.
  KXValue getData(std::string const& name);
  /// Invalid where the store has no value; the name is reserved then: its type is "Unknown data".
  KXValue getListData(KXValue const& names);
  std::string getType(std::string const& name);

  /// The key may be written later. Subscribing again replaces the module's former subscription.
  void subscribeToEvent(std::string const& name, std::string const& callbackModule,
                        std::string const& callbackMethod);
  void subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                             std::string const& callbackMessage, std::string const& callbackMethod);
  /// A notification that is on its way may still arrive.
  void unsubscribeToEvent(std::string const& name, std::string const& callbackModule);
  void unsubscribeToMicroEvent(std::string const& name, std::string const& callbackModule);
  /// [posted, delivered, dropped, waiting, unhandled]: what became of the notifications to a
  /// subscriber in another process, "MODULE@BROKER". Posted = delivered + dropped + waiting +
  /// unhandled. Counts beyond 32 bits stand still at the largest int. Zeros if nothing was ever
  /// sent to it.
  KXValue getNotificationCounts(std::string const& callbackModule);

 private:
  void xPublishWriting();
  void xPublishReading();
  void xPublishSubscribing();
  void xRaise(std::string const& name, KXValue const& value, KXKeyType kind, char const* method);

  boost::shared_ptr<KXMutex> const mMutex;
  KXMemoryTable mTable KX_GUARDED_BY(*mMutex);
  KXValue const mEmptyText;  ///< the message of every event
  KXDelivery mDelivery;      // ends first
};

}  // namespace KX
