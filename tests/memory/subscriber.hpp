// What the tests of the store share: a subscriber that records, and a watch over the log.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxpublish.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

struct Notification {
  std::string name;
  KXValue value;
  KXValue message;

  bool operator==(Notification const&) const = default;
};

/// A module with two callbacks, "onNotify" and "onOther", that record, and then do what the test
/// says. Threads: called by the store's delivery thread, looked at by the test.
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

/// Collects the log records of one category while it lives.
class CategoryLog {
 public:
  explicit CategoryLog(std::string const& category) {
    ka::log::addHandler("CategoryLog", [this, category](ka::log::Record const& record) {
      if (record.category != category) return;
      std::lock_guard const lock(mMutex);
      mRecords.push_back(record);
      mChanged.notify_all();
    });
  }
  ~CategoryLog() { ka::log::removeHandler("CategoryLog"); }
  CategoryLog(CategoryLog const&) = delete;
  CategoryLog& operator=(CategoryLog const&) = delete;

  /// Waits for so many records, or 30 s, and gives what came.
  std::vector<ka::log::Record> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mRecords.size() >= count; });
    return mRecords;
  }
  std::vector<ka::log::Record> get() { return waitFor(0); }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<ka::log::Record> mRecords;
};

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
