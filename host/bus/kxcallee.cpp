#include <host/bus/kxcallee.hpp>

#include <algorithm>
#include <utility>

#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Kind = KXError::Kind;

constexpr int kLongestWaitMs = 2000;
// More threads than these are not left to wait: calls need them.
constexpr int kMaxWaiting = 8;
constexpr int kShortWaitMs = 20;

[[noreturn]] void fail(std::string const& text, Kind kind) {
  throw KXError("KXBus", "serve", text, "bus/kxcallee", 0, kind);
}

std::string nameOf(KXSubjects::Call const& call) {
  return "'" + call.to.module + "." + call.method + "'";
}

// Whoever may call in a user's name may subscribe that user's modules, and do nothing else.
void checkName(KXSubjects::Call const& call, KXValue const& arguments) {
  if (!isInOwnName(call.to.module, call.method)) {
    fail(nameOf(call) + " cannot be called in the name of a user", Kind::Refused);
  }
  std::string callback;
  if (arguments.getSize() > 1 && arguments[1].getType() == KXValue::TypeString) {
    callback = static_cast<std::string const&>(arguments[1]);
  }
  if (parseAddress(callback).user == call.from) return;
  fail("user '" + call.from + "' may call " + nameOf(call) + " for modules of its own ('NAME@" +
           call.from + ".NONCE'), not for '" + callback + "'",
       Kind::Refused);
}

int intArgument(KXSubjects::Call const& call, KXValue const& arguments, int index, int count) {
  if (arguments.getSize() != count || arguments[index].getType() != KXValue::TypeInt) {
    fail(nameOf(call) + " takes " + std::to_string(count) + (count == 1 ? " int" : " ints") +
             ", got " + arguments.toString(2),
         Kind::Failed);
  }
  return static_cast<int>(arguments[index]);
}

}  // namespace

KXCallee::KXCallee(boost::shared_ptr<KXBroker> broker, std::string instance)
    : mBroker(std::move(broker)), mInstance(std::move(instance)) {}

KXValue KXCallee::run(KXSubjects::Call const& call, std::string_view caller,
                      std::string_view payload, bool isTask) {
  // Not by way of getProxy() alone: that would look for it on the bus, and ask this server.
  boost::shared_ptr<KXProxy> proxy;
  if (mBroker->isModulePresent(call.to.module)) proxy = mBroker->getProxy(call.to.module, 0);
  if (!proxy || !proxy->isLocal()) {
    fail("module '" + call.to.module + "' is not there any more", Kind::NotFound);
  }
  KXValue const arguments = xDecode(call, caller, payload);
  if (!call.from.empty()) checkName(call, arguments);
  if (call.method.starts_with('@')) return xRunOwn(*proxy, call, arguments);
  if (!isTask) return proxy->genericCall(call.method, arguments);
  if (arguments.getSize() > 0) {
    fail("a parallel call takes no arguments, " + std::to_string(arguments.getSize()) +
             " given for " + nameOf(call),
         Kind::Failed);
  }
  return proxy->pCall(call.method);
}

KXValue KXCallee::xRunOwn(KXProxy& proxy, KXSubjects::Call const& call, KXValue const& arguments) {
  if (call.method == kFindMethod) return mInstance;
  if (call.method == kDescribeMethod) return toValue(proxy.describe());
  if (call.method == kIsRunningMethod) return proxy.isRunning(intArgument(call, arguments, 0, 1));
  if (call.method == kWaitMethod) {
    return xWait(proxy, intArgument(call, arguments, 0, 2), intArgument(call, arguments, 1, 2));
  }
  fail("unknown method '" + call.method + "' of the bus", Kind::NotFound);
}

// In pieces: a caller that is gone is not waited for, and waiting ones do not take all threads.
bool KXCallee::xWait(KXProxy& proxy, int taskId, int timeoutMs) {
  int const waitingCount = ++mWaitingCount;
  struct Leave {
    std::atomic<int>& count;
    ~Leave() { --count; }
  } const leave{mWaitingCount};
  int const longestMs = waitingCount > kMaxWaiting ? kShortWaitMs : kLongestWaitMs;
  return proxy.wait(taskId, std::clamp(timeoutMs, 1, longestMs));
}

KXValue KXCallee::xDecode(KXSubjects::Call const& call, std::string_view caller,
                          std::string_view payload) {
  // What others than our callers send when there is nothing to be said.
  if (payload.empty()) return KXValue::arrayOf();
  std::string key;
  if (payload.size() >= kLeastCachedBytes) {
    key = call.to.module + "\n" + call.method + "\n";
    key += caller;
    std::lock_guard const lock(mMutex);
    if (KXValue const* const known = mDecoded.find(key, payload)) return *known;
  }
  KXValue arguments;
  try {
    arguments = decodeValue(payload);
  } catch (KXError const& error) {
    fail("the arguments of " + nameOf(call) + " cannot be read: " + error.what(), Kind::Failed);
  }
  if (arguments.getType() != KXValue::TypeArray) {
    fail("the arguments of " + nameOf(call) + " cannot be read: expected an array, got " +
             KXValue::TypeToString(arguments.getType()),
         Kind::Failed);
  }
  if (!key.empty()) {
    std::lock_guard const lock(mMutex);
    mDecoded.keep(key, payload, arguments);
  }
  return arguments;
}

}  // namespace KX
