// The block devices.
#include <unistd.h>

#include <algorithm>
#include <utility>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

// The kernel counts in these, whatever the disk's own sectors are.
constexpr double kSectorBytes = 512;
// A disk that is busy for 1000 ms of a second is busy for 100 %.
constexpr double kPercentPerMs = 0.1;

// Partitions have no folder there. In it, slashes of a name are exclamation marks.
bool isWholeDisk(std::string const& root, std::string name) {
  std::replace(name.begin(), name.end(), '/', '!');
  return ::access((root + "/sys/block/" + name).c_str(), F_OK) == 0;
}

// On purpose not by libproc2: its reader goes on reporting a disk that is gone.
class DiskGroup : public KXMachineGroup {
 public:
  explicit DiskGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Disk"; }
  std::vector<KXMachineKey> keys() const override;
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  void xReport(KXDiskCounters const& disk, KXMachineTime now, KXMachineReport& report);

  std::string const mRoot;
  KXRates mRates;
};

std::vector<KXMachineKey> DiskGroup::keys() const {
  using enum KXMachineKey::Kind;
  char const* const source = "/proc/diskstats";
  return {
      {"Host/Disk/<disk>/Reads", "since boot", Data, "float", source},
      {"Host/Disk/<disk>/ReadBytes", "bytes since boot", Data, "float", source},
      {"Host/Disk/<disk>/ReadsPerSecond", "1/s", Data, "float", source},
      {"Host/Disk/<disk>/ReadBytesPerSecond", "bytes/s", Data, "float", source},
      {"Host/Disk/<disk>/Writes", "since boot", Data, "float", source},
      {"Host/Disk/<disk>/WrittenBytes", "bytes since boot", Data, "float", source},
      {"Host/Disk/<disk>/WritesPerSecond", "1/s", Data, "float", source},
      {"Host/Disk/<disk>/WrittenBytesPerSecond", "bytes/s", Data, "float", source},
      {"Host/Disk/<disk>/BusyPercent", "percent of the period", Data, "float", source},
      {"Host/Disk/<disk>/RequestsInProgress", "requests", Data, "int", source},
  };
}

void DiskGroup::read(KXMachineTime now, KXMachineReport& report) {
  for (KXDiskCounters const& disk : parseDiskStats(readMachineFile(mRoot + "/proc/diskstats"))) {
    bool const wasUsed = disk.reads + disk.writes != 0;
    if (wasUsed && isWholeDisk(mRoot, disk.name)) xReport(disk, now, report);
  }
  mRates.forgetOthers(now);
}

void DiskGroup::xReport(KXDiskCounters const& disk, KXMachineTime now, KXMachineReport& report) {
  std::string const prefix = "Host/Disk/" + keySegment(disk.name) + "/";
  auto const addCounter = [&](char const* what, std::uint64_t count, double unit) {
    report.add(prefix + what, KXValue(unit * static_cast<double>(count)));
    std::string rateKey = prefix + what + "PerSecond";
    KXValue rate = mRates.update(rateKey, count, unit, now);
    report.add(std::move(rateKey), std::move(rate));
  };
  addCounter("Reads", disk.reads, 1);
  addCounter("ReadBytes", disk.readSectors, kSectorBytes);
  addCounter("Writes", disk.writes, 1);
  addCounter("WrittenBytes", disk.writtenSectors, kSectorBytes);

  std::string busyKey = prefix + "BusyPercent";
  KXValue busy = mRates.update(busyKey, disk.busyMs, kPercentPerMs, now);
  // The kernel books a long request's time when it ends, which may be more than the period.
  if (busy.isValid()) busy = KXValue(std::min(static_cast<double>(busy), 100.0));
  report.add(std::move(busyKey), std::move(busy));
  report.add(prefix + "RequestsInProgress", KXValue(static_cast<int>(disk.requestsInProgress)));
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeDiskGroup(std::string root) {
  return std::make_unique<DiskGroup>(std::move(root));
}

std::vector<KXDiskCounters> parseDiskStats(std::string_view text) {
  std::vector<KXDiskCounters> disks;
  std::string_view line;
  while (takeLine(text, line)) {
    std::vector<std::string_view> const words = splitWords(line);
    if (words.size() < 14) continue;
    std::vector<std::uint64_t> counts;
    for (std::size_t i = 3; i < 14; ++i) {
      if (auto const count = parseCount(words[i])) counts.push_back(*count);
    }
    if (counts.size() < 11) continue;
    disks.push_back(
        {std::string(words[2]), counts[0], counts[2], counts[4], counts[6], counts[8], counts[9]});
  }
  return disks;
}

}  // namespace KX
