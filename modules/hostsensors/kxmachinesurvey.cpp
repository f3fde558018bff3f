#include <modules/hostsensors/kxmachinesurvey.hpp>

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include <ka/log.hpp>

namespace KX {

KXMachineSurvey::KXMachineSurvey(std::vector<std::unique_ptr<KXMachineGroup>> groups) {
  for (auto& group : groups) mEntries.push_back({std::move(group), KXMachineTime(), {}});
}

KXMachineSurvey::Result KXMachineSurvey::read(KXMachineTime now) {
  Result result;
  for (Entry& entry : mEntries) {
    // A tenth early is near enough, lest the jitter of the periods skip every other reading.
    std::chrono::milliseconds const interval = entry.group->interval();
    if (now + interval / 10 < entry.due) continue;
    entry.due = now + interval;
    KXMachineReport found = xReadGroup(entry, now);
    xFindVanished(entry, found, result.vanishedKeys);
    std::move(found.values.begin(), found.values.end(), std::back_inserter(result.report.values));
    std::move(found.events.begin(), found.events.end(), std::back_inserter(result.report.events));
  }
  return result;
}

// One per group: on stderr, warnings of one function hold each other back.
std::string KXMachineSurvey::xFunctionName(Entry const& entry) {
  return std::string("read").append(entry.group->name());
}

KXMachineReport KXMachineSurvey::xReadGroup(Entry& entry, KXMachineTime now) {
  KXMachineReport report;
  try {
    entry.group->read(now, report);
    entry.wasEverRead = true;
    if (std::exchange(entry.isFailing, false)) {
      ka::log::LogStream(ka::log::Info, "KXHostSensors", "", xFunctionName(entry), 0)
          << "group '" << entry.group->name() << "' is read again";
    }
  } catch (std::exception const& error) {
    // Swallowed: the other groups are good, and this one is tried again.
    report = KXMachineReport();
    if (!std::exchange(entry.isFailing, true)) {
      ka::log::Level const level = entry.wasEverRead ? ka::log::Warning : ka::log::Info;
      ka::log::LogStream(level, "KXHostSensors", "", xFunctionName(entry), 0)
          << "group '" << entry.group->name() << "' left out: " << error.what();
    }
  }
  return report;
}

void KXMachineSurvey::xFindVanished(Entry& entry, KXMachineReport const& report,
                                    std::vector<std::string>& vanishedKeys) {
  bool const isSame =
      report.values.size() == entry.keys.size() &&
      std::all_of(report.values.begin(), report.values.end(),
                  [&](auto const& value) { return entry.keys.contains(value.first); });
  if (isSame) return;
  std::set<std::string> keys;
  for (auto const& [key, value] : report.values) keys.insert(key);
  std::set_difference(entry.keys.begin(), entry.keys.end(), keys.begin(), keys.end(),
                      std::back_inserter(vanishedKeys));
  entry.keys = std::move(keys);
}

std::vector<KXMachineKey> KXMachineSurvey::keys() const {
  std::vector<KXMachineKey> keys;
  for (Entry const& entry : mEntries) {
    std::vector<KXMachineKey> const more = entry.group->keys();
    keys.insert(keys.end(), more.begin(), more.end());
  }
  return keys;
}

}  // namespace KX
