#include <stdexcept>

#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  publish(broker, "throwsstd");
  throw std::runtime_error("no such device");
}
extern "C" KX_API int _closeModule() {
  return 0;
}
