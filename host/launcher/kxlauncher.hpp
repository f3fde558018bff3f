// The module "KXLauncher": tells over the broker which modules this process has.
#pragma once

#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Published in every broker: what it answers is about that broker's modules only. Made with
/// KXModule::createModule. Threads: no state, calls may overlap.
class KX_API KXLauncher : public KXModule {
 public:
  explicit KXLauncher(boost::shared_ptr<KXBroker> const& broker);
  ~KXLauncher() override;

  bool isModulePresent(std::string const& name);
  /// In the order in which the modules were published.
  std::vector<std::string> getModuleList();
};

}  // namespace KX
