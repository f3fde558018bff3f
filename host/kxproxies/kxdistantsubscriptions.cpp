#include <host/kxproxies/kxdistantsubscriptions.hpp>

#include <utility>

#include <ka/log.hpp>
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
  std::lock_guard const lock(mMutex);
  // Before the call: a store that goes behind it has come back before anybody would look.
  if (!mReturns) xObserve();
  store.genericCall(method, arguments);
  mSubscriptions.insert_or_assign(xName(method, arguments), Subscription{method, arguments});
}

void KXDistantSubscriptions::unsubscribe(KXProxy& store, std::string const& method,
                                         KXValue const& arguments) {
  std::lock_guard const lock(mMutex);
  // Before the call: whether it fails or not, nobody wants this subscription any more.
  mSubscriptions.erase(xName(method, arguments));
  store.genericCall(method, arguments, kEndingMs);
}

// mMutex is held.
void KXDistantSubscriptions::xObserve() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  boost::shared_ptr<KXTransport> const transport = broker ? broker->getTransport() : nullptr;
  if (!transport) return;
  mReturns = transport->observeReturns("KXMemory", [weak = weak_from_this()] {
    auto const self = weak.lock();
    return !self || self->xStartRenewal();
  });
}

// False if it cannot be started now.
bool KXDistantSubscriptions::xStartRenewal() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  // One that has not begun sees to this return as well.
  if (!broker || mIsRenewalDue.exchange(true)) return true;
  bool const isStarted = ka::log::runLogged(
      "KXMemoryProxy", "renewSubscriptions", "cannot renew the subscriptions", [&] {
        broker->addTask("renew subscriptions",
                        boost::shared_ptr<KXTask>(new RenewalTask([weak = weak_from_this()] {
                          if (auto const self = weak.lock()) self->xRenew();
                        })));
      });
  if (!isStarted) mIsRenewalDue = false;
  return isStarted;
}

void KXDistantSubscriptions::xRenew() {
  // One at a time: a return during one is served by one more, however many they are.
  std::lock_guard const renewalLock(mRenewalMutex);
  mIsRenewalDue = false;
  try {
    xRenewAll();
    mIsInTrouble = false;
  } catch (...) {
    xRenewLater();
  }
}

// One that hangs has not come back yet. When it has, it is heard of, as is one that is not there:
// whoever begins to observe is told of the first sign.
void KXDistantSubscriptions::xRenewLater() {
  {
    std::lock_guard const lock(mMutex);
    xObserve();
  }
  if (mIsInTrouble.exchange(true)) return;
  ka::log::LogStream(ka::log::Warning, "KXMemoryProxy", "", "renewSubscriptions", 0)
      << "renewing the subscriptions at the store failed, it is tried again when the store is "
         "heard of: "
      << describeCurrentException();
}

void KXDistantSubscriptions::xRenewAll() {
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  if (!broker) return;
  std::map<Name, Subscription> subscriptions;
  {
    std::lock_guard const lock(mMutex);
    subscriptions = mSubscriptions;
  }
  boost::shared_ptr<KXProxy> const store = broker->getProxy("KXMemory", 0);
  for (auto const& [name, subscription] : subscriptions) {
    std::lock_guard const lock(mMutex);
    // One that was ended meanwhile stays ended.
    if (!mSubscriptions.contains(name)) continue;
    try {
      store->genericCall(subscription.method, subscription.arguments);
    } catch (KXError const& error) {
      // The others are not to suffer for one that the store does not want.
      if (error.getKind() != KXError::Kind::Refused && error.getKind() != KXError::Kind::Failed) {
        throw;
      }
      ka::log::LogStream(ka::log::Warning, "KXMemoryProxy", "", "renewSubscriptions", 0)
          << "the subscription to key '" << std::get<1>(name)
          << "' was not renewed: " << messageOf(error);
    }
  }
}

}  // namespace KX
