// What tests of buses share: a bus of each kind to connect to, and what came over it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxnatsbus.hpp>

#include "cutproxy.hpp"
#include "natsserver.hpp"

namespace KX::testing {

inline constexpr auto kLimit = std::chrono::seconds(30);

/// A server with its network.
class BusWorld {
 public:
  virtual ~BusWorld() = default;
  virtual std::unique_ptr<KXBus> connect() = 0;
  virtual void cut(KXBus const& bus) = 0;
  virtual void mend(KXBus const& bus) = 0;
  virtual void stopServer() = 0;
  virtual void startServer() = 0;
};

class MemoryWorld : public BusWorld {
 public:
  std::unique_ptr<KXBus> connect() override { return mNetwork.connect(); }
  void cut(KXBus const& bus) override { mNetwork.cut(bus); }
  void mend(KXBus const& bus) override { mNetwork.mend(bus); }
  void stopServer() override { mNetwork.stopServer(); }
  void startServer() override { mNetwork.startServer(); }

 private:
  KXBusNetwork mNetwork{KXBusNetwork::Pacing::Threaded, 64 * 1024};
};

class NatsWorld : public BusWorld {
 public:
  std::unique_ptr<KXBus> connect() override {
    auto proxy = std::make_unique<CutProxy>(mServer.port());
    auto bus = connectNats({.url = proxy->url()});
    mProxies[bus->address()] = std::move(proxy);
    return bus;
  }
  void cut(KXBus const& bus) override { mProxies.at(bus.address())->cut(); }
  void mend(KXBus const& bus) override { mProxies.at(bus.address())->resume(); }
  void stopServer() override { mServer.kill(); }
  void startServer() override { mServer.start(); }

 private:
  NatsServer mServer{"max_payload: 64KB"};
  std::map<std::string, std::unique_ptr<CutProxy>> mProxies;  // by the address of who uses it
};

/// Counts what happens until a test has waited for it.
class Counter {
 public:
  void add() {
    std::lock_guard const lock(mMutex);
    ++mCount;
    mChanged.notify_all();
  }
  /// Waits until it was so many; false after 30 s.
  bool waitFor(int count) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, kLimit, [&] { return mCount >= count; });
  }
  int count() const {
    std::lock_guard const lock(mMutex);
    return mCount;
  }

 private:
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  int mCount = 0;  // guarded by mMutex
};

/// A message that is kept.
struct Kept {
  std::string subject;
  std::string reply;
  KXBusHeaders headers;
  std::string payload;
  bool isNoResponders;
};

/// Keeps what a subscription gets.
class Inbox {
 public:
  KXBus::Handler handler() {
    return [this](KXBusMessage const& message) {
      std::lock_guard const lock(mMutex);
      mMessages.push_back({std::string(message.subject), std::string(message.reply),
                           message.headers, std::string(message.payload), message.isNoResponders});
      mChanged.notify_all();
    };
  }
  /// Waits for so many messages, or 30 s, and gives those that came.
  std::vector<Kept> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, kLimit, [&] { return mMessages.size() >= count; });
    return mMessages;
  }
  std::vector<std::string> payloads(std::size_t count) {
    std::vector<std::string> all;
    for (auto const& message : waitFor(count)) all.push_back(message.payload);
    return all;
  }
  std::size_t size() const {
    std::lock_guard const lock(mMutex);
    return mMessages.size();
  }

 private:
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Kept> mMessages;  // guarded by mMutex
};

/// Keeps what befalls a connection.
class Events {
 public:
  explicit Events(KXBus& bus)
      : mObservation(bus.observe([this](KXBusEvent const& event) {
          std::lock_guard const lock(mMutex);
          mEvents.push_back(event);
          mChanged.notify_all();
        })) {}
  /// Waits for so many events, or 30 s, and gives those that came.
  std::vector<KXBusEvent> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, kLimit, [&] { return mEvents.size() >= count; });
    return mEvents;
  }
  std::vector<KXBusEvent::Kind> kinds(std::size_t count) {
    std::vector<KXBusEvent::Kind> all;
    for (auto const& event : waitFor(count)) all.push_back(event.kind);
    return all;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<KXBusEvent> mEvents{};  // guarded by mMutex
  std::unique_ptr<KXBusSubscription> const mObservation;
};

/// The kind of the KXError that the step throws; fails the test if it throws none.
template <class Step>
KXError::Kind kindThrownBy(Step&& step) {
  try {
    step();
  } catch (KXError const& error) {
    return error.getKind();
  }
  throw std::logic_error("nothing was thrown");
}

}  // namespace KX::testing
