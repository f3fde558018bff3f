// One reading of the whole machine, whatever part of it can be read.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <modules/hostsensors/kxmachinegroup.hpp>

namespace KX {

/// Owns the groups and reads those that are due, each apart from the others: a group that fails is
/// left out, with one log line when it begins to fail and one when it is back. The line is a
/// warning only for a group that could be read before: other machines simply lack it. Threads: one
/// at a time.
class KXMachineSurvey {
 public:
  struct Result {
    KXMachineReport report;
    /// Reported by the same group before, and no more: their device or their source is gone.
    std::vector<std::string> vanishedKeys;
  };

  explicit KXMachineSurvey(std::vector<std::unique_ptr<KXMachineGroup>> groups);

  Result read(KXMachineTime now);
  /// The keys of all groups.
  std::vector<KXMachineKey> keys() const;

 private:
  struct Entry {
    std::unique_ptr<KXMachineGroup> group;
    KXMachineTime due;
    std::set<std::string> keys;
    bool isFailing = false;
    bool wasEverRead = false;
  };

  static std::string xFunctionName(Entry const& entry);
  static KXMachineReport xReadGroup(Entry& entry, KXMachineTime now);
  static void xFindVanished(Entry& entry, KXMachineReport const& report,
                            std::vector<std::string>& vanishedKeys);

  std::vector<Entry> mEntries;
};

}  // namespace KX
