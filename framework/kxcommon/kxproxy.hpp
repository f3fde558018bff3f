// Calls to a module by name. The bodies of the typed calls stand in <binding/kxproxycall.hpp>:
// include that to use them.
#pragma once

#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxmethodinfo.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxcommon/kxtask.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

class KXBroker;
class KXModule;
class KXModuleCore;

/// The way to one module: a bound method of this process, a script module, or another process.
/// Ownership: keeps a module of this process alive; does not keep the broker alive.
/// Threads: calls may overlap. Calls block until the module has answered.
/// Errors: KXError, the module's own included.
class KX_API KXProxy {
 public:
  /// For a module of this process; KXBroker::getProxy makes these.
  KXProxy(boost::shared_ptr<KXBroker> const& broker, boost::shared_ptr<KXModule> module);
  /// For a module that is reached through a transport.
  KXProxy(boost::shared_ptr<KXBroker> const& broker, std::string moduleName,
          boost::shared_ptr<KXTransport> transport);
  ~KXProxy();

  /// True for a module of this process, scripts included.
  bool isLocal() const noexcept { return mModule != nullptr; }
  bool isScript() const noexcept;
  /// The module object; null if it is not of this process.
  boost::shared_ptr<KXModule> const& getModule() const noexcept { return mModule; }
  boost::shared_ptr<KXModuleCore> getModuleCore() const;

  /// Calls a method with arguments that are converted to its parameters, and waits for its result,
  /// as `proxy->call<bool>("isModulePresent", "VSM")`. For a module of this process
  /// the types must be the declared ones.
  template <class R, class... P>
  R call(std::string const& method, P const&... arguments);
  /// Starts a method without arguments as a parallel call and returns its task id at once.
  int pCall(std::string const& method);
  /// Calls a method with an array of arguments; invalid if it returns nothing. The time-out is for
  /// modules in other processes: 0 is the transport's own.
  KXValue genericCall(std::string const& method, KXValue const& params, int timeoutMs = 0);
  /// What the module says of itself, wherever it is.
  KXModuleInfo describe();

  /// True while the parallel call waits for a thread or runs.
  bool isRunning(int taskId);
  /// Waits for the end of a parallel call: true when it has ended, at once if the id is unknown or
  /// its call over; false if the time-out passed first. A time-out of 0 waits without limit.
  /// KXError if called by that parallel call itself.
  bool wait(int taskId, int timeoutMs);

 private:
  // The steps that the typed calls are made of.
  KXMethodInfo const* xLookupMethod(std::string const& method) const;
  // By parameter types, for overloaded methods; KXError if there is none. With `byCountOnly` the
  // types themselves are not compared.
  KXMethodInfo const& xLookupMethod(std::string const& method,
                                    std::vector<std::string> const& parameterTypes,
                                    bool byCountOnly) const;
  std::string const& xGetModuleName() const noexcept { return mModuleName; }
  void xExecute(std::string const& method, KXValue const& params, KXValue& result);
  int xPCallScript(std::string const& method, KXValue const& params);
  void CALL_METHODS(std::string const& method, KXValue const& params, KXValue& result,
                    int timeoutMs = 0);
  void PCALL_METHODS(std::string const& method, KXValue const& params, KXValue& result);
  KXTaskInfo xCreateTaskInfo(std::string const& method) const;
  void xAddTask(std::string const& key, boost::shared_ptr<KXTask> task);

  template <class R, class... P>
  R xCallLocal(std::string const& method, P const&... arguments);

  boost::weak_ptr<KXBroker> const mBroker;
  std::string const mModuleName;
  boost::shared_ptr<KXModule> const mModule;
  boost::shared_ptr<KXTransport> const mTransport;
};

}  // namespace KX
