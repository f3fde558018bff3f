#include <kxcommon/kxbroker.hpp>

#include <algorithm>
#include <utility>

#include <ka/runlogged.hpp>
#include <kxcommon/kxbrokermanager.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <kxthread/kxcriticalsection.hpp>

#include "host/kxcommon/kxtaskpool.hpp"

namespace KX {
namespace {

using Module = boost::shared_ptr<KXModule>;

[[noreturn]] void fail(char const* method, std::string const& text,
                       KXError::Kind kind = KXError::Kind::Failed) {
  throw KXError("KXBroker", method, text, "kxcommon/kxbroker", 0, kind);
}

// What keeps one module from leaving must not keep the others in service.
void exitLogged(KXModule& module) {
  auto const failure = [&] {
    return "exit of module '" + module.getName() + "' failed";
  };
  ka::log::runLogged("KXBroker", "shutdown", failure, [&] { module.exit(); });
}

}  // namespace

struct KXBroker::Impl {
  explicit Impl(std::string brokerName) : name(std::move(brokerName)) {}

  Module find(std::string const& moduleName) const {
    KXCriticalSection const lock(mutex);
    auto const found = xPosition(moduleName);
    return found == modules.end() ? Module() : *found;
  }
  // The module published last; null if there is none left.
  Module last() const {
    KXCriticalSection const lock(mutex);
    return modules.empty() ? Module() : modules.back();
  }
  std::vector<Module>::const_iterator xPosition(std::string const& moduleName) const
      KX_REQUIRES(*mutex) {
    return std::find_if(modules.begin(), modules.end(),
                        [&](Module const& module) { return module->getName() == moduleName; });
  }

  std::string const name;
  boost::weak_ptr<KXBrokerManager> const manager = KXBrokerManager::getInstance();
  KXTaskPool pool;

  boost::shared_ptr<KXMutex> const mutex = KXMutex::createKXMutex();
  std::vector<Module> modules KX_GUARDED_BY(*mutex);  // in the order of publishing
  boost::shared_ptr<KXTransport> transport KX_GUARDED_BY(*mutex);
  bool isShutDown KX_GUARDED_BY(*mutex) = false;
};

boost::shared_ptr<KXBroker> KXBroker::createBroker(std::string const& name) {
  return boost::shared_ptr<KXBroker>(new KXBroker(name));
}

KXBroker::KXBroker(std::string const& name) : mImpl(new Impl(name)) {}

KXBroker::~KXBroker() {
  shutdown();
}

std::string const& KXBroker::getName() const noexcept {
  return mImpl->name;
}

boost::weak_ptr<KXBrokerManager> KXBroker::getBrokerManager() const {
  return mImpl->manager;
}

boost::shared_ptr<KXProxy> KXBroker::getProxy(std::string const& moduleName, int /*flags*/) {
  if (Module module = mImpl->find(moduleName)) {
    return boost::shared_ptr<KXProxy>(new KXProxy(shared_from_this(), std::move(module)));
  }
  // A module of this process may be asked for by its full address: "NAME@BROKER".
  std::string const ownSuffix = "@" + mImpl->name;
  bool const isOwn = moduleName.ends_with(ownSuffix);
  if (isOwn) {
    Module own = mImpl->find(moduleName.substr(0, moduleName.size() - ownSuffix.size()));
    if (own) return boost::shared_ptr<KXProxy>(new KXProxy(shared_from_this(), std::move(own)));
  }
  std::string loaded;
  for (std::string const& name : getModuleNames()) {
    loaded += (loaded.empty() ? "'" : ", '") + name + "'";
  }
  std::string text =
      "unknown module '" + moduleName + "', loaded: " + (loaded.empty() ? "none" : loaded);
  boost::shared_ptr<KXTransport> const transport = getTransport();
  if (transport && !isOwn) {
    try {
      transport->find(moduleName);
      return boost::shared_ptr<KXProxy>(new KXProxy(shared_from_this(), moduleName, transport));
    } catch (KXError const& error) {
      if (error.getKind() != KXError::Kind::NotFound) throw;
      text += std::string("; ") + error.what();
    }
  }
  fail("getProxy", text, KXError::Kind::NotFound);
}

void KXBroker::setTransport(boost::shared_ptr<KXTransport> transport) {
  KXCriticalSection const lock(mImpl->mutex);
  mImpl->transport = std::move(transport);
}

boost::shared_ptr<KXTransport> KXBroker::getTransport() const {
  KXCriticalSection const lock(mImpl->mutex);
  return mImpl->transport;
}

bool KXBroker::isModulePresent(std::string const& name) const {
  return mImpl->find(name) != nullptr;
}

std::vector<std::string> KXBroker::getModuleNames() const {
  KXCriticalSection const lock(mImpl->mutex);
  std::vector<std::string> names;
  for (Module const& module : mImpl->modules) names.push_back(module->getName());
  return names;
}

void KXBroker::addModule(boost::shared_ptr<KXModuleCore> const& module) {
  Module const added = boost::dynamic_pointer_cast<KXModule>(module);
  if (!added) fail("addModule", "'" + module->getName() + "' is no KXModule");
  KXCriticalSection const lock(mImpl->mutex);
  if (mImpl->isShutDown) {
    fail("addModule", "cannot publish module '" + added->getName() + "', broker '" + mImpl->name +
                          "' is shut down");
  }
  if (mImpl->xPosition(added->getName()) != mImpl->modules.end()) {
    fail("addModule", "a module named '" + added->getName() + "' is already published");
  }
  mImpl->modules.push_back(added);
}

void KXBroker::removeModule(std::string const& name) {
  Module removed;  // outlives the lock: a module that dies here may call the broker
  {
    KXCriticalSection const lock(mImpl->mutex);
    auto const found = mImpl->xPosition(name);
    if (found == mImpl->modules.end()) return;
    removed = *found;
    mImpl->modules.erase(found);
  }
  removed->markClosing();
}

void KXBroker::shutdown() {
  {
    KXCriticalSection const lock(mImpl->mutex);
    if (std::exchange(mImpl->isShutDown, true)) return;
  }
  // One at a time, so that a module which leaves can still call those published before it.
  while (Module const module = mImpl->last()) {
    exitLogged(*module);
    // An exit() that threw, or that does without the base's, has not done this.
    removeModule(module->getName());
  }
  mImpl->pool.stop();
}

void KXBroker::addTask(std::string const& key, boost::shared_ptr<KXTask> task) {
  mImpl->pool.add(key, std::move(task));
}

bool KXBroker::isTaskRunning(int taskId) const {
  return mImpl->pool.isRunning(taskId);
}

bool KXBroker::waitForTask(int taskId, int timeoutMs) {
  return mImpl->pool.wait(taskId, timeoutMs);
}

}  // namespace KX
