#include <host/bus/kxbustransport.hpp>

#include <utility>

namespace KX {

KXBusTransport::KXBusTransport(std::shared_ptr<KXBus> bus, KXSubjects const& subjects,
                               KXBusOptions const& options, std::string const& brokerName,
                               KXEventReceiver& receiver)
    : mBus(std::move(bus)),
      mOwnSuffix("@" + brokerName),
      mCaller(*mBus, subjects, options.robot, options.timeoutMs),
      mSender(*mBus, subjects, static_cast<std::size_t>(options.backlogMb) << 20),
      mReturns(*mBus, subjects),
      mReceiver(&receiver) {}

void KXBusTransport::call(std::string const& module, std::string const& method,
                          KXValue const& params, KXValue& result, int timeoutMs) {
  xServeSubscriber(module, method, params);
  mCaller.call(module, method, params, result, timeoutMs);
}

// Whoever subscribes is listened for before the store can send the first notification.
void KXBusTransport::xServeSubscriber(std::string const& module, std::string const& method,
                                      KXValue const& params) {
  bool const isSubscribing =
      module == "KXMemory" && (method == "subscribeToEvent" || method == "subscribeToMicroEvent");
  if (!isSubscribing || params.getType() != KXValue::TypeArray || params.getSize() < 2) return;
  if (params[1].getType() != KXValue::TypeString) return;
  std::string const subscriber = params[1].toString();
  // What is meant for other processes is theirs: taken here, it would be lost to them.
  if (!subscriber.ends_with(mOwnSuffix)) return;
  std::lock_guard const lock(mMutex);
  if (mReceiver != nullptr) mReceiver->serve(subscriber);
}

void KXBusTransport::pCall(std::string const& module, std::string const& method,
                           KXValue const& params, KXValue& result) {
  mCaller.pCall(module, method, params, result);
}

bool KXBusTransport::isRunning(std::string const& module, int taskId) {
  return mCaller.isRunning(module, taskId);
}

bool KXBusTransport::wait(std::string const& module, int taskId, int timeoutMs) {
  return mCaller.wait(module, taskId, timeoutMs);
}

void KXBusTransport::notify(std::string const& module, std::vector<KXNotification> notifications) {
  mSender.notify(module, notifications);
}

KXNotificationCounts KXBusTransport::notificationCounts(std::string const& module) const {
  return mSender.getCounts(module);
}

void KXBusTransport::forget(std::string const& module) {
  mSender.forget(module);
}

void KXBusTransport::find(std::string const& module) {
  mCaller.find(module);
}

std::shared_ptr<void> KXBusTransport::observeReturns(std::string const& module,
                                                     std::function<bool()> handler) {
  return mReturns.observe(module, std::move(handler));
}

KXModuleInfo KXBusTransport::describe(std::string const& module) {
  return mCaller.describe(module);
}

void KXBusTransport::detachReceiver() {
  std::lock_guard const lock(mMutex);
  mReceiver = nullptr;
}

void KXBusTransport::close() {
  mCaller.close();
}

}  // namespace KX
