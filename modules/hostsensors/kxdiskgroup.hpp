// The block devices.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

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

/// Counters and rates of whole disks that were ever used; partitions and idle loop devices would
/// be a hundred keys of nothing.
/// On purpose not by libproc2: its reader goes on reporting a disk that is gone.
class KXDiskGroup : public KXHostGroup {
 public:
  explicit KXDiskGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Disk"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  void xReport(KXDiskCounters const& disk, KXHostTime now, KXHostReport& report);

  std::string const mRoot;
  KXRates mRates;
};

}  // namespace KX
