#include <host/bus/kxresponder.hpp>

#include <algorithm>
#include <chrono>
#include <map>
#include <utility>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxpartcollector.hpp>
#include <host/bus/kxwire.hpp>
#include <ka/log.hpp>

namespace KX {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = KXError::Kind;
using Cause = KXReplyKeeper::Cause;
using Thrown = KXReplyKeeper::Thrown;
using Verdict = KXReplyKeeper::Verdict;

constexpr std::size_t kLargestPart = std::size_t{512} * 1024;
// For the headers and the subject of a message.
constexpr std::size_t kEnvelopeBytes = 4096;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

KXError errorOf(std::string const& text, Kind kind) {
  return KXError("KXBus", "serve", text, "bus/kxresponder", 0, kind);
}

std::string nameOf(KXSubjects::Call const& call) {
  return call.to.module + "." + call.method;
}

std::shared_ptr<KXReply> replyOf(KXError const& error) {
  auto reply = std::make_shared<KXReply>();
  reply->headers = errorHeaders(error);
  reply->payload = encodeError(error);
  return reply;
}

// An answer that is no reply to the call.
std::shared_ptr<KXReply> replyOf(KXError const& error, char const* code) {
  auto reply = replyOf(error);
  for (auto& [name, value] : reply->headers) {
    if (name == kErrorCodeHeader) value = code;
  }
  return reply;
}

std::string encodeSound(KXSubjects::Call const& call, KXValue const& result) {
  try {
    return encodeResult(result);
  } catch (KXError const& error) {
    throw errorOf("the result of '" + nameOf(call) + "' cannot be sent: " + error.what(),
                  Kind::Failed);
  }
}

char const* textOf(Cause cause) {
  switch (cause) {
    case Cause::Age:
      return "nobody came for it in time";
    case Cause::Room:
      return "there is no more room";
    case Cause::Lost:
      return "its caller waits no longer";
  }
  return "";
}

// One line for those of one method: a server that hung finds many at once.
void report(std::vector<Thrown> const& thrown) {
  struct Sum {
    std::size_t count = 0;
    std::size_t bytes = 0;
  };
  std::map<std::pair<std::string, Cause>, Sum> sums;
  for (Thrown const& reply : thrown) {
    Sum& sum = sums[{reply.method, reply.cause}];
    ++sum.count;
    sum.bytes += reply.bytes;
  }
  for (auto const& [what, sum] : sums) {
    auto const& [method, cause] = what;
    bool const isOne = sum.count == 1;
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "serve", 0)
        << (isOne ? "a reply" : std::to_string(sum.count) + " replies") << " of '" << method
        << "', " << sum.bytes << (isOne ? " bytes, was" : " bytes in all, were")
        << " given up, and its caller has not confirmed it: " << textOf(cause);
  }
}

}  // namespace

KXResponder::KXResponder(KXBus& bus, KXCallee& callee, KXStatisticsTable& statistics,
                         std::string instance, KXReplyKeeper::Limits limits)
    : mBus(bus),
      mCallee(callee),
      mStatistics(statistics),
      mInstance(std::move(instance)),
      mNoMemory(xNoMemory()),
      mKeeper(mInstance, limits) {}

std::shared_ptr<KXReply const> KXResponder::xNoMemory() const {
  auto reply = replyOf(errorOf("no memory for the reply; the call may have run", Kind::Failed));
  reply->headers.emplace_back(kInstanceHeader, mInstance);
  return reply;
}

// Logs what the keeper gives up meanwhile.
template <class Step>
auto KXResponder::xWithKeeper(Step step) {
  std::vector<Thrown> thrown;
  auto const result = [&] {
    std::lock_guard const lock(mMutex);
    return step(thrown);
  }();
  if (!thrown.empty()) report(thrown);
  return result;
}

void KXResponder::turnAway(KXSubjects::Call const& call, KXBusMessage const& message) const {
  // Whoever asks again has to find out for himself what became of his call.
  if (!message.header(kAgainHeader).empty() || !message.header(kDoneHeader).empty()) return;
  auto const id = parseCallId(message.header(kCallHeader));
  if (id && !id->to.empty() && id->to != mInstance) return xSendMoved(call, message);
  auto const reply =
      replyOf(errorOf("module '" + call.to.module + "' is not served any more", Kind::NotFound));
  xSend(call, message.reply, *reply, 0);
}

void KXResponder::xSendMoved(KXSubjects::Call const& call, KXBusMessage const& message) const {
  auto const reply =
      replyOf(errorOf("the call of '" + nameOf(call) + "' is for another server", Kind::Failed),
              kMovedCode);
  reply->headers.emplace_back(kInstanceHeader, mInstance);
  xSend(call, message.reply, *reply, 0);
}

void KXResponder::answer(KXSubjects::Call const& call, KXBusMessage const& message) {
  std::string_view const idText = message.header(kCallHeader);
  if (idText.empty()) {
    auto const reply = xRun(call, message, "", false);
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
  xWithKeeper([&](std::vector<Thrown>& thrown) {
    mKeeper.acknowledge(id->caller, id->number, nowMs(), thrown);
    return true;
  });
}

void KXResponder::xAnswerOnce(KXSubjects::Call const& call, KXCallId const& id,
                              KXBusMessage const& message) {
  std::string const name = nameOf(call);
  std::string_view const againText = message.header(kAgainHeader);
  std::optional<std::uint32_t> fromPart;
  // One that cannot be read is from nobody that was ever answered here.
  if (!againText.empty()) fromPart = parseFromPart(againText).value_or(1);
  auto const admission = xWithKeeper([&](std::vector<Thrown>& thrown) {
    return mKeeper.admit(id, fromPart, message.reply, name, nowMs(), thrown);
  });
  std::shared_ptr<KXReply> reply;
  switch (admission.verdict) {
    case Verdict::Ignore:
      return;
    case Verdict::Resend:
      return xSend(call, message.reply, *admission.reply, fromPart.value_or(0));
    case Verdict::Run: {
      auto const result = xRunOnce(call, id, message);
      xWithKeeper(
          [&](std::vector<Thrown>& thrown) { return mKeeper.finish(id, result, nowMs(), thrown); });
      return xSend(call, message.reply, *result, 0);
    }
    case Verdict::Forgotten:
      reply = replyOf(
          errorOf("the reply of '" + name + "' is gone; the call may have run", Kind::Failed));
      break;
    case Verdict::Moved:
      return xSendMoved(call, message);
    case Verdict::Restarted:
      reply = replyOf(errorOf("module '" + call.to.module + "' was started anew while '" + name +
                                  "' was called; the call may have run",
                              Kind::Failed),
                      kRestartedCode);
      break;
    case Verdict::Refused:
      reply = replyOf(errorOf("the call of '" + name + "' is somebody else's", Kind::Refused));
      break;
  }
  reply->headers.emplace_back(kInstanceHeader, mInstance);
  xSend(call, message.reply, *reply, 0);
}

// Always with a reply: the call will not run again, and is asked for.
std::shared_ptr<KXReply const> KXResponder::xRunOnce(KXSubjects::Call const& call,
                                                     KXCallId const& id,
                                                     KXBusMessage const& message) noexcept {
  try {
    auto reply = xRun(call, message, id.caller, true);
    if (id.to.empty()) reply->headers.emplace_back(kInstanceHeader, mInstance);
    return reply;
  } catch (...) {
    return mNoMemory;  // what else would have become of it is a reply
  }
}

std::shared_ptr<KXReply> KXResponder::xRun(KXSubjects::Call const& call,
                                           KXBusMessage const& message, std::string_view caller,
                                           bool mayHaveParts) {
  auto const startedAt = Clock::now();
  std::optional<KXError> error;
  auto reply = std::make_shared<KXReply>();
  try {
    bool const isTask = message.header(kTaskHeader) == "1";
    reply->payload = encodeSound(call, mCallee.run(call, caller, message.payload, isTask));
    xFit(call, *reply, mayHaveParts);
  } catch (KXError const& thrown) {
    error = thrown;
  } catch (...) {
    // The caller is in another process: this is the only way in which it can learn of it.
    error.emplace(call.to.module, call.method, describeCurrentException(), "", 0);
  }
  if (error) reply = replyOf(*error);
  mStatistics.count(call.to.module, call.method, Clock::now() - startedAt,
                    error ? &*error : nullptr);
  return reply;
}

// Cuts it into parts if it is too long for one message. KXError if it may have none, or too many.
void KXResponder::xFit(KXSubjects::Call const& call, KXReply& reply, bool mayHaveParts) const {
  std::size_t const most = mBus.maxPayload();
  std::size_t const limit = most > 2 * kEnvelopeBytes ? most - kEnvelopeBytes : most / 2;
  std::size_t const size = reply.payload.size();
  if (size <= limit) return;
  if (mayHaveParts && size <= KXPartCollector::kMaxBytes) {
    reply.partBytes = std::min(limit, kLargestPart);
    return;
  }
  std::size_t const allowed = mayHaveParts ? KXPartCollector::kMaxBytes : limit;
  throw errorOf("the reply of '" + nameOf(call) + "' takes " + std::to_string(size) +
                    " bytes, at most " + std::to_string(allowed) + " can be sent to this caller",
                Kind::Failed);
}

// A window of it, from a part on.
void KXResponder::xSend(KXSubjects::Call const& call, std::string_view subject,
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

void KXResponder::expire() {
  xWithKeeper([&](std::vector<Thrown>& thrown) {
    mKeeper.expire(nowMs(), thrown);
    return true;
  });
}

KXReplyKeeper::Counts KXResponder::counts() const {
  std::lock_guard const lock(mMutex);
  return mKeeper.counts();
}

}  // namespace KX
