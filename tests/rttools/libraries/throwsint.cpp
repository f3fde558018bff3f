#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker>) {
  throw 5;
}
extern "C" KX_API int _closeModule() {
  return 0;
}
