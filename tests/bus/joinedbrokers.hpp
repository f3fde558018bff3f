// Two brokers in one process that reach each other over a bus in memory, as two processes do over a
// server.
#pragma once

#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxbuslink.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <kxcommon/kxbroker.hpp>

namespace KX::testing {

/// A broker that has joined a robot over a connection of its own.
/// Threads: one thread builds, announces and shuts down.
class JoinedBroker {
 public:
  /// The name is one for brokers that join: "any.NONCE".
  JoinedBroker(KXBusNetwork& network, std::string const& name)
      : mBus(network.connect()),
        mBroker(KXBroker::createBroker(name)),
        mLink(mBus, mBroker, KXBusOptions()) {}
  ~JoinedBroker() { shutdown(); }
  JoinedBroker(JoinedBroker const&) = delete;
  JoinedBroker& operator=(JoinedBroker const&) = delete;

  boost::shared_ptr<KXBroker> const& getBroker() const { return mBroker; }
  KXBus& bus() { return *mBus; }
  void announce(std::string const& module) { mLink.announce({module}); }
  /// As a process does at its end. Does nothing the second time.
  void shutdown() {
    mLink.leave();
    mBroker->shutdown();
    mLink.close();
  }

 private:
  std::shared_ptr<KXBus> const mBus;
  boost::shared_ptr<KXBroker> const mBroker;
  KXBusLink mLink;
};

/// Whoever calls is here, what is called is there. The modules there have to be announced.
struct JoinedBrokers {
  KXBusNetwork network{KXBusNetwork::Pacing::Threaded};
  JoinedBroker there{network, "any.there"};
  JoinedBroker here{network, "any.here"};
};

/// Where a module and its client are, for contracts that hold either way: in one broker,
class OneBroker {
 public:
  ~OneBroker() { mBroker->shutdown(); }
  boost::shared_ptr<KXBroker> const& modules() const { return mBroker; }
  boost::shared_ptr<KXBroker> const& clients() const { return mBroker; }
  void announce(std::string const& /*module*/) {}
  /// What a store is told that is to call a module of the client's.
  static std::string addressOf(std::string const& module) { return module; }

 private:
  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("test");
};

/// or in two with a bus between them.
class OverTheBus {
 public:
  boost::shared_ptr<KXBroker> const& modules() const { return mJoined.there.getBroker(); }
  boost::shared_ptr<KXBroker> const& clients() const { return mJoined.here.getBroker(); }
  void announce(std::string const& module) { mJoined.there.announce(module); }
  static std::string addressOf(std::string const& module) { return module + "@any.here"; }

 private:
  JoinedBrokers mJoined;
};

/// A type parameter of such contracts.
template <class PlaceType, class ModuleType>
struct Placed {
  using Place = PlaceType;
  using Module = ModuleType;
};

}  // namespace KX::testing
