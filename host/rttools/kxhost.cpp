#include <host/rttools/kxhost.hpp>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <utility>
#include <vector>

#include <host/bus/kxbuslink.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <host/rttools/kxmodulelibrary.hpp>
#include <host/vsm/kxvsm.hpp>
#include <ka/os.hpp>

namespace KX {

struct KXHost::Impl {
  explicit Impl(Options const& options) : announced(options.announced) {
    if (!options.bus) {
      broker = KXBroker::createBroker(options.name);
      return;
    }
    std::shared_ptr<KXBus> const bus = connectNats(*options.bus);
    broker = KXBroker::createBroker(KXBusLink::newBrokerName(*bus));
    link = std::make_unique<KXBusLink>(bus, broker, *options.bus,
                                       [this, endsProcess = options.endsWithItsNames] {
                                         hasLostName = true;
                                         if (endsProcess) ::kill(::getpid(), SIGTERM);
                                       });
  }
  // Here and not in ~KXHost, so that it also runs when KXHost's constructor fails half-way.
  ~Impl() { shutdown(); }
  Impl(Impl const&) = delete;
  Impl& operator=(Impl const&) = delete;

  void announce() {
    if (!link || announced == Announced::Nothing) return;
    std::vector<std::string> modules = broker->getModuleNames();
    std::erase_if(modules, [this](std::string const& module) {
      bool const isOwnLauncher = announced == Announced::OwnModules && module == "KXLauncher";
      return isOwnLauncher || std::ranges::find(done, module) != done.end();
    });
    if (modules.empty()) return;
    link->announce(modules);
    std::ranges::move(modules, std::back_inserter(done));
  }

  void shutdown() {
    if (link) link->leave();
    broker->shutdown();
    if (link) link->close();
    while (!libraries.empty()) {
      libraries.back().closeModule();
      libraries.pop_back();
    }
  }

  Announced const announced;
  std::atomic<bool> hasLostName{false};
  std::vector<std::string> done;  // the modules that were announced
  boost::shared_ptr<KXBroker> broker;
  std::unique_ptr<KXBusLink> link;  // null without a bus
  std::vector<KXModuleLibrary> libraries;
};

KXHost::KXHost(Options const& options) : mImpl(std::make_unique<Impl>(options)) {
  ka::os::keepFreedMemory();
  if (options.withLauncher) KXModule::createModule<KXLauncher>(mImpl->broker);
  if (options.withStore) KXModule::createModule<KXMemory>(mImpl->broker);
  if (options.withVsm) KXModule::createModule<KXVsm>(mImpl->broker);
}

KXHost::~KXHost() = default;

boost::shared_ptr<KXBroker> const& KXHost::getBroker() const noexcept {
  return mImpl->broker;
}

void KXHost::loadModule(std::string const& path) {
  KXModuleLibrary library(path);
  library.createModule(mImpl->broker);
  mImpl->libraries.push_back(std::move(library));
}

void KXHost::announce() {
  mImpl->announce();
}

bool KXHost::hasLostName() const noexcept {
  return mImpl->hasLostName;
}

void KXHost::shutdown() {
  mImpl->shutdown();
}

}  // namespace KX
