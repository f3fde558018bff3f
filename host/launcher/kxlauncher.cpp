#include "host/launcher/kxlauncher.hpp"

#include <binding/kxfunctor.hpp>
#include <binding/kxsignature.hpp>
#include <kxcommon/kxbroker.hpp>

namespace KX {

KXLauncher::KXLauncher(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "KXLauncher") {
  setModuleDescription("Tells which modules this process has.");

  functionName("isModulePresent", getName(), "tells whether a module is published", 0);
  addParam("name", "the name of the module");
  setReturn("present", "true if there is a module of that name");
  completeAndCheck(&KXLauncher::isModulePresent, getCurrentMethodDescription());
  bindMethod(createFunctor(this, &KXLauncher::isModulePresent));

  functionName("getModuleList", getName(), "get the names of the published modules", 0);
  setReturn("names", "the names, in the order of publishing");
  completeAndCheck(&KXLauncher::getModuleList, getCurrentMethodDescription());
  bindMethod(createFunctor(this, &KXLauncher::getModuleList));
}

KXLauncher::~KXLauncher() = default;

bool KXLauncher::isModulePresent(std::string const& name) {
  return getParentBroker()->isModulePresent(name);
}

std::vector<std::string> KXLauncher::getModuleList() {
  return getParentBroker()->getModuleNames();
}

}  // namespace KX
