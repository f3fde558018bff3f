// Waiting for what other threads and processes bring about.
#pragma once

#include <chrono>
#include <thread>

namespace KX::testing {

/// Asks again and again, until the condition holds; false after 30 s.
template <class Condition>
bool waitUntil(Condition const& condition) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace KX::testing
