// A module that keeps the events that it gets.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxfunctor.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>
#include <tests/support/waituntil.hpp>

namespace KX::testing {

/// Threads: any may ask; the hook is set before events come, and called without a lock.
class Listener : public KXModule {
 public:
  Listener(boost::shared_ptr<KXBroker> const& broker, std::string const& name = "Listener")
      : KXModule(broker, name) {
    functionName("onEvent", name, "takes what callbacks of stores take", 0);
    addParam("key", "");
    addParam("number", "");
    addParam("message", "");
    bindMethod(createFunctor(this, &Listener::onEvent));
    functionName("onNumber", name, "takes other types", 0);
    addParam("number", "");
    bindMethod(createFunctor(this, &Listener::onNumber));
    functionName("onFailing", name, "throws", 0);
    addParam("number", "");
    bindMethod(createFunctor(this, &Listener::onFailing));
  }

  void onEvent(std::string const& /*key*/, KXValue const& number, KXValue const& /*message*/) {
    onNumber(static_cast<int>(number));
  }
  void onNumber(int const& number) {
    if (hook) hook(number);
    std::lock_guard const lock(mMutex);
    mNumbers.push_back(number);
    mChanged.notify_all();
  }
  void onFailing(int const& number) {
    onNumber(number);
    throw std::runtime_error("number " + std::to_string(number));
  }

  /// Waits for so many, or 30 s, and gives all that came.
  std::vector<int> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mNumbers.size() >= count; });
    return mNumbers;
  }
  std::vector<int> numbers() const {
    std::lock_guard const lock(mMutex);
    return mNumbers;
  }

  std::function<void(int)> hook;

 private:
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<int> mNumbers;  // guarded by mMutex
};

/// A gate that is shut at first.
class Gate {
 public:
  void open() {
    std::lock_guard const lock(mMutex);
    mIsOpen = true;
    mChanged.notify_all();
  }
  void pass() {
    std::unique_lock lock(mMutex);
    mIsReached = true;
    mChanged.notify_all();
    mChanged.wait(lock, [this] { return mIsOpen; });
  }
  /// Waits until somebody stands before it, or 30 s.
  bool waitUntilReached() {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30), [this] { return mIsReached; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mIsOpen = false;     // guarded by mMutex
  bool mIsReached = false;  // guarded by mMutex
};

}  // namespace KX::testing
