#include <host/bus/kxcaller.hpp>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxdestination.hpp>
#include <host/bus/kxrandomid.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = KXError::Kind;
using std::chrono::milliseconds;

constexpr milliseconds kFirstRepeat{500};
// A callee that died is noticed at the next repeat.
constexpr milliseconds kLongestRepeat{2000};
// After a cut the others come back when they do: so long nobody is said to be gone.
constexpr milliseconds kReturnGrace{1500};
constexpr milliseconds kReturnRetry{50};
// A server that was replaced notices within a second. Who answers for longer has replaced the
// other.
constexpr int kFormerTries = 30;
// A module that does not answer is tried so often by calls that cannot wait long.
constexpr milliseconds kSilentRetry{1000};
constexpr int kWaitSliceMs = 2000;
constexpr std::size_t kMaxMethods = 1000;
// What further headers a repeat has.
constexpr std::size_t kRepeatBytes = 64;

std::int64_t inMs(Clock::duration duration) {
  return std::chrono::duration_cast<milliseconds>(duration).count();
}

[[noreturn]] void fail(std::string const& text, Kind kind) {
  throw KXError("KXBus", "call", text, "bus/kxcaller", 0, kind);
}

std::string nameOf(std::string const& module, std::string const& method) {
  return "'" + module + "." + method + "'";
}

// Of a parallel call, which is its server's own.
bool isOfTask(std::string_view method) {
  return method == kIsRunningMethod || method == kWaitMethod;
}

struct Call {
  std::string const& module;
  std::string method;
  KXValue const& params;
  int timeoutMs = 0;  // the caller's own
  bool isTask = false;
  bool isOnce = true;  // otherwise it may be run as often as it arrives
};

}  // namespace

class KXCaller::Impl {
 public:
  Impl(KXBus& bus, KXSubjects subjects, std::string robot, int timeoutMs);
  ~Impl();

  KXValue call(Call const& call);
  bool wait(std::string const& module, int taskId, int timeoutMs);

  void close();

 private:
  class Visit;
  class Slot;

  struct Answer {
    std::string payload;
    std::string errorCode;
    bool isToAcknowledge;  // by itself, and not with the next call
  };

  std::shared_ptr<KXCalledMethod> xMethod(KXDestination& destination, Call const& call);
  void xCheckSilence(KXDestination& destination, Call const& call, Clock::time_point now);
  void xFind(KXDestination& destination, Call const& call, Clock::time_point startedAt);
  KXValue xRun(KXDestination& destination, Call const& call, Clock::time_point startedAt);
  Answer xAwait(KXDestination& destination, Call const& call, Slot& slot);
  void xCheckPending(KXDestination& destination, Call const& call, Slot& slot,
                     Clock::time_point now);
  void xSend(Call const& call, Slot& slot, KXBusHeaders headers, std::string_view payload);
  KXBusHeaders xHeaders(Call const& call, Slot const& slot) const;
  void xSendDone(Slot const& slot);
  void xLearnInstance(KXDestination& destination, KXValue const& found);
  [[noreturn]] void xFailAway(Call const& call) const;
  void xOnReply(KXBusMessage const& message);
  void xOnEvent(KXBusEvent const& event);

  KXBus& mBus;
  KXSubjects const mSubjects;
  std::string const mRobot;
  int const mTimeoutMs;
  std::string const mInbox;  // with a dot at the end

  mutable std::mutex mMutex;
  std::condition_variable mHasLeft;
  // Guarded by mMutex:
  KXDestinations mDestinations;
  std::size_t mVisitorCount = 0;
  bool mIsClosed = false;
  std::string mInboxRefusal;  // empty: the server lets this process listen to its replies
  Clock::time_point mBackAt{};
  bool mWasLost = false;

  // The last ones: their handlers use what stands above.
  std::unique_ptr<KXBusSubscription> mObservation;
  std::unique_ptr<KXBusSubscription> mReplies;
};

// Counts the threads that are inside.
class KXCaller::Impl::Visit {
 public:
  explicit Visit(Impl& impl) : mImpl(impl) {
    std::lock_guard const lock(mImpl.mMutex);
    ++mImpl.mVisitorCount;
  }
  ~Visit() {
    std::lock_guard const lock(mImpl.mMutex);
    if (--mImpl.mVisitorCount == 0) mImpl.mHasLeft.notify_all();
  }
  Visit(Visit const&) = delete;
  Visit& operator=(Visit const&) = delete;

 private:
  Impl& mImpl;
};

// Where the reply to one call arrives, and all that is needed to ask for it again.
class KXCaller::Impl::Slot {
 public:
  Slot(Impl& impl, KXDestination& destination, KXCalledMethod const& method,
       std::shared_ptr<std::string const> payloadBytes, Clock::time_point startedAt,
       Clock::time_point deadlineAt, bool mayTakeLonger)
      : subject(method.subject),
        payload(std::move(payloadBytes)),
        mImpl(impl),
        mDestination(destination) {
    pending.startedAt = startedAt;
    pending.heardAt = startedAt;
    pending.deadline = deadlineAt;
    pending.mayTakeLonger = mayTakeLonger;
    pending.subject = &subject;
    replySubject.reserve(mImpl.mInbox.size() + destination.callerId.size() + 24);
    replySubject.append(mImpl.mInbox).append(destination.callerId).append("-");
    {
      std::lock_guard const lock(mImpl.mMutex);
      id = destination.begin(pending);
    }
    replySubject += std::to_string(id.number);
  }
  ~Slot() {
    std::lock_guard const lock(mImpl.mMutex);
    mDestination.pending.erase(id.number);
    if (mayHaveRun) mDestination.giveUp(id.number);
  }
  Slot(Slot const&) = delete;
  Slot& operator=(Slot const&) = delete;

  std::string const subject;
  std::shared_ptr<std::string const> const payload;
  KXCallId id;
  std::string replySubject;
  int sentCount = 0;
  bool mayHaveRun = false;  // it was sent, and its reply has not come
  KXPendingCall pending;    // guarded by the caller's mutex

 private:
  Impl& mImpl;
  KXDestination& mDestination;
};

KXCaller::Impl::Impl(KXBus& bus, KXSubjects subjects, std::string robot, int timeoutMs)
    : mBus(bus),
      mSubjects(std::move(subjects)),
      mRobot(std::move(robot)),
      mTimeoutMs(timeoutMs),
      mInbox(bus.inboxPrefix() + "." + makeRandomId() + ".") {
  mObservation = bus.observe([this](KXBusEvent const& event) { xOnEvent(event); });
  mReplies = bus.subscribe(mInbox + "*", "", 1,
                           [this](KXBusMessage const& message) { xOnReply(message); });
}

KXCaller::Impl::~Impl() {
  close();
  {
    std::unique_lock lock(mMutex);
    mHasLeft.wait(lock, [this] { return mVisitorCount == 0; });
  }
  mReplies.reset();
  mObservation.reset();
}

void KXCaller::Impl::close() {
  std::lock_guard const lock(mMutex);
  mIsClosed = true;
  for (auto const& [module, destination] : mDestinations.all()) {
    for (auto const& [number, pending] : destination->pending) pending->changed.notify_all();
  }
}

KXValue KXCaller::Impl::call(Call const& call) {
  Visit const visit(*this);
  auto const startedAt = Clock::now();
  if (!mBus.isConnected()) xFailAway(call);
  std::shared_ptr<KXDestination> destination;
  bool hasInstance = false;
  {
    std::lock_guard const lock(mMutex);
    destination = mDestinations.find(call.module);
    xCheckSilence(*destination, call, startedAt);
    hasInstance = !destination->instance.empty();
  }
  if (!hasInstance && call.isOnce) xFind(*destination, call, startedAt);
  return xRun(*destination, call, startedAt);
}

// A request that gets lost can only be sent again to a server that can be told from others.
void KXCaller::Impl::xFind(KXDestination& destination, Call const& call,
                           Clock::time_point startedAt) {
  try {
    KXValue const none = KXValue::arrayOf();
    xRun(destination, {call.module, kFindMethod, none, call.timeoutMs, false, false}, startedAt);
  } catch (KXError const& error) {
    // Who may call a method and nothing else learns from the reply whom it has called.
    if (error.getKind() != Kind::Refused) throw;
  }
}

// The result of one call.
KXValue KXCaller::Impl::xRun(KXDestination& destination, Call const& call,
                             Clock::time_point startedAt) {
  std::shared_ptr<KXCalledMethod> const method = xMethod(destination, call);
  auto const timeout = milliseconds(call.timeoutMs > 0 ? call.timeoutMs : mTimeoutMs);
  Slot slot(*this, destination, *method, method->encode(call.params), startedAt,
            startedAt + timeout, call.timeoutMs <= 0);
  Answer const answer = xAwait(destination, call, slot);
  if (answer.isToAcknowledge) xSendDone(slot);
  try {
    KXValue result = decodeReply(answer.payload, answer.errorCode);
    if (call.method == kFindMethod) xLearnInstance(destination, result);
    return result;
  } catch (KXError const& error) {
    // What the callee threw has come from further away.
    bool const isOfWire =
        error.getModuleName() == "KXBus" &&
        (error.getFileName() == "bus/kxwire" || error.getFileName() == "bus/kxmsgpack");
    if (!isOfWire) throw;
    fail("the reply of " + nameOf(call.module, call.method) + " cannot be read: " + error.what(),
         Kind::Failed);
  }
}

// Sends the request, again and again if need be, until the reply is there.
KXCaller::Impl::Answer KXCaller::Impl::xAwait(KXDestination& destination, Call const& call,
                                              Slot& slot) {
  KXPendingCall& pending = slot.pending;
  milliseconds interval = kFirstRepeat;
  Clock::time_point repeatAt = Clock::now();
  int movedCount = 0;
  std::unique_lock lock(mMutex);
  while (true) {
    auto const now = Clock::now();
    if (pending.reply.state() == KXPartCollector::State::Complete) break;
    xCheckPending(destination, call, slot, now);
    // Where one request was sent and a server that it is not for has got it, it runs nowhere.
    // Further ones would go elsewhere, and only their answers tell what became of the call.
    if (std::string const found = std::exchange(pending.movedTo, {});
        !found.empty() && found != slot.id.to && slot.sentCount == 1) {
      slot.sentCount = 0;
      slot.mayHaveRun = false;
      // While a server that hung has not noticed that it was replaced, two get requests in turn.
      bool const isFormer = found == destination.formerInstance;
      if (++movedCount > (isFormer ? kFormerTries : 1)) {
        if (isOfTask(call.method)) {
          fail("module '" + call.module + "' was started anew since its parallel call began",
               Kind::Disconnected);
        }
        destination.moveTo(found);
        slot.id.to = found;
      }
      interval = kFirstRepeat;
      repeatAt = movedCount > 2 ? now + kReturnRetry : now;
    }
    // Nobody listens, but who has just been cut off may be about to return.
    if (std::exchange(pending.hasNoResponders, false)) repeatAt = now + kReturnRetry;
    if (std::exchange(pending.isBack, false)) repeatAt = now;
    bool const isAsking = pending.reply.state() == KXPartCollector::State::Asking;
    // While parts come there is nothing to be repeated.
    if (slot.sentCount > 0 && pending.reply.hasParts()) {
      repeatAt = std::max(repeatAt, pending.heardAt + kFirstRepeat);
    }
    if (isAsking || now >= repeatAt) {
      KXBusHeaders headers = xHeaders(call, slot);
      bool const hasPart = call.isOnce && pending.reply.nextPart() > 0;
      pending.reply.asked();
      lock.unlock();
      xSend(call, slot, std::move(headers), hasPart ? std::string_view() : *slot.payload);
      lock.lock();
      repeatAt = now + (isAsking ? kFirstRepeat : interval);
      if (!isAsking) interval = std::min(2 * interval, kLongestRepeat);
      continue;
    }
    pending.changed.wait_until(lock, std::min(pending.deadline, repeatAt));
  }
  slot.mayHaveRun = false;
  destination.hasRead(slot.id);
  KXPendingCall const& oldest = *destination.pending.begin()->second;
  bool const isHeldUp = &oldest != &pending && oldest.startedAt + kFirstRepeat < Clock::now();
  return {.payload = pending.reply.takePayload(),
          .errorCode = std::move(pending.errorCode),
          .isToAcknowledge = call.isOnce && (pending.reply.hasParts() || isHeldUp)};
}

// Throws if there is no more hope for the call. The caller holds mMutex.
void KXCaller::Impl::xCheckPending(KXDestination& destination, Call const& call, Slot& slot,
                                   Clock::time_point now) {
  KXPendingCall const& pending = slot.pending;
  auto const name = [&] {
    return call.isOnce ? nameOf(call.module, call.method) : "module '" + call.module + "'";
  };
  char const* const mayHaveRun = call.isOnce ? "; the call may have run" : "";
  if (mIsClosed) {
    bool const isSent = slot.sentCount > 0;
    fail("the way to robot '" + mRobot + "' was closed" +
             (isSent ? " while " + name() + " was called" + mayHaveRun : ""),
         Kind::Disconnected);
  }
  if (!mInboxRefusal.empty()) {
    fail("the server forbids to listen to replies: " + mInboxRefusal, Kind::Refused);
  }
  if (pending.refusal) {
    fail("the server forbids to call " + name() + ": " + *pending.refusal, Kind::Refused);
  }
  if (pending.reply.state() == KXPartCollector::State::Broken) {
    fail("the reply of " + name() + " cannot be read: " + pending.reply.fault(), Kind::Failed);
  }
  // A connection that was lost carries messages a moment before it is told that it is back.
  bool const mayReturn = mWasLost || now < mBackAt + kReturnGrace;
  if (pending.hasNoResponders && (now >= pending.deadline || !mayReturn)) {
    destination.isSilent = false;
    destination.forgetInstance();
    if (pending.noRespondersCount == slot.sentCount || !call.isOnce) {
      slot.mayHaveRun = false;
      fail("nobody has module '" + call.module + "' on robot '" + mRobot + "'", Kind::NotFound);
    }
    fail("module '" + call.module + "' went away while it was called" + mayHaveRun,
         Kind::Disconnected);
  }
  if (now < pending.deadline) return;
  if (!std::exchange(destination.isSilent, true)) destination.silentSince = pending.startedAt;
  destination.triedAt = now;
  fail("no answer of " + name() + " within " + std::to_string(inMs(now - pending.startedAt)) +
           " ms" + (mWasLost ? ", the connection to " + mBus.address() + " is lost" : "") +
           mayHaveRun,
       Kind::TimedOut);
}

// A call with little time does not wait for a module that let others wait in vain, but for one a
// second. The caller holds mMutex.
void KXCaller::Impl::xCheckSilence(KXDestination& destination, Call const& call,
                                   Clock::time_point now) {
  bool const hasLittleTime = call.timeoutMs > 0 && call.timeoutMs < mTimeoutMs;
  if (!destination.isSilent || !hasLittleTime) return;
  if (now >= destination.triedAt + kSilentRetry) {
    destination.triedAt = now;
    return;
  }
  fail("module '" + call.module + "' has not answered for " +
           std::to_string(inMs(now - destination.silentSince)) + " ms",
       Kind::TimedOut);
}

// The caller holds mMutex.
KXBusHeaders KXCaller::Impl::xHeaders(Call const& call, Slot const& slot) const {
  if (!call.isOnce) return {};
  KXBusHeaders headers{{kCallHeader, formatCallId(slot.id)}};
  if (slot.sentCount > 0) {
    headers.emplace_back(kAgainHeader, std::to_string(slot.pending.reply.nextPart()));
  }
  if (call.isTask) headers.emplace_back(kTaskHeader, "1");
  return headers;
}

void KXCaller::Impl::xSend(Call const& call, Slot& slot, KXBusHeaders headers,
                           std::string_view payload) {
  bool const isFirst = slot.sentCount == 0;
  KXBusMessage const message{.subject = slot.subject,
                             .reply = slot.replySubject,
                             .headers = std::move(headers),
                             .payload = payload};
  if (isFirst) {
    std::size_t const bytes = messageBytes(message) + kRepeatBytes;
    if (bytes > mBus.maxPayload()) {
      fail("the arguments of " + nameOf(call.module, call.method) + " take " +
               std::to_string(slot.payload->size()) + " bytes, a message to robot '" + mRobot +
               "' at most " + std::to_string(mBus.maxPayload()),
           Kind::Failed);
    }
    if (!mBus.isConnected()) xFailAway(call);
  }
  try {
    mBus.publish(message);
  } catch (KXError const& error) {
    if (isFirst && error.getKind() == Kind::Disconnected) xFailAway(call);
    if (isFirst && error.getKind() == Kind::Failed) throw;
    // It may have left; or it did so the first time, and the reply may still come.
  }
  ++slot.sentCount;
  slot.mayHaveRun = call.isOnce;
}

void KXCaller::Impl::xSendDone(Slot const& slot) {
  KXBusMessage const message{
      .subject = slot.subject,
      .headers = {{kCallHeader, formatCallId({slot.id.caller, slot.id.number, 0})},
                  {kDoneHeader, "1"}}};
  try {
    mBus.publish(message);
  } catch (KXError const&) {
    // Then the next call says so, or time does.
  }
}

void KXCaller::Impl::xLearnInstance(KXDestination& destination, KXValue const& found) {
  if (found.getType() != KXValue::TypeString) {
    throw KXError("KXBus", "decodeReply",
                  "expected string, got " + KXValue::TypeToString(found.getType()), "bus/kxwire",
                  0);
  }
  std::lock_guard const lock(mMutex);
  destination.learn(static_cast<std::string const&>(found));
}

void KXCaller::Impl::xFailAway(Call const& call) const {
  fail("no connection to " + mBus.address() + ", cannot call " + nameOf(call.module, call.method),
       Kind::Disconnected);
}

std::shared_ptr<KXCalledMethod> KXCaller::Impl::xMethod(KXDestination& destination,
                                                        Call const& call) {
  std::lock_guard const lock(mMutex);
  auto const found = destination.methods.find(call.method);
  if (found != destination.methods.end()) return found->second;
  auto method = std::make_shared<KXCalledMethod>();
  method->subject = isInOwnName(call.module, call.method)
                        ? mSubjects.callFrom(mBus.user(), call.module, call.method)
                        : mSubjects.call(parseAddress(call.module), call.method);
  if (destination.methods.size() >= kMaxMethods) destination.methods.clear();
  destination.methods[call.method] = method;
  return method;
}

void KXCaller::Impl::xOnReply(KXBusMessage const& message) {
  std::string_view const token = message.subject.substr(mInbox.size());
  std::size_t const dash = token.find('-');
  if (dash == std::string_view::npos) return;
  std::uint64_t number = 0;
  char const* const end = token.data() + token.size();
  auto const parsed = std::from_chars(token.data() + dash + 1, end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return;

  std::lock_guard const lock(mMutex);
  KXDestination* const found = mDestinations.findCaller(token.substr(0, dash));
  if (found == nullptr) return;
  KXDestination& destination = *found;
  std::string_view const code = message.header(kErrorCodeHeader);
  std::string_view const instance = message.header(kInstanceHeader);
  bool const isMoved = !message.isNoResponders && code == kMovedCode;
  if (!message.isNoResponders) {
    // A server that hung and was replaced meanwhile answers all that it finds when it wakes.
    bool const isLate = code == kRestartedCode && instance == destination.formerInstance;
    if (isLate && !instance.empty()) return;
    // Also if nobody waits for it any more.
    destination.isSilent = false;
    if (!isMoved) destination.learn(instance);
  }
  auto const waiting = destination.pending.find(number);
  if (waiting == destination.pending.end()) return;
  KXPendingCall& pending = *waiting->second;
  pending.heardAt = Clock::now();
  if (message.isNoResponders) {
    pending.hasNoResponders = true;
    ++pending.noRespondersCount;
  } else if (isMoved) {
    pending.movedTo = instance;
  } else {
    if (pending.reply.state() != KXPartCollector::State::Complete) {
      pending.errorCode = code;
    }
    auto const had = pending.reply.nextPart();
    pending.reply.take(message.header(kPartHeader), message.payload);
    if (pending.mayTakeLonger && pending.reply.nextPart() > had) {
      pending.deadline = std::max(pending.deadline, pending.heardAt + milliseconds(mTimeoutMs));
    }
    if (pending.reply.state() == KXPartCollector::State::Waiting) return;
  }
  pending.changed.notify_one();
}

void KXCaller::Impl::xOnEvent(KXBusEvent const& event) {
  std::lock_guard const lock(mMutex);
  bool const isBack = event.kind == KXBusEvent::Kind::Back;
  bool const isRefused = event.kind == KXBusEvent::Kind::Refused;
  if (event.kind == KXBusEvent::Kind::Lost) mWasLost = true;
  if (isBack) {
    mWasLost = false;
    mBackAt = Clock::now();
    mInboxRefusal.clear();
  }
  if (isRefused && !event.isPublishing && event.concerns(mInbox + "*")) {
    mInboxRefusal = event.text.empty() ? event.subject : event.text;
  }
  if (!isBack && !isRefused) return;
  for (auto const& [module, destination] : mDestinations.all()) {
    if (isBack) destination->isSilent = false;
    for (auto const& [number, pending] : destination->pending) {
      if (isBack) pending->isBack = true;
      if (isRefused && event.isPublishing && event.concerns(*pending->subject)) {
        pending->refusal = event.text.empty() ? event.subject : event.text;
      }
      pending->changed.notify_one();
    }
  }
}

bool KXCaller::Impl::wait(std::string const& module, int taskId, int timeoutMs) {
  auto const deadline = Clock::now() + milliseconds(timeoutMs);
  for (bool isFirst = true;; isFirst = false) {
    int sliceMs = kWaitSliceMs;
    if (timeoutMs != 0) {
      auto const leftMs = inMs(deadline - Clock::now()) + 1;
      sliceMs = static_cast<int>(std::clamp<std::int64_t>(leftMs, 1, kWaitSliceMs));
    }
    KXValue const params = KXValue::arrayOf(taskId, sliceMs);
    try {
      if (static_cast<bool>(call({module, kWaitMethod, params, sliceMs + mTimeoutMs}))) return true;
    } catch (KXError const& error) {
      if (isFirst || error.getKind() != Kind::NotFound) throw;
      fail("module '" + module + "' went away while its parallel call " + std::to_string(taskId) +
               " was waited for",
           Kind::Disconnected);
    }
    if (timeoutMs != 0 && Clock::now() >= deadline) return false;
  }
}

// ---- the class itself

KXCaller::KXCaller(KXBus& bus, KXSubjects subjects, std::string robot, int timeoutMs)
    : mImpl(new Impl(bus, std::move(subjects), std::move(robot), timeoutMs)) {}

KXCaller::~KXCaller() = default;

void KXCaller::call(std::string const& module, std::string const& method, KXValue const& params,
                    KXValue& result, int timeoutMs) {
  result = mImpl->call({module, method, params, timeoutMs});
}

void KXCaller::pCall(std::string const& module, std::string const& method, KXValue const& params,
                     KXValue& result) {
  result = mImpl->call({.module = module, .method = method, .params = params, .isTask = true});
}

bool KXCaller::isRunning(std::string const& module, int taskId) {
  KXValue const params = KXValue::arrayOf(taskId);
  return static_cast<bool>(mImpl->call({module, kIsRunningMethod, params}));
}

bool KXCaller::wait(std::string const& module, int taskId, int timeoutMs) {
  return mImpl->wait(module, taskId, timeoutMs);
}

void KXCaller::find(std::string const& module) {
  KXValue const params = KXValue::arrayOf();
  mImpl->call({.module = module, .method = kFindMethod, .params = params, .isOnce = false});
}

KXModuleInfo KXCaller::describe(std::string const& module) {
  KXValue const params = KXValue::arrayOf();
  return moduleInfoFromValue(
      mImpl->call({.module = module, .method = kDescribeMethod, .params = params}));
}

void KXCaller::close() {
  mImpl->close();
}

}  // namespace KX
