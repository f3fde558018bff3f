// What a module needs to be a process of its own.
#pragma once

#include <string>

#include <boost/function.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxerror/kxapi.hpp>

namespace KX {

class KXBroker;

class KX_API KXTools {
 public:
  /// Runs one module as a process: reads the options (`--help` lists them), makes a broker with a
  /// launcher and a store, lets `create` put the module into it, and serves until SIGINT, SIGTERM
  /// or SIGHUP; then shuts down in reverse order. Returns the process's exit code: 0 after a clean
  /// end, 1 if the module could not be made or another process has taken its name, 2 for bad
  /// options.
  static int mainFunction(std::string const& name, int argc, char** argv,
                          boost::function<int(boost::shared_ptr<KXBroker>)> const& create);
};

}  // namespace KX
