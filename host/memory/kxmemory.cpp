#include <host/memory/kxmemory.hpp>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include <binding/kxpublish.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxerror.hpp>
#include <kxthread/kxmutex.hpp>

namespace KX {

namespace {

// KXError unless `pairs` is an array of [name, value].
void checkPairs(KXValue const& pairs) {
  auto const fail = [](std::string const& text) {
    throw KXError("KXMemory", "insertListData", text, "memory/kxmemory", 0);
  };
  if (pairs.getType() != KXValue::TypeArray) {
    fail("expected an array of [name, value], got " + KXValue::TypeToString(pairs.getType()));
  }
  KXValue const* const elements = pairs.arrayData();
  for (int i = 0; i < pairs.getSize(); ++i) {
    KXValue const& pair = elements[i];
    bool const isPair = pair.getType() == KXValue::TypeArray && pair.getSize() == 2 &&
                        pair[0].getType() == KXValue::TypeString;
    if (!isPair) {
      fail("expected element " + std::to_string(i) + " to be [name, value], got " +
           KXValue::TypeToString(pair.getType()) + " of size " + std::to_string(pair.getSize()));
    }
  }
}

}  // namespace

KXMemory::KXMemory(boost::shared_ptr<KXBroker> const& broker)
    : KXModule(broker, "KXMemory"),
      mMutex(KXMutex::createKXMutex()),
      mEmptyText(""),
      mDelivery(broker) {
  setModuleDescription("The shared store: values, events and micro-events under string keys.");
  xPublishWriting();
  xPublishReading();
  xPublishSubscribing();
}

void KXMemory::exit() {
  mDelivery.stop();
  KXModule::exit();  // Last: the store may die in it.
}

void KXMemory::xPublishWriting() {
  publish(*this,
          {"insertData",
           "Writes the value of a data key.",
           {{"name", "name of the key"}, {"value", "its new value"}}},
          &KXMemory::insertData);

  publish(*this,
          {"insertListData",
           "Writes several data keys at one moment.",
           {{"pairs", "array of [name, value]; all are written, or none if one cannot be"}}},
          &KXMemory::insertListData);

  publish(*this,
          {"raiseEvent",
           "Gives an event key a new value and notifies its subscribers.",
           {{"name", "name of the key"}, {"value", "its new value, kept until the next raise"}}},
          &KXMemory::raiseEvent);

  publish(*this,
          {"raiseMicroEvent",
           "Notifies the subscribers of a micro-event key.",
           {{"name", "name of the key"}, {"value", "the value to deliver; it is not kept"}}},
          &KXMemory::raiseMicroEvent);

  publish(*this,
          {"declareEvent",
           "Makes a key an event before it is first raised.",
           {{"name", "name of the key"}}},
          &KXMemory::declareEvent);

  publish(*this,
          {"declareMicroEvent",
           "Makes a key a micro-event before it is first raised.",
           {{"name", "name of the key"}}},
          &KXMemory::declareMicroEvent);

  publish(*this,
          {"removeData",
           "Removes a key of any type; its subscriptions wait for it to come back.",
           {{"name", "name of the key"}}},
          &KXMemory::removeData);
}

void KXMemory::xPublishReading() {
  publish(*this,
          {"getKeys",
           "Lists the keys.",
           {{"pattern", "shell pattern that names must match (* matches / too); empty for all"}},
           {"names", "the names of the keys, sorted"}},
          &KXMemory::getKeys);

  publish(*this,
          {"getData",
           "Reads the value of a key.",
           {{"name", "name of the key"}},
           {"value", "its value; invalid for a micro-event and for an event never raised"}},
          &KXMemory::getData);

  publish(*this,
          {"getListData",
           "Reads several keys at one moment.",
           {{"names", "array of names"}},
           {"values", "array with one value per name, invalid where there is none"}},
          &KXMemory::getListData);

  publish(*this,
          {"getType",
           "Tells the type of a key.",
           {{"name", "name of the key"}},
           {"type", "Data, Event, MicroEvent, or Unknown data for a name that was only read"}},
          &KXMemory::getType);
}

void KXMemory::xPublishSubscribing() {
  publish(*this,
          {"subscribeToEvent",
           "Has a method called as (name, value, message) each time an event is raised.",
           {{"name", "name of the key, which may be written later"},
            {"module", "name of the module to call; subscribing again replaces"},
            {"method", "name of its method; the message is the empty string"}}},
          &KXMemory::subscribeToEvent);

  publish(*this,
          {"subscribeToMicroEvent",
           "Has a method called as (name, value, message) each time a micro-event is raised.",
           {{"name", "name of the key, which may be written later"},
            {"module", "name of the module to call; subscribing again replaces"},
            {"message", "the message to pass on"},
            {"method", "name of its method"}}},
          &KXMemory::subscribeToMicroEvent);

  publish(*this,
          {"unsubscribeToEvent",
           "Ends a module's subscription to an event.",
           {{"name", "name of the key"}, {"module", "name of the module that subscribed"}}},
          &KXMemory::unsubscribeToEvent);

  publish(*this,
          {"unsubscribeToMicroEvent",
           "Ends a module's subscription to a micro-event.",
           {{"name", "name of the key"}, {"module", "name of the module that subscribed"}}},
          &KXMemory::unsubscribeToMicroEvent);

  publish(*this,
          {"getNotificationCounts",
           "Tells what became of the notifications to a subscriber in another process.",
           {{"module", "the subscriber, as MODULE@BROKER"}},
           {"counts", "array of posted, delivered, dropped, waiting and unhandled ones"}},
          &KXMemory::getNotificationCounts);
}

void KXMemory::insertData(std::string const& name, KXValue const& value) {
  // The former value dies behind the lock: it may be large.
  KXValue swapped(value);
  KXCriticalSection const lock(mMutex);
  mTable.slotToWrite(name, KXKeyType::Data, "insertData").value->swap(swapped);
}

void KXMemory::insertListData(KXValue const& pairs) {
  checkPairs(pairs);
  KXValue const* const first = pairs.arrayData();
  KXValue const* const last = first + pairs.getSize();
  KXCriticalSection const lock(mMutex);
  for (KXValue const* pair = first; pair != last; ++pair) {
    mTable.checkType(static_cast<std::string const&>((*pair)[0]), KXKeyType::Data,
                     "insertListData");
  }
  for (KXValue const* pair = first; pair != last; ++pair) {
    *mTable
         .slotToWrite(static_cast<std::string const&>((*pair)[0]), KXKeyType::Data,
                      "insertListData")
         .value = (*pair)[1];
  }
}

void KXMemory::xRaise(std::string const& name, KXValue const& value, KXKeyType kind,
                      char const* method) {
  KXValue swapped(value);
  std::shared_ptr<KXSubscriptionList const> toAttend;
  {
    KXCriticalSection const lock(mMutex);
    KXMemorySlot& slot = mTable.slotToWrite(name, kind, method);
    if (kind == KXKeyType::Event) slot.value->swap(swapped);
    // Queued under the lock: the order of raising is the order of the queues.
    auto const& subscribers = KXMemoryTable::currentSubscribers(slot, kind);
    if (subscribers && KXDelivery::post(*subscribers, value)) toAttend = subscribers;
  }
  if (toAttend) KXDelivery::attend(*toAttend);
}

void KXMemory::raiseEvent(std::string const& name, KXValue const& value) {
  xRaise(name, value, KXKeyType::Event, "raiseEvent");
}

void KXMemory::raiseMicroEvent(std::string const& name, KXValue const& value) {
  xRaise(name, value, KXKeyType::MicroEvent, "raiseMicroEvent");
}

void KXMemory::declareEvent(std::string const& name) {
  KXCriticalSection const lock(mMutex);
  mTable.slotToWrite(name, KXKeyType::Event, "declareEvent");
}

void KXMemory::declareMicroEvent(std::string const& name) {
  KXCriticalSection const lock(mMutex);
  mTable.slotToWrite(name, KXKeyType::MicroEvent, "declareMicroEvent");
}

void KXMemory::removeData(std::string const& name) {
  KXValue former;
  KXCriticalSection const lock(mMutex);
  mTable.remove(name, former, "removeData");
}

std::vector<std::string> KXMemory::getKeys(std::string const& pattern) {
  KXCriticalSection const lock(mMutex);
  return mTable.keys(pattern);
}

KXValue KXMemory::getData(std::string const& name) {
  KXCriticalSection const lock(mMutex);
  return *mTable.slotToRead(name, "getData").value;
}

KXValue KXMemory::getListData(KXValue const& names) {
  KXCriticalSection const lock(mMutex);
  return mTable.read(names, "getListData");
}

std::string KXMemory::getType(std::string const& name) {
  KXCriticalSection const lock(mMutex);
  return mTable.typeName(name, "getType");
}

void KXMemory::subscribeToEvent(std::string const& name, std::string const& callbackModule,
                                std::string const& callbackMethod) {
  auto subscription = mDelivery.subscribe(name, callbackModule, callbackMethod, mEmptyText);
  KXCriticalSection const lock(mMutex);
  mTable.subscribe(name, KXKeyType::Event, std::move(subscription), "subscribeToEvent");
}

void KXMemory::subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                                     std::string const& callbackMessage,
                                     std::string const& callbackMethod) {
  auto subscription =
      mDelivery.subscribe(name, callbackModule, callbackMethod, KXValue(callbackMessage));
  KXCriticalSection const lock(mMutex);
  mTable.subscribe(name, KXKeyType::MicroEvent, std::move(subscription), "subscribeToMicroEvent");
}

void KXMemory::unsubscribeToEvent(std::string const& name, std::string const& callbackModule) {
  KXCriticalSection const lock(mMutex);
  mTable.unsubscribe(name, KXKeyType::Event, callbackModule, "unsubscribeToEvent");
}

void KXMemory::unsubscribeToMicroEvent(std::string const& name, std::string const& callbackModule) {
  KXCriticalSection const lock(mMutex);
  mTable.unsubscribe(name, KXKeyType::MicroEvent, callbackModule, "unsubscribeToMicroEvent");
}

KXValue KXMemory::getNotificationCounts(std::string const& callbackModule) {
  auto const toInt = [](std::uint64_t count) {
    return static_cast<int>(std::min<std::uint64_t>(count, std::numeric_limits<int>::max()));
  };
  auto const transport = getParentBroker()->getTransport();
  KXNotificationCounts const counts =
      transport ? transport->notificationCounts(callbackModule) : KXNotificationCounts();
  return KXValue::arrayOf(toInt(counts.posted), toInt(counts.delivered), toInt(counts.dropped),
                          toInt(counts.waiting), toInt(counts.unhandled));
}

}  // namespace KX
