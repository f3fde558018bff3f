#include <host/bus/kxeventsender.hpp>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <host/bus/kxpackstream.hpp>
#include <host/bus/kxrandomid.hpp>
#include <host/bus/kxrareline.hpp>
#include <host/bus/kxwire.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

constexpr char const* kCategory = "KXEventSender";

constexpr std::chrono::milliseconds kTick{50};
// So long after the last notification the thread goes on looking, before it has to be woken again.
constexpr int kIdleTicks = 20;
// So many packs the threads of others send at a time; what is left is the own thread's.
constexpr int kPacksPerNotify = 1;
constexpr int kPacksPerTurn = 16;
// Room for the subject, the headers and what the protocol adds.
constexpr std::size_t kHeaderRoom = 4096;
// A line of the log tells what was dropped when no more was for a while, or after a longer one.
constexpr std::int64_t kDropPauseMs = 1000;
constexpr std::int64_t kDropTellMs = 10'000;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

KXPackLimits makeLimits(std::size_t maxPayload, std::size_t maxWaitingBytes) {
  KXPackLimits limits;
  limits.message = maxPayload > kHeaderRoom ? maxPayload - kHeaderRoom : 0;
  limits.pack = std::min(limits.pack, limits.message);
  limits.waiting = maxWaitingBytes;
  return limits;
}

}  // namespace

class KXEventSender::Impl {
 public:
  Impl(KXBus& bus, KXSubjects const& subjects, std::size_t maxWaitingBytes,
       std::chrono::milliseconds goneAfter)
      : mBus(bus),
        mSubjects(subjects),
        mMaxWaitingBytes(maxWaitingBytes),
        mGoneAfterMs(goneAfter.count()),
        mMaxPayload(bus.maxPayload()),
        mInbox(bus.inboxPrefix() + '.' + makeRandomId() + '.') {
    mAcks = bus.subscribe(mInbox + '*', "", 1, [this](auto const& message) { xOnAck(message); });
    mHellos =
        bus.subscribe(subjects.hello(), "", 1, [this](auto const& message) { xOnHello(message); });
    mObservation = bus.observe([this](KXBusEvent const& event) { xOnBusEvent(event); });
    mThread = std::thread([this] { xRun(); });
  }

  ~Impl() {
    {
      std::lock_guard const lock(mMutex);
      mIsStopping = true;
    }
    mWakeUp.notify_all();
    mObservation.reset();
    mHellos.reset();
    mAcks.reset();
    mThread.join();
    xTellUndelivered();
  }

  void notify(std::string const& module, std::vector<KXNotification> const& notifications) {
    std::shared_ptr<Destination> const to = xDestination(module);
    bool isGone = false;
    {
      std::lock_guard const lock(to->mutex);
      if (to->nobodySinceMs != 0 && nowMs() - to->nobodySinceMs > mGoneAfterMs) isGone = true;
    }
    if (isGone) xGiveUp(module);
    {
      std::lock_guard const lock(to->mutex);
      std::uint64_t const before = to->sender.getCounts().dropped;
      to->sender.post(notifications);
      if (to->sender.getCounts().dropped != before) to->drops.note(nowMs());
    }
    xSend(*to, kPacksPerNotify);
    if (mIsParked) xWake();
  }

  KXNotificationCounts getCounts(std::string const& module) const {
    std::shared_ptr<Destination> const to = xFind(module);
    if (!to) return {};
    std::lock_guard const lock(to->mutex);
    return to->sender.getCounts();
  }

  void forget(std::string const& module) {
    std::lock_guard const lock(mMutex);
    auto const found = mByName.find(module);
    if (found == mByName.end()) return;
    mByNumber.erase(found->second->number);
    mByName.erase(found);
  }

 private:
  /// What was dropped and not told yet.
  struct Drops {
    std::uint64_t toldCount = 0;
    std::int64_t firstMs = 0;  ///< 0: all is told
    std::int64_t lastMs = 0;

    void note(std::int64_t timeMs) {
      if (firstMs == 0) firstMs = timeMs;
      lastMs = timeMs;
    }
    bool isToTell(std::int64_t timeMs) const {
      return firstMs != 0 && (timeMs - lastMs >= kDropPauseMs || timeMs - firstMs >= kDropTellMs);
    }
  };

  struct Destination {
    Destination(std::string module, std::uint64_t itsNumber, std::string itsSubject,
                std::string itsReply, KXPackLimits const& limits)
        : name(std::move(module)),
          number(itsNumber),
          subject(std::move(itsSubject)),
          reply(std::move(itsReply)),
          sender(makeRandomId(), limits) {}

    std::string const name;
    std::uint64_t const number;
    std::string const subject;
    std::string const reply;
    std::mutex mutex;
    KXPackSender sender;             // guarded by mutex, as all below
    bool isSending = false;          ///< by one thread at a time, so that packs go in order
    std::int64_t nobodySinceMs = 0;  ///< since when nobody listens; 0: somebody may
    Drops drops;
  };

  std::shared_ptr<Destination> xFind(std::string const& module) const {
    std::lock_guard const lock(mMutex);
    auto const found = mByName.find(module);
    return found == mByName.end() ? nullptr : found->second;
  }

  std::shared_ptr<Destination> xDestination(std::string const& module) {
    std::lock_guard const lock(mMutex);
    auto const found = mByName.find(module);
    if (found != mByName.end()) return found->second;
    std::uint64_t const number = mNextNumber++;
    auto const made = std::make_shared<Destination>(
        module, number, mSubjects.events(parseAddress(module)), mInbox + std::to_string(number),
        makeLimits(mMaxPayload, mMaxWaitingBytes));
    mByNumber.emplace(number, made);
    try {
      mByName.emplace(module, made);
    } catch (...) {
      mByNumber.erase(number);
      throw;
    }
    return made;
  }

  std::vector<std::shared_ptr<Destination>> xAll() const {
    std::lock_guard const lock(mMutex);
    std::vector<std::shared_ptr<Destination>> all;
    for (auto const& [name, to] : mByName) all.push_back(to);
    return all;
  }

  // Sends what may go, up to so many packs; the thread is woken for what is left. Where another
  // thread is at it, that one sees to all.
  void xSend(Destination& to, int maxCount) noexcept {
    bool isMoreLeft = false;
    {
      std::unique_lock lock(to.mutex);
      if (to.isSending) return;
      to.isSending = true;
      while (maxCount > 0 && xSendOne(to, lock)) --maxCount;
      to.isSending = false;
      isMoreLeft = maxCount == 0 && xMaySend() && to.sender.hasToSend(nowMs());
    }
    if (isMoreLeft) xWake();
  }

  // The bus itself is asked last: while it tries to connect, its answer may take a while.
  bool xMaySend() const { return !mIsStopping && !mIsAway && mBus.isConnected(); }

  // False if there was nothing to send, or no way. A pack that fails is as good as lost on its way:
  // it is sent anew when the receiver has been asked.
  bool xSendOne(Destination& to, std::unique_lock<std::mutex>& lock) noexcept {
    if (!xMaySend()) return false;
    std::optional<KXOutgoingPack> pack;
    auto const failure = [&] {
      return "no pack was made for module '" + to.name + "'";
    };
    ka::log::runLogged(kCategory, "send", failure, [&] { pack = to.sender.take(nowMs()); });
    if (!pack) return false;
    lock.unlock();
    bool const isPublished = xPublish(to, *pack);
    lock.lock();
    if (isPublished) return true;
    // On purpose: unless the server that it is connected to now takes only smaller messages. Then
    // nothing behind it would ever get there.
    if (pack->bytes->size() + kHeaderRoom <= mMaxPayload) return false;
    to.sender.onRejected(pack->header);
    to.drops.note(nowMs());
    return true;
  }

  bool xPublish(Destination const& to, KXOutgoingPack const& pack) noexcept {
    try {
      mBus.publish({.subject = to.subject,
                    .reply = to.reply,
                    .headers = {{kPackHeader, formatPackHeader(pack.header)}},
                    .payload = *pack.bytes});
      return true;
    } catch (...) {
      // Its loss shows in the acknowledgements, whyever it failed.
      return false;
    }
  }

  void xOnAck(KXBusMessage const& message) {
    std::shared_ptr<Destination> const to = xOfReply(message.subject);
    if (!to) return;
    {
      std::lock_guard const lock(to->mutex);
      if (message.isNoResponders) {
        to->sender.onNoResponders(nowMs());
        if (to->nobodySinceMs == 0) to->nobodySinceMs = nowMs();
      } else if (auto const ack = packAckOf(message)) {
        to->sender.onAck(*ack, nowMs());
        to->nobodySinceMs = 0;
      }
    }
    xSend(*to, kPacksPerTurn);
  }

  std::shared_ptr<Destination> xOfReply(std::string_view subject) const {
    if (!subject.starts_with(mInbox)) return nullptr;
    subject.remove_prefix(mInbox.size());
    std::uint64_t number = 0;
    auto const [end, error] =
        std::from_chars(subject.data(), subject.data() + subject.size(), number);
    if (error != std::errc() || end != subject.data() + subject.size()) return nullptr;
    std::lock_guard const lock(mMutex);
    auto const found = mByNumber.find(number);
    return found == mByNumber.end() ? nullptr : found->second;
  }

  // The payload is the array of the names that are served (again).
  void xOnHello(KXBusMessage const& message) {
    KXValue names;
    try {
      names = decodeValue(message.payload);
    } catch (KXError const& error) {
      return mMalformed.tell(
          [&] { return std::string("a hello cannot be read: ") + messageOf(error); });
    }
    for (int i = 0; i < names.getSize(); ++i) {
      if (names[i].getType() != KXValue::TypeString) continue;
      std::shared_ptr<Destination> const to = xFind(static_cast<std::string const&>(names[i]));
      if (!to) continue;
      {
        std::lock_guard const lock(to->mutex);
        to->sender.onBack(nowMs());
        to->nobodySinceMs = 0;
      }
      xSend(*to, kPacksPerTurn);
    }
  }

  [[noreturn]] void xGiveUp(std::string const& module) {
    forget(module);
    throw KXError(kCategory, "notify",
                  "nobody has listened for module '" + module + "' for " +
                      std::to_string(mGoneAfterMs / 1000) + " s",
                  "bus/kxeventsender", 0, KXError::Kind::NotFound);
  }

  void xOnBusEvent(KXBusEvent const& event) {
    if (event.kind == KXBusEvent::Kind::Lost) mIsAway = true;
    if (event.kind != KXBusEvent::Kind::Back) return;
    mIsAway = false;
    mIsBack = true;
    xWake();
  }

  void xWake() {
    {
      std::lock_guard const lock(mMutex);
      mIsWoken = true;
    }
    mWakeUp.notify_one();
  }

  void xRun() {
    int idleTicks = 0;
    while (!mIsStopping) {
      // Before the look: whoever posts behind it finds the thread parked, and wakes it.
      bool const isToPark = idleTicks >= kIdleTicks;
      mIsParked = isToPark;
      bool isBusy = true;
      ka::log::runLogged(kCategory, "run", "sending failed", [&] { isBusy = xTurn(); });
      idleTicks = isBusy ? 0 : idleTicks + 1;
      std::unique_lock lock(mMutex);
      auto const isOver = [this] {
        return mIsStopping || mIsWoken;
      };
      if (isToPark && !isBusy) {
        mWakeUp.wait(lock, isOver);
      } else {
        mWakeUp.wait_for(lock, kTick, isOver);
      }
      mIsWoken = false;
    }
  }

  // True if anything waits, or is to be told.
  bool xTurn() {
    bool const isBack = mIsBack.exchange(false);
    if (isBack) mMaxPayload = mBus.maxPayload();
    bool isBusy = false;
    for (std::shared_ptr<Destination> const& to : xAll()) {
      {
        std::lock_guard const lock(to->mutex);
        // While this process was cut off, nobody could tell whether somebody listens.
        if (isBack) to->nobodySinceMs = 0;
        if (isBack) to->sender.onBack(nowMs());
        isBusy |= !to->sender.isDone() || to->drops.firstMs != 0;
      }
      xSend(*to, kPacksPerTurn);
      xTellDrops(*to);
    }
    return isBusy;
  }

  void xTellDrops(Destination& to) {
    KXNotificationCounts counts;
    std::uint64_t dropped = 0;
    {
      std::lock_guard const lock(to.mutex);
      if (!to.drops.isToTell(nowMs())) return;
      counts = to.sender.getCounts();
      dropped = counts.dropped - to.drops.toldCount;
      to.drops = {counts.dropped, 0, 0};
    }
    ka::log::LogStream(ka::log::Warning, kCategory, "", "notify", 0)
        << dropped << " notifications to module '" << to.name
        << "' were dropped for want of room, or too large for a message; " << counts.waiting
        << " wait";
  }

  void xTellUndelivered() {
    std::uint64_t count = 0;
    for (auto const& [name, to] : mByName) {
      std::lock_guard const lock(to->mutex);
      count += to->sender.getCounts().waiting;
    }
    if (count == 0) return;
    ka::log::LogStream(ka::log::Warning, kCategory, "", "exit", 0)
        << "notifications to modules of other processes not delivered: " << count;
  }

  KXBus& mBus;
  KXSubjects const mSubjects;
  std::size_t const mMaxWaitingBytes;
  std::int64_t const mGoneAfterMs;
  std::atomic<std::size_t> mMaxPayload;  ///< of the server that it was connected to last
  std::string const mInbox;              ///< up to the number of the destination

  mutable std::mutex mMutex;
  std::condition_variable mWakeUp;
  std::map<std::string, std::shared_ptr<Destination>, std::less<>> mByName;  // guarded by mMutex,
  std::map<std::uint64_t, std::shared_ptr<Destination>> mByNumber;  // as all down to the empty line
  std::uint64_t mNextNumber = 1;
  bool mIsWoken = false;

  std::atomic<bool> mIsStopping{false};
  std::atomic<bool> mIsParked{false};  ///< the thread waits without a limit
  std::atomic<bool> mIsAway{false};    ///< the connection is
  std::atomic<bool> mIsBack{false};    ///< the connection is, and the thread has not seen to it

  KXRareLine mMalformed{kCategory, "hello"};
  std::thread mThread;
  std::unique_ptr<KXBusSubscription> mAcks;
  std::unique_ptr<KXBusSubscription> mHellos;
  std::unique_ptr<KXBusSubscription> mObservation;
};

KXEventSender::KXEventSender(KXBus& bus, KXSubjects const& subjects, std::size_t maxWaitingBytes,
                             std::chrono::milliseconds goneAfter)
    : mImpl(std::make_unique<Impl>(bus, subjects, maxWaitingBytes, goneAfter)) {}

KXEventSender::~KXEventSender() = default;

void KXEventSender::notify(std::string const& module,
                           std::vector<KXNotification> const& notifications) {
  mImpl->notify(module, notifications);
}

KXNotificationCounts KXEventSender::getCounts(std::string const& module) const {
  return mImpl->getCounts(module);
}

void KXEventSender::forget(std::string const& module) {
  mImpl->forget(module);
}

}  // namespace KX
