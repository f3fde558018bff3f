// What the host finds in the library: it makes the module, or runs it as a process of its own.

#include <boost/function.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <kxcommon/kxmodule.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>
#include <rttools/kxtools.hpp>

extern "C" {

/// Makes the module in the host's broker. Returns 0; a failure leaves as the exception it is.
KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  KX::KXBrokerManager::setInstance(broker->getBrokerManager().lock());
  KX::KXBrokerManager::getInstance()->addBroker(broker);
  KX::KXModule::createModule<KX::KXMemoryWatcher>(broker);
  return 0;
}

/// Nothing to do: the module goes when the framework drops its last reference.
KX_API int _closeModule() {
  return 0;
}

}  // extern "C"

KX_API int main(int argc, char** argv) {
  boost::function<int(boost::shared_ptr<KX::KXBroker>)> const create = &_createModule;
  return KX::KXTools::mainFunction("memorywatcher", argc, argv, create);
}
