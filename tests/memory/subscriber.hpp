// What the tests of the store share: a subscriber that records, and what they wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxpublish.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

struct Notification {
  std::string name;
  KXValue value;
  KXValue message;

  bool operator==(Notification const&) const = default;
};

/// A module with two callbacks, "onNotify" and "onOther", that record, and then do what the test
/// says. Threads: called by the store's thread for it, looked at by the test.
class Subscriber : public KXModule {
 public:
  using Action = std::function<void(Notification const&)>;

  Subscriber(boost::shared_ptr<KXBroker> const& broker, std::string const& name)
      : KXModule(broker, name) {
    publish(*this, {"onNotify"}, &Subscriber::onNotify);
    publish(*this, {"onOther"}, &Subscriber::onOther);
  }

  static boost::shared_ptr<Subscriber> create(boost::shared_ptr<KXBroker> const& broker,
                                              std::string const& name = "Subscriber") {
    boost::shared_ptr<Subscriber> subscriber(new Subscriber(broker, name));
    subscriber->initModule();
    return subscriber;
  }

  void setAction(Action action) {
    std::lock_guard const lock(mMutex);
    mAction = std::move(action);
  }

  void onNotify(std::string const& name, KXValue const& value, KXValue const& message) {
    xRecord(mNotified, {name, value, message});
  }
  void onOther(std::string const& name, KXValue const& value, KXValue const& message) {
    xRecord(mOther, {name, value, message});
  }

  /// Waits for so many calls of onNotify, or 30 s, and gives what came.
  std::vector<Notification> waitForNotified(std::size_t count) { return xWait(mNotified, count); }
  std::vector<Notification> waitForOther(std::size_t count) { return xWait(mOther, count); }

 private:
  void xRecord(std::vector<Notification>& where, Notification const& notification) {
    Action action;
    {
      std::lock_guard const lock(mMutex);
      where.push_back(notification);
      action = mAction;
      mChanged.notify_all();
    }
    if (action) action(notification);
  }
  std::vector<Notification> xWait(std::vector<Notification> const& where, std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return where.size() >= count; });
    return where;
  }

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Notification> mNotified;
  std::vector<Notification> mOther;
  Action mAction;
};

/// The threads of this process.
inline std::ptrdiff_t countThreads() {
  // A sanitizer starts a thread of its own beside the first one: it is to be there from the start.
  static bool const hasStartedOne = [] {
    pid_t id = 0;
    std::thread([&] { id = gettid(); }).join();
    while (std::filesystem::exists("/proc/self/task/" + std::to_string(id))) {
      std::this_thread::yield();
    }
    return true;
  }();
  static_cast<void>(hasStartedOne);
  std::filesystem::directory_iterator const threads("/proc/self/task");
  return std::distance(begin(threads), end(threads));
}

/// False if the condition does not come true within 30 s.
template <class Condition>
bool waitUntil(Condition const& condition) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// The description of the KXError that `action` throws; "no KXError" if it throws none.
inline std::string errorOf(std::function<void()> const& action) {
  try {
    action();
  } catch (KXError const& error) {
    return error.getDescription();
  }
  return "no KXError";
}

}  // namespace KX
