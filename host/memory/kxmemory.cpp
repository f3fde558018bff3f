#include <host/memory/kxmemory.hpp>

#include <utility>

#include <binding/kxfunctor.hpp>
#include <binding/kxsignature.hpp>
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
      mDelivery(KXDelivery::start(broker)) {
  setModuleDescription("The shared store: values, events and micro-events under string keys.");
  xPublishWriting();
  xPublishReading();
  xPublishSubscribing();
}

KXMemory::~KXMemory() {
  mDelivery->stop();
}

void KXMemory::exit() {
  mDelivery->stop();
  KXModule::exit();  // Last: the store may die in it.
}

template <class Member>
void KXMemory::xBind(Member member) {
  completeAndCheck(member, getCurrentMethodDescription());
  bindMethod(createFunctor(this, member));
}

void KXMemory::xPublishWriting() {
  functionName("insertData", getName(), "Writes the value of a data key.", 0);
  addParam("name", "name of the key");
  addParam("value", "its new value");
  xBind(&KXMemory::insertData);

  functionName("insertListData", getName(), "Writes several data keys at one moment.", 0);
  addParam("pairs", "array of [name, value]; all are written, or none if one cannot be");
  xBind(&KXMemory::insertListData);

  functionName("raiseEvent", getName(),
               "Gives an event key a new value and notifies its subscribers.", 0);
  addParam("name", "name of the key");
  addParam("value", "its new value, kept until the next raise");
  xBind(&KXMemory::raiseEvent);

  functionName("raiseMicroEvent", getName(), "Notifies the subscribers of a micro-event key.", 0);
  addParam("name", "name of the key");
  addParam("value", "the value to deliver; it is not kept");
  xBind(&KXMemory::raiseMicroEvent);

  functionName("declareEvent", getName(), "Makes a key an event before it is first raised.", 0);
  addParam("name", "name of the key");
  xBind(&KXMemory::declareEvent);

  functionName("declareMicroEvent", getName(),
               "Makes a key a micro-event before it is first raised.", 0);
  addParam("name", "name of the key");
  xBind(&KXMemory::declareMicroEvent);

  functionName("removeData", getName(),
               "Removes a key of any type; its subscriptions wait for it to come back.", 0);
  addParam("name", "name of the key");
  xBind(&KXMemory::removeData);
}

void KXMemory::xPublishReading() {
  functionName("getKeys", getName(), "Lists the keys.", 0);
  addParam("pattern", "shell pattern that names must match (* matches / too); empty for all");
  setReturn("names", "the names of the keys, sorted");
  xBind(&KXMemory::getKeys);

  functionName("getData", getName(), "Reads the value of a key.", 0);
  addParam("name", "name of the key");
  setReturn("value", "its value; invalid for a micro-event and for an event never raised");
  xBind(&KXMemory::getData);

  functionName("getListData", getName(), "Reads several keys at one moment.", 0);
  addParam("names", "array of names");
  setReturn("values", "array with one value per name, invalid where there is none");
  xBind(&KXMemory::getListData);

  functionName("getType", getName(), "Tells the type of a key.", 0);
  addParam("name", "name of the key");
  setReturn("type", "Data, Event, MicroEvent, or Unknown data for a name that was only read");
  xBind(&KXMemory::getType);
}

void KXMemory::xPublishSubscribing() {
  functionName("subscribeToEvent", getName(),
               "Has a method called as (name, value, message) each time an event is raised.", 0);
  addParam("name", "name of the key, which may be written later");
  addParam("module", "name of the module to call; subscribing again replaces");
  addParam("method", "name of its method; the message is the empty string");
  xBind(&KXMemory::subscribeToEvent);

  functionName("subscribeToMicroEvent", getName(),
               "Has a method called as (name, value, message) each time a micro-event is raised.",
               0);
  addParam("name", "name of the key, which may be written later");
  addParam("module", "name of the module to call; subscribing again replaces");
  addParam("message", "the message to pass on");
  addParam("method", "name of its method");
  xBind(&KXMemory::subscribeToMicroEvent);

  functionName("unsubscribeToEvent", getName(), "Ends a module's subscription to an event.", 0);
  addParam("name", "name of the key");
  addParam("module", "name of the module that subscribed");
  xBind(&KXMemory::unsubscribeToEvent);

  functionName("unsubscribeToMicroEvent", getName(),
               "Ends a module's subscription to a micro-event.", 0);
  addParam("name", "name of the key");
  addParam("module", "name of the module that subscribed");
  xBind(&KXMemory::unsubscribeToMicroEvent);
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
  bool isToWake = false;
  {
    KXCriticalSection const lock(mMutex);
    KXMemorySlot& slot = mTable.slotToWrite(name, kind, method);
    if (kind == KXKeyType::Event) slot.value->swap(swapped);
    // Queued under the lock: the order of raising is the order of the queue.
    auto const& subscribers = mTable.currentSubscribers(slot, kind);
    if (subscribers) isToWake = mDelivery->post(subscribers, value);
  }
  if (isToWake) mDelivery->wake();
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
  auto subscription = std::make_shared<KXSubscription>(callbackModule, callbackMethod, mEmptyText);
  KXCriticalSection const lock(mMutex);
  mTable.subscribe(name, KXKeyType::Event, std::move(subscription), "subscribeToEvent");
}

void KXMemory::subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                                     std::string const& callbackMessage,
                                     std::string const& callbackMethod) {
  auto subscription =
      std::make_shared<KXSubscription>(callbackModule, callbackMethod, KXValue(callbackMessage));
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

}  // namespace KX
