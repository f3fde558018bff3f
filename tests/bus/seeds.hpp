// Random schedules that can be run again.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include <tests/support/sanitized.hpp>

namespace KX::testing {

/// Calls with the seeds from 1 to `count`, up to the first that fails, which is printed. Under a
/// sanitizer a tenth of them: it looks at the same lines in each. With KX_SEED in the environment,
/// with that one only.
template <class Schedule>
void forSeeds(std::uint32_t count, Schedule const& schedule) {
  char const* const given = std::getenv("KX_SEED");
  auto const first = given == nullptr ? 1 : static_cast<std::uint32_t>(std::stoul(given));
  std::uint32_t const last = given != nullptr ? first : kIsSanitized ? count / 10 : count;
  for (std::uint32_t seed = first; seed <= last && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("again with KX_SEED=" + std::to_string(seed));
    schedule(seed);
  }
}

}  // namespace KX::testing
