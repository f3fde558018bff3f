// The transport over a bus: calls and notifications under one roof.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbusoptions.hpp>
#include <host/bus/kxcaller.hpp>
#include <host/bus/kxeventreceiver.hpp>
#include <host/bus/kxeventsender.hpp>
#include <host/bus/kxreturns.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxcommon/kxtransport.hpp>

namespace KX {

/// What a broker and its proxies hold. They may hold it longer than the link that made it: after
/// close() every operation fails, and what it needs lives on.
/// Threads: as KXTransport; close() from any.
class KXBusTransport : public KXTransport {
 public:
  /// The receiver learns from here which modules of this process subscribe; see detachReceiver().
  KXBusTransport(std::shared_ptr<KXBus> bus, KXSubjects const& subjects,
                 KXBusOptions const& options, std::string const& brokerName,
                 KXEventReceiver& receiver);

  void call(std::string const& module, std::string const& method, KXValue const& params,
            KXValue& result, int timeoutMs) override;
  void pCall(std::string const& module, std::string const& method, KXValue const& params,
             KXValue& result) override;
  bool isRunning(std::string const& module, int taskId) override;
  bool wait(std::string const& module, int taskId, int timeoutMs) override;
  void notify(std::string const& module, std::vector<KXNotification> notifications) override;
  KXNotificationCounts notificationCounts(std::string const& module) const override;
  void forget(std::string const& module) override;
  void find(std::string const& module) override;
  std::shared_ptr<void> observeReturns(std::string const& module,
                                       std::function<bool()> handler) override;
  KXModuleInfo describe(std::string const& module) override;

  /// The receiver is used no more when this returns.
  void detachReceiver();
  /// Calls fail from now on, those in progress too.
  void close();

 private:
  void xServeSubscriber(std::string const& module, std::string const& method,
                        KXValue const& params);

  std::shared_ptr<KXBus> const mBus;
  std::string const mOwnSuffix;  ///< of the full addresses of this process's modules
  KXCaller mCaller;
  KXEventSender mSender;
  KXReturns mReturns;
  std::mutex mMutex;
  KXEventReceiver* mReceiver;  // guarded by mMutex; null when detached
};

}  // namespace KX
