// Notifications from other processes to modules of this one. Any thread may enter.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

class KXBroker;

/// What arrived for one module since it is served.
struct KXEventCounts {
  std::uint64_t handled = 0;    ///< brought to the module, whatever it said
  std::uint64_t failed = 0;     ///< of these: it threw
  std::uint64_t unhandled = 0;  ///< the module was not there, or the pack could not be read
  std::uint64_t dropped = 0;    ///< by their senders, for want of room
  std::uint64_t repeats = 0;    ///< arrived again, and were left alone
};

/// Brings notifications to the modules of a broker: those of one module one after the other, each
/// once, before its sender is told. Tells the senders when it begins and when it is back.
/// What a module throws is told in the log, and is nothing to the sender.
/// Ownership: must not outlive the bus; does not keep the broker alive.
/// Threads: every operation may be called from any thread, the modules' methods included. Methods
/// are called on the bus's threads, one thread for each module that is served.
class KX_API KXEventReceiver {
 public:
  KXEventReceiver(KXBus& bus, KXSubjects const& subjects,
                  boost::shared_ptr<KXBroker> const& broker);
  /// As withdraw() of all.
  ~KXEventReceiver();
  KXEventReceiver(KXEventReceiver const&) = delete;
  KXEventReceiver& operator=(KXEventReceiver const&) = delete;

  /// Begins to take what is sent to a module under that name: "NAME", or "NAME@USER.NONCE" for the
  /// module NAME. Does nothing if it is served. The module may come later, and go.
  void serve(std::string const& name);
  /// Ends it, after the method call in progress unless that is the caller; unknown names are
  /// ignored. What was not handled stays with its senders.
  void withdraw(std::string const& name);
  /// Zeros for a name that is not served.
  KXEventCounts getCounts(std::string const& name) const;

 private:
  class Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
