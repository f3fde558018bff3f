#include <kx/watch/summary.hpp>

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

std::string causesText(KXPunctualityReport const& report) {
  std::vector<std::string> causes;
  for (auto const& [count, cause] :
       {std::pair(report.failedReads, "read failed"),
        std::pair(report.cyclesSkipped, "hardware cycle late"),
        std::pair(report.skipped, "skipped"), std::pair(report.overdue, "overdue at the stop")}) {
    if (count > 0) causes.push_back(fmt::format("{} {}", count, cause));
  }
  return causes.empty() ? "" : fmt::format(" ({})", fmt::join(causes, ", "));
}

std::string periods(KXPunctualityReport const& report, int periodMs) {
  return fmt::format("asked {} of {} ms, took {}, missed {}{}", counted(report.asked, "period"),
                     periodMs, report.taken, report.asked - report.taken, causesText(report));
}

std::string lateness(KXPunctualityReport const& report) {
  if (report.latenessCount == 0) return "lateness unknown";
  auto const ms = [](std::int64_t us) {
    return static_cast<double>(us) / 1000;
  };
  return fmt::format("lateness p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms", ms(report.p50Us),
                     ms(report.p99Us), ms(report.maxUs));
}

std::string samplesText(KXWatchedKeys const& keys, KXWatchCounts const& counts) {
  return fmt::format(
      "{} of {}", counted(counts.samples, "sample"),
      counted(static_cast<std::int64_t>(keys.data.size() + keys.unknown.size()), "data key"));
}

std::string eventsText(KXWatchedKeys const& keys, KXWatchCounts const& counts) {
  auto const eventKeys = static_cast<std::int64_t>(keys.events.size());
  std::string events = counted(counts.events, "event");
  // Keys that were not there at first may have become events.
  if (eventKeys > 0) events += " of " + counted(eventKeys, "event key");
  return events;
}

}  // namespace

std::string summaryText(KXPunctualityReport const& report, int periodMs, KXWatchedKeys const& keys,
                        KXWatchCounts const& counts) {
  bool const hasEvents = !keys.events.empty() || counts.events > 0;
  std::string const samples = samplesText(keys, counts);
  std::string const events = eventsText(keys, counts);
  if (keys.data.empty()) {
    return fmt::format("no data key was watched, so no period was seen; {}{}",
                       keys.unknown.empty() ? "" : samples + ", ", events);
  }
  return fmt::format("{}; {}{}; {}", periods(report, periodMs), samples,
                     hasEvents ? ", " + events : "", lateness(report));
}

std::string sharedSummaryText(KXWatchedKeys const& keys, KXWatchCounts const& counts) {
  return fmt::format("{}, {}, from the robot's watcher", samplesText(keys, counts),
                     eventsText(keys, counts));
}

}  // namespace KX::tool
