#include <modules/hostsensors/kxhostgroups.hpp>

#include <modules/hostsensors/kxcpugroup.hpp>
#include <modules/hostsensors/kxdiskgroup.hpp>
#include <modules/hostsensors/kxmemorygroup.hpp>
#include <modules/hostsensors/kxnetworkgroup.hpp>
#include <modules/hostsensors/kxprocessgroup.hpp>
#include <modules/hostsensors/kxsystemgroup.hpp>
#include <modules/hostsensors/kxtemperaturegroup.hpp>

namespace KX {

std::vector<std::unique_ptr<KXHostGroup>> makeHostGroups(std::string const& root) {
  std::vector<std::unique_ptr<KXHostGroup>> groups;
  groups.push_back(std::make_unique<KXUptimeGroup>());
  groups.push_back(std::make_unique<KXLoadGroup>());
  groups.push_back(std::make_unique<KXCpuGroup>());
  groups.push_back(std::make_unique<KXFrequencyGroup>(root));
  groups.push_back(std::make_unique<KXMemoryGroup>());
  groups.push_back(std::make_unique<KXDiskGroup>(root));
  groups.push_back(std::make_unique<KXNetworkGroup>(root));
  groups.push_back(std::make_unique<KXTemperatureGroup>(root));
  groups.push_back(std::make_unique<KXProcessGroup>(root));
  return groups;
}

}  // namespace KX
