#include "testmodule.hpp"

extern "C" int missingFunction();

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker>) {
  return missingFunction();
}
extern "C" KX_API int _closeModule() {
  return 0;
}
