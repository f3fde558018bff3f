// The way to "another process" that is really another broker of this one.
#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX::testing {

/// Records every call, then hands it to the broker it was made with, or to the hook if there is
/// one, which then gives the whole answer. Threads: as the interface; set the hook before calls.
class FakeTransport : public KXTransport {
 public:
  struct Call {
    std::string kind;  ///< call or pCall
    std::string module;
    std::string method;
    KXValue params;
    int timeoutMs = 0;

    bool operator==(Call const&) const = default;
  };
  using Hook = std::function<void(Call const& call, KXValue& result)>;

  /// `target` may be null if there is a hook.
  explicit FakeTransport(boost::shared_ptr<KXBroker> target) : mTarget(std::move(target)) {}

  void setHook(Hook hook) { mHook = std::move(hook); }
  std::vector<Call> getCalls() const {
    std::lock_guard<std::mutex> const lock(mMutex);
    return mCalls;
  }

  void call(std::string const& module, std::string const& method, KXValue const& params,
            KXValue& result, int timeoutMs) override {
    if (xHooked({"call", module, method, params, timeoutMs}, result)) return;
    result = mTarget->getProxy(module, 0)->genericCall(method, params);
  }
  void pCall(std::string const& module, std::string const& method, KXValue const& params,
             KXValue& result) override {
    if (xHooked({"pCall", module, method, params}, result)) return;
    result = mTarget->getProxy(module, 0)->pCall(method);
  }
  bool isRunning(std::string const& module, int taskId) override {
    return mTarget->getProxy(module, 0)->isRunning(taskId);
  }
  bool wait(std::string const& module, int taskId, int timeoutMs) override {
    return mTarget->getProxy(module, 0)->wait(taskId, timeoutMs);
  }

  void notify(std::string const& module, std::vector<KXNotification> notifications) override {
    for (KXNotification const& notification : notifications) {
      KXValue ignored;
      call(module, notification.method, notification.arguments, ignored, 0);
    }
  }
  KXNotificationCounts notificationCounts(std::string const& /*module*/) const override {
    return {};
  }
  void forget(std::string const& /*module*/) override {}
  /// Asks the target alone, and not a transport of its own: two brokers may have each other's.
  void find(std::string const& module) override {
    auto const at = module.rfind('@');
    bool const isThere = mTarget->isModulePresent(module) ||
                         (at != std::string::npos && module.substr(at + 1) == mTarget->getName() &&
                          mTarget->isModulePresent(module.substr(0, at)));
    if (isThere) return;
    throw KXError("FakeTransport", "find",
                  "no module '" + module + "' in '" + mTarget->getName() + "'", "", 0,
                  KXError::Kind::NotFound);
  }
  std::shared_ptr<void> observeReturns(std::string const& /*module*/,
                                       std::function<bool()> handler) override {
    std::lock_guard<std::mutex> const lock(mMutex);
    auto const entry = mOnReturn.insert(mOnReturn.end(), std::move(handler));
    return std::shared_ptr<void>(this, [entry](void* self) {
      auto* const transport = static_cast<FakeTransport*>(self);
      std::lock_guard<std::mutex> const transportLock(transport->mMutex);
      transport->mOnReturn.erase(entry);
    });
  }
  /// As if the module had come back; nothing if nobody observes.
  void returnModule() {
    std::list<std::function<bool()>> handlers;
    {
      std::lock_guard<std::mutex> const lock(mMutex);
      handlers = mOnReturn;
    }
    for (auto const& handler : handlers) handler();
  }
  KXModuleInfo describe(std::string const& module) override {
    return mTarget->getProxy(module, 0)->describe();
  }

 private:
  bool xHooked(Call const& call, KXValue& result) {
    {
      std::lock_guard<std::mutex> const lock(mMutex);
      mCalls.push_back(call);
    }
    if (mHook) mHook(call, result);
    return mHook != nullptr;
  }

  boost::shared_ptr<KXBroker> const mTarget;
  Hook mHook;
  mutable std::mutex mMutex;
  std::vector<Call> mCalls;                    // guarded by mMutex
  std::list<std::function<bool()>> mOnReturn;  // guarded by mMutex
};

}  // namespace KX::testing
