// kx host: a robot's host as a service. Its modules are this machine's sensors, the store and the
// user's own.
#include <unistd.h>

#include <chrono>
#include <string>

#include <fmt/format.h>

#include <host/rttools/kxhost.hpp>
#include <host/rttools/kxmodulelibrary.hpp>
#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>

namespace KX::tool {

int host(KXHostOptions const& options, KXStop const& stop) {
  KXHost host({.name = "kx",
               .withVsm = options.withCycle,
               .bus = options.bus,
               .announced = KXHost::Announced::Everything,
               .endsWithItsNames = true});
  host.loadModule(findLibrary("kxhostsensors"));
  for (std::string const& library : options.libraries) host.loadModule(findLibrary(library));
  host.announce();

  say(forTerminal(
      fmt::format("serving '{}' on robot '{}' at {} as process {}; Ctrl-C or SIGTERM ends it",
                  fmt::join(host.getBroker()->getModuleNames(), "', '"), options.bus.robot,
                  options.bus.url, ::getpid())));
  stop.waitUntil(std::chrono::steady_clock::time_point::max());
  host.shutdown();
  return host.hasLostName() ? kFailed : kOk;
}

}  // namespace KX::tool
