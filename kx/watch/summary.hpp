// The paragraph at the end of a watch. Pure.
#pragma once

#include <cstdint>
#include <string>

#include <kx/watch/punctuality.hpp>
#include <kx/watch/samples.hpp>

namespace KX::tool {

struct KXWatchCounts {
  std::int64_t samples = 0;  ///< of data keys
  std::int64_t events = 0;   ///< raises of event keys
};

/// Periods asked, taken, missed and how, samples, events, lateness. Without data keys there are no
/// batches to see periods by, and it says so.
std::string summaryText(KXPunctualityReport const& report, int periodMs, KXWatchedKeys const& keys,
                        KXWatchCounts const& counts);

/// Samples and events alone, of a watcher whose periods others set too.
std::string sharedSummaryText(KXWatchedKeys const& keys, KXWatchCounts const& counts);

}  // namespace KX::tool
