// The verbs. Each takes what its options say, writes data to `output` and everything else to
// stderr, and returns the exit code. Errors: KXToolError, KXUsageError, KXError, std::system_error.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <kx/arguments.hpp>
#include <kx/output.hpp>
#include <kx/stop.hpp>

namespace KX::tool {

struct KXWatchOptions {
  std::vector<std::string> patterns;  ///< keys or shell patterns; none: what newcomers want to see
  int periodMs = 500;
  std::optional<std::chrono::milliseconds> duration;  ///< none: until a signal ends it
  KXFormat format = KXFormat::Table;
  bool isCyclePaced = false;
  std::vector<std::string> libraries;  ///< the user's modules, as for KXHost::loadModule()
};

struct KXListOptions {
  std::string pattern;  ///< empty: all keys
  bool withTypes = false;
  std::vector<std::string> libraries;
};

struct KXDescribeOptions {
  std::string module;  ///< empty: a list of the modules
  std::vector<std::string> libraries;
};

int watch(KXWatchOptions const& options, KXOutput& output, KXStop const& stop);
int list(KXListOptions const& options, KXOutput& output, KXStop const& stop);
int describe(KXDescribeOptions const& options, KXOutput& output, KXStop const& stop);

}  // namespace KX::tool
