// Everything that is read of the machine: a factory for each group, and what the groups make of the
// kernel's texts. `root` stands before the paths of /proc and /sys: empty for this machine, a
// folder for a test's. What libproc2 and libsensors read is this machine's always. Threads: the
// parse functions are stateless; a group is entered by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <modules/hostsensors/kxmachinegroup.hpp>

namespace KX {

/// One group of each kind.
std::vector<std::unique_ptr<KXMachineGroup>> makeMachineGroups(std::string const& root);

std::unique_ptr<KXMachineGroup> makeUptimeGroup();
std::unique_ptr<KXMachineGroup> makeLoadGroup();
/// Use per processor and in all, and the event of saturation.
std::unique_ptr<KXMachineGroup> makeCpuGroup();
/// Clock frequencies, once a second: they say little between one period and the next, and are slow
/// to read where the kernel has to ask each processor.
std::unique_ptr<KXMachineGroup> makeFrequencyGroup(std::string root);
/// What is used and what is left of memory and swap, and the event of memory running low.
std::unique_ptr<KXMachineGroup> makeMemoryGroup();
/// Counters and rates of whole disks that were ever used; partitions and idle loop devices would be
/// a hundred keys of nothing.
std::unique_ptr<KXMachineGroup> makeDiskGroup(std::string root);
/// Counters, rates and links, and the event of a link that comes or goes, be it that its interface
/// does. The links found at the first reading are no event.
std::unique_ptr<KXMachineGroup> makeNetworkGroup(std::string root);
/// The chips that libsensors knows when the group is made, and the kernel's thermal zones, once a
/// second: chips on slow buses take milliseconds to answer. Of places with one label in one chip,
/// all but the first have the kernel's name behind it.
std::unique_ptr<KXMachineGroup> makeTemperatureGroup(std::string root);
/// Counts in each period; a list of the processes only when the kernel has given out a new pid
/// since the last one, when one was held back, or after a second.
std::unique_ptr<KXMachineGroup> makeProcessGroup(std::string root);

/// Frequencies in MHz by processor number, from the text of /proc/cpuinfo; empty where the kernel
/// does not tell them there.
std::map<int, double> parseCpuInfo(std::string_view text);

/// One line of /proc/diskstats, as far as it is published.
struct KXDiskCounters {
  std::string name;
  std::uint64_t reads = 0;
  std::uint64_t readSectors = 0;
  std::uint64_t writes = 0;
  std::uint64_t writtenSectors = 0;
  std::uint64_t requestsInProgress = 0;
  std::uint64_t busyMs = 0;
};
/// The lines that are well formed.
std::vector<KXDiskCounters> parseDiskStats(std::string_view text);

/// One direction of an interface.
struct KXTraffic {
  std::uint64_t bytes = 0;
  std::uint64_t packets = 0;
  std::uint64_t errors = 0;
  std::uint64_t dropped = 0;
};
/// One line of /proc/net/dev.
struct KXInterfaceCounters {
  std::string name;
  KXTraffic received;
  KXTraffic sent;
};
/// The lines that are well formed; the two lines of titles are not.
std::vector<KXInterfaceCounters> parseNetDev(std::string_view text);

/// What /proc/loadavg tells beside the averages.
struct KXThreadCounts {
  int running = 0;
  int total = 0;
  int lastPid = 0;  ///< the newest process or thread
};
std::optional<KXThreadCounts> parseThreadCounts(std::string_view loadAverage);

struct KXProcess {
  int pid = 0;
  std::string name;
  bool hasOwnProgram = false;  ///< false between a fork and its exec: the name is the parent's
};
/// The text of /proc/PID/stat. Names may hold any bytes.
std::optional<KXProcess> parseProcessStat(std::string_view text);

/// Finds started processes in successive lists of pids. One that has not yet an own program is
/// held back until the next list, so that it is reported with its name and not with its parent's.
/// A pid that is used again between two lists is not noticed.
class KXProcessTracker {
 public:
  /// What is known about a process; nothing if it is gone.
  using Lookup = std::function<std::optional<KXProcess>(int pid)>;

  /// The processes that started since the last list, in order of pid; none for the first list.
  std::vector<KXProcess> update(std::set<int> pids, Lookup const& lookup);
  /// True if the next list is waited for.
  bool isHoldingBack() const { return !mHeldBack.empty(); }

 private:
  std::optional<std::set<int>> mPids;
  std::set<int> mHeldBack;
};

}  // namespace KX
