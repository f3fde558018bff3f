// A connection to a NATS server, and what is subscribed on it.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbusworkers.hpp>
#include <kxerror/kxapi.hpp>

struct __natsConnection;

namespace KX {

/// Shared with whoever uses it just now: it may be replaced meanwhile. Closed with the last share.
using KXNatsConnection = std::shared_ptr<__natsConnection>;
/// Takes over what the library has made; null stays null.
KX_API KXNatsConnection ownedConnection(__natsConnection* connection);

/// Frees the subscriptions that ended on it some seconds ago; to be called now and then.
KX_API void freeEndedSubscriptions(KXNatsConnection const& connection) noexcept;

class KXNatsSubscribed;

/// The connection, and what is to be subscribed on it, also on the next one.
/// Threads: any; binding waits for no handler.
class KX_API KXNatsLine {
 public:
  KXNatsConnection connection() const;
  /// False, and the connection is not used, if it does not take what is subscribed, and after
  /// end().
  bool use(KXNatsConnection const& connection);
  /// As KXBus::subscribe(). On a connection that is closed it succeeds too: the next one is to
  /// come. Otherwise null, and `status` is the library's. `retired` and the line outlive what is
  /// subscribed.
  std::unique_ptr<KXBusSubscription> subscribe(KXBusRetired& retired, std::string const& subject,
                                               std::string const& queue, int threads,
                                               KXBus::Handler handler, int& status);
  KXNatsConnection end();

  // For what is subscribed:
  int add(KXNatsSubscribed& subscribed);
  void remove(KXNatsSubscribed& subscribed);

 private:
  mutable std::mutex mMutex;
  KXNatsConnection mConnection;               // guarded by mMutex
  std::set<KXNatsSubscribed*> mSubscribed{};  // guarded by mMutex
  bool mHasEnded = false;                     // guarded by mMutex
};

}  // namespace KX
