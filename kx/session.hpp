// The host inside the tool: this machine's sensors and, on request, the watcher, in this process;
// or without sensors and store, those of a robot in place of them.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <host/bus/kxbusoptions.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxvalue/kxvalue.hpp>

#include <kx/stop.hpp>

namespace KX {
class KXVsm;
}  // namespace KX

namespace KX::tool {

enum KXExitCode { kOk = 0, kFailed = 1, kUsage = 2, kNothingThere = 3, kTimeOut = 4 };

/// What ends a command with one line on stderr and an exit code.
class KXToolError : public std::runtime_error {
 public:
  KXToolError(KXExitCode exitCode, std::string const& text)
      : std::runtime_error(text), mExitCode(exitCode) {}
  KXExitCode exitCode() const noexcept { return mExitCode; }

 private:
  KXExitCode mExitCode;
};

/// An embedded host with the module libraries that stand beside the tool, and the user's own.
/// Ownership: a value of a command; its end shuts the host down, last module first.
/// Threads: one builds and ends it; calls go from any thread.
/// Errors: KXError of the libraries and of the modules called.
class KXSession {
 public:
  struct Options {
    bool withVsm = false;      ///< run the 10 ms hardware cycle, which then paces the watcher
    bool withWatcher = false;  ///< load KXMemoryWatcher
    /// The user's own, loaded in this order between the sensors and the watcher.
    std::vector<std::string> libraries{};
    /// The robot whose store and modules are meant: then there are no others but the watcher.
    std::optional<KXBusOptions> bus{};
  };

  /// Returns when the sensors have published their keys, or the robot's store has been found.
  /// KXToolError if that takes too long, if there is no such robot, or if the end is wished for
  /// meanwhile.
  KXSession(Options const& options, KXStop const& stop);

  bool isOnRobot() const noexcept { return mBus.has_value(); }
  KXBroker& broker() const { return *mHost.getBroker(); }
  /// The hardware cycle. KXError if the session has none.
  boost::shared_ptr<KXVsm> vsm() const;
  /// KXError if that cannot be asked.
  bool isModuleThere(std::string const& module) const;
  /// Calls a method of a module by name.
  KXValue call(std::string const& module, std::string const& method,
               std::vector<KXValue> arguments = {}) const;

  /// Lets the sensors be read at least once in this time. Otherwise a watch would give each value
  /// several times; what they have read already needs no slowing down. A robot's are left alone:
  /// others watch them too.
  void keepSensorsAhead(int periodMs) const;

  /// The keys of the store that match a shell pattern, sorted; the empty pattern means all.
  std::vector<std::string> keys(std::string const& pattern) const;
  /// What to say of keys and patterns that the store has nothing for, on one line.
  std::string noMatchText(std::vector<std::string> const& patterns) const;
  /// Waits up to a second for the store to have something for each of these keys and patterns, if
  /// the session has libraries of the user's: their keys may come from threads of their own.
  void awaitMatches(std::vector<std::string> const& patterns, KXStop const& stop) const;
  /// The type of a key; empty if the store does not know it. KXError if it cannot be asked.
  std::string typeOf(std::string const& key) const;

 private:
  void xAwaitSensors(KXStop const& stop) const;
  bool xMatches(std::string const& pattern) const;

  std::optional<KXBusOptions> const mBus;
  bool const mHasOwnLibraries;
  KXHost mHost;
};

}  // namespace KX::tool
