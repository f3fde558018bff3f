#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  return publish(broker, "good");
}

extern "C" KX_API int _closeModule() {
  tell("closed good");
  return 0;
}
