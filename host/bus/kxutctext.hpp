// Times of the wall clock as text that sorts by time. Pure functions.
#pragma once

#include <chrono>
#include <string>

namespace KX {

/// RFC 3339 in UTC with microseconds: `2026-01-02T03:04:05.678901Z`.
std::string utcText(std::chrono::system_clock::time_point time);

}  // namespace KX
