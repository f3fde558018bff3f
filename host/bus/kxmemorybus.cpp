#include <host/bus/kxmemorybus.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <queue>
#include <random>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include <host/bus/kxbushandler.hpp>
#include <host/bus/kxbusobservers.hpp>
#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxbusworkers.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kServer = -1;  // as the sender of a transfer

/// A message that lives as long as somebody is to get it.
struct Letter {
  /// As they arrive.
  static KXBusHeaders trimmed(KXBusHeaders headers) {
    for (auto& [name, value] : headers) value = std::string(trimHeaderValue(value));
    std::erase_if(headers, [](auto const& header) { return header.second.empty(); });
    return headers;
  }

  explicit Letter(KXBusMessage const& message)
      : subject(message.subject),
        reply(message.reply),
        payload(message.payload),
        headers(trimmed(message.headers)),
        isNoResponders(message.isNoResponders) {}

  KXBusMessage view() const { return {subject, reply, headers, payload, isNoResponders}; }

  std::string const subject;
  std::string const reply;
  std::string const payload;
  KXBusHeaders const headers;
  bool const isNoResponders;
};
using LetterPtr = std::shared_ptr<Letter const>;

/// What arrived for a subscription that has threads.
class Mailbox {
 public:
  void put(LetterPtr letter) {
    std::lock_guard const lock(mMutex);
    mLetters.push_back(std::move(letter));
    mChanged.notify_one();
  }
  /// Waits for one; none when it has ended.
  std::optional<LetterPtr> take() {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return !mLetters.empty() || mHasEnded; });
    if (mHasEnded) return std::nullopt;
    auto letter = std::move(mLetters.front());
    mLetters.pop_front();
    return letter;
  }
  void end() {
    std::lock_guard const lock(mMutex);
    mHasEnded = true;
    mLetters.clear();
    mChanged.notify_all();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<LetterPtr> mLetters;  // guarded by mMutex
  bool mHasEnded = false;          // guarded by mMutex
};

/// One subscription, as the server and as its connection see it.
class Subscriber {
 public:
  /// Stepped, the handler runs where messages are handed over.
  Subscriber(std::string pattern, std::string queue, int threads, bool isStepped,
             KXBus::Handler handler)
      : mPattern(std::move(pattern)), mQueue(std::move(queue)), mIsOrdered(threads == 1) {
    if (isStepped) {
      mCalls = std::make_unique<KXBusHandler<KXBusMessage>>(std::move(handler));
      return;
    }
    mWorkers = std::make_shared<KXBusWorkers<LetterPtr>>(
        threads, [mailbox = mMailbox] { return mailbox->take(); },
        [handle = std::move(handler)](LetterPtr const& letter) { handle(letter->view()); });
    mWorkers->start();
  }

  std::string const& pattern() const { return mPattern; }
  std::string const& queue() const { return mQueue; }
  bool isOrdered() const { return mIsOrdered; }

  void accept(LetterPtr letter) {
    if (mCalls != nullptr)
      mCalls->call(letter->view());
    else
      mMailbox->put(std::move(letter));
  }
  void end(KXBusRetired& retired) {
    if (mCalls != nullptr) mCalls->end();
    mMailbox->end();
    if (mWorkers != nullptr) mWorkers->end(retired);
  }

  bool isAllowed = true;  // guarded by the network's mutex

 private:
  std::string const mPattern;
  std::string const mQueue;
  bool const mIsOrdered;
  std::shared_ptr<Mailbox> const mMailbox = std::make_shared<Mailbox>();
  std::unique_ptr<KXBusHandler<KXBusMessage>> mCalls;  // without threads
  std::shared_ptr<KXBusWorkers<LetterPtr>> mWorkers;   // with threads
};

/// What the server knows of a connection.
struct Link {
  std::string user{};
  bool isCut = false;
  bool isGone = false;
  std::uint64_t generation = 0;  // what is on its way is lost with the connection
  std::shared_ptr<KXBusObservers> observers = std::make_shared<KXBusObservers>();
  std::vector<std::shared_ptr<Subscriber>> subscribers{};
};

/// On its way: a message, or an event if there is no letter.
struct Parcel {
  std::int64_t dueUs;
  std::uint64_t number;
  int to;
  std::uint64_t generation;
  std::weak_ptr<Subscriber> subscriber{};
  LetterPtr letter{};
  KXBusEvent event{};
};
struct ArrivesLater {
  bool operator()(Parcel const& one, Parcel const& other) const {
    return std::tie(one.dueUs, one.number) > std::tie(other.dueUs, other.number);
  }
};

}  // namespace

// ---------------------------------------------------------------- the server

struct KXBusNetwork::Core {
  struct Rights {
    Permission publishing;
    Permission subscribing;
  };
  struct Receiver {
    int link;
    std::shared_ptr<Subscriber> subscriber;
  };

  Core(Pacing howPaced, std::size_t bytes) : pacing(howPaced), maxPayload(bytes) {
    if (pacing == Pacing::Threaded) pump = std::thread([this] { xPump(); });
  }
  ~Core() {
    {
      std::lock_guard const lock(mutex);
      hasEnded = true;
      changed.notify_all();
    }
    if (pump.joinable()) pump.join();
  }

  // ---- for connections

  int join(std::string const& user) {
    std::lock_guard const lock(mutex);
    if (!isServerUp) throwBusError("connect", "no server at 'memory'", KXError::Kind::Disconnected);
    links.push_back({.user = user});
    return static_cast<int>(links.size()) - 1;
  }
  void leave(int link) {
    std::lock_guard const lock(mutex);
    links[static_cast<std::size_t>(link)].isGone = true;
  }
  std::shared_ptr<KXBusObservers> observersOf(int link) const {
    std::lock_guard const lock(mutex);
    return xLink(link).observers;
  }
  bool isConnected(int link) const {
    std::lock_guard const lock(mutex);
    return xIsConnected(xLink(link));
  }
  void checkConnected(int link, char const* method) const {
    if (!isConnected(link))
      throwBusError(method, "no connection to 'memory'", KXError::Kind::Disconnected);
  }
  void publish(int from, KXBusMessage const& message) {
    checkMessage(message, maxPayload);
    checkConnected(from, "publish");
    auto letter = std::make_shared<Letter const>(message);
    std::lock_guard const lock(mutex);
    auto const& right = rights[xLink(from).user];
    if (right.publishing && !right.publishing(letter->subject)) {
      xTell(from, xRefusal(letter->subject, true));
      return;
    }
    auto const receivers = xReceivers(letter->subject);
    for (auto const& receiver : receivers) xSend(from, receiver, letter);
    if (receivers.empty() && !letter->reply.empty()) xSendNoResponders(from, letter->reply);
  }
  void subscribe(int link, std::shared_ptr<Subscriber> const& subscriber) {
    std::lock_guard const lock(mutex);
    xLink(link).subscribers.push_back(subscriber);
    if (xIsConnected(xLink(link))) xAdmit(link, *subscriber);
  }
  void unsubscribe(int link, std::shared_ptr<Subscriber> const& subscriber) {
    std::lock_guard const lock(mutex);
    std::erase(xLink(link).subscribers, subscriber);
  }

  // ---- faults

  void setCut(int link, bool isCut) {
    std::lock_guard const lock(mutex);
    if (xLink(link).isCut == isCut) return;
    bool const wasConnected = xIsConnected(xLink(link));
    xLink(link).isCut = isCut;
    xConnectionChanged(link, wasConnected);
  }
  void setServerUp(bool isUp) {
    std::lock_guard const lock(mutex);
    if (isServerUp == isUp) return;
    std::vector<bool> wereConnected;
    for (auto const& link : links) wereConnected.push_back(xIsConnected(link));
    isServerUp = isUp;
    for (std::size_t i = 0; i < links.size(); ++i)
      xConnectionChanged(static_cast<int>(i), wereConnected[i]);
  }

  // ---- time

  std::int64_t nowUs() const {
    std::lock_guard const lock(mutex);
    return xNowUs();
  }
  /// Hands over the next one that is due up to `untilUs`; the caller holds the lock, which is
  /// released meanwhile. False if there is none.
  bool handOverNext(std::unique_lock<std::mutex>& lock, std::int64_t untilUs) {
    while (!parcels.empty() && parcels.top().dueUs <= untilUs) {
      Parcel const parcel = parcels.top();
      parcels.pop();
      simulatedUs = std::max(simulatedUs, parcel.dueUs);
      auto const& link = xLink(parcel.to);
      auto const subscriber = parcel.subscriber.lock();
      bool const isEvent = parcel.letter == nullptr;
      bool const arrives =
          subscriber != nullptr && xIsConnected(link) && parcel.generation == link.generation;
      if (link.isGone || (!isEvent && !arrives)) continue;
      auto const observers = link.observers;
      lock.unlock();
      if (isEvent)
        observers->tell(parcel.event);
      else
        subscriber->accept(parcel.letter);
      lock.lock();
      return true;
    }
    return false;
  }

  Pacing const pacing;
  std::size_t const maxPayload;
  Clock::time_point const begin = Clock::now();

  mutable std::mutex mutex;
  std::condition_variable changed;
  // Guarded by mutex:
  std::deque<Link> links;
  std::map<std::string, Rights> rights;
  Faults faults;
  bool isServerUp = true;
  bool hasEnded = false;
  std::int64_t simulatedUs = 0;
  std::uint64_t parcelCount = 0;
  std::map<std::string, std::size_t> turns;               // whose it is in each queue group
  std::map<std::pair<int, int>, std::int64_t> lastDueUs;  // of each way, sender and receiver
  std::priority_queue<Parcel, std::vector<Parcel>, ArrivesLater> parcels;

 private:
  // The callers of all these hold the mutex.

  Link& xLink(int link) { return links[static_cast<std::size_t>(link)]; }
  Link const& xLink(int link) const { return links[static_cast<std::size_t>(link)]; }
  bool xIsConnected(Link const& link) const { return isServerUp && !link.isCut && !link.isGone; }
  std::int64_t xNowUs() const {
    if (pacing == Pacing::Stepped) return simulatedUs;
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
  }

  static KXBusEvent xRefusal(std::string const& subject, bool isPublishing) {
    return {KXBusEvent::Kind::Refused, subject, isPublishing,
            isPublishing ? "publishing is not allowed" : "subscribing is not allowed"};
  }
  void xAdmit(int link, Subscriber& subscriber) {
    auto const& right = rights[xLink(link).user];
    subscriber.isAllowed = !right.subscribing || right.subscribing(subscriber.pattern());
    if (!subscriber.isAllowed) xTell(link, xRefusal(subscriber.pattern(), false));
  }
  void xConnectionChanged(int link, bool wasConnected) {
    bool const isConnected = xIsConnected(xLink(link));
    if (isConnected == wasConnected) return;
    ++xLink(link).generation;
    xTell(link, {isConnected ? KXBusEvent::Kind::Back : KXBusEvent::Kind::Lost});
    if (!isConnected) return;
    for (auto const& subscriber : xLink(link).subscribers) xAdmit(link, *subscriber);
  }

  /// Of a queue group one, in turn.
  std::vector<Receiver> xReceivers(std::string const& subject) {
    std::vector<Receiver> receivers;
    std::map<std::string, std::vector<Receiver>> groups;
    for (std::size_t i = 0; i < links.size(); ++i) {
      if (!xIsConnected(links[i])) continue;
      for (auto const& subscriber : links[i].subscribers) {
        if (!subscriber->isAllowed || !subjectMatches(subscriber->pattern(), subject)) continue;
        auto& list = subscriber->queue().empty() ? receivers : groups[subscriber->queue()];
        list.push_back({static_cast<int>(i), subscriber});
      }
    }
    for (auto const& [queue, members] : groups)
      receivers.push_back(members[turns[queue]++ % members.size()]);
    return receivers;
  }
  /// Only the one that asked is told.
  void xSendNoResponders(int asker, std::string const& reply) {
    for (auto const& subscriber : xLink(asker).subscribers) {
      if (!subscriber->isAllowed || !subjectMatches(subscriber->pattern(), reply)) continue;
      if (!subscriber->isOrdered()) return;
      xSend(kServer, {asker, subscriber},
            std::make_shared<Letter const>(KXBusMessage{.subject = reply, .isNoResponders = true}));
      return;
    }
  }
  void xSend(int from, Receiver const& to, LetterPtr const& letter) {
    auto const message = letter->view();
    auto const fate = faults ? faults({from, to.link, message}) : KXBusFate{};
    auto& lastUs = lastDueUs[{from, to.link}];
    for (auto const delayUs : fate.delaysUs) {
      auto const dueUs = std::max(xNowUs() + delayUs, lastUs);
      if (!fate.mayBeOvertaken) lastUs = dueUs;
      xPost({.dueUs = dueUs,
             .number = ++parcelCount,
             .to = to.link,
             .generation = xLink(to.link).generation,
             .subscriber = to.subscriber,
             .letter = letter});
    }
  }
  void xTell(int link, KXBusEvent event) {
    xPost({.dueUs = xNowUs(),
           .number = ++parcelCount,
           .to = link,
           .generation = 0,
           .event = std::move(event)});
  }
  void xPost(Parcel parcel) {
    parcels.push(std::move(parcel));
    changed.notify_all();
  }

  void xPump() {
    std::unique_lock lock(mutex);
    while (!hasEnded) {
      if (handOverNext(lock, xNowUs())) continue;
      if (parcels.empty())
        changed.wait(lock);
      else
        changed.wait_until(lock, begin + std::chrono::microseconds(parcels.top().dueUs));
    }
  }

  std::thread pump;
};

// ---------------------------------------------------------------- a connection

class KXBusNetwork::Subscription : public KXBusSubscription {
 public:
  Subscription(Core& core, int link, KXBusRetired& retired, std::shared_ptr<Subscriber> subscriber)
      : mCore(core), mLink(link), mRetired(retired), mSubscriber(std::move(subscriber)) {
    mCore.subscribe(mLink, mSubscriber);
  }
  ~Subscription() override {
    mCore.unsubscribe(mLink, mSubscriber);
    mSubscriber->end(mRetired);
  }

 private:
  Core& mCore;
  int const mLink;
  KXBusRetired& mRetired;
  std::shared_ptr<Subscriber> const mSubscriber;
};

class KXBusNetwork::Connection : public KXBus {
 public:
  Connection(Core& core, std::string const& user)
      : mCore(core),
        mLink(core.join(escapeToken(user))),
        mUser(escapeToken(user)),
        mInboxPrefix(mUser == "any" ? "_INBOX" : "_INBOX_" + mUser),
        mObservers(core.observersOf(mLink)) {}
  ~Connection() override {
    mCore.leave(mLink);
    mRetired.end();
  }

  int link() const { return mLink; }

  void publish(KXBusMessage const& message) override { mCore.publish(mLink, message); }
  std::unique_ptr<KXBusSubscription> subscribe(std::string const& subject, std::string const& queue,
                                               int threads, Handler handler) override {
    checkSubscription(subject, queue, threads);
    return std::make_unique<Subscription>(
        mCore, mLink, mRetired,
        std::make_shared<Subscriber>(subject, queue, threads, mCore.pacing == Pacing::Stepped,
                                     std::move(handler)));
  }
  void flush(int /*timeoutMs*/) override { mCore.checkConnected(mLink, "flush"); }
  std::unique_ptr<KXBusSubscription> observe(EventHandler handler) override {
    return mObservers->add(std::move(handler));
  }
  bool isConnected() const override { return mCore.isConnected(mLink); }
  std::size_t maxPayload() const override { return mCore.maxPayload; }
  std::string const& inboxPrefix() const override { return mInboxPrefix; }
  std::string const& user() const override { return mUser; }
  std::string const& address() const override { return mAddress; }

 private:
  Core& mCore;
  int const mLink;
  std::string const mUser;
  std::string const mInboxPrefix;
  std::string const mAddress{"memory"};
  std::shared_ptr<KXBusObservers> const mObservers;
  KXBusRetired mRetired;
};

// ---------------------------------------------------------------- the network

KXBusNetwork::KXBusNetwork(Pacing pacing, std::size_t maxPayload)
    : mCore(std::make_unique<Core>(pacing, maxPayload)) {}

KXBusNetwork::~KXBusNetwork() = default;

std::unique_ptr<KXBus> KXBusNetwork::connect(std::string const& user) {
  return std::make_unique<Connection>(*mCore, user);
}

void KXBusNetwork::setFaults(Faults faults) {
  std::lock_guard const lock(mCore->mutex);
  mCore->faults = std::move(faults);
}

KXBusNetwork::Faults KXBusNetwork::randomFaults(std::uint32_t seed, KXBusFaultRates const& rates) {
  return [random = std::mt19937(seed), rates](KXBusTransfer const&) mutable {
    // Not by a distribution of the library's: each library has its own.
    auto const happens = [&](double rate) {
      return static_cast<double>(random()) < rate * 0x1p32;
    };
    auto const delayUs = [&] {
      return static_cast<std::int64_t>(static_cast<double>(random()) * 0x1p-32 *
                                       static_cast<double>(rates.maxDelayUs + 1));
    };
    KXBusFate fate{.delaysUs = {delayUs()}, .mayBeOvertaken = happens(rates.overtaken)};
    if (happens(rates.duplicate)) fate.delaysUs.push_back(delayUs());
    if (happens(rates.loss)) fate.delaysUs.clear();
    return fate;
  };
}

void KXBusNetwork::setPermissions(std::string const& user, Permission publishing,
                                  Permission subscribing) {
  std::lock_guard const lock(mCore->mutex);
  mCore->rights[escapeToken(user)] = {std::move(publishing), std::move(subscribing)};
}

void KXBusNetwork::cut(KXBus const& connection) {
  mCore->setCut(dynamic_cast<Connection const&>(connection).link(), true);
}

void KXBusNetwork::mend(KXBus const& connection) {
  mCore->setCut(dynamic_cast<Connection const&>(connection).link(), false);
}

void KXBusNetwork::stopServer() {
  mCore->setServerUp(false);
}

void KXBusNetwork::startServer() {
  mCore->setServerUp(true);
}

std::int64_t KXBusNetwork::nowUs() const {
  return mCore->nowUs();
}

std::optional<std::int64_t> KXBusNetwork::nextUs() const {
  std::lock_guard const lock(mCore->mutex);
  if (mCore->parcels.empty()) return std::nullopt;
  return mCore->parcels.top().dueUs;
}

bool KXBusNetwork::step() {
  std::unique_lock lock(mCore->mutex);
  return mCore->handOverNext(lock, std::numeric_limits<std::int64_t>::max());
}

void KXBusNetwork::runUntil(std::int64_t timeUs) {
  std::unique_lock lock(mCore->mutex);
  while (mCore->handOverNext(lock, timeUs)) {
  }
  mCore->simulatedUs = std::max(mCore->simulatedUs, timeUs);
}

}  // namespace KX
