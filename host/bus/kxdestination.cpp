#include <host/bus/kxdestination.hpp>

#include <new>
#include <utility>

#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

constexpr std::size_t kMaxDestinations = 1000;

}  // namespace

std::shared_ptr<std::string const> KXCalledMethod::encode(KXValue const& params) {
  {
    std::lock_guard const lock(mutex);
    if (auto known = lastArguments.find(params)) return known;
  }
  KXValue arguments = params.isValid() ? params : KXValue::arrayOf();
  if (arguments.getType() != KXValue::TypeArray) {
    throw KXError(
        "KXBus", "call",
        "expected an array of arguments, got " + KXValue::TypeToString(arguments.getType()),
        "bus/kxdestination", 0);
  }
  auto bytes = std::make_shared<std::string const>(encodeValue(arguments));
  {
    std::lock_guard const lock(mutex);
    lastArguments.keep(arguments, bytes);
  }
  return bytes;
}

KXCallId KXDestination::begin(KXPendingCall& call) {
  KXCallId id{.caller = callerId, .number = lastNumber + 1, .to = instance};
  id.done = pending.empty() ? lastNumber : pending.begin()->first - 1;
  for (auto number = lost.begin(); number != lost.end() && *number <= id.done; ++number) {
    if (id.lost.size() == KXCallId::kMaxLost) {
      // One that is not named would count as one whose reply has come.
      id.done = *number - 1;
      break;
    }
    id.lost.push_back(*number);
  }
  pending.emplace(id.number, &call);  // the last that may throw
  ++lastNumber;
  return id;
}

void KXDestination::giveUp(std::uint64_t number) noexcept {
  try {
    lost.insert(number);
  } catch (std::bad_alloc const&) {
    return;  // a count is wrong by one
  }
  if (lost.size() > kMaxLost) lost.erase(lost.begin());
}

void KXDestination::hasRead(KXCallId const& id) {
  for (std::uint64_t const number : id.lost) lost.erase(number);
}

void KXDestination::learn(std::string_view foundInstance) {
  if (!isId(foundInstance) || foundInstance == instance) return;
  if (!instance.empty() && foundInstance == formerInstance) return;
  moveTo(foundInstance);
}

void KXDestination::forgetInstance() {
  if (!instance.empty()) formerInstance = std::exchange(instance, {});
}

void KXDestination::moveTo(std::string_view foundInstance) {
  forgetInstance();
  instance = foundInstance;
  if (formerInstance == instance) formerInstance.clear();
}

std::shared_ptr<KXDestination> KXDestinations::find(std::string const& module) {
  auto const found = mByModule.find(module);
  std::shared_ptr<KXDestination> const destination =
      found == mByModule.end() ? std::make_shared<KXDestination>(module) : found->second;
  if (found == mByModule.end()) {
    mByCaller.emplace(destination->callerId, destination);
    mByModule.emplace(module, destination);
  }
  destination->usedAt = KXDestination::Clock::now();
  if (mByModule.size() > kMaxDestinations) xForgetOldest(*destination);
  return destination;
}

KXDestination* KXDestinations::findCaller(std::string_view callerId) const {
  auto const found = mByCaller.find(callerId);
  return found == mByCaller.end() ? nullptr : found->second.get();
}

// The one that was not used for longest.
void KXDestinations::xForgetOldest(KXDestination const& spared) {
  auto oldest = mByModule.end();
  for (auto it = mByModule.begin(); it != mByModule.end(); ++it) {
    bool const isUsed = it->second.use_count() > 2;
    if (isUsed || it->second.get() == &spared) continue;
    if (oldest == mByModule.end() || it->second->usedAt < oldest->second->usedAt) oldest = it;
  }
  if (oldest == mByModule.end()) return;
  mByCaller.erase(oldest->second->callerId);
  mByModule.erase(oldest);
}

}  // namespace KX
