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
  /// Lets so many pass and has the next one throw std::bad_alloc, once.
  static void failAfter(int passing);
  /// Lets so many pass and runs `action` inside the next one, once. It may allocate.
  static void interruptAfter(int passing, std::function<void()> action);
  /// Takes back what was asked for and has not happened.
  static void leaveAlone();
};

}  // namespace KX
