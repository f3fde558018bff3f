// A module as a process of its own, as its users run one: `create` does what KX_TEST_CREATE says.
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <signal.h>
#include <unistd.h>

#include <kxerror/kxerror.hpp>
#include <rttools/kxtools.hpp>

#include "libraries/testmodule.hpp"

namespace {

int create(boost::shared_ptr<KX::KXBroker> const& broker) {
  char const* const wanted = std::getenv("KX_TEST_CREATE");
  std::string const kind = wanted != nullptr ? wanted : "";
  if (kind == "returns 3") return 3;
  if (kind == "throws KXError") throw KX::KXError("own", "init", "no such device", "", 0);
  if (kind == "throws std") throw std::runtime_error("no such\ndevice");
  if (kind == "throws int") throw 5;
  if (kind == "is signalled") ::kill(::getpid(), SIGTERM);
  return publish(broker, "own");
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("KX_TEST_EMPTY") != nullptr)
    return KX::KXTools::mainFunction("testprogram", argc, argv, {});
  return KX::KXTools::mainFunction("testprogram", argc, argv, create);
}
