// Memory and swap of the machine.
#include <libproc2/meminfo.h>

#include <array>
#include <cerrno>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

struct Entry {
  meminfo_item item;
  char const* key;
};
// Total and available come first: read() uses them by position.
constexpr std::array<Entry, 9> kEntries = {{
    {MEMINFO_MEM_TOTAL, "Host/Memory/TotalBytes"},
    {MEMINFO_MEM_AVAILABLE, "Host/Memory/AvailableBytes"},
    {MEMINFO_MEM_USED, "Host/Memory/UsedBytes"},
    {MEMINFO_MEM_FREE, "Host/Memory/FreeBytes"},
    {MEMINFO_MEM_BUFFERS, "Host/Memory/BuffersBytes"},
    {MEMINFO_MEM_CACHED_ALL, "Host/Memory/CachedBytes"},
    {MEMINFO_SWAP_TOTAL, "Host/Swap/TotalBytes"},
    {MEMINFO_SWAP_FREE, "Host/Swap/FreeBytes"},
    {MEMINFO_SWAP_USED, "Host/Swap/UsedBytes"},
}};

struct Unref {
  void operator()(meminfo_info* info) const { procps_meminfo_unref(&info); }
};

class MemoryGroup : public KXMachineGroup {
 public:
  char const* name() const override { return "Memory"; }
  std::vector<KXMachineKey> keys() const override;
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  std::unique_ptr<meminfo_info, Unref> mInfo;
  // In percent of memory that is not available.
  KXHysteresis mLow{90.0, 85.0};
};

std::vector<KXMachineKey> MemoryGroup::keys() const {
  using enum KXMachineKey::Kind;
  std::vector<KXMachineKey> keys;
  for (Entry const& entry : kEntries) {
    keys.push_back({entry.key, "bytes", Data, "float", "libproc2 meminfo"});
  }
  keys.push_back({"Host/Memory/Low", "true from 90 % not available, false below 85 %", Event,
                  "bool", "Host/Memory/AvailableBytes"});
  return keys;
}

void MemoryGroup::read(KXMachineTime, KXMachineReport& report) {
  if (!mInfo) {
    meminfo_info* info = nullptr;
    int const result = procps_meminfo_new(&info);
    if (result < 0) throwUnreadable("/proc/meminfo", -result);
    mInfo.reset(info);
  }
  std::array<meminfo_item, kEntries.size()> items{};
  for (std::size_t i = 0; i < items.size(); ++i) items[i] = kEntries[i].item;
  meminfo_stack const* const stack =
      procps_meminfo_select(mInfo.get(), items.data(), static_cast<int>(items.size()));
  if (stack == nullptr) throwUnreadable("/proc/meminfo", errno);

  auto const bytes = [stack](std::size_t i) {
    return 1024.0 * static_cast<double>(stack->head[i].result.ul_int);
  };
  double const totalBytes = bytes(0);
  // libproc2 takes a text without any known line for a machine without memory.
  if (totalBytes <= 0) throwUnreadable("/proc/meminfo", EIO);
  for (std::size_t i = 0; i < kEntries.size(); ++i) report.add(kEntries[i].key, KXValue(bytes(i)));
  auto const change = mLow.update(100.0 * (totalBytes - bytes(1)) / totalBytes);
  if (change) report.events.push_back({"Host/Memory/Low", KXValue(*change), false});
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeMemoryGroup() {
  return std::make_unique<MemoryGroup>();
}

}  // namespace KX
