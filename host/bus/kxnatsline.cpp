#include <host/bus/kxnatsline.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <map>
#include <optional>
#include <utility>

#include <nats/nats.h>

#include <host/bus/kxbushandler.hpp>
#include <ka/log.hpp>

namespace KX {

class KXNatsSubscribed {
 public:
  virtual ~KXNatsSubscribed() = default;
  /// Subscribes, in place of what was subscribed on a connection that is closed.
  virtual natsStatus bind(natsConnection* connection) = 0;
};

namespace {

constexpr int kMaxPendingBytes = 256 * 1024 * 1024;
/// Of one wait for a message; ending the subscription ends it too.
constexpr std::int64_t kWaitMs = 3'600'000;

/// Subscriptions that have ended on connections that have not. The library's reader may have found
/// one just before, and takes its lock only then: freed at once, it would be gone under it. Lists,
/// since whoever ends one may have no memory left: moving entries takes none.
class EndedSubscriptions {
 public:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    natsSubscription* subscription = nullptr;
    Clock::time_point endedAt{};
  };
  using Entries = std::list<Entry>;

  static EndedSubscriptions& instance() {
    static auto& ended = *new EndedSubscriptions;  // On purpose never destroyed: as the library.
    return ended;
  }
  void begin(natsConnection* connection) {
    std::lock_guard const lock(mMutex);
    mConnections[connection];
  }
  /// They are unsubscribed, or their connection is closed.
  void add(natsConnection* connection, Entries& ended) noexcept {
    for (Entry& entry : ended) entry.endedAt = Clock::now();
    {
      std::lock_guard const lock(mMutex);
      auto const found = mConnections.find(connection);
      if (found != mConnections.end()) found->second.splice(found->second.end(), ended);
    }
    destroy(ended);  // those of a connection that has ended
  }
  void freeOld(natsConnection* connection) noexcept {
    auto const now = Clock::now();
    Entries old;
    {
      std::lock_guard const lock(mMutex);
      auto const found = mConnections.find(connection);
      if (found == mConnections.end()) return;
      Entries& ended = found->second;
      while (!ended.empty() && now - ended.front().endedAt > kKept)
        old.splice(old.end(), ended, ended.begin());
    }
    destroy(old);
  }
  /// It is closed, and its reader has ended.
  void end(natsConnection* connection) noexcept {
    Entries ended;
    {
      std::lock_guard const lock(mMutex);
      auto const found = mConnections.find(connection);
      ended.swap(found->second);
      mConnections.erase(found);
    }
    destroy(ended);
  }

 private:
  static constexpr std::chrono::seconds kKept{5};

  static void destroy(Entries const& ended) noexcept {
    for (Entry const& entry : ended) natsSubscription_Destroy(entry.subscription);
  }

  std::mutex mMutex;
  std::map<natsConnection*, Entries> mConnections;  // guarded by mMutex
};

/// A subscription of the library's, which ends with it.
class NatsSubscription {
 public:
  explicit NatsSubscription(natsConnection* connection) : mConnection(connection), mEntry(1) {}
  ~NatsSubscription() {
    if (get() == nullptr) return;
    unsubscribe();
    EndedSubscriptions::instance().add(mConnection, mEntry);
  }
  NatsSubscription(NatsSubscription const&) = delete;
  NatsSubscription& operator=(NatsSubscription const&) = delete;

  /// For the library, once.
  natsSubscription** place() { return &mEntry.front().subscription; }
  natsSubscription* get() const { return mEntry.front().subscription; }
  /// Ends the waits for its messages as well. Also where it is unsubscribed.
  void unsubscribe() { natsSubscription_Unsubscribe(get()); }

 private:
  natsConnection* const mConnection;  // may have ended before
  EndedSubscriptions::Entries mEntry;
};

struct Destroy {
  void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
};
using Message = std::unique_ptr<natsMsg, Destroy>;

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

/// What is subscribed on each connection, one after the other.
struct Wanted {
  std::string subject;
  std::string queue;
};

/// Of one thread: the library's own calls the handler. Only here one learns that nobody listens:
/// who waits for messages is not told by the library which question it was.
class OrderedSubscription : public KXNatsSubscribed {
 public:
  OrderedSubscription(KXBusRetired& retired, Wanted wanted, KXBus::Handler handler)
      : mRetired(retired),
        mWanted(std::move(wanted)),
        mCalls(std::make_shared<Calls>(std::move(handler))) {}
  ~OrderedSubscription() override {
    mSubscription.reset();
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
    mSubscription = std::make_unique<NatsSubscription>(connection);
    char const* const subject = mWanted.subject.c_str();
    auto const status =
        mWanted.queue.empty()
            ? natsConnection_Subscribe(mSubscription->place(), connection, subject, onMessage,
                                       closure.get())
            : natsConnection_QueueSubscribe(mSubscription->place(), connection, subject,
                                            mWanted.queue.c_str(), onMessage, closure.get());
    if (status != NATS_OK) return status;
    natsSubscription_SetOnCompleteCB(mSubscription->get(), onComplete, closure.release());
    natsSubscription_SetPendingLimits(mSubscription->get(), -1, kMaxPendingBytes);
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
  std::unique_ptr<NatsSubscription> mSubscription;
};

/// Of several threads, which take the messages themselves.
class ParallelSubscription : public KXNatsSubscribed {
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
    auto const made = std::make_shared<NatsSubscription>(connection);
    char const* const subject = mWanted.subject.c_str();
    auto const status = mWanted.queue.empty()
                            ? natsConnection_SubscribeSync(made->place(), connection, subject)
                            : natsConnection_QueueSubscribeSync(made->place(), connection, subject,
                                                                mWanted.queue.c_str());
    if (status != NATS_OK) return status;
    natsSubscription_SetPendingLimits(made->get(), -1, kMaxPendingBytes);
    mSource->use(made);
    if (!mIsStarted) mWorkers->start();
    mIsStarted = true;
    return status;
  }

 private:
  /// Where the messages come from: one connection after the other.
  class Source {
   public:
    void use(std::shared_ptr<NatsSubscription> subscription) {
      std::lock_guard const lock(mMutex);
      mSubscription = std::move(subscription);
      mChanged.notify_all();
    }
    void end() {
      std::lock_guard const lock(mMutex);
      mHasEnded = true;
      if (mSubscription) mSubscription->unsubscribe();
      mChanged.notify_all();
    }
    std::optional<Message> take() {
      std::shared_ptr<NatsSubscription> former;
      while (true) {
        {
          std::unique_lock lock(mMutex);
          mChanged.wait(lock, [&] { return mHasEnded || mSubscription != former; });
          if (mHasEnded) return std::nullopt;
          former = mSubscription;
        }
        if (auto message = waitForMessage(former->get())) return message;
      }
    }

   private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::shared_ptr<NatsSubscription> mSubscription;  // guarded by mMutex
    bool mHasEnded = false;                           // guarded by mMutex
  };

  KXBusRetired& mRetired;
  Wanted const mWanted;
  std::shared_ptr<Source> const mSource = std::make_shared<Source>();
  std::shared_ptr<KXBusWorkers<Message>> const mWorkers;
  bool mIsStarted = false;
};

/// Takes part in the line as long as it lives.
class LineSubscription : public KXBusSubscription {
 public:
  LineSubscription(KXNatsLine& line, std::unique_ptr<KXNatsSubscribed> subscribed)
      : mLine(line), mSubscribed(std::move(subscribed)), mStatus(line.add(*mSubscribed)) {}
  ~LineSubscription() override { mLine.remove(*mSubscribed); }
  int status() const { return mStatus; }

 private:
  KXNatsLine& mLine;
  std::unique_ptr<KXNatsSubscribed> const mSubscribed;
  int const mStatus;
};

}  // namespace

KXNatsConnection ownedConnection(natsConnection* connection) {
  if (connection == nullptr) return nullptr;
  EndedSubscriptions::instance().begin(connection);
  return {connection, [](natsConnection* ended) {
            natsConnection_Close(ended);
            EndedSubscriptions::instance().end(ended);
            natsConnection_Destroy(ended);
          }};
}

KXNatsConnection KXNatsLine::connection() const {
  std::lock_guard const lock(mMutex);
  return mConnection;
}

void freeEndedSubscriptions(KXNatsConnection const& connection) noexcept {
  EndedSubscriptions::instance().freeOld(connection.get());
}

bool KXNatsLine::use(KXNatsConnection const& connection) {
  natsStatus status = NATS_OK;
  {
    std::lock_guard const lock(mMutex);
    if (mHasEnded) return false;
    for (KXNatsSubscribed* const each : mSubscribed) {
      status = each->bind(connection.get());
      // One that is closed has a next one, as in add().
      if (status == NATS_CONNECTION_CLOSED) status = NATS_OK;
      if (status != NATS_OK) break;
    }
    if (status == NATS_OK) {
      mConnection = connection;
      return true;
    }
  }
  // Whoever is told may subscribe.
  ka::log::LogStream(ka::log::Warning, "KXBus", "", "subscribe", 0)
      << "a new connection takes no subscriptions (" << natsStatus_GetText(status)
      << "), trying another";
  return false;
}

std::unique_ptr<KXBusSubscription> KXNatsLine::subscribe(KXBusRetired& retired,
                                                         std::string const& subject,
                                                         std::string const& queue, int threads,
                                                         KXBus::Handler handler, int& status) {
  Wanted wanted{subject, queue};
  std::unique_ptr<KXNatsSubscribed> subscribed;
  if (threads == 1) {
    subscribed =
        std::make_unique<OrderedSubscription>(retired, std::move(wanted), std::move(handler));
  } else {
    subscribed = std::make_unique<ParallelSubscription>(retired, std::move(wanted), threads,
                                                        std::move(handler));
  }
  auto made = std::make_unique<LineSubscription>(*this, std::move(subscribed));
  status = made->status();
  if (status != NATS_OK) return nullptr;
  return made;
}

int KXNatsLine::add(KXNatsSubscribed& subscribed) {
  std::lock_guard const lock(mMutex);
  auto const status = subscribed.bind(mConnection.get());
  if (status != NATS_OK && status != NATS_CONNECTION_CLOSED) return status;
  mSubscribed.insert(&subscribed);
  return NATS_OK;
}

void KXNatsLine::remove(KXNatsSubscribed& subscribed) {
  std::lock_guard const lock(mMutex);
  mSubscribed.erase(&subscribed);
}

KXNatsConnection KXNatsLine::end() {
  std::lock_guard const lock(mMutex);
  mHasEnded = true;
  return mConnection;
}

}  // namespace KX
