#include "host/launcher/kxlauncher.hpp"

#include <binding/kxpublish.hpp>
#include <kxcommon/kxbroker.hpp>

namespace KX {

KXLauncher::KXLauncher(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "KXLauncher") {
  setModuleDescription("Tells which modules this process has.");

  publish(*this,
          {"isModulePresent",
           "tells whether a module is published",
           {{"name", "the name of the module"}},
           {"present", "true if there is a module of that name"}},
          &KXLauncher::isModulePresent);
  publish(*this,
          {"getModuleList",
           "get the names of the published modules",
           {},
           {"names", "the names, in the order of publishing"}},
          &KXLauncher::getModuleList);
}

KXLauncher::~KXLauncher() = default;

bool KXLauncher::isModulePresent(std::string const& name) {
  return getParentBroker()->isModulePresent(name);
}

std::vector<std::string> KXLauncher::getModuleList() {
  return getParentBroker()->getModuleNames();
}

}  // namespace KX
