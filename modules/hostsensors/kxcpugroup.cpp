#include <modules/hostsensors/kxcpugroup.hpp>

#include <libproc2/stat.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <optional>
#include <utility>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxhostfiles.hpp>

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

}  // namespace

std::vector<KXHostKey> KXCpuGroup::keys() const {
  using enum KXHostKey::Kind;
  return {
      {"Host/Cpu/Count", "processors online", Data, "int", "libproc2 stat"},
      {"Host/Cpu/Usage", "percent of all, last second", Data, "float", "libproc2 stat"},
      {"Host/Cpu/<cpu>/Usage", "percent, last second", Data, "float", "libproc2 stat"},
      {"Host/Cpu/Saturated", "true from 95 %, false below 85 %", Event, "bool", "Host/Cpu/Usage"},
  };
}

void KXCpuGroup::Unref::operator()(stat_info* info) const {
  procps_stat_unref(&info);
}

void KXCpuGroup::read(KXHostTime now, KXHostReport& report) {
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

void KXCpuGroup::xReadUsage(std::string const& key, stat_stack const& ticks, KXUsage& usage,
                            KXHostTime now, KXHostReport& report) {
  report.add(key,
             usage.update(ticksFrom(ticks, kFirstBusyTick), ticksFrom(ticks, kFirstTick), now));
}

std::vector<KXHostKey> KXFrequencyGroup::keys() const {
  return {{"Host/Cpu/<cpu>/FrequencyMHz", "MHz, once a second", KXHostKey::Kind::Data, "float",
           "/sys/devices/system/cpu/cpu*/cpufreq, else /proc/cpuinfo"}};
}

void KXFrequencyGroup::read(KXHostTime, KXHostReport& report) {
  std::string const folder = mRoot + "/sys/devices/system/cpu";
  std::map<int, double> frequencies;
  if (auto const text = tryReadHostFile(mRoot + "/proc/cpuinfo")) frequencies = parseCpuInfo(*text);
  for (std::string const& entry : tryListHostFolder(folder)) {
    if (entry.substr(0, 3) != "cpu") continue;
    auto const cpu = parseCount(std::string_view(entry).substr(3));
    if (!cpu) continue;
    auto const kHz = tryReadHostNumber(folder + "/" + entry + "/cpufreq/scaling_cur_freq");
    if (kHz) frequencies[static_cast<int>(*cpu)] = static_cast<double>(*kHz) / 1000.0;
  }
  if (frequencies.empty()) {
    throw KXError("KXHostSensors", "read", "no processor tells its frequency",
                  "hostsensors/kxcpugroup", 0);
  }
  for (auto const& [cpu, MHz] : frequencies) report.add(cpuKey(cpu, "FrequencyMHz"), KXValue(MHz));
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
