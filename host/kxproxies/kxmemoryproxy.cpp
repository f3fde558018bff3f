#include <kxproxies/kxmemoryproxy.hpp>

#include <utility>
#include <vector>

#include <binding/kxproxycall.hpp>
#include <host/kxproxies/kxdistantsubscriptions.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// Directly where the store binds its one method of that name with these very types. A module that
// stands in for the store may declare its methods otherwise, as long as the arguments can be
// converted.
template <class R, class... P>
R callStore(boost::shared_ptr<KXProxy> const& proxy, std::string const& method,
            P const&... arguments) {
  if (proxy->isLocal() && !proxy->isScript()) {
    KXMethodInfo const* const info = proxy->getModule()->findMethod(method);
    auto* const typed = info == nullptr
                            ? nullptr
                            : dynamic_cast<detail::KXTypedFunctor<R, P...>*>(info->functor.get());
    if (typed != nullptr) return typed->invoke(arguments...);
  }
  return detail::convertResult<R>(
      proxy->genericCall(method, KXValue::arrayOf(KXValue(arguments)...)));
}

bool isInService(KXProxy const& proxy) {
  return !proxy.isLocal() || !proxy.getModule()->isClosing();
}

}  // namespace

KXMemoryProxy::KXMemoryProxy(boost::shared_ptr<KXBroker> const& broker)
    : mBroker(broker), mDistant(std::make_shared<KXDistantSubscriptions>(broker)) {}

KXMemoryProxy::~KXMemoryProxy() = default;

boost::shared_ptr<KXProxy> KXMemoryProxy::xProxy() {
  boost::shared_ptr<KXProxy> known;
  {
    std::lock_guard const lock(mMutex);
    known = mProxy;
  }
  if (known && isInService(*known)) return known;

  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  if (!broker) {
    throw KXError("KXMemoryProxy", "getProxy", "the broker is gone", "kxproxies/kxmemoryproxy", 0);
  }
  boost::shared_ptr<KXProxy> found = broker->getProxy("KXMemory", 0);
  {
    std::lock_guard const lock(mMutex);
    mProxy = found;
  }
  // `known` may hold the former store's last reference: it dies here, without the lock.
  return found;
}

// Another process may have a module of the same name: events are to come back to this one.
std::string KXMemoryProxy::xQualified(std::string const& module) const {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  return broker ? module + "@" + broker->getName() : module;
}

KXValue KXMemoryProxy::getData(std::string const& name) {
  return callStore<KXValue>(xProxy(), "getData", name);
}

KXValue KXMemoryProxy::getListData(KXValue const& names, int timeoutMs) {
  boost::shared_ptr<KXProxy> const proxy = xProxy();
  if (proxy->isLocal()) return callStore<KXValue>(proxy, "getListData", names);
  return proxy->genericCall("getListData", KXValue::arrayOf(names), timeoutMs);
}

std::string KXMemoryProxy::getType(std::string const& name) {
  return callStore<std::string>(xProxy(), "getType", name);
}

void KXMemoryProxy::subscribeToEvent(std::string const& name, std::string const& callbackModule,
                                     std::string const& callbackMethod) {
  boost::shared_ptr<KXProxy> const proxy = xProxy();
  if (proxy->isLocal()) {
    return callStore<void>(proxy, "subscribeToEvent", name, callbackModule, callbackMethod);
  }
  mDistant->subscribe(*proxy, "subscribeToEvent",
                      KXValue::arrayOf(name, xQualified(callbackModule), callbackMethod));
}

void KXMemoryProxy::subscribeToMicroEvent(std::string const& name,
                                          std::string const& callbackModule,
                                          std::string const& callbackMessage,
                                          std::string const& callbackMethod) {
  boost::shared_ptr<KXProxy> const proxy = xProxy();
  if (proxy->isLocal()) {
    return callStore<void>(proxy, "subscribeToMicroEvent", name, callbackModule, callbackMessage,
                           callbackMethod);
  }
  mDistant->subscribe(
      *proxy, "subscribeToMicroEvent",
      KXValue::arrayOf(name, xQualified(callbackModule), callbackMessage, callbackMethod));
}

void KXMemoryProxy::unsubscribeToEvent(std::string const& name, std::string const& callbackModule) {
  boost::shared_ptr<KXProxy> const proxy = xProxy();
  if (proxy->isLocal()) return callStore<void>(proxy, "unsubscribeToEvent", name, callbackModule);
  mDistant->unsubscribe(*proxy, "unsubscribeToEvent",
                        KXValue::arrayOf(name, xQualified(callbackModule)));
}

void KXMemoryProxy::unsubscribeToMicroEvent(std::string const& name,
                                            std::string const& callbackModule) {
  boost::shared_ptr<KXProxy> const proxy = xProxy();
  if (proxy->isLocal()) {
    return callStore<void>(proxy, "unsubscribeToMicroEvent", name, callbackModule);
  }
  mDistant->unsubscribe(*proxy, "unsubscribeToMicroEvent",
                        KXValue::arrayOf(name, xQualified(callbackModule)));
}

// Task ids are the broker's: no store is needed to ask for them. A broker that is gone has waited
// for its parallel calls, but for one that dropped it itself; nobody is left who knows of that one.
bool KXMemoryProxy::isRunning(int taskId) {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  return broker && broker->isTaskRunning(taskId);
}

bool KXMemoryProxy::wait(int taskId, int timeoutMs) {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  return !broker || broker->waitForTask(taskId, timeoutMs);
}

}  // namespace KX
