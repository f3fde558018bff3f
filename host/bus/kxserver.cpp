#include <host/bus/kxserver.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxcallee.hpp>
#include <host/bus/kxrandomid.hpp>
#include <host/bus/kxresponder.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>

namespace KX {
namespace {

using std::chrono::milliseconds;

constexpr char const* kQueue = "q";
constexpr std::chrono::seconds kPatience{5};
constexpr std::int64_t kLongestTickMs = 5000;

// A call that asks for no reply may come, one that asks for it elsewhere may not.
bool mayReplyTo(std::string_view subject) {
  return subject.empty() || isInbox(subject);
}

struct Running {
  std::string name;
};

// One subscription, or two, and the calls that came by them. Guarded by the server's mutex.
struct Service {
  explicit Service(KXResponder& itsResponder) : responder(itsResponder) {}

  KXResponder& responder;
  std::set<Running const*> running{};
  bool isEnding = false;
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions{};
};

// Whose call this thread runs.
thread_local Service const* tService = nullptr;

}  // namespace

class KXServer::Impl {
 public:
  Impl(KXBus& bus, boost::shared_ptr<KXBroker> broker, KXSubjects subjects,
       KXServerOptions options);
  ~Impl();

  void serve(std::string const& module);
  void stopServing(std::string const& module);
  void serveBroker(std::string const& user, std::string const& nonce);
  void refuse();

  std::vector<std::string> served() const;
  std::vector<KXMethodStatistics> statistics(std::string const& module) const;
  KXReplyKeeper::Counts counts() const;

  std::string const instance{makeRandomId()};

 private:
  std::shared_ptr<Service> xService(std::string const& module);
  void xSubscribe(std::shared_ptr<Service> const& service, std::string const& subject,
                  std::string const& queue);
  void xEnd(std::shared_ptr<Service> const& service);
  void xReceive(std::shared_ptr<Service> service, KXBusMessage const& message);
  std::vector<KXResponder*> xResponders() const;
  void xTick();

  KXBus& mBus;
  KXSubjects const mSubjects;
  KXServerOptions const mOptions;
  KXCallee mCallee;
  KXStatisticsTable mStatistics;

  mutable std::mutex mMutex;
  std::condition_variable mHasLeft;
  std::map<std::string, std::shared_ptr<Service>> mServices;  // guarded by mMutex; by plain name
  std::vector<std::shared_ptr<Service>> mOfBroker;            // guarded by mMutex

  // By plain name, "" being all modules of the broker. One each, so that those who may call one
  // module cannot crowd out the replies of another. They stay, so that no call runs again on a
  // module that is served anew. Guarded by mMutex; what they point to is not.
  std::map<std::string, std::unique_ptr<KXResponder>> mResponders;

  std::mutex mTickMutex;
  std::condition_variable mTickEnd;
  bool mHasEnded = false;  // guarded by mTickMutex
  std::thread mTicker;
};

KXServer::Impl::Impl(KXBus& bus, boost::shared_ptr<KXBroker> broker, KXSubjects subjects,
                     KXServerOptions options)
    : mBus(bus),
      mSubjects(std::move(subjects)),
      mOptions(options),
      mCallee(std::move(broker), instance),
      mTicker([this] { xTick(); }) {}

KXServer::Impl::~Impl() {
  std::vector<std::shared_ptr<Service>> services;
  {
    std::lock_guard const lock(mMutex);
    services.swap(mOfBroker);
    for (auto& [module, service] : mServices) services.push_back(std::move(service));
    mServices.clear();
    for (auto const& service : services) service->isEnding = true;
  }
  for (auto const& service : services) xEnd(service);
  {
    std::lock_guard const lock(mTickMutex);
    mHasEnded = true;
  }
  mTickEnd.notify_all();
  mTicker.join();
}

// The caller holds mMutex.
std::shared_ptr<Service> KXServer::Impl::xService(std::string const& module) {
  std::unique_ptr<KXResponder>& responder = mResponders[module];
  if (!responder) {
    responder = std::make_unique<KXResponder>(mBus, mCallee, mStatistics, instance, mOptions.kept);
  }
  return std::make_shared<Service>(*responder);
}

void KXServer::Impl::serve(std::string const& module) {
  std::shared_ptr<Service> service;
  {
    std::lock_guard const lock(mMutex);
    service = xService(module);
    if (!mServices.emplace(module, service).second) return;
  }
  try {
    xSubscribe(service, mSubjects.callsOf(module), kQueue);
    // The store's methods alone can be called in the name of a user.
    if (module == "KXMemory") xSubscribe(service, mSubjects.callsFromOthersOf(module), kQueue);
  } catch (...) {
    stopServing(module);
    throw;
  }
}

void KXServer::Impl::serveBroker(std::string const& user, std::string const& nonce) {
  std::shared_ptr<Service> service;
  {
    std::lock_guard const lock(mMutex);
    service = xService("");
  }
  xSubscribe(service, mSubjects.callsAt(user, nonce), "");
  std::lock_guard const lock(mMutex);
  mOfBroker.push_back(service);
}

void KXServer::Impl::refuse() {
  std::lock_guard const lock(mMutex);
  for (auto const& service : mOfBroker) service->isEnding = true;
  for (auto const& [module, service] : mServices) service->isEnding = true;
}

void KXServer::Impl::xSubscribe(std::shared_ptr<Service> const& service, std::string const& subject,
                                std::string const& queue) {
  auto subscription =
      mBus.subscribe(subject, queue, mOptions.threads,
                     [this, service](KXBusMessage const& message) { xReceive(service, message); });
  {
    std::lock_guard const lock(mMutex);
    if (!service->isEnding) return service->subscriptions.push_back(std::move(subscription));
  }
  // Ended meanwhile, and with what it had until then.
  subscription.reset();
}

void KXServer::Impl::stopServing(std::string const& module) {
  std::shared_ptr<Service> service;
  {
    std::lock_guard const lock(mMutex);
    auto const found = mServices.find(module);
    if (found == mServices.end()) return;
    service = std::move(found->second);
    mServices.erase(found);
    service->isEnding = true;
  }
  xEnd(service);
}

// Takes no more requests, and waits for the calls in progress. They use the broker and its modules,
// so there is no moment from which on they need not be waited for.
void KXServer::Impl::xEnd(std::shared_ptr<Service> const& service) {
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions;
  {
    std::lock_guard const lock(mMutex);
    subscriptions.swap(service->subscriptions);
  }
  bool const isOwn = tService == service.get();
  // At once, so that requests go to whoever else has the name. That ends when the calls do: on a
  // thread of its own, because somebody may have to be told what is waited for.
  std::jthread unsubscribing;
  if (isOwn) {
    subscriptions.clear();
  } else {
    unsubscribing = std::jthread([&subscriptions] { subscriptions.clear(); });
  }
  {
    std::unique_lock lock(mMutex);
    auto const isQuiet = [&] {
      return service->running.size() <= (isOwn ? 1U : 0U);
    };
    while (!mHasLeft.wait_for(lock, kPatience, isQuiet)) {
      std::string names;
      for (Running const* const running : service->running) {
        names += (names.empty() ? "'" : ", '") + running->name + "'";
      }
      lock.unlock();
      ka::log::LogStream(ka::log::Warning, "KXBus", "", "serve", 0)
          << "the end of a server waits for calls in progress: " << names;
      lock.lock();
    }
  }
}

// The service by value: it may be ended by the very call.
void KXServer::Impl::xReceive(std::shared_ptr<Service> service, KXBusMessage const& message) {
  auto const call = mSubjects.parseCall(message.subject);
  if (!call || !mayReplyTo(message.reply)) return;
  Running const running{call->to.module + "." + call->method};
  bool isEnding = false;
  {
    std::lock_guard const lock(mMutex);
    isEnding = service->isEnding;
    if (!isEnding) service->running.insert(&running);
  }
  if (isEnding) return service->responder.turnAway(*call, message);
  struct Leave {
    Impl& impl;
    Service& service;
    Running const& running;
    Service const* const outer = std::exchange(tService, &service);
    ~Leave() {
      tService = outer;
      std::lock_guard const lock(impl.mMutex);
      service.running.erase(&running);
      impl.mHasLeft.notify_all();
    }
  } const leave{*this, *service, running};
  service->responder.answer(*call, message);
}

std::vector<KXResponder*> KXServer::Impl::xResponders() const {
  std::lock_guard const lock(mMutex);
  std::vector<KXResponder*> all;
  for (auto const& [module, responder] : mResponders) all.push_back(responder.get());
  return all;
}

// A server that nobody calls any more forgets all the same.
void KXServer::Impl::xTick() {
  milliseconds const tick(std::clamp<std::int64_t>(mOptions.kept.keepMs / 4, 10, kLongestTickMs));
  std::unique_lock lock(mTickMutex);
  while (!mTickEnd.wait_for(lock, tick, [this] { return mHasEnded; })) {
    lock.unlock();
    for (KXResponder* const responder : xResponders()) {
      ka::log::runLogged("KXBus", "serve", "forgetting old replies failed",
                         [&] { responder->expire(); });
    }
    lock.lock();
  }
}

std::vector<std::string> KXServer::Impl::served() const {
  std::lock_guard const lock(mMutex);
  std::vector<std::string> names;
  for (auto const& [module, service] : mServices) names.push_back(module);
  return names;
}

std::vector<KXMethodStatistics> KXServer::Impl::statistics(std::string const& module) const {
  return mStatistics.of(module);
}

KXReplyKeeper::Counts KXServer::Impl::counts() const {
  KXReplyKeeper::Counts sum;
  for (KXResponder const* const responder : xResponders()) sum += responder->counts();
  return sum;
}

// ---- the class itself

KXServer::KXServer(KXBus& bus, boost::shared_ptr<KXBroker> broker, KXSubjects subjects,
                   KXServerOptions options)
    : mImpl(new Impl(bus, std::move(broker), std::move(subjects), options)) {}

KXServer::~KXServer() = default;

void KXServer::serve(std::string const& module) {
  mImpl->serve(module);
}

void KXServer::stopServing(std::string const& module) {
  mImpl->stopServing(module);
}

void KXServer::serveBroker(std::string const& user, std::string const& nonce) {
  mImpl->serveBroker(user, nonce);
}

void KXServer::refuse() {
  mImpl->refuse();
}

std::string const& KXServer::instance() const noexcept {
  return mImpl->instance;
}

std::vector<std::string> KXServer::served() const {
  return mImpl->served();
}

std::vector<KXMethodStatistics> KXServer::statistics(std::string const& module) const {
  return mImpl->statistics(module);
}

KXReplyKeeper::Counts KXServer::counts() const {
  return mImpl->counts();
}

}  // namespace KX
