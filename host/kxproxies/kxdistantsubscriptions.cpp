#include <host/kxproxies/kxdistantsubscriptions.hpp>

#include <utility>

#include <ka/runlogged.hpp>
#include <kxcommon/kxtask.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// Whoever ends a subscription may hold a lock, and loses nothing if the store does not answer: what
// it still sends, nobody wants.
constexpr int kEndingMs = 1000;

// On a thread of the broker: the one that tells of the return must not wait for calls.
class RenewalTask : public KXTask {
 public:
  explicit RenewalTask(std::function<void()> renew)
      : KXTask(KXTaskInfo("KXMemoryProxy", "renewSubscriptions")), mRenew(std::move(renew)) {}
  void run() override { mRenew(); }

 private:
  std::function<void()> const mRenew;
};

}  // namespace

KXDistantSubscriptions::Name KXDistantSubscriptions::xName(std::string const& method,
                                                           KXValue const& arguments) {
  return {method.ends_with("MicroEvent"), arguments[0].toString(), arguments[1].toString()};
}

void KXDistantSubscriptions::subscribe(KXProxy& store, std::string const& method,
                                       KXValue const& arguments) {
  store.genericCall(method, arguments);
  std::lock_guard const lock(mMutex);
  mSubscriptions.insert_or_assign(xName(method, arguments), Subscription{method, arguments});
  if (!mReturns) xObserve();
}

void KXDistantSubscriptions::unsubscribe(KXProxy& store, std::string const& method,
                                         KXValue const& arguments) {
  {
    // Before the call: whether it fails or not, nobody wants this subscription any more.
    std::lock_guard const lock(mMutex);
    mSubscriptions.erase(xName(method, arguments));
  }
  store.genericCall(method, arguments, kEndingMs);
}

// mMutex is held.
void KXDistantSubscriptions::xObserve() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  boost::shared_ptr<KXTransport> const transport = broker ? broker->getTransport() : nullptr;
  if (!transport) return;
  mReturns = transport->observeReturns("KXMemory", [weak = weak_from_this()] {
    if (auto const self = weak.lock()) self->xStartRenewal();
  });
}

void KXDistantSubscriptions::xStartRenewal() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  if (!broker) return;
  auto const failure = [] {
    return "cannot renew the subscriptions";
  };
  ka::log::runLogged("KXMemoryProxy", "renewSubscriptions", failure, [&] {
    broker->addTask("renew subscriptions",
                    boost::shared_ptr<KXTask>(new RenewalTask([weak = weak_from_this()] {
                      if (auto const self = weak.lock()) self->xRenew();
                    })));
  });
}

void KXDistantSubscriptions::xRenew() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  if (!broker) return;
  std::map<Name, Subscription> subscriptions;
  {
    std::lock_guard const lock(mMutex);
    subscriptions = mSubscriptions;
  }
  auto const failure = [] {
    return "renewing the subscriptions at the store failed";
  };
  ka::log::runLogged("KXMemoryProxy", "renewSubscriptions", failure, [&] {
    boost::shared_ptr<KXProxy> const store = broker->getProxy("KXMemory", 0);
    for (auto const& [name, subscription] : subscriptions) {
      {
        // One that was ended meanwhile stays ended.
        std::lock_guard const lock(mMutex);
        if (!mSubscriptions.contains(name)) continue;
      }
      store->genericCall(subscription.method, subscription.arguments);
    }
  });
}

}  // namespace KX
