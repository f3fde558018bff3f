#include <stdexcept>

#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker> broker) {
  return publish(broker, "closethrows");
}
extern "C" KX_API int _closeModule() {
  throw std::runtime_error("cannot close");
}
