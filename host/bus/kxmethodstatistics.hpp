// What became of the calls of a method that is served on a bus.
#pragma once

#include <cstdint>
#include <string>

namespace KX {

/// What a method was called for, since the module is served.
struct KXMethodStatistics {
  std::string method;
  std::uint64_t requests = 0;  ///< errors included
  std::uint64_t errors = 0;
  std::string lastError{};         ///< its text; empty: there was none
  std::uint64_t processingNs = 0;  ///< in sum
};

}  // namespace KX
