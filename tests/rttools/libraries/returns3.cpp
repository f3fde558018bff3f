#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  publish(broker, "first of two");
  publish(broker, "second of two");
  return 3;
}
extern "C" KX_API int _closeModule() {
  return 0;
}
