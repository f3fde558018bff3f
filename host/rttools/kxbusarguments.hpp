// The options of programs that say where the bus is. For CLI11, whose headers are not needed here.
#pragma once

#include <memory>
#include <optional>

#include <host/bus/kxbusoptions.hpp>
#include <kxerror/kxapi.hpp>

namespace CLI {
class App;
}  // namespace CLI

namespace KX {

/// --bus, --robot and the others, on a command line; what is not there is taken from the
/// environment (KX_BUS, KX_ROBOT ...), else it is as KXBusOptions has it. An empty variable counts
/// as none; an empty option counts, so `--bus ''` is no bus, whatever the environment says.
/// Ownership: borrows the app, which outlives it. Threads: one.
class KX_API KXBusArguments {
 public:
  enum class Means {
    Robot,    ///< one robot's modules (--robot)
    Host,     ///< the same, of a process that has the store (--bus-backlog)
    WholeBus  ///< all robots
  };

  explicit KXBusArguments(CLI::App& app, Means means = Means::Robot);
  ~KXBusArguments();
  KXBusArguments(KXBusArguments const&) = delete;
  KXBusArguments& operator=(KXBusArguments const&) = delete;

  /// Once the app has parsed; none if no bus is named. std::invalid_argument, with a line for the
  /// person who typed it, if an option makes no sense: without a bus each of the others does not.
  std::optional<KXBusOptions> options() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
