#include <kxerror/kxerror.hpp>

#include "testmodule.hpp"

extern "C" KX_API int _createModule(boost::shared_ptr<KX::KXBroker>) {
  throw KX::KXError("throwskxerror", "init", "no such device", "file.cpp", 3);
}
extern "C" KX_API int _closeModule() {
  tell("closed throwskxerror");
  return 0;
}
