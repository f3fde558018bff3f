// Typed calls to the store: whatever module is published as "KXMemory".
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxproxy.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

class KXDistantSubscriptions;

/// The store as its clients see it. The module is looked up at the first call, and again when the
/// one found has left service, so the store may come later than its clients and may be replaced.
/// Where the store is in another process, it is told all subscriptions again when it comes back.
/// Ownership: keeps the store's module alive; does not keep the broker alive.
/// Threads: all calls may overlap; each blocks until the store has answered.
/// Errors: KXError if there is no store, and whatever the store throws.
class KX_API KXMemoryProxy {
 public:
  explicit KXMemoryProxy(boost::shared_ptr<KXBroker> const& broker);
  ~KXMemoryProxy();

  /// The current value of one key. KXError if nobody ever wrote it.
  KXValue getData(std::string const& name);
  /// The values of all these keys at one moment: an array with one value per name, in the same
  /// order; invalid where the store has no value. `names` is an array of strings. The time-out is
  /// for a store in another process: 0 is the transport's own.
  KXValue getListData(KXValue const& names, int timeoutMs = 0);
  /// The type of a key: "Data", "Event", "MicroEvent" or "Unknown data". KXError if unknown.
  std::string getType(std::string const& name);
  /// Has `callbackMethod` of `callbackModule` called as (name, value, message) at each raise. Where
  /// the store is in another process, the callback module is one of this process's broker: the
  /// store is told "MODULE@BROKER", here and where a subscription ends.
  void subscribeToEvent(std::string const& name, std::string const& callbackModule,
                        std::string const& callbackMethod);
  void subscribeToMicroEvent(std::string const& name, std::string const& callbackModule,
                             std::string const& callbackMessage, std::string const& callbackMethod);
  /// KXError if there is no such subscription.
  void unsubscribeToEvent(std::string const& name, std::string const& callbackModule);
  void unsubscribeToMicroEvent(std::string const& name, std::string const& callbackModule);

  /// As KXProxy::isRunning, for any parallel call of the broker that this was made with.
  bool isRunning(int taskId);
  /// As KXProxy::wait.
  bool wait(int taskId, int timeoutMs);

 private:
  boost::shared_ptr<KXProxy> xProxy();
  std::string xQualified(std::string const& module) const;

  boost::weak_ptr<KXBroker> const mBroker;
  std::shared_ptr<KXDistantSubscriptions> const mDistant;  ///< where the store is distant
  std::mutex mMutex;
  boost::shared_ptr<KXProxy> mProxy;  // guarded by mMutex
};

}  // namespace KX
