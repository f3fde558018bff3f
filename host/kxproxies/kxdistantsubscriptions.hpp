// The subscriptions at a store in another process, which forgets them when it is started anew.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Makes and ends subscriptions, and makes all of them again each time when the store has come
/// back: if it does not answer, when it is heard of next. Ownership: shared by its proxy and the
/// parallel call that renews. Threads: all operations may overlap; each blocks until the store has
/// answered, and has answered those before it: one that ends must not be overtaken by its own
/// renewal.
class KXDistantSubscriptions : public std::enable_shared_from_this<KXDistantSubscriptions> {
 public:
  explicit KXDistantSubscriptions(boost::shared_ptr<KXBroker> const& broker) : mBroker(broker) {}

  /// `arguments` are those of the store's method: [key, MODULE@BROKER, ...].
  void subscribe(KXProxy& store, std::string const& method, KXValue const& arguments);
  /// `method` is the one that ends it.
  void unsubscribe(KXProxy& store, std::string const& method, KXValue const& arguments);

 private:
  /// Is it a micro-event's, key, module.
  using Name = std::tuple<bool, std::string, std::string>;
  struct Subscription {
    std::string method;
    KXValue arguments;
  };

  static Name xName(std::string const& method, KXValue const& arguments);
  void xObserve();
  bool xStartRenewal();
  void xRenew();
  void xRenewAll();
  void xRenewLater();

  boost::weak_ptr<KXBroker> const mBroker;
  std::atomic<bool> mIsRenewalDue{false};
  std::atomic<bool> mIsInTrouble{false};        ///< a line of the log said so
  std::mutex mRenewalMutex;                     ///< taken before mMutex
  std::mutex mMutex;                            // held while the store is called
  std::map<Name, Subscription> mSubscriptions;  // guarded by mMutex
  std::shared_ptr<void> mReturns;               // guarded by mMutex
};

}  // namespace KX
