// What the benchmarks of the bus share: a server, a peer in a process of its own, the bare client
// that is the floor, and what everything costs.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nats/nats.h>

#include <binding/kxpublish.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxproxy.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/childprocess.hpp>

namespace KX::bench {

inline constexpr char const* kRobot = "bench";
inline constexpr char const* kEventKey = "Bench/Event";
inline constexpr std::size_t kEventBytes = 100;

/// The store's data keys: as many as the largest batch has.
inline constexpr int kKeyCount = 10'000;
std::vector<std::string> keyNames(int count);

/// Nanoseconds of the steady clock, the same in all processes of a machine.
std::int64_t steadyNs();
/// An event's text: the time in its first 20 bytes, padded. And back.
std::string stampedText();
std::int64_t stampOf(std::string_view text);

/// The numbers below which these shares of all lie; sorts.
double percentile(std::vector<std::int64_t>& numbers, double share);

/// What this process and its children, the server and the peer, have used, in nanoseconds of CPU.
std::int64_t usedCpuNs();

/// A connection of the bare client, with its defaults but for sending at once.
class RawConnection {
 public:
  explicit RawConnection(std::string const& url, bool isSendingAtOnce = true);
  ~RawConnection();
  RawConnection(RawConnection const&) = delete;
  RawConnection& operator=(RawConnection const&) = delete;

  natsConnection* get() const { return mConnection; }
  /// The payload of the answer.
  std::string request(std::string const& subject, std::string const& payload);

 private:
  natsConnection* mConnection = nullptr;
};

/// A server and the other side, both processes of their own, made at first use: a robot's host with
/// a store, and the bare client's end.
class World {
 public:
  static World& get();

  std::string const& url() const { return mUrl; }
  /// A host that joins the robot.
  std::unique_ptr<KXHost> join() const;

 private:
  World();

  testing::NatsServer mServer;
  std::string const mUrl;
  testing::ChildProcess mPeer;
};

/// The peer's main(): serves until it is killed.
[[noreturn]] void servePeer(std::string const& url);

/// A subscriber: counts, and notes how long each was on its way.
class Subscriber : public KXModule {
 public:
  explicit Subscriber(boost::shared_ptr<KXBroker> const& broker);

  void onEvent(std::string const& key, KXValue const& value, KXValue const& message);
  void expect(std::size_t count);
  /// False if they have not arrived after two minutes.
  bool wait() const;
  std::vector<std::int64_t>& latenciesNs() { return mLatenciesNs; }

 private:
  std::vector<std::int64_t> mLatenciesNs;  // written by the one thread that brings events
  std::atomic<std::size_t> mCount{0};
  std::size_t mExpected = 0;
};

}  // namespace KX::bench
