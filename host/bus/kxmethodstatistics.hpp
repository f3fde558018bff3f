// What became of the calls of methods that are served on a bus.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

/// What became of the calls of a method, since the server was made.
struct KXMethodStatistics {
  std::string method;
  std::uint64_t requests = 0;  ///< errors included
  std::uint64_t errors = 0;
  std::string lastError{};         ///< its text; empty: there was none
  std::uint64_t processingNs = 0;  ///< in sum
};

/// Those of all modules of a server. Names come from whoever calls: each module has 256 methods at
/// most, and a method is one whose call once came through to its module.
/// Threads: all operations may overlap.
class KX_API KXStatisticsTable {
 public:
  /// One call. `error` is null if there was none.
  void count(std::string const& module, std::string const& method,
             std::chrono::steady_clock::duration duration, KXError const* error);
  /// Of a module, in the order of the methods' names.
  std::vector<KXMethodStatistics> of(std::string const& module) const;

 private:
  mutable std::mutex mMutex;
  // Guarded by mMutex, by module and method:
  std::map<std::string, std::map<std::string, KXMethodStatistics>> mModules;
};

}  // namespace KX
