#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  return publish(broker, "closefails");
}
extern "C" KX_API int _closeModule() {
  return 4;
}
