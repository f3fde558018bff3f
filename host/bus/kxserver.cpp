#include <host/bus/kxserver.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <thread>
#include <utility>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxcallee.hpp>
#include <host/bus/kxpartcollector.hpp>
#include <host/bus/kxrandomid.hpp>
#include <host/bus/kxwire.hpp>
#include <ka/log.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = KXError::Kind;
using Verdict = KXReplyKeeper::Verdict;
using std::chrono::milliseconds;

constexpr char const* kQueue = "q";
constexpr std::size_t kLargestPart = 512U * 1024;
// For the headers and the subject of a message.
constexpr std::size_t kEnvelopeBytes = 4096;
constexpr std::chrono::seconds kPatience{5};
constexpr std::int64_t kLongestTickMs = 5000;
// Of one module: names come from whoever calls.
constexpr std::size_t kMaxCountedMethods = 256;

std::int64_t nowMs() {
  return std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
}

ka::os::timeval wallTime() {
  ka::os::timeval time;
  ka::os::gettimeofday(&time);
  return time;
}

KXError errorOf(std::string const& text, Kind kind) {
  return KXError("KXBus", "serve", text, "bus/kxserver", 0, kind);
}

std::string nameOf(KXSubjects::Call const& call) {
  return call.to.module + "." + call.method;
}

// No such module, no such method: nothing is remembered of names that nobody has.
bool isOfNobody(KXError const& error) {
  std::string const& module = error.getModuleName();
  return error.getKind() == Kind::NotFound &&
         (module == "KXBus" || module == "KXModuleCore" || module == "KXProxy");
}

std::string encodeSound(KXSubjects::Call const& call, KXValue const& result) {
  try {
    return encodeResult(result);
  } catch (KXError const& error) {
    throw errorOf("the result of '" + nameOf(call) + "' cannot be sent: " + error.what(),
                  Kind::Failed);
  }
}

// A call that asks for no reply may come, one that asks for it elsewhere may not.
bool mayReplyTo(std::string_view subject) {
  return subject.empty() || isInbox(subject);
}

std::shared_ptr<KXReply> replyOf(KXError const& error) {
  auto reply = std::make_shared<KXReply>();
  reply->headers = errorHeaders(error);
  reply->payload = encodeError(error);
  return reply;
}

struct Running {
  std::string name;
};

// One subscription, or two, and the calls that came by them. Guarded by the server's mutex.
struct Service {
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
  ka::os::timeval const started{wallTime()};

 private:
  void xSubscribe(std::shared_ptr<Service> const& service, std::string const& subject,
                  std::string const& queue);
  void xEnd(std::shared_ptr<Service> const& service);
  void xReceive(std::shared_ptr<Service> service, KXBusMessage const& message);
  void xAnswer(KXSubjects::Call const& call, KXBusMessage const& message);
  void xAnswerOnce(KXSubjects::Call const& call, KXCallId const& id, KXBusMessage const& message);
  std::shared_ptr<KXReply> xRun(KXSubjects::Call const& call, KXBusMessage const& message,
                                std::string_view caller);
  std::shared_ptr<KXReply> xFit(KXSubjects::Call const& call, std::shared_ptr<KXReply> reply,
                                bool mayHaveParts) const;
  void xCount(KXSubjects::Call const& call, Clock::duration duration, KXError const* error);
  void xSend(KXSubjects::Call const& call, std::string_view subject, KXReply const& reply,
             std::uint32_t fromPart) const;
  template <class Step>
  auto xWithKeeper(Step step);
  void xTick();

  KXBus& mBus;
  KXSubjects const mSubjects;
  KXServerOptions const mOptions;
  KXCallee mCallee;

  mutable std::mutex mMutex;
  std::condition_variable mHasLeft;
  std::map<std::string, std::shared_ptr<Service>> mServices;  // guarded by mMutex; by plain name
  std::vector<std::shared_ptr<Service>> mOfBroker;            // guarded by mMutex

  mutable std::mutex mKeeperMutex;
  KXReplyKeeper mKeeper;  // guarded by mKeeperMutex

  mutable std::mutex mStatisticsMutex;
  // Guarded by mStatisticsMutex, by module and method:
  std::map<std::string, std::map<std::string, KXMethodStatistics>> mStatistics;

  std::mutex mTickMutex;
  std::condition_variable mTickEnd;
  bool mHasEnded = false;  // guarded by mTickMutex
  std::thread mTicker;
};

// Logs what the keeper gives up meanwhile.
template <class Step>
auto KXServer::Impl::xWithKeeper(Step step) {
  std::vector<KXReplyKeeper::Thrown> thrown;
  auto const result = [&] {
    std::lock_guard const lock(mKeeperMutex);
    return step(thrown);
  }();
  for (auto const& reply : thrown) {
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "serve", 0)
        << "a reply of '" << reply.method << "', " << reply.bytes
        << " bytes, was given up, and its caller has not confirmed it: "
        << (reply.isForRoom ? "there is no more room" : "nobody came for it in time");
  }
  return result;
}

KXServer::Impl::Impl(KXBus& bus, boost::shared_ptr<KXBroker> broker, KXSubjects subjects,
                     KXServerOptions options)
    : mBus(bus),
      mSubjects(std::move(subjects)),
      mOptions(options),
      mCallee(std::move(broker), instance),
      mKeeper(instance, options.kept),
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

void KXServer::Impl::serve(std::string const& module) {
  auto const service = std::make_shared<Service>();
  {
    std::lock_guard const lock(mMutex);
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
  auto const service = std::make_shared<Service>();
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
  std::lock_guard const lock(mMutex);
  service->subscriptions.push_back(std::move(subscription));
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

// Waits for the calls in progress. They use the broker and its modules, so there is no moment from
// which on they need not be waited for.
void KXServer::Impl::xEnd(std::shared_ptr<Service> const& service) {
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions;
  {
    std::unique_lock lock(mMutex);
    std::size_t const ownCount = tService == service.get() ? 1 : 0;
    auto const isQuiet = [&] {
      return service->running.size() <= ownCount;
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
    subscriptions.swap(service->subscriptions);
  }
  subscriptions.clear();
}

// The service by value: it may be ended by the very call.
void KXServer::Impl::xReceive(std::shared_ptr<Service> service, KXBusMessage const& message) {
  auto const call = mSubjects.parseCall(message.subject);
  if (!call || !mayReplyTo(message.reply)) return;
  Running const running{nameOf(*call)};
  bool isEnding = false;
  {
    std::lock_guard const lock(mMutex);
    isEnding = service->isEnding;
    if (!isEnding) service->running.insert(&running);
  }
  if (isEnding) {
    // Whoever asks again has to find out for himself what became of his call.
    if (!message.header(kAgainHeader).empty() || !message.header(kDoneHeader).empty()) return;
    auto const reply =
        replyOf(errorOf("module '" + call->to.module + "' is not served any more", Kind::NotFound));
    return xSend(*call, message.reply, *reply, 0);
  }
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
  xAnswer(*call, message);
}

void KXServer::Impl::xAnswer(KXSubjects::Call const& call, KXBusMessage const& message) {
  std::string_view const idText = message.header(kCallHeader);
  if (idText.empty()) {
    auto const reply = xFit(call, xRun(call, message, ""), false);
    return xSend(call, message.reply, *reply, 0);
  }
  auto const id = parseCallId(idText);
  if (!id) {
    auto const reply =
        replyOf(errorOf("expected CALLER.NUMBER.DONE as header " + std::string(kCallHeader) +
                            ", got '" + std::string(idText.substr(0, 64)) + "'",
                        Kind::Failed));
    return xSend(call, message.reply, *reply, 0);
  }
  if (message.header(kDoneHeader).empty()) return xAnswerOnce(call, *id, message);
  xWithKeeper([&](std::vector<KXReplyKeeper::Thrown>& thrown) {
    mKeeper.acknowledge(id->caller, id->number, nowMs(), thrown);
    return true;
  });
}

void KXServer::Impl::xAnswerOnce(KXSubjects::Call const& call, KXCallId const& id,
                                 KXBusMessage const& message) {
  std::string const name = nameOf(call);
  std::string_view const againText = message.header(kAgainHeader);
  std::optional<KXCallAgain> again;
  // One that cannot be read is from nobody that this server ever answered.
  if (!againText.empty()) again = parseCallAgain(againText).value_or(KXCallAgain());
  auto const admission = xWithKeeper([&](std::vector<KXReplyKeeper::Thrown>& thrown) {
    return mKeeper.admit(id, again, message.reply, name, nowMs(), thrown);
  });
  std::shared_ptr<KXReply> reply;
  switch (admission.verdict) {
    case Verdict::Ignore:
      return;
    case Verdict::Resend:
      return xSend(call, message.reply, *admission.reply, again ? again->fromPart : 0);
    case Verdict::Run: {
      reply = xFit(call, xRun(call, message, id.caller), true);
      if (admission.isNewCaller) reply->headers.emplace_back(kInstanceHeader, instance);
      xWithKeeper([&](std::vector<KXReplyKeeper::Thrown>& thrown) {
        return mKeeper.finish(id, reply, nowMs(), thrown);
      });
      return xSend(call, message.reply, *reply, 0);
    }
    case Verdict::Forgotten:
      reply = replyOf(
          errorOf("the reply of '" + name + "' is gone; the call may have run", Kind::Failed));
      break;
    case Verdict::Restarted:
      reply = replyOf(errorOf("module '" + call.to.module + "' was started anew while '" + name +
                                  "' was called; the call may have run",
                              Kind::Failed));
      break;
    case Verdict::Refused:
      reply = replyOf(errorOf("the call of '" + name + "' is somebody else's", Kind::Refused));
      break;
  }
  reply->headers.emplace_back(kInstanceHeader, instance);
  xSend(call, message.reply, *reply, 0);
}

std::shared_ptr<KXReply> KXServer::Impl::xRun(KXSubjects::Call const& call,
                                              KXBusMessage const& message,
                                              std::string_view caller) {
  auto const startedAt = Clock::now();
  std::optional<KXError> error;
  auto reply = std::make_shared<KXReply>();
  try {
    bool const isTask = message.header(kTaskHeader) == "1";
    reply->payload = encodeSound(call, mCallee.run(call, caller, message.payload, isTask));
  } catch (KXError const& thrown) {
    error = thrown;
  } catch (...) {
    // The caller is in another process: this is the only way in which it can learn of it.
    error.emplace(call.to.module, call.method, describeCurrentException(), "", 0);
  }
  if (error) reply = replyOf(*error);
  xCount(call, Clock::now() - startedAt, error ? &*error : nullptr);
  return reply;
}

// Cuts it into parts if it is too long for one message.
std::shared_ptr<KXReply> KXServer::Impl::xFit(KXSubjects::Call const& call,
                                              std::shared_ptr<KXReply> reply,
                                              bool mayHaveParts) const {
  std::size_t const most = mBus.maxPayload();
  std::size_t const limit = most > 2 * kEnvelopeBytes ? most - kEnvelopeBytes : most / 2;
  std::size_t const size = reply->payload.size();
  if (size <= limit) return reply;
  if (mayHaveParts && size <= KXPartCollector::kMaxBytes) {
    reply->partBytes = std::min(limit, kLargestPart);
    return reply;
  }
  std::size_t const allowed = mayHaveParts ? KXPartCollector::kMaxBytes : limit;
  return replyOf(errorOf("the reply of '" + nameOf(call) + "' takes " + std::to_string(size) +
                             " bytes, at most " + std::to_string(allowed) +
                             " can be sent to this caller",
                         Kind::Failed));
}

void KXServer::Impl::xCount(KXSubjects::Call const& call, Clock::duration duration,
                            KXError const* error) {
  if (call.method.starts_with('@')) return;
  if (error != nullptr && isOfNobody(*error)) return;
  std::lock_guard const lock(mStatisticsMutex);
  auto& ofModule = mStatistics[call.to.module];
  auto found = ofModule.find(call.method);
  if (found == ofModule.end()) {
    if (ofModule.size() >= kMaxCountedMethods) return;
    found = ofModule.emplace(call.method, KXMethodStatistics{.method = call.method}).first;
  }
  KXMethodStatistics& statistics = found->second;
  ++statistics.requests;
  statistics.processingNs += static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
  if (error == nullptr) return;
  ++statistics.errors;
  statistics.lastError = error->what();
}

// A window of it, from a part on.
void KXServer::Impl::xSend(KXSubjects::Call const& call, std::string_view subject,
                           KXReply const& reply, std::uint32_t fromPart) const {
  if (subject.empty()) return;
  std::uint32_t const count = reply.partCount();
  try {
    if (count == 1) {
      mBus.publish({.subject = subject, .headers = reply.headers, .payload = reply.payload});
      return;
    }
    std::uint32_t const end =
        std::min(count - std::min(fromPart, count), kPartsInWindow) + fromPart;
    for (std::uint32_t index = fromPart; index < end; ++index) {
      KXBusMessage part{.subject = subject, .headers = reply.headers};
      part.headers.emplace_back(kPartHeader, formatPart({index, count}));
      part.payload =
          std::string_view(reply.payload).substr(index * reply.partBytes, reply.partBytes);
      mBus.publish(part);
    }
  } catch (KXError const& error) {
    // Who is cut off asks again when he is back.
    if (error.getKind() != Kind::Failed) return;
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "serve", 0)
        << "the reply of '" << nameOf(call) << "' cannot be sent: " << error.what();
  }
}

// A server that nobody calls any more forgets all the same.
void KXServer::Impl::xTick() {
  milliseconds const tick(std::clamp<std::int64_t>(mOptions.kept.keepMs / 4, 10, kLongestTickMs));
  std::unique_lock lock(mTickMutex);
  while (!mTickEnd.wait_for(lock, tick, [this] { return mHasEnded; })) {
    lock.unlock();
    xWithKeeper([this](std::vector<KXReplyKeeper::Thrown>& thrown) {
      mKeeper.expire(nowMs(), thrown);
      return true;
    });
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
  std::lock_guard const lock(mStatisticsMutex);
  std::vector<KXMethodStatistics> all;
  auto const found = mStatistics.find(module);
  if (found == mStatistics.end()) return all;
  for (auto const& [method, statistics] : found->second) all.push_back(statistics);
  return all;
}

KXReplyKeeper::Counts KXServer::Impl::counts() const {
  std::lock_guard const lock(mKeeperMutex);
  return mKeeper.counts();
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

ka::os::timeval KXServer::started() const noexcept {
  return mImpl->started;
}

KXReplyKeeper::Counts KXServer::counts() const {
  return mImpl->counts();
}

}  // namespace KX
