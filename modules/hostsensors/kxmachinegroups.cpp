#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

std::vector<std::unique_ptr<KXMachineGroup>> makeMachineGroups(std::string const& root) {
  std::vector<std::unique_ptr<KXMachineGroup>> groups;
  groups.push_back(makeUptimeGroup());
  groups.push_back(makeLoadGroup());
  groups.push_back(makeCpuGroup());
  groups.push_back(makeFrequencyGroup(root));
  groups.push_back(makeMemoryGroup());
  groups.push_back(makeDiskGroup(root));
  groups.push_back(makeNetworkGroup(root));
  groups.push_back(makeTemperatureGroup(root));
  groups.push_back(makeProcessGroup(root));
  return groups;
}

}  // namespace KX
