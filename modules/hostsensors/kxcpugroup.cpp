// The processors: how busy and how fast they are.
#include <libproc2/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <utility>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

// What is asked for, and where it comes back. Guest time is part of user time already.
constexpr std::size_t kId = 0;
constexpr std::size_t kFirstTick = 1;
constexpr std::size_t kFirstBusyTick = 3;
constexpr std::array<stat_item, 9> kTickItems = {STAT_TIC_ID,   STAT_TIC_IDLE,    STAT_TIC_IOWAIT,
                                                 STAT_TIC_USER, STAT_TIC_NICE,    STAT_TIC_SYSTEM,
                                                 STAT_TIC_IRQ,  STAT_TIC_SOFTIRQ, STAT_TIC_STOLEN};

std::uint64_t ticksFrom(stat_stack const& ticks, std::size_t first) {
  std::uint64_t sum = 0;
  for (std::size_t i = first; i < kTickItems.size(); ++i) sum += ticks.head[i].result.ull_int;
  return sum;
}

std::string cpuKey(int cpu, char const* what) {
  return "Host/Cpu/" + std::to_string(cpu) + "/" + what;
}

// The value of a line `name : value` of /proc/cpuinfo.
std::optional<std::string_view> cpuInfoField(std::string_view line, std::string_view name) {
  if (line.substr(0, name.size()) != name) return std::nullopt;
  std::size_t const colon = line.find(':');
  // Rules out names of which this one is only the beginning.
  if (colon == std::string_view::npos) return std::nullopt;
  if (line.substr(0, colon).find_last_not_of(" \t") + 1 != name.size()) return std::nullopt;
  std::size_t const begin = line.find_first_not_of(" \t", colon + 1);
  return begin == std::string_view::npos ? std::string_view() : line.substr(begin);
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
  Number number{};
  auto const parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ec != std::errc()) return std::nullopt;
  return number;
}

struct Unref {
  void operator()(stat_info* info) const { procps_stat_unref(&info); }
};

class CpuGroup : public KXMachineGroup {
 public:
  char const* name() const override { return "Cpu"; }
  std::vector<KXMachineKey> keys() const override;
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  static void xReadUsage(std::string const& key, stat_stack const& ticks, KXUsage& usage,
                         KXMachineTime now, KXMachineReport& report);

  std::unique_ptr<stat_info, Unref> mInfo;
  KXUsage mUsage;
  std::map<int, KXUsage> mUsageOfCpu;
  KXHysteresis mSaturation{95.0, 85.0};
};

std::vector<KXMachineKey> CpuGroup::keys() const {
  using enum KXMachineKey::Kind;
  return {
      {"Host/Cpu/Count", "processors online", Data, "int", "libproc2 stat"},
      {"Host/Cpu/Usage", "percent of all, last second", Data, "float", "libproc2 stat"},
      {"Host/Cpu/<cpu>/Usage", "percent, last second", Data, "float", "libproc2 stat"},
      {"Host/Cpu/Saturated", "true from 95 %, false below 85 %", Event, "bool", "Host/Cpu/Usage"},
  };
}

void CpuGroup::read(KXMachineTime now, KXMachineReport& report) {
  if (!mInfo) {
    stat_info* info = nullptr;
    if (int const result = procps_stat_new(&info); result < 0)
      throwUnreadable("/proc/stat", -result);
    mInfo.reset(info);
  }
  auto items = kTickItems;
  stat_reaped const* const reaped = procps_stat_reap(mInfo.get(), STAT_REAP_CPUS_ONLY, items.data(),
                                                     static_cast<int>(items.size()));
  if (reaped == nullptr) throwUnreadable("/proc/stat", errno);

  report.add("Host/Cpu/Count", KXValue(reaped->cpus->total));
  xReadUsage("Host/Cpu/Usage", *reaped->summary, mUsage, now, report);
  if (mUsage.isSettled()) {
    auto const change = mSaturation.update(static_cast<double>(report.values.back().second));
    if (change) report.events.push_back({"Host/Cpu/Saturated", KXValue(*change), false});
  }
  for (int i = 0; i < reaped->cpus->total; ++i) {
    stat_stack const& ticks = *reaped->cpus->stacks[i];
    int const cpu = ticks.head[kId].result.s_int;
    xReadUsage(cpuKey(cpu, "Usage"), ticks, mUsageOfCpu[cpu], now, report);
  }
}

void CpuGroup::xReadUsage(std::string const& key, stat_stack const& ticks, KXUsage& usage,
                          KXMachineTime now, KXMachineReport& report) {
  report.add(key,
             usage.update(ticksFrom(ticks, kFirstBusyTick), ticksFrom(ticks, kFirstTick), now));
}

class FrequencyGroup : public KXMachineGroup {
 public:
  explicit FrequencyGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Frequency"; }
  std::vector<KXMachineKey> keys() const override;
  std::chrono::milliseconds interval() const override { return std::chrono::seconds(1); }
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  std::string const mRoot;
};

std::vector<KXMachineKey> FrequencyGroup::keys() const {
  return {{"Host/Cpu/<cpu>/FrequencyMHz", "MHz, once a second", KXMachineKey::Kind::Data, "float",
           "/sys/devices/system/cpu/cpu*/cpufreq, else /proc/cpuinfo"}};
}

void FrequencyGroup::read(KXMachineTime, KXMachineReport& report) {
  std::string const folder = mRoot + "/sys/devices/system/cpu";
  std::map<int, double> frequencies;
  if (auto const text = tryReadMachineFile(mRoot + "/proc/cpuinfo"))
    frequencies = parseCpuInfo(*text);
  for (std::string const& entry : tryListMachineFolder(folder)) {
    if (entry.substr(0, 3) != "cpu") continue;
    auto const cpu = parseCount(std::string_view(entry).substr(3));
    if (!cpu) continue;
    auto const kHz = tryReadMachineNumber(folder + "/" + entry + "/cpufreq/scaling_cur_freq");
    if (kHz) frequencies[static_cast<int>(*cpu)] = static_cast<double>(*kHz) / 1000.0;
  }
  if (frequencies.empty()) {
    throw KXError("KXHostSensors", "read", "no processor tells its frequency",
                  "hostsensors/kxcpugroup", 0);
  }
  for (auto const& [cpu, MHz] : frequencies) report.add(cpuKey(cpu, "FrequencyMHz"), KXValue(MHz));
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeCpuGroup() {
  return std::make_unique<CpuGroup>();
}

std::unique_ptr<KXMachineGroup> makeFrequencyGroup(std::string root) {
  return std::make_unique<FrequencyGroup>(std::move(root));
}

std::map<int, double> parseCpuInfo(std::string_view text) {
  std::map<int, double> frequencies;
  std::optional<int> cpu;
  std::string_view line;
  while (takeLine(text, line)) {
    if (auto const number = cpuInfoField(line, "processor")) cpu = parseNumber<int>(*number);
    auto const field = cpuInfoField(line, "cpu MHz");
    auto const MHz = field ? parseNumber<double>(*field) : std::nullopt;
    if (cpu && MHz) frequencies[*cpu] = *MHz;
  }
  return frequencies;
}

}  // namespace KX
