// The verbs. Each takes what its options say, writes data to `output` and everything else to
// stderr, and returns the exit code. Errors: KXToolError, KXUsageError, KXError, std::system_error.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <host/bus/kxbusoptions.hpp>
#include <kx/arguments.hpp>
#include <kx/output.hpp>
#include <kx/stop.hpp>

namespace KX::tool {

// `bus`, if there is one, says which robot is meant; otherwise it is a host in the tool's process.

struct KXWatchOptions {
  std::optional<KXBusOptions> bus;
  bool isShared = false;              ///< watch with the robot's own watcher
  std::vector<std::string> patterns;  ///< keys or shell patterns; none: what newcomers want to see
  int periodMs = 500;
  std::optional<std::chrono::milliseconds> duration;  ///< none: until a signal ends it
  KXFormat format = KXFormat::Table;
  bool isCyclePaced = false;
  std::vector<std::string> libraries;  ///< the user's modules, as for KXHost::loadModule()
};

struct KXListOptions {
  std::optional<KXBusOptions> bus;
  std::string pattern;  ///< empty: all keys
  bool withTypes = false;
  std::vector<std::string> libraries;
};

struct KXDescribeOptions {
  std::optional<KXBusOptions> bus;
  std::string module;  ///< empty: a list of the modules
  std::vector<std::string> libraries;
};

struct KXHostOptions {
  KXBusOptions bus;
  bool withCycle = false;
  std::vector<std::string> libraries;
};

struct KXRobotsOptions {
  KXBusOptions bus;
  KXListing listing = KXListing::Table;
};

int watch(KXWatchOptions const& options, KXOutput& output, KXStop const& stop);
int list(KXListOptions const& options, KXOutput& output, KXStop const& stop);
int describe(KXDescribeOptions const& options, KXOutput& output, KXStop const& stop);
int host(KXHostOptions const& options, KXStop const& stop);
int robots(KXRobotsOptions const& options, KXOutput& output);

}  // namespace KX::tool
