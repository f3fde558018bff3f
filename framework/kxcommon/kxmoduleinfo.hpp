// What a module says of itself, as a value: the same whether the module is of this process or not.
#pragma once

#include <string>
#include <vector>

#include <kxcommon/kxmethodinfo.hpp>

namespace KX {

/// A module's description. The methods carry no functors.
struct KXModuleInfo {
  std::string name;
  std::string description;
  std::string version;  ///< as KXModule::version(); may be empty
  std::vector<KXMethodInfo> methods;
};

}  // namespace KX
