// The broker: which modules this process has, how to reach them, and their parallel calls.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxproxy.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

class KXBrokerManager;
class KXModule;
class KXModuleCore;
class KXTransport;

/// The modules of one process, by name.
/// Ownership: held by boost::shared_ptr; owns its modules until they exit or it shuts down.
/// Threads: every operation may be called from any thread.
class KX_API KXBroker : public boost::enable_shared_from_this<KXBroker> {
 public:
  /// A broker without any module. Its manager is the installed one (KXBrokerManager::getInstance).
  static boost::shared_ptr<KXBroker> createBroker(std::string const& name);
  ~KXBroker();
  KXBroker(KXBroker const&) = delete;
  KXBroker& operator=(KXBroker const&) = delete;

  std::string const& getName() const noexcept;
  boost::weak_ptr<KXBrokerManager> getBrokerManager() const;

  /// A proxy to a module of this process, or else to one that the transport finds; `flags` is 0.
  /// KXError: NotFound, with a list of what is loaded, if nobody has it; another kind if the others
  /// could not be asked.
  boost::shared_ptr<KXProxy> getProxy(std::string const& moduleName, int flags);
  /// The way to modules of other processes; null, as at first, for none. Belongs to the time before
  /// the broker is used.
  void setTransport(boost::shared_ptr<KXTransport> transport);
  boost::shared_ptr<KXTransport> getTransport() const;

  bool isModulePresent(std::string const& name) const;
  /// The names of the modules, in the order in which they were published.
  std::vector<std::string> getModuleNames() const;
  /// Takes the module into the broker's ownership. KXError if the name is taken or after shutdown.
  void addModule(boost::shared_ptr<KXModuleCore> const& module);
  /// Marks the module as closing and drops it; unknown names are ignored. The module dies here
  /// unless somebody else holds it.
  void removeModule(std::string const& name);
  /// Lets every module exit, last published first, and waits for the parallel calls that are left.
  /// What they throw is logged. Does nothing the second time.
  void shutdown();

  /// Queues a parallel call; `key` is its KXTaskInfo::toString(). KXError after shutdown.
  void addTask(std::string const& key, boost::shared_ptr<KXTask> task);
  /// As KXProxy::isRunning.
  bool isTaskRunning(int taskId) const;
  /// As KXProxy::wait.
  bool waitForTask(int taskId, int timeoutMs);

 private:
  explicit KXBroker(std::string const& name);

  struct Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
