#include <host/bus/kxclaim.hpp>

#include <tuple>
#include <utility>

#include <unistd.h>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxutctext.hpp>
#include <host/bus/kxwire.hpp>
#include <ka/log.hpp>
#include <ka/runlogged.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr char kCategory[] = "KXClaim";
constexpr char kClaims[] = "claims";
constexpr char kHolds[] = "holds";

// A holder that does not answer all of these is taken to be gone. They are more than one, since a
// process on a busy machine may sleep that long.
constexpr int kQuestions = 4;
constexpr auto kQuestionTime = 250ms;
// Those that claim at the same time are awake.
constexpr auto kRivalTime = 300ms;
constexpr int kFlushTimeoutMs = 2000;

std::string hostName() {
  char name[256] = "";
  ::gethostname(name, sizeof name - 1);
  return name;
}

}  // namespace

KXClaim::KXClaim(KXBus& bus, std::string robot, std::string module, std::string instance,
                 WithdrawnHandler onWithdrawn)
    : mBus(bus),
      mRobot(std::move(robot)),
      mModule(std::move(module)),
      mInstance(std::move(instance)),
      mSubject(KXSubjects(mRobot).claim(mModule)),
      mInbox(bus.inboxPrefix() + '.' + escapeToken(mInstance) + ".claim." + escapeToken(mModule)),
      mOnWithdrawn(std::move(onWithdrawn)) {}

KXClaim::~KXClaim() = default;

bool KXClaim::isHeld() const {
  std::lock_guard const lock(mMutex);
  return mState == State::Held;
}

void KXClaim::acquire() {
  xAcquire({this});
}

void KXClaim::acquireAll(std::span<std::unique_ptr<KXClaim> const> claims) {
  std::vector<KXClaim*> all;
  for (auto const& claim : claims) all.push_back(claim.get());
  xAcquire(all);
}

void KXClaim::xAcquire(std::vector<KXClaim*> const& claims) {
  for (KXClaim* const claim : claims) claim->xOpen();
  // Asked before they listen themselves: else the server could not say that nobody is there.
  std::vector<KXClaim*> open = claims;
  for (int i = 0; i < kQuestions && !open.empty(); ++i) {
    for (KXClaim* const claim : open) claim->xSay(claim->mSubject, claim->mInbox);
    auto const end = SteadyClock::now() + kQuestionTime;
    std::erase_if(open, [end](KXClaim* claim) { return claim->xWaitUntil(end); });
  }
  for (KXClaim* const claim : claims) claim->xListen();
  for (KXClaim* const claim : claims) claim->xAwaitRivals();
}

void KXClaim::xOpen() {
  mEvents = mBus.observe([this](KXBusEvent const& event) { xOnEvent(event); });
  mAnswers = mBus.subscribe(mInbox, "", 1, [this](KXBusMessage const& m) { xHear(m); });
}

// From here on each of two that claim at once hears the other, or is heard by it.
void KXClaim::xListen() {
  {
    std::lock_guard const lock(mMutex);
    xThrowIfLost();
    mState = State::Claiming;
  }
  mQuestions = mBus.subscribe(mSubject, "", 1, [this](KXBusMessage const& m) { xHear(m); });
  mBus.flush(kFlushTimeoutMs);
  mAsked = SteadyClock::now();
  xSay(mSubject, mInbox);
}

void KXClaim::xAwaitRivals() {
  for (;;) {
    auto const end = mAsked + kRivalTime;
    bool const isDecided = xWaitUntil(end);
    // Whoever slept through the end may have answers that nobody has looked at yet.
    if (isDecided || SteadyClock::now() < end + kRivalTime) break;
    mAsked = SteadyClock::now();
    xSay(mSubject, mInbox);
  }
  {
    std::lock_guard const lock(mMutex);
    xThrowIfLost();
    mState = State::Held;
    mSince = utcText(std::chrono::system_clock::now());
  }
  // For one that had the name and slept: it hears this when it wakes.
  xSayIfConnected(mSubject, "");
}

// True if it is decided whether anybody is there.
bool KXClaim::xWaitUntil(SteadyClock::time_point time) {
  std::unique_lock lock(mMutex);
  return mChanged.wait_until(lock, time, [this] {
    return mState == State::Lost || (mState == State::Asking && mIsNobodyThere);
  });
}

void KXClaim::xThrowIfLost() const {
  if (mError) throw KXError(*mError);
}

void KXClaim::xSay(std::string const& subject, std::string const& reply) const {
  static std::string const kHost = hostName();
  std::string payload;
  {
    std::lock_guard const lock(mMutex);
    payload = encodeValue(KXValue::arrayOf(mState == State::Held ? kHolds : kClaims, mInstance,
                                           mSince, static_cast<int>(::getpid()), kHost));
  }
  mBus.publish({.subject = subject, .reply = reply, .payload = payload});
}

// Without a connection there is nobody to tell: at its return everybody is asked again.
void KXClaim::xSayIfConnected(std::string const& subject, std::string const& reply) const noexcept {
  ka::log::runLogged(kCategory, "say", "cannot answer for module '" + mModule + "'", [&] {
    try {
      xSay(subject, reply);
    } catch (KXError const& error) {
      if (error.getKind() != KXError::Kind::Disconnected) throw;
    }
  });
}

void KXClaim::xHear(KXBusMessage const& message) {
  if (message.isNoResponders) {
    std::lock_guard const lock(mMutex);
    mIsNobodyThere = true;
    mChanged.notify_all();
    return;
  }
  Claimant other;
  try {
    KXValue const said = decodeValue(message.payload);
    other = {.isHolder = static_cast<std::string const&>(said[0]) == kHolds,
             .instance = static_cast<std::string const&>(said[1]),
             .since = static_cast<std::string const&>(said[2]),
             .pid = static_cast<int>(said[3]),
             .host = static_cast<std::string const&>(said[4])};
  } catch (KXError const& error) {
    return mMalformed.tell([&] {
      return "a claim to the name of module '" + mModule + "' cannot be read: " + messageOf(error);
    });
  }
  if (other.instance != mInstance) xJudge(other, message);
}

void KXClaim::xJudge(Claimant const& other, KXBusMessage const& message) {
  bool isToWithdraw = false;
  {
    std::lock_guard const lock(mMutex);
    if (mState == State::Lost) return;
    bool const isHeld = mState == State::Held;
    bool const isOthers = isHeld ? other.isHolder && std::tie(other.since, other.instance) >
                                                         std::tie(mSince, mInstance)
                                 : other.isHolder || other.instance < mInstance;
    std::string const process = "process " + std::to_string(other.pid) + " on host " + other.host;
    if (isOthers && !isHeld) {
      xLose(xError("module '" + mModule + "' is " +
                       (other.isHolder ? "already on robot '" + mRobot + "' (" + process +
                                             ", since " + other.since + ")"
                                       : "just being put on robot '" + mRobot + "' by another (" +
                                             process + ")") +
                       ", expected its name to be free",
                   KXError::Kind::Failed));
      return;
    }
    if (isOthers) {
      xLose(xError("module '" + mModule + "' is withdrawn from robot '" + mRobot + "': " + process +
                       " has had the name since " + other.since +
                       ", when this process did not answer",
                   KXError::Kind::Failed));
      isToWithdraw = true;
    }
  }
  if (isToWithdraw) {
    xWithdraw();
  } else if (isInbox(message.reply)) {
    xSayIfConnected(std::string(message.reply), "");
  } else if (other.isHolder) {
    xSayIfConnected(mSubject, "");
  }
}

void KXClaim::xWithdraw() {
  ka::log::log(ka::log::Error, kCategory, "", "withdraw", 0, mError->getDescription());
  ka::log::runLogged(kCategory, "withdraw", "cannot withdraw module '" + mModule + "'",
                     [this] { mOnWithdrawn(); });
}

void KXClaim::xOnEvent(KXBusEvent const& event) {
  using Kind = KXBusEvent::Kind;
  std::unique_lock lock(mMutex);
  bool const isHeld = mState == State::Held;
  if (event.kind == Kind::Back && isHeld) {
    lock.unlock();
    // Somebody may have taken it over meanwhile; who is silent leaves it to us.
    xSayIfConnected(mSubject, mInbox);
  } else if (event.kind == Kind::Lost && !isHeld) {
    xLose(xError("the connection was lost while the name of module '" + mModule + "' on robot '" +
                     mRobot + "' was asked for",
                 KXError::Kind::Disconnected));
  } else if (event.kind == Kind::Refused && !isHeld &&
             (event.concerns(mSubject) || event.concerns(mInbox))) {
    xLose(xError(
        "not allowed to have module '" + mModule + "' on robot '" + mRobot + "': " + event.text,
        KXError::Kind::Refused));
  }
}

void KXClaim::xLose(KXError const& error) {
  if (mState == State::Lost) return;
  mState = State::Lost;
  mError = error;
  mChanged.notify_all();
}

KXError KXClaim::xError(std::string const& text, KXError::Kind kind) const {
  return KXError("KXClaim", "acquire", text, "bus/kxclaim", 0, kind);
}

}  // namespace KX
