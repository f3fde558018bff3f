#include <kx/watch/summary.hpp>

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

std::string causesText(KXPunctualityReport const& report, KXPacing pacing) {
  // With timed pacing an overrun is made up for, so only a client that held the buffer leaves a
  // gap. With cycle pacing overdue periods become one, which looks the same from here.
  char const* const skipped =
      pacing == KXPacing::Timed ? "buffer busy" : "buffer busy or cycle overrun";
  std::vector<std::string> causes;
  for (auto const& [count, cause] :
       {std::pair(report.failedReads, "read failed"), std::pair(report.skipped, skipped),
        std::pair(report.overdue, "overdue at the stop")}) {
    if (count > 0) causes.push_back(fmt::format("{} {}", count, cause));
  }
  return causes.empty() ? "" : fmt::format(" ({})", fmt::join(causes, ", "));
}

std::string periods(KXPunctualityReport const& report, KXPacing pacing, int periodMs) {
  return fmt::format("asked {} of {} ms, took {}, missed {}{}", counted(report.asked, "period"),
                     periodMs, report.taken, report.asked - report.taken,
                     causesText(report, pacing));
}

std::string lateness(KXPunctualityReport const& report) {
  if (report.latenessCount == 0) return "lateness unknown";
  auto const ms = [](std::int64_t us) {
    return static_cast<double>(us) / 1000;
  };
  return fmt::format("lateness p50 {:.3f} ms, p99 {:.3f} ms, max {:.3f} ms", ms(report.p50Us),
                     ms(report.p99Us), ms(report.maxUs));
}

}  // namespace

std::string summaryText(KXPunctualityReport const& report, KXPacing pacing, int periodMs,
                        KXWatchedKeys const& keys, KXWatchCounts const& counts) {
  auto const dataKeys = static_cast<std::int64_t>(keys.data.size() + keys.unknown.size());
  auto const eventKeys = static_cast<std::int64_t>(keys.events.size());
  std::string const events =
      fmt::format("{} of {}", counted(counts.events, "event"), counted(eventKeys, "event key"));
  if (keys.data.empty()) return "no data key was watched, so no period was seen; " + events;
  return fmt::format("{}; {} of {}{}; {}", periods(report, pacing, periodMs),
                     counted(counts.samples, "sample"), counted(dataKeys, "data key"),
                     keys.events.empty() ? "" : ", " + events, lateness(report));
}

}  // namespace KX::tool
