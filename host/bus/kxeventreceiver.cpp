#include <host/bus/kxeventreceiver.hpp>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxeventtarget.hpp>
#include <host/bus/kxpackstream.hpp>
#include <host/bus/kxrareline.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char const* kCategory = "KXEventReceiver";
constexpr char const* kDeliver = "deliver";
// While a pack takes long to handle, its sender hears so often how far it is.
constexpr std::chrono::milliseconds kAckPause{50};

/// What arrives for one module. Ownership: shared by the receiver and the handler that runs, so
/// that a method may withdraw its module. Threads: the bus's one thread, but for stop() and the
/// counts.
class Served {
 public:
  Served(KXBus& bus, std::string name, boost::shared_ptr<KXBroker> const& broker)
      : mBus(bus), mName(std::move(name)), mTarget(broker, parseAddress(mName).module) {}

  void stop() { mIsStopping = true; }

  void onPack(KXBusMessage const& message) {
    if (mIsStopping) return;
    auto const header = parsePackHeader(message.header(kPackHeader));
    if (!header) {
      return mMalformed.tell([&] { return "what came for module '" + mName + "' is no pack"; });
    }
    KXPackReceiver& stream = mStreams.of(header->epoch);
    KXPackReceiver::Arrival const arrival = stream.onPack(*header);
    mDropped += arrival.dropped;
    mRepeats += arrival.repeats;
    if (arrival.from < header->count) {
      xHandle(*header, arrival.from, stream, message);
      if (mIsStopping) return;
    }
    xAck(stream, message.reply);
  }

  KXEventCounts counts() const {
    return {.handled = mHandled,
            .failed = mFailed,
            .unhandled = mUnhandled,
            .dropped = mDropped,
            .repeats = mRepeats};
  }

 private:
  void xHandle(KXPackHeader const& header, std::uint32_t from, KXPackReceiver& stream,
               KXBusMessage const& message) {
    std::vector<KXNotification> notifications;
    try {
      notifications = decodePack(message.payload, header.count);
    } catch (KXError const& error) {
      // It is not to come again and again: what it held is given up.
      mUnhandled += header.count - from;
      stream.onUnhandled(header.count - from);
      return mMalformed.tell(
          [&] { return "a pack for module '" + mName + "' cannot be read: " + messageOf(error); });
    }
    Clock::time_point ackedAt = Clock::now();
    for (std::uint32_t i = from; i < header.count; ++i) {
      if (xCall(notifications[i])) {
        stream.onHandled();
      } else {
        stream.onUnhandled();
      }
      if (mIsStopping) return;
      Clock::time_point const now = Clock::now();
      if (now - ackedAt < kAckPause) continue;
      ackedAt = now;
      xAck(stream, message.reply);
    }
  }

  // False if there is no module to bring it to.
  bool xCall(KXNotification const& notification) {
    try {
      if (mTarget.call(notification)) {
        ++mHandled;
        return true;
      }
      ++mUnhandled;
      mHomeless.tell(
          [&] { return "module '" + mName + "' is not here, what is sent to it is dropped"; });
      return false;
    } catch (...) {
      // The module's failure concerns neither its sender nor what comes next.
      ++mHandled;
      ++mFailed;
      mFailures.tell([&] {
        return "method '" + notification.method + "' of module '" + mName +
               "' failed: " + describeCurrentException();
      });
      return true;
    }
  }

  void xAck(KXPackReceiver const& stream, std::string_view reply) {
    if (!isInbox(reply)) return;
    try {
      mBus.publish({.subject = reply, .headers = packAckHeaders(stream.ack()), .payload = {}});
    } catch (KXError const&) {
      // The sender will ask.
    }
  }

  KXBus& mBus;
  std::string const mName;
  std::atomic<bool> mIsStopping{false};

  std::atomic<std::uint64_t> mHandled{0};
  std::atomic<std::uint64_t> mFailed{0};
  std::atomic<std::uint64_t> mUnhandled{0};
  std::atomic<std::uint64_t> mDropped{0};
  std::atomic<std::uint64_t> mRepeats{0};

  // The thread's own.
  KXEventTarget mTarget;
  KXPackReceivers mStreams;
  KXRareLine mMalformed{kCategory, kDeliver};
  KXRareLine mHomeless{kCategory, kDeliver};
  KXRareLine mFailures{kCategory, kDeliver};
};

}  // namespace

class KXEventReceiver::Impl {
 public:
  Impl(KXBus& bus, KXSubjects const& subjects, boost::shared_ptr<KXBroker> const& broker)
      : mBus(bus), mSubjects(subjects), mBroker(broker) {
    mObservation = bus.observe([this](KXBusEvent const& event) {
      if (event.kind == KXBusEvent::Kind::Back) xSayHello(xNames());
    });
  }

  ~Impl() {
    mObservation.reset();
    for (KXValue const& name : xNames()) withdraw(static_cast<std::string const&>(name));
  }

  void serve(std::string const& name) {
    auto const served = std::make_shared<Served>(mBus, name, mBroker.lock());
    {
      std::lock_guard const lock(mMutex);
      if (!mEntries.try_emplace(name, Entry{served, nullptr}).second) return;
    }
    try {
      auto subscription = mBus.subscribe(mSubjects.events(parseAddress(name)), "", 1,
                                         [served](KXBusMessage const& message) {
                                           // A share: the method called may end this subscription.
                                           auto const kept = served;  // NOLINT(performance-*)
                                           kept->onPack(message);
                                         });
      std::lock_guard const lock(mMutex);
      auto const found = mEntries.find(name);
      // Otherwise it is withdrawn already.
      if (found != mEntries.end() && found->second.served == served) {
        found->second.subscription.swap(subscription);
      }
    } catch (...) {
      std::lock_guard const lock(mMutex);
      mEntries.erase(name);
      throw;
    }
    xSayHello({KXValue(name)});
  }

  void withdraw(std::string const& name) {
    Entry entry;
    {
      std::lock_guard const lock(mMutex);
      auto const found = mEntries.find(name);
      if (found == mEntries.end()) return;
      entry = std::move(found->second);
      entry.served->stop();
      mEntries.erase(found);
    }
    entry.subscription.reset();  // Waits for the call in progress, so without the lock.
  }

  KXEventCounts getCounts(std::string const& name) const {
    std::lock_guard const lock(mMutex);
    auto const found = mEntries.find(name);
    return found == mEntries.end() ? KXEventCounts{} : found->second.served->counts();
  }

 private:
  struct Entry {
    std::shared_ptr<Served> served;
    std::unique_ptr<KXBusSubscription> subscription;
  };

  std::vector<KXValue> xNames() const {
    std::lock_guard const lock(mMutex);
    std::vector<KXValue> names;
    for (auto const& [name, entry] : mEntries) names.emplace_back(name);
    return names;
  }

  void xSayHello(std::vector<KXValue> names) {
    if (names.empty()) return;
    std::string const payload = encodeValue(KXValue(std::move(names)));
    try {
      mBus.publish({.subject = mSubjects.hello(), .payload = payload});
    } catch (KXError const&) {
      // There is no connection. When it is back, so is the hello.
    }
  }

  KXBus& mBus;
  KXSubjects const mSubjects;
  boost::weak_ptr<KXBroker> const mBroker;
  mutable std::mutex mMutex;
  std::map<std::string, Entry> mEntries;  // guarded by mMutex
  std::unique_ptr<KXBusSubscription> mObservation;
};

KXEventReceiver::KXEventReceiver(KXBus& bus, KXSubjects const& subjects,
                                 boost::shared_ptr<KXBroker> const& broker)
    : mImpl(std::make_unique<Impl>(bus, subjects, broker)) {}

KXEventReceiver::~KXEventReceiver() = default;

void KXEventReceiver::serve(std::string const& name) {
  mImpl->serve(name);
}

void KXEventReceiver::withdraw(std::string const& name) {
  mImpl->withdraw(name);
}

KXEventCounts KXEventReceiver::getCounts(std::string const& name) const {
  return mImpl->getCounts(name);
}

}  // namespace KX
