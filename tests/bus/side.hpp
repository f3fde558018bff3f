// A process of a robot, of which several are in one process over a bus in memory, and a module that
// shows what it was told.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxpublish.hpp>
#include <host/bus/kxbuslink.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>
#include <tests/support/waituntil.hpp>

namespace KX::testing {

/// Notes the events it is told of; park() stays until the module is taken out of service.
class Guest : public KXModule {
 public:
  explicit Guest(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Guest") {
    publish(*this, {"onEvent"}, &Guest::onEvent);
    publish(*this, {"park"}, &Guest::park);
    publish(*this, {"twice"}, &Guest::twice);
    onClosing([this] {
      std::lock_guard const lock(mMutex);
      mIsOver = true;
      mWakeUp.notify_all();
    });
  }

  void onEvent(std::string const& key, KXValue const& value, KXValue const& /*message*/) {
    std::lock_guard const lock(mMutex);
    mEvents.push_back(key + "=" + value.toString());
  }
  void park() {
    std::unique_lock lock(mMutex);
    mIsParked = true;
    mWakeUp.wait(lock, [this] { return mIsOver; });
  }
  int twice(int const& number) {
    ++mTwiceCount;
    return 2 * number;
  }

  int twiceCount() const { return mTwiceCount; }
  bool isParked() {
    std::lock_guard const lock(mMutex);
    return mIsParked;
  }
  std::vector<std::string> events() {
    std::lock_guard const lock(mMutex);
    return mEvents;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWakeUp;
  std::atomic<int> mTwiceCount{0};
  bool mIsParked = false;            // guarded by mMutex
  bool mIsOver = false;              // guarded by mMutex
  std::vector<std::string> mEvents;  // guarded by mMutex
};

/// One process of the robot.
struct Side {
  Side(KXBusNetwork& network, std::string const& user, int timeoutMs = 5000)
      : Side(network, user, KXBusOptions{.robot = "r", .timeoutMs = timeoutMs}) {}
  Side(KXBusNetwork& network, std::string const& user, KXBusOptions const& options)
      : bus(network.connect(user)),
        broker(KXBroker::createBroker(KXBusLink::newBrokerName(*bus))),
        link(std::make_unique<KXBusLink>(bus, broker, options)) {}
  ~Side() { end(); }
  Side(Side const&) = delete;
  Side& operator=(Side const&) = delete;

  void end() {
    if (!link) return;
    link->leave();
    broker->shutdown();
    link->close();
    link.reset();
  }

  std::shared_ptr<KXBus> const bus;
  boost::shared_ptr<KXBroker> const broker;
  std::unique_ptr<KXBusLink> link;
};

/// A robot, whose host may come and go.
struct RobotTest : ::testing::Test {
  std::unique_ptr<Side> makeHost(KXBusOptions const& options = {.robot = "r"}) {
    auto host = std::make_unique<Side>(network, "host", options);
    store = KXModule::createModule<KXMemory>(host->broker);
    host->link->announce({"KXMemory"});
    return host;
  }

  KXBusNetwork network{KXBusNetwork::Pacing::Threaded};
  boost::shared_ptr<KXMemory> store;
};

}  // namespace KX::testing
