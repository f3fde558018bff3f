// The processes: how many there are, and which are new.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

struct KXProcess {
  int pid = 0;
  std::string name;
  bool hasOwnProgram = false;  ///< false between a fork and its exec: the name is the parent's
};

/// The text of /proc/PID/stat. Names may hold any bytes.
std::optional<KXProcess> parseProcessStat(std::string_view text);

/// What is known about a process; nothing if it is gone.
using KXProcessLookup = std::function<std::optional<KXProcess>(int pid)>;

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
/// On purpose not by libproc2: it would read files of every process for a list, and what it
/// allocates for each thread that reads processes is never freed.
class KXProcessGroup : public KXHostGroup {
 public:
  explicit KXProcessGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Process"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  void xList(KXHostReport& report);

  std::string const mRoot;
  KXProcessTracker mTracker;
  int mLastPid = 0;
  int mCount = 0;
  std::optional<KXHostTime> mListTime;
};

}  // namespace KX
