// The processors: how busy and how fast they are.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxhostgroup.hpp>

struct stat_info;
struct stat_stack;

namespace KX {

/// Use per processor and in all, and the event of saturation.
class KXCpuGroup : public KXHostGroup {
 public:
  char const* name() const override { return "Cpu"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  struct Unref {
    void operator()(stat_info* info) const;
  };

  void xReadUsage(std::string const& key, stat_stack const& ticks, KXUsage& usage, KXHostTime now,
                  KXHostReport& report);

  std::unique_ptr<stat_info, Unref> mInfo;
  KXUsage mUsage;
  std::map<int, KXUsage> mUsageOfCpu;
  KXHysteresis mSaturation{95.0, 85.0};
};

/// Clock frequencies. They say little between one period and the next and are slow to read where
/// the kernel has to ask each processor, hence once a second.
class KXFrequencyGroup : public KXHostGroup {
 public:
  explicit KXFrequencyGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Frequency"; }
  std::vector<KXHostKey> keys() const override;
  std::chrono::milliseconds interval() const override { return std::chrono::seconds(1); }
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  std::string const mRoot;
};

/// Frequencies in MHz by processor number, from the text of /proc/cpuinfo; empty where the kernel
/// does not tell them there.
std::map<int, double> parseCpuInfo(std::string_view text);

}  // namespace KX
