// A hand on the operator new of this test program: counts, fails and interrupts the allocations of
// the thread that asks.
#pragma once

#include <cstdint>
#include <functional>

namespace KX {

/// Everything here concerns the calling thread only.
struct Allocations {
  /// How many there have been.
  static std::int64_t count();
  /// How many there have been, less those that were given back on this thread.
  static std::int64_t balance();
  /// Lets so many pass and has the next one throw std::bad_alloc, once; negative: never.
  static void failAfter(int passing);
  /// Runs `action` inside the next allocation, once. It may allocate.
  static void interruptNext(std::function<void()> action);
};

}  // namespace KX
