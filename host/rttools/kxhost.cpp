#include <host/rttools/kxhost.hpp>

#include <utility>
#include <vector>

#include <host/launcher/kxlauncher.hpp>
#include <host/memory/kxmemory.hpp>
#include <host/rttools/kxmodulelibrary.hpp>
#include <host/vsm/kxvsm.hpp>
#include <ka/os.hpp>

namespace KX {

struct KXHost::Impl {
  explicit Impl(std::string const& name) : broker(KXBroker::createBroker(name)) {}
  // Here and not in ~KXHost, so that it also runs when KXHost's constructor fails half-way.
  ~Impl() { shutdown(); }
  Impl(Impl const&) = delete;
  Impl& operator=(Impl const&) = delete;

  void shutdown() {
    broker->shutdown();
    while (!libraries.empty()) {
      libraries.back().closeModule();
      libraries.pop_back();
    }
  }

  boost::shared_ptr<KXBroker> const broker;
  std::vector<KXModuleLibrary> libraries;
};

KXHost::KXHost(Options const& options) : mImpl(std::make_unique<Impl>(options.name)) {
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

void KXHost::shutdown() {
  mImpl->shutdown();
}

}  // namespace KX
