// What the host finds in the library.

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxapi.hpp>
#include <modules/hostsensors/kxhostsensors.hpp>

extern "C" {

/// Makes the module in the host's broker. Returns 0; a failure leaves as the exception it is.
KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  KX::KXBrokerManager::setInstance(broker->getBrokerManager().lock());
  KX::KXBrokerManager::getInstance()->addBroker(broker);
  KX::KXModule::createModule<KX::KXHostSensors>(broker);
  return 0;
}

/// Nothing to do: the module ends its thread when it leaves service.
KX_API int _closeModule() {
  return 0;
}

}  // extern "C"
