// Joins one broker to one robot: its modules are reached over the bus, and it reaches the others.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbusoptions.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// A broker's place on a robot, while this object lives. Every module of the broker is reached
/// under its full address "NAME@BROKER"; those that are announced also under their plain name.
/// Ownership: keeps bus and broker. Threads: one makes it, announces and ends it; modules call and
/// are called from any.
class KX_API KXBusLink {
 public:
  /// A name for a broker that is to join: "USER.NONCE", a new one each time.
  static std::string newBrokerName(KXBus const& bus);

  /// The broker has a name of newBrokerName() and no modules yet. Of the options, those that are
  /// not about the connection. `onNameLost` is called by threads of the broker.
  KXBusLink(std::shared_ptr<KXBus> bus, boost::shared_ptr<KXBroker> broker,
            KXBusOptions const& options, std::function<void()> onNameLost = {});
  /// As close().
  ~KXBusLink();
  KXBusLink(KXBusLink const&) = delete;
  KXBusLink& operator=(KXBusLink const&) = delete;

  /// Makes these modules ones that are meant for everybody on the robot, and says so. KXError, and
  /// none is announced: Failed if somebody else has one of the names; Refused, Disconnected.
  /// A name that is lost later, because this process did not answer, is withdrawn with a log line,
  /// and onNameLost is told.
  void announce(std::vector<std::string> const& modules);

  /// The broker is about to shut down: nobody calls its modules any more, and what they call has
  /// half a second in sum. Calls in progress go on. Does nothing the second time.
  void leave();
  /// To be called when the broker has shut down. Waits for calls in progress; the broker reaches
  /// nobody any more.
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
