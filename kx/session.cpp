#include <kx/session.hpp>

#include <algorithm>
#include <chrono>
#include <utility>

#include <fmt/format.h>

#include <host/rttools/kxmodulelibrary.hpp>
#include <host/vsm/kxvsm.hpp>
#include <kx/text.hpp>
#include <kxerror/kxerror.hpp>

namespace KX::tool {

KXSession::KXSession(Options const& options, KXStop const& stop)
    : mBus(options.bus),
      mHasOwnLibraries(!options.libraries.empty()),
      mHost({.name = "kx",
             .withStore = !options.bus,
             .withVsm = options.withVsm,
             .bus = options.bus}) {
  if (isOnRobot()) {
    if (!isModuleThere("KXMemory")) {
      throw KXToolError(kNothingThere,
                        fmt::format("no robot '{}' on {}: nobody there has its store (KXMemory); "
                                    "kx robots lists those that are there",
                                    forTerminal(mBus->robot), forTerminal(mBus->url)));
    }
  } else {
    mHost.loadModule(findLibrary("kxhostsensors"));
    for (std::string const& library : options.libraries) mHost.loadModule(findLibrary(library));
  }
  // Last, so that it is the first to go: its end still speaks to the store.
  if (options.withWatcher) mHost.loadModule(findLibrary("memorywatcher"));
  if (!isOnRobot()) xAwaitSensors(stop);
}

boost::shared_ptr<KXVsm> KXSession::vsm() const {
  return boost::static_pointer_cast<KXVsm>(broker().getProxy("VSM", 0)->getModule());
}

bool KXSession::isModuleThere(std::string const& module) const {
  try {
    broker().getProxy(module, 0);
    return true;
  } catch (KXError const& error) {
    if (error.getKind() != KXError::Kind::NotFound) throw;
    return false;
  }
}

KXValue KXSession::call(std::string const& module, std::string const& method,
                        std::vector<KXValue> arguments) const {
  return mHost.getBroker()->getProxy(module, 0)->genericCall(method, KXValue(std::move(arguments)));
}

void KXSession::keepSensorsAhead(int periodMs) const {
  if (isOnRobot()) return;
  int const sensorsMs = static_cast<int>(call("KXHostSensors", "getPeriodMs"));
  if (periodMs < sensorsMs) call("KXHostSensors", "setPeriodMs", {periodMs});
}

std::vector<std::string> KXSession::keys(std::string const& pattern) const {
  std::vector<std::string> names;
  call("KXMemory", "getKeys", {pattern}).ToStringArray(names, false);
  return names;
}

std::string KXSession::noMatchText(std::vector<std::string> const& patterns) const {
  std::vector<std::string> const all = keys("");
  std::vector<std::string> texts;
  for (std::string const& pattern : patterns) {
    std::string const near = nearestText(pattern, all);
    texts.push_back(
        fmt::format("'{}'{}", forTerminal(pattern), near.empty() ? "" : " (" + near + ")"));
  }
  return fmt::format("no key matches {}", fmt::join(texts, ", "));
}

void KXSession::awaitMatches(std::vector<std::string> const& patterns, KXStop const& stop) const {
  using namespace std::chrono_literals;
  if (!mHasOwnLibraries) return;
  auto const deadline = std::chrono::steady_clock::now() + 1s;
  auto const isThere = [this](std::string const& pattern) {
    return xMatches(pattern);
  };
  while (!std::ranges::all_of(patterns, isThere) && std::chrono::steady_clock::now() < deadline) {
    if (stop.waitUntil(std::chrono::steady_clock::now() + 10ms)) return;
  }
}

bool KXSession::xMatches(std::string const& pattern) const {
  return !typeOf(pattern).empty() || !keys(pattern).empty();
}

std::string KXSession::typeOf(std::string const& key) const {
  try {
    return static_cast<std::string const&>(call("KXMemory", "getType", {key}));
  } catch (KXError const& error) {
    if (error.getKind() != KXError::Kind::NotFound) throw;
    return "";  // the store's way to say that nobody wrote the key
  }
}

void KXSession::xAwaitSensors(KXStop const& stop) const {
  using namespace std::chrono_literals;
  auto const deadline = std::chrono::steady_clock::now() + 5s;
  while (keys("").empty()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw KXToolError(kTimeOut, "expected keys of the sensors within 5 s, got none");
    }
    if (stop.waitUntil(std::chrono::steady_clock::now() + 10ms)) {
      throw KXToolError(kFailed, "interrupted while waiting for the sensors");
    }
  }
}

}  // namespace KX::tool
