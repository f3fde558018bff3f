// A bus within the process, for tests: with faults, and in simulated time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// A message on its way to one subscriber. Connections are numbered from 0 in the order in which
/// they were made.
struct KXBusTransfer {
  int from;
  int to;
  KXBusMessage const& message;
};

/// What becomes of it.
struct KXBusFate {
  /// One for each copy that arrives: after how many microseconds. Empty: the message is lost.
  std::vector<std::int64_t> delaysUs{0};
  /// May others on the same way, that were sent later, arrive before it? Otherwise they wait for
  /// it.
  bool mayBeOvertaken = false;
};

/// How often a message has which fate, from 0 to 1.
struct KXBusFaultRates {
  double loss = 0;
  double duplicate = 0;
  double overtaken = 0;
  std::int64_t maxDelayUs = 0;
};

/// The server, and the maker of the connections to it.
/// Ownership: outlives its connections.
/// Threads: any. Stepped, handlers and observers run in step() and nowhere else, so that a test
/// with one thread sees the same each time. Threaded, they run on threads of their own, in real
/// time.
class KX_API KXBusNetwork {
 public:
  enum class Pacing { Threaded, Stepped };
  /// Called for each transfer, with the network's lock held: it must not use the bus.
  using Faults = std::function<KXBusFate(KXBusTransfer const&)>;
  /// Is that subject allowed? Called as Faults is.
  using Permission = std::function<bool(std::string const& subject)>;

  explicit KXBusNetwork(Pacing pacing, std::size_t maxPayload = std::size_t{1} << 20);
  ~KXBusNetwork();
  KXBusNetwork(KXBusNetwork const&) = delete;
  KXBusNetwork& operator=(KXBusNetwork const&) = delete;

  /// `user` is escaped; "any" has the inbox prefix "_INBOX", others have "_INBOX_USER". KXError
  /// (Disconnected) while the server is stopped.
  std::unique_ptr<KXBus> connect(std::string const& user = "any");

  // ---- faults

  /// Empty: everything arrives at once.
  void setFaults(Faults faults);
  /// The same seed gives the same fates.
  static Faults randomFaults(std::uint32_t seed, KXBusFaultRates const& rates);
  /// What connections of that user may do from now on. Empty: everything.
  void setPermissions(std::string const& user, Permission publishing, Permission subscribing);
  /// The connection is lost, with what is on its way to it.
  void cut(KXBus const& connection);
  void mend(KXBus const& connection);
  /// As cut() for all of them.
  void stopServer();
  /// As mend() for those that were not cut by themselves.
  void startServer();

  // ---- time, in microseconds from 0

  std::int64_t nowUs() const;
  /// Stepped: when the next message or event arrives; none if nothing is on its way.
  std::optional<std::int64_t> nextUs() const;
  /// Stepped: moves the time to the next message or event and hands it over; false if there is
  /// none. May be called by handlers.
  bool step();
  /// Stepped: as step() for all that arrives up to then; the time is `timeUs` after that.
  void runUntil(std::int64_t timeUs);

 private:
  class Connection;
  class Subscription;
  struct Core;
  std::unique_ptr<Core> const mCore;
};

}  // namespace KX
