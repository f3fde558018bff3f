// The processes: how many there are, and which are new.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <modules/hostsensors/kxhostgroup.hpp>

struct pids_info;

namespace KX {

struct KXProcess {
  int pid = 0;
  std::string name;
  bool hasOwnProgram = false;  ///< false between a fork and its exec: the name is the parent's
};

/// What is known about these processes; those that are gone are left out.
using KXProcessLookup = std::function<std::vector<KXProcess>(std::vector<int> const& pids)>;

/// Finds started processes in successive lists of pids. One that has not yet an own program is
/// held back until the next list, so that it is reported with its name and not with its parent's.
/// A pid that is used again between two lists is not noticed.
class KXProcessTracker {
 public:
  /// The processes that started since the last list, in order of pid; none for the first list.
  std::vector<KXProcess> update(std::set<int> pids, KXProcessLookup const& lookup);
  /// True if the next list is waited for.
  bool isHoldingBack() const { return !mHeldBack.empty(); }

 private:
  std::optional<std::set<int>> mPids;
  std::set<int> mHeldBack;
};

/// What /proc/loadavg tells beside the averages.
struct KXThreadCounts {
  int running = 0;
  int total = 0;
  int lastPid = 0;  ///< the newest process or thread
};
std::optional<KXThreadCounts> parseThreadCounts(std::string_view loadAverage);

/// Counts in each period; a list of the processes only when the kernel has given out a new pid
/// since the last one, when one was held back, or after a second.
/// Names come from libproc2; the list itself does not, as that would read files of every process.
class KXProcessGroup : public KXHostGroup {
 public:
  /// Looks processes up by libproc2, which knows this machine alone.
  explicit KXProcessGroup(std::string root);
  KXProcessGroup(std::string root, KXProcessLookup lookup);
  ~KXProcessGroup() override;
  char const* name() const override { return "Process"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  struct Unref {
    void operator()(pids_info* info) const;
  };

  std::vector<KXProcess> xLookup(std::vector<int> const& pids);
  void xList(KXHostReport& report);

  std::string const mRoot;
  KXProcessLookup const mLookup;
  std::unique_ptr<pids_info, Unref> mInfo;
  KXProcessTracker mTracker;
  int mLastPid = 0;
  int mCount = 0;
  std::optional<KXHostTime> mListTime;
};

}  // namespace KX
