#include <host/bus/kxnatsbus.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include <nats/nats.h>

#include <host/bus/kxbushandler.hpp>
#include <host/bus/kxbusobservers.hpp>
#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxbusworkers.hpp>
#include <host/bus/kxnatsoptions.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMaxPendingBytes = 256 * 1024 * 1024;
/// A server that does not answer for so long after a connection is lost again: pings say so before.
constexpr std::int64_t kBackTimeoutMs = 10'000;
/// Between attempts to connect anew, where the library itself has given up.
constexpr std::chrono::milliseconds kConnectPause{150};
/// Of one wait for a message; ending the subscription ends it too.
constexpr std::int64_t kWaitMs = 3'600'000;

template <class Type, void (*destroy)(Type*)>
struct Destroy {
  void operator()(Type* object) const { destroy(object); }
};
using Message = std::unique_ptr<natsMsg, Destroy<natsMsg, natsMsg_Destroy>>;
using NatsSubscription =
    std::unique_ptr<natsSubscription, Destroy<natsSubscription, natsSubscription_Destroy>>;
/// Shared with whoever uses it just now: it may be replaced meanwhile.
using Connection = std::shared_ptr<natsConnection>;

Connection owned(natsConnection* connection) {
  return {connection, Destroy<natsConnection, natsConnection_Destroy>()};
}

// ---------------------------------------------------------------- what befalls a connection

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

/// Tells observers on a thread of its own: the library's callbacks come on one thread for all
/// connections of the process, which nobody may hold up.
class Watch {
 public:
  Watch(std::string address, std::string user)
      : mAddress(std::move(address)), mUser(std::move(user)) {}
  ~Watch() { join(); }

  KXBusObservers& observers() { return mObservers; }
  // The library itself answers these only when it is not about to connect, which takes a second
  // where the server hangs.
  bool isConnected() const { return mIsConnected; }
  std::size_t maxPayload() const { return mMaxPayload; }
  /// `connect` gives a connection in place of one that was closed; null: there is none now.
  void start(Connection const& connection, std::function<Connection()> connect) {
    mConnect = std::move(connect);
    xUse(connection);
    mThread = std::thread([this] { xRun(); });
  }
  /// What the library says from now on is our own doing.
  void close() {
    std::lock_guard const lock(mMutex);
    mIsClosing = true;
    mChanged.notify_all();
  }
  /// After close().
  void join() {
    if (mThread.joinable()) mThread.join();
  }

  // ---- for the library's thread

  void lost() {
    mIsConnected = false;
    xPut({KXBusEvent::Kind::Lost});
  }
  void back() {
    mIsConnected = true;
    xPut({KXBusEvent::Kind::Back});
  }
  void failed(natsSubscription* subscription, natsStatus status, std::string const& text) {
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
  /// The library tries no more: twice the same refusal while it came back.
  void closed() {
    std::lock_guard const lock(mMutex);
    mIsClosed = true;
    mChanged.notify_all();
  }

 private:
  void xPut(KXBusEvent event) {
    std::lock_guard const lock(mMutex);
    mEvents.emplace_back(std::move(event), Clock::now());
    mChanged.notify_all();
  }
  void xLogTrouble(std::string const& text) {
    {
      std::lock_guard const lock(mMutex);
      if (mIsClosing || text == mLastTrouble) return;
      mLastTrouble = text;
    }
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "failed", 0)
        << "trouble with the bus at '" << mAddress << "': " << text;
  }

  void xUse(Connection const& connection) {
    mConnection = connection;
    xLearnMaxPayload();
    mIsConnected = natsConnection_Status(connection.get()) == NATS_CONN_STATUS_CONNECTED;
  }
  void xLearnMaxPayload() {
    mMaxPayload = static_cast<std::size_t>(natsConnection_GetMaxPayload(mConnection.get()));
  }

  void xRun() {
    std::unique_lock lock(mMutex);
    while (true) {
      mChanged.wait(lock, [this] { return !mEvents.empty() || mIsClosed || mIsClosing; });
      if (mIsClosing) return;
      // What the connection that was closed had to say comes first.
      if (mEvents.empty()) {
        mIsClosed = false;
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
  void xConnectAnew(std::unique_lock<std::mutex>& lock) {
    if (!natsConnection_IsClosed(mConnection.get())) return;
    lock.unlock();
    mIsConnected = false;
    xTell({KXBusEvent::Kind::Lost}, Clock::now());  // unless it is told
    ka::log::LogStream(ka::log::Error, "KXBus", "", "closed", 0)
        << "the bus at '" << mAddress << "' lets this process in no more, trying again";
    lock.lock();
    while (!mIsClosing) {
      lock.unlock();
      Connection connection;
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

  void xTell(KXBusEvent const& event, Clock::time_point time) {
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
    } else if (event.kind == KXBusEvent::Kind::Refused && !event.isPublishing) {
      xTellForbidden(event.subject);
    }
    mObservers.tell(event);
  }

  // Who subscribes is not told by the call, and may not look: it would wait for ever.
  void xTellForbidden(std::string const& subject) {
    if (!mForbidden.insert(subject).second) return;
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "subscribe", 0)
        << (mUser.empty() ? "this process" : "user '" + mUser + "'")
        << " is not allowed to listen to '" << subject << "' on the bus at '" << mAddress << "'";
  }

  std::string const mAddress;
  std::string const mUser;
  KXBusObservers mObservers;
  std::atomic<bool> mIsConnected{false};
  std::atomic<std::size_t> mMaxPayload{0};
  std::function<Connection()> mConnect;
  std::thread mThread;
  // Of mThread, once it runs:
  Connection mConnection;
  bool mIsLost = false;
  Clock::time_point mLostAt{};
  std::set<std::string> mForbidden{};  ///< subjects told of since it was lost last

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<std::pair<KXBusEvent, Clock::time_point>> mEvents;  // guarded by mMutex
  bool mIsClosed = false;                                        // guarded by mMutex
  bool mIsClosing = false;                                       // guarded by mMutex
  std::string mLastTrouble{};                                    // guarded by mMutex
};

/// The library calls back even after a connection was destroyed, so it is given a number and not
/// an address.
class Watches {
 public:
  static Watches& instance() {
    static auto& watches = *new Watches;  // On purpose never destroyed: the library has no end.
    return watches;
  }
  /// Known as long as it lives.
  void* add(std::shared_ptr<Watch> const& watch) {
    std::lock_guard const lock(mMutex);
    std::erase_if(mWatches, [](auto const& entry) { return entry.second.expired(); });
    mWatches[++mLast] = watch;
    return reinterpret_cast<void*>(mLast);  // NOLINT(performance-no-int-to-ptr): a number
  }
  std::shared_ptr<Watch> find(void* closure) {
    std::lock_guard const lock(mMutex);
    auto const found = mWatches.find(reinterpret_cast<std::uintptr_t>(closure));
    return found == mWatches.end() ? nullptr : found->second.lock();
  }

 private:
  std::mutex mMutex;
  std::uintptr_t mLast = 0;                                 // guarded by mMutex
  std::map<std::uintptr_t, std::weak_ptr<Watch>> mWatches;  // guarded by mMutex
};

/// Nothing may leave a callback: it would end the process.
template <class Step>
void withWatch(void* closure, Step&& step) noexcept {
  ka::log::runLogged("KXBus", "watch", "the watch of a connection failed", [&] {
    if (auto const watch = Watches::instance().find(closure)) step(*watch);
  });
}

void onLost(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](Watch& watch) { watch.lost(); });
}
void onBack(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](Watch& watch) { watch.back(); });
}
void onClosed(natsConnection* /*connection*/, void* closure) {
  withWatch(closure, [](Watch& watch) { watch.closed(); });
}
void onError(natsConnection* connection, natsSubscription* subscription, natsStatus status,
             void* closure) {
  withWatch(closure, [&](Watch& watch) {
    natsStatus last = NATS_OK;
    char const* text = nats_GetLastError(&last);  // of this very error, if the library says so
    if (last != status || text == nullptr || *text == '\0')
      natsConnection_GetLastError(connection, &text);
    watch.failed(subscription, status, text == nullptr ? "" : text);
  });
}

// ---------------------------------------------------------------- messages

KXBusHeaders headersOf(natsMsg* message) {
  KXBusHeaders headers;
  char const** names = nullptr;
  int count = 0;
  if (natsMsgHeader_Keys(message, &names, &count) != NATS_OK) return headers;
  for (int i = 0; i < count; ++i) {
    char const** values = nullptr;
    int valueCount = 0;
    if (natsMsgHeader_Values(message, names[i], &values, &valueCount) != NATS_OK) continue;
    for (int k = 0; k < valueCount; ++k) headers.emplace_back(names[i], values[k]);
    std::free(static_cast<void*>(values));
  }
  std::free(static_cast<void*>(names));
  return headers;
}

void hand(natsMsg* from, KXBus::Handler const& handler) {
  KXBusMessage message;
  message.subject = natsMsg_GetSubject(from);
  if (char const* const reply = natsMsg_GetReply(from); reply != nullptr) message.reply = reply;
  message.isNoResponders = natsMsg_IsNoResponders(from);
  if (!message.isNoResponders) message.headers = headersOf(from);
  message.payload = {natsMsg_GetData(from), static_cast<std::size_t>(natsMsg_GetDataLength(from))};
  handler(message);
}

/// None if there come no more.
std::optional<Message> waitForMessage(natsSubscription* subscription) {
  while (true) {
    natsMsg* message = nullptr;
    auto const status = natsSubscription_NextMsg(&message, subscription, kWaitMs);
    if (status == NATS_OK) return Message(message);
    // Too slow: told to the observers; what is left comes next.
    if (status != NATS_TIMEOUT && status != NATS_SLOW_CONSUMER && status != NATS_NO_RESPONDERS)
      return std::nullopt;
  }
}

// ---------------------------------------------------------------- subscriptions

/// What is subscribed on each connection, one after the other.
struct Wanted {
  std::string subject;
  std::string queue;
};

class Subscribed {
 public:
  virtual ~Subscribed() = default;
  /// Subscribes, in place of what was subscribed on a connection that is closed.
  virtual natsStatus bind(natsConnection* connection) = 0;
};

/// Of one thread: the library's own calls the handler. Only here one learns that nobody listens:
/// who waits for messages is not told by the library which question it was.
class OrderedSubscription : public Subscribed {
 public:
  OrderedSubscription(KXBusRetired& retired, Wanted wanted, KXBus::Handler handler)
      : mRetired(retired),
        mWanted(std::move(wanted)),
        mCalls(std::make_shared<Calls>(std::move(handler))) {}
  ~OrderedSubscription() override {
    if (mSubscription != nullptr) natsSubscription_Unsubscribe(mSubscription.get());
    if (mCalls->handler.isCaller())
      mRetired.add(
          [weak = std::weak_ptr(mCalls)] {
            if (auto const calls = weak.lock()) calls->handler.end();
          },
          mCalls);
    mCalls->handler.end();
  }
  natsStatus bind(natsConnection* connection) override {
    // The library's thread has its share until it ends.
    auto closure = std::make_unique<std::shared_ptr<Calls>>(mCalls);
    natsSubscription* made = nullptr;
    char const* const subject = mWanted.subject.c_str();
    auto const status =
        mWanted.queue.empty()
            ? natsConnection_Subscribe(&made, connection, subject, onMessage, closure.get())
            : natsConnection_QueueSubscribe(&made, connection, subject, mWanted.queue.c_str(),
                                            onMessage, closure.get());
    mSubscription.reset(made);
    if (status != NATS_OK) return status;
    natsSubscription_SetOnCompleteCB(made, onComplete, closure.release());
    natsSubscription_SetPendingLimits(made, -1, kMaxPendingBytes);
    return status;
  }

 private:
  struct Calls {
    explicit Calls(KXBus::Handler function)
        : handler([handle = std::move(function)](Message const& message) {
            hand(message.get(), handle);
          }) {}
    KXBusHandler<Message> handler;
    std::mutex turn;  ///< a call may last longer than the connection that it came by
  };

  static void onMessage(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                        natsMsg* message, void* closure) {
    Message const taken(message);
    Calls& calls = **static_cast<std::shared_ptr<Calls>*>(closure);
    std::lock_guard const turn(calls.turn);
    calls.handler.call(taken);
  }
  static void onComplete(void* closure) { delete static_cast<std::shared_ptr<Calls>*>(closure); }

  KXBusRetired& mRetired;
  Wanted const mWanted;
  std::shared_ptr<Calls> const mCalls;
  NatsSubscription mSubscription;
};

/// Of several threads, which take the messages themselves.
class ParallelSubscription : public Subscribed {
 public:
  ParallelSubscription(KXBusRetired& retired, Wanted wanted, int threads, KXBus::Handler handler)
      : mRetired(retired),
        mWanted(std::move(wanted)),
        mWorkers(std::make_shared<KXBusWorkers<Message>>(
            threads, [source = mSource] { return source->take(); },
            [handle = std::move(handler)](Message const& message) {
              hand(message.get(), handle);
            })) {}
  ~ParallelSubscription() override {
    mSource->end();
    mWorkers->end(mRetired);
  }
  natsStatus bind(natsConnection* connection) override {
    natsSubscription* made = nullptr;
    char const* const subject = mWanted.subject.c_str();
    auto const status =
        mWanted.queue.empty()
            ? natsConnection_SubscribeSync(&made, connection, subject)
            : natsConnection_QueueSubscribeSync(&made, connection, subject, mWanted.queue.c_str());
    if (status != NATS_OK) return status;
    natsSubscription_SetPendingLimits(made, -1, kMaxPendingBytes);
    mSource->use(NatsSubscription(made));
    if (!mIsStarted) mWorkers->start();
    mIsStarted = true;
    return status;
  }

 private:
  /// Where the messages come from: one connection after the other.
  class Source {
   public:
    void use(std::shared_ptr<natsSubscription> subscription) {
      std::lock_guard const lock(mMutex);
      mSubscription = std::move(subscription);
      mChanged.notify_all();
    }
    void end() {
      std::lock_guard const lock(mMutex);
      mHasEnded = true;
      if (mSubscription) natsSubscription_Unsubscribe(mSubscription.get());
      mChanged.notify_all();
    }
    std::optional<Message> take() {
      std::shared_ptr<natsSubscription> former;
      while (true) {
        {
          std::unique_lock lock(mMutex);
          mChanged.wait(lock, [&] { return mHasEnded || mSubscription != former; });
          if (mHasEnded) return std::nullopt;
          former = mSubscription;
        }
        if (auto message = waitForMessage(former.get())) return message;
      }
    }

   private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::shared_ptr<natsSubscription> mSubscription;  // guarded by mMutex
    bool mHasEnded = false;                           // guarded by mMutex
  };

  KXBusRetired& mRetired;
  Wanted const mWanted;
  std::shared_ptr<Source> const mSource = std::make_shared<Source>();
  std::shared_ptr<KXBusWorkers<Message>> const mWorkers;
  bool mIsStarted = false;
};

/// The connection, and what is to be subscribed on it, also on the next one.
/// Threads: any; binding waits for no handler.
class Line {
 public:
  Connection connection() const {
    std::lock_guard const lock(mMutex);
    return mConnection;
  }
  /// False, and nothing is done, after end().
  bool use(Connection const& connection) {
    std::lock_guard const lock(mMutex);
    if (mHasEnded) return false;
    mConnection = connection;
    for (Subscribed* const each : mSubscribed) each->bind(connection.get());
    return true;
  }
  /// On a connection that is closed it succeeds too: the next one is to come.
  natsStatus add(Subscribed& subscribed) {
    std::lock_guard const lock(mMutex);
    auto const status = subscribed.bind(mConnection.get());
    if (status != NATS_OK && status != NATS_CONNECTION_CLOSED) return status;
    mSubscribed.insert(&subscribed);
    return NATS_OK;
  }
  void remove(Subscribed& subscribed) {
    std::lock_guard const lock(mMutex);
    mSubscribed.erase(&subscribed);
  }
  Connection end() {
    std::lock_guard const lock(mMutex);
    mHasEnded = true;
    return mConnection;
  }

 private:
  mutable std::mutex mMutex;
  Connection mConnection;               // guarded by mMutex
  std::set<Subscribed*> mSubscribed{};  // guarded by mMutex
  bool mHasEnded = false;               // guarded by mMutex
};

/// Takes part in the line as long as it lives.
class LineSubscription : public KXBusSubscription {
 public:
  LineSubscription(Line& line, std::unique_ptr<Subscribed> subscribed)
      : mLine(line), mSubscribed(std::move(subscribed)), mStatus(line.add(*mSubscribed)) {}
  ~LineSubscription() override { mLine.remove(*mSubscribed); }
  natsStatus status() const { return mStatus; }

 private:
  Line& mLine;
  std::unique_ptr<Subscribed> const mSubscribed;
  natsStatus const mStatus;
};

// ---------------------------------------------------------------- the bus

KXError::Kind kindOf(natsStatus status) {
  switch (status) {
    case NATS_CONNECTION_AUTH_FAILED:
    case NATS_NOT_PERMITTED:
    case NATS_SSL_ERROR:
    case NATS_SECURE_CONNECTION_WANTED:
    case NATS_SECURE_CONNECTION_REQUIRED:
      return KXError::Kind::Refused;
    case NATS_MAX_PAYLOAD:
    case NATS_INVALID_ARG:
    case NATS_INVALID_SUBJECT:
    case NATS_NO_MEMORY:
    case NATS_NO_SERVER_SUPPORT:
      return KXError::Kind::Failed;
    default:
      return KXError::Kind::Disconnected;
  }
}

class NatsBus : public KXBus {
 public:
  explicit NatsBus(KXBusOptions const& options) : NatsBus(makeNatsOptions(options)) {}
  ~NatsBus() override {
    mRetired.end();
    mWatch->close();
    // Ends what the watch may wait for.
    natsConnection_Close(mLine.end().get());
    mWatch->join();
  }

  void publish(KXBusMessage const& message) override {
    checkMessage(message, maxPayload());
    xCheckConnected("publish");
    Connection const connection = mLine.connection();
    std::string const subject(message.subject);
    std::string const reply(message.reply);
    char const* const replyText = reply.empty() ? nullptr : reply.c_str();
    auto const size = static_cast<int>(message.payload.size());
    if (message.headers.empty()) {
      xCheck("publish",
             replyText == nullptr
                 ? natsConnection_Publish(connection.get(), subject.c_str(), message.payload.data(),
                                          size)
                 : natsConnection_PublishRequest(connection.get(), subject.c_str(), replyText,
                                                 message.payload.data(), size));
      return;
    }
    natsMsg* made = nullptr;
    xCheck("publish",
           natsMsg_Create(&made, subject.c_str(), replyText, message.payload.data(), size));
    Message const owned(made);
    for (auto const& [name, value] : message.headers) {
      std::string const trimmed(trimHeaderValue(value));
      if (!trimmed.empty())
        xCheck("publish", natsMsgHeader_Add(made, name.c_str(), trimmed.c_str()));
    }
    xCheck("publish", natsConnection_PublishMsg(connection.get(), made));
  }

  std::unique_ptr<KXBusSubscription> subscribe(std::string const& subject, std::string const& queue,
                                               int threads, Handler handler) override {
    checkSubscription(subject, queue, threads);
    Wanted wanted{subject, queue};
    std::unique_ptr<Subscribed> subscribed;
    if (threads == 1) {
      subscribed =
          std::make_unique<OrderedSubscription>(mRetired, std::move(wanted), std::move(handler));
    } else {
      subscribed = std::make_unique<ParallelSubscription>(mRetired, std::move(wanted), threads,
                                                          std::move(handler));
    }
    auto made = std::make_unique<LineSubscription>(mLine, std::move(subscribed));
    xCheck("subscribe", made->status());
    return made;
  }

  void flush(int timeoutMs) override {
    xCheckConnected("flush");
    auto const status = natsConnection_FlushTimeout(mLine.connection().get(), timeoutMs);
    if (status == NATS_TIMEOUT)
      throwBusError("flush",
                    "the server at '" + mAddress + "' has not answered within " +
                        std::to_string(timeoutMs) + " ms",
                    KXError::Kind::TimedOut);
    xCheck("flush", status);
  }

  std::unique_ptr<KXBusSubscription> observe(EventHandler handler) override {
    return mWatch->observers().add(std::move(handler));
  }
  bool isConnected() const override { return mWatch->isConnected(); }
  std::size_t maxPayload() const override { return mWatch->maxPayload(); }
  std::string const& inboxPrefix() const override { return mInboxPrefix; }
  std::string const& user() const override { return mUser; }
  std::string const& address() const override { return mAddress; }

 private:
  explicit NatsBus(KXNatsOptions options)
      : mAddress(options.address),
        mUser(options.user),
        mInboxPrefix(options.inboxPrefix),
        mOptions(std::move(options.options)) {
    auto* const given = mOptions.get();
    natsOptions_SetDisconnectedCB(given, onLost, mClosure);
    natsOptions_SetReconnectedCB(given, onBack, mClosure);
    natsOptions_SetClosedCB(given, onClosed, mClosure);
    natsOptions_SetErrorHandler(given, onError, mClosure);
    natsConnection* made = nullptr;
    auto const status = natsConnection_Connect(&made, given);
    Connection const connection = owned(made);
    std::string const text =
        "cannot connect to the bus at '" + mAddress + "': " + describeNatsStatus(status);
    // By TLS 1.3 this side takes itself to be let in before the server has seen its certificate:
    // what it reads, or writes, next fails.
    bool const isCutOff =
        text.find("SSL_write") != std::string::npos || text.find("SSL_read") != std::string::npos;
    if (status == NATS_PROTOCOL_ERROR || (status == NATS_IO_ERROR && isCutOff))
      throwBusError("connect",
                    text +
                        "; the server has closed the connection, as one does that asks for a "
                        "certificate",
                    KXError::Kind::Refused);
    if (status != NATS_OK) throwBusError("connect", text, kindOf(status));
    mLine.use(connection);
    mWatch->start(connection, [this] { return xConnectAnew(); });
  }
  Connection xConnectAnew() {
    natsConnection* made = nullptr;
    if (natsConnection_Connect(&made, mOptions.get()) != NATS_OK) return nullptr;
    Connection connection = owned(made);
    return mLine.use(connection) ? connection : nullptr;
  }
  void xCheckConnected(char const* method) const {
    if (!isConnected())
      throwBusError(method, "no connection to the bus at '" + mAddress + '\'',
                    KXError::Kind::Disconnected);
  }
  void xCheck(char const* method, natsStatus status) const {
    if (status != NATS_OK)
      throwBusError(method, "the bus at '" + mAddress + "': " + describeNatsStatus(status),
                    kindOf(status));
  }

  std::string const mAddress;
  std::string const mUser;
  std::string const mInboxPrefix;
  std::shared_ptr<Watch> const mWatch = std::make_shared<Watch>(mAddress, mUser);
  void* const mClosure = Watches::instance().add(mWatch);
  decltype(KXNatsOptions::options) const mOptions;
  Line mLine;
  KXBusRetired mRetired;
};

}  // namespace

std::unique_ptr<KXBus> connectNats(KXBusOptions const& options) {
  return std::make_unique<NatsBus>(options);
}

}  // namespace KX
