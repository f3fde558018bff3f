// A host in this process, without any robot: what tools, tests and stand-alone processes build on.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/bus/kxbusoptions.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// A broker with the modules KXLauncher and KXMemory and, on request, VSM; loads module libraries.
/// A module that is to stand in for one of these finds its name free where the host goes without:
///
///     KXHost host({.name = "mine", .withStore = false});
///     KXModule::createModule<MyStore>(host.getBroker());
///
/// With a bus it joins a robot, where the modules of several processes are one host's:
///
///     KXHost host({.withStore = false, .bus = {{.url = "nats://127.0.0.1"}},
///                  .announced = KXHost::Announced::OwnModules});
///     host.loadModule("libmine.so");
///     host.announce();
///
/// Has the process keep memory that it frees (ka::os::keepFreedMemory).
/// Ownership: a value of main() or of a test; owns the broker until shutdown() or destruction.
/// Threads: one thread builds, loads and shuts down; calls through the broker come from any thread.
class KX_API KXHost {
 public:
  /// Which modules are meant for everybody on the robot, under their plain names. The others are
  /// reached by whom they gave their full address to.
  enum class Announced {
    Nothing,
    OwnModules,  ///< all but the launcher, which speaks for this process alone
    Everything,  ///< this is the robot's host
  };
  struct Options {
    std::string name = "kxhost";        ///< the broker's name; on a robot it has one of the bus's
    bool withLauncher = true;           ///< tell over the broker which modules there are
    bool withStore = true;              ///< keep the keys
    bool withVsm = false;               ///< run the 10 ms hardware cycle
    std::optional<KXBusOptions> bus{};  ///< join a robot; without, nothing opens a socket
    Announced announced = Announced::Nothing;
    /// Send this process SIGTERM when another has taken an announced name, since this one did not
    /// answer: a service that nobody reaches is to end, and may be started again.
    bool endsWithItsNames = false;
  };

  /// KXError if there is no way to the bus.
  explicit KXHost(Options const& options);
  /// Shuts down.
  ~KXHost();
  KXHost(KXHost const&) = delete;
  KXHost& operator=(KXHost const&) = delete;

  boost::shared_ptr<KXBroker> const& getBroker() const noexcept;

  /// Opens a module library with all symbols resolved and calls its `_createModule`. KXError, and
  /// nothing else happens, if the file cannot be opened, an entry point is missing, or
  /// `_createModule` throws or returns anything but 0.
  void loadModule(std::string const& path);

  /// Announces what was published since the last time and is to be, as the options say. KXError,
  /// and none is announced, if another process of the robot has one of the names, and says which.
  void announce();

  /// Has another process taken a name that was announced?
  bool hasLostName() const noexcept;

  /// Shuts the broker down, last module first, then calls each library's `_closeModule`. The
  /// libraries stay loaded. Does nothing the second time.
  void shutdown();

 private:
  struct Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
