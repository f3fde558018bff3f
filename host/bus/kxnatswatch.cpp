#include <host/bus/kxnatswatch.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include <nats/nats.h>

#include <host/bus/kxbusrules.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>

namespace KX {
namespace {

/// A server that does not answer for so long after a connection is lost again: pings say so before.
constexpr std::int64_t kBackTimeoutMs = 10'000;
/// Between attempts to connect anew, where the library itself has given up.
constexpr std::chrono::milliseconds kConnectPause{1000};

/// Of lines about answers that are forbidden: who asks may choose where the answer goes.
constexpr std::size_t kMaxForbidden = 100;
/// How often ended subscriptions are looked after.
constexpr std::chrono::seconds kFreePause{5};

/// `Permissions Violation for Publish to "SUBJECT"`, or `... for Subscription to "SUBJECT" ...`.
std::optional<KXBusEvent> parseRefusal(std::string const& text) {
  if (text.find("Permissions Violation") == std::string::npos) return std::nullopt;
  KXBusEvent event{KXBusEvent::Kind::Refused};
  event.text = text;
  event.isPublishing = text.find("for Subscription") == std::string::npos;
  auto const begin = text.find('"');
  if (begin == std::string::npos) return event;
  auto const end = text.find('"', begin + 1);
  event.subject = text.substr(begin + 1, end == std::string::npos ? end : end - begin - 1);
  event.isSubjectCut = end == std::string::npos && !event.subject.empty();
  return event;
}

/// The library calls back even after a connection was destroyed, so it is given a number and not
/// an address.
class Watches {
 public:
  static Watches& instance() {
    static auto& watches = *new Watches;  // On purpose never destroyed: the library has no end.
    return watches;
  }
  /// Known as long as it lives.
  void* add(std::shared_ptr<KXNatsWatch> const& watch) {
    std::lock_guard const lock(mMutex);
    std::erase_if(mWatches, [](auto const& entry) { return entry.second.expired(); });
    mWatches[++mLast] = watch;
    return reinterpret_cast<void*>(mLast);  // NOLINT(performance-no-int-to-ptr): a number
  }
  std::shared_ptr<KXNatsWatch> find(void* closure) {
    std::lock_guard const lock(mMutex);
    auto const found = mWatches.find(reinterpret_cast<std::uintptr_t>(closure));
    return found == mWatches.end() ? nullptr : found->second.lock();
  }

 private:
  std::mutex mMutex;
  std::uintptr_t mLast = 0;                                       // guarded by mMutex
  std::map<std::uintptr_t, std::weak_ptr<KXNatsWatch>> mWatches;  // guarded by mMutex
};

/// Nothing may leave a callback: it would end the process.
template <class Step>
void withWatch(void* closure, Step&& step) noexcept {
  ka::log::runLogged("KXBus", "watch", "the watch of a connection failed", [&] {
    if (auto const watch = Watches::instance().find(closure)) step(*watch);
  });
}

void onLost(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](KXNatsWatch& watch) { watch.lost(); });
}
void onBack(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](KXNatsWatch& watch) { watch.back(); });
}
void onClosed(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](KXNatsWatch& watch) { watch.closed(); });
}
void onError(natsConnection* connection, natsSubscription* subscription, natsStatus status,
             void* closure) {
  withWatch(closure, [&](KXNatsWatch& watch) {
    natsStatus last = NATS_OK;
    char const* text = nats_GetLastError(&last);  // of this very error, if the library says so
    if (last != status || text == nullptr || *text == '\0')
      natsConnection_GetLastError(connection, &text);
    watch.failed(subscription, status, text == nullptr ? "" : text);
  });
}

}  // namespace

KXNatsWatch::KXNatsWatch(std::string address, std::string user)
    : mAddress(std::move(address)), mUser(std::move(user)) {}

KXNatsWatch::~KXNatsWatch() {
  join();
}

void KXNatsWatch::listen(std::shared_ptr<KXNatsWatch> const& watch, natsOptions* options) {
  void* const closure = Watches::instance().add(watch);
  natsOptions_SetDisconnectedCB(options, onLost, closure);
  natsOptions_SetReconnectedCB(options, onBack, closure);
  natsOptions_SetClosedCB(options, onClosed, closure);
  natsOptions_SetErrorHandler(options, onError, closure);
}

void KXNatsWatch::start(KXNatsConnection const& connection,
                        std::function<KXNatsConnection()> connect) {
  mConnect = std::move(connect);
  xUse(connection);
  mThread = std::thread([this] { xRun(); });
}

void KXNatsWatch::close() {
  std::lock_guard const lock(mMutex);
  mIsClosing = true;
  mChanged.notify_all();
}

void KXNatsWatch::join() {
  if (mThread.joinable()) mThread.join();
}

void KXNatsWatch::lost() {
  mIsConnected = false;
  xPut({KXBusEvent::Kind::Lost});
}

void KXNatsWatch::back() {
  mIsConnected = true;
  xPut({KXBusEvent::Kind::Back});
}

void KXNatsWatch::failed(natsSubscription* subscription, int status, std::string const& text) {
  if (status == NATS_SLOW_CONSUMER) {
    char const* const subject = natsSubscription_GetSubject(subscription);
    xPut({.kind = KXBusEvent::Kind::Dropped,
          .subject = subject == nullptr ? "" : subject,
          .isPublishing = false,
          .text = "more than 256 MB were waiting"});
  } else if (auto refusal = parseRefusal(text)) {
    xPut(std::move(*refusal));
  } else {
    xLogTrouble(text);
  }
}

void KXNatsWatch::closed() {
  std::lock_guard const lock(mMutex);
  mIsClosed = true;
  mChanged.notify_all();
}

void KXNatsWatch::xPut(KXBusEvent event) {
  std::lock_guard const lock(mMutex);
  mEvents.emplace_back(std::move(event), Clock::now());
  mChanged.notify_all();
}

void KXNatsWatch::xLogTrouble(std::string const& text) {
  {
    std::lock_guard const lock(mMutex);
    if (mIsClosing || text == mLastTrouble) return;
    mLastTrouble = text;
  }
  ka::log::LogStream(ka::log::Warning, "KXBus", "", "failed", 0)
      << "trouble with the bus at '" << mAddress << "': " << text;
}

void KXNatsWatch::xUse(KXNatsConnection const& connection) {
  mConnection = connection;
  xLearnMaxPayload();
  // Once more if it is lost, or back, meanwhile: this would overwrite what the library said of it.
  natsConnStatus status{};
  do {
    status = natsConnection_Status(connection.get());
    mIsConnected = status == NATS_CONN_STATUS_CONNECTED;
  } while (natsConnection_Status(connection.get()) != status);
}

void KXNatsWatch::xLearnMaxPayload() {
  mMaxPayload = static_cast<std::size_t>(natsConnection_GetMaxPayload(mConnection.get()));
}

void KXNatsWatch::xRun() {
  std::unique_lock lock(mMutex);
  while (true) {
    mChanged.wait_for(lock, kFreePause,
                      [this] { return !mEvents.empty() || mIsClosed || mIsClosing; });
    lock.unlock();
    freeEndedSubscriptions(mConnection);
    lock.lock();
    if (mIsClosing) return;
    // What the connection that was closed had to say comes first.
    if (mEvents.empty()) {
      if (!std::exchange(mIsClosed, false)) continue;
      xConnectAnew(lock);
      continue;
    }
    auto const told = std::move(mEvents.front());
    mEvents.pop_front();
    lock.unlock();
    ka::log::runLogged("KXBus", "tell", "an event could not be told",
                       [&] { xTell(told.first, told.second); });
    lock.lock();
  }
}

void KXNatsWatch::xConnectAnew(std::unique_lock<std::mutex>& lock) {
  if (!natsConnection_IsClosed(mConnection.get())) return;
  lock.unlock();
  mIsConnected = false;
  xTell({KXBusEvent::Kind::Lost}, Clock::now());  // unless it is told
  ka::log::LogStream(ka::log::Error, "KXBus", "", "closed", 0)
      << "the bus at '" << mAddress << "' lets this process in no more, trying again";
  lock.lock();
  while (!mIsClosing) {
    lock.unlock();
    KXNatsConnection connection;
    ka::log::runLogged("KXBus", "connect", "connecting anew failed",
                       [&] { connection = mConnect(); });
    if (connection) xUse(connection);
    lock.lock();
    if (connection) {
      mEvents.emplace_back(KXBusEvent{KXBusEvent::Kind::Back}, Clock::now());
      return;
    }
    mChanged.wait_for(lock, kConnectPause, [this] { return mIsClosing; });
  }
}

void KXNatsWatch::xTell(KXBusEvent const& event, Clock::time_point time) {
  if (event.kind == KXBusEvent::Kind::Lost) {
    if (mIsLost) return;
    mIsLost = true;
    mLostAt = time;
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "lost", 0)
        << "lost the bus at '" << mAddress << "', trying again";
    mForbidden.clear();
  } else if (event.kind == KXBusEvent::Kind::Back) {
    // The server has to have the subscriptions. If it is lost again meanwhile, it was not back.
    if (natsConnection_FlushTimeout(mConnection.get(), kBackTimeoutMs) != NATS_OK) return;
    mIsLost = false;
    xLearnMaxPayload();
    auto const lost = std::chrono::duration_cast<std::chrono::milliseconds>(time - mLostAt);
    {
      std::lock_guard const lock(mMutex);
      mLastTrouble.clear();
    }
    // As loud as the loss: whoever has read of that is to learn that it is over.
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "back", 0)
        << "the bus at '" << mAddress << "' is back after " << lost.count() << " ms";
  } else if (event.kind == KXBusEvent::Kind::Refused) {
    xTellForbidden(event);
  }
  mObservers.tell(event);
}

// Who subscribes is not told by the call, and may not look: it would wait for ever. Who answers
// does not wait for anything, and the one that asked sees a time-out. Who calls is told by the
// call.
void KXNatsWatch::xTellForbidden(KXBusEvent const& event) {
  if (event.isPublishing && !isInbox(event.subject)) return;
  // One line for all inboxes of a user.
  std::string const subject =
      event.isPublishing ? event.subject.substr(0, event.subject.find('.')) + ".>" : event.subject;
  if (event.isPublishing && mForbidden.size() >= kMaxForbidden) return;
  if (!mForbidden.insert(subject).second) return;
  ka::log::LogStream(ka::log::Warning, "KXBus", "", event.isPublishing ? "answer" : "subscribe", 0)
      << (mUser.empty() ? "this process" : "user '" + mUser + "'") << " is not allowed to "
      << (event.isPublishing ? "answer" : "listen") << " to '" << subject << "' on the bus at '"
      << mAddress << "'";
}

}  // namespace KX
