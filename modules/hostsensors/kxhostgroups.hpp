// The list of everything that is read.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

/// One group of each kind. `root` stands before the paths of /proc and /sys; what the libraries
/// read is this machine's always.
std::vector<std::unique_ptr<KXHostGroup>> makeHostGroups(std::string const& root);

}  // namespace KX
