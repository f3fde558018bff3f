// A callback of a bus's user, which ends when its owner says so. Any thread may end it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include <ka/runlogged.hpp>
#include <kxthread/kxcallbackguard.hpp>

namespace KX {

/// Calls the function until it is ended. Threads: one at a time calls.
template <class Argument>
class KXBusHandler {
 public:
  explicit KXBusHandler(std::function<void(Argument const&)> function)
      : mFunction(std::move(function)) {}

  /// What it throws is logged.
  void call(Argument const& argument) {
    if (!mGuard.enter()) return;
    auto const outer = mCaller.exchange(std::this_thread::get_id());
    ++mDepth;
    ka::log::runLogged("KXBus", "call", "a handler failed", [&] { mFunction(argument); });
    --mDepth;
    mCaller = outer;
    mGuard.leave();
  }
  /// When it returns, the function is not running and will not run, unless it is the caller.
  void end() { mGuard.close(isCaller() ? mDepth : 0); }
  bool isCaller() const { return mCaller == std::this_thread::get_id(); }

 private:
  std::function<void(Argument const&)> const mFunction;
  KXCallbackGuard mGuard;
  std::atomic<std::thread::id> mCaller{};  // none: it is not being called
  int mDepth = 0;                          // calls within calls; used by the calling thread only
};

}  // namespace KX
