#include <kxcommon/kxproxy.hpp>

#include <utility>

#include <binding/kxerrorplaces.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

// The parallel call of a script module. It owns the module: execute() needs it to the end, and a
// script has no destructor that waits for its parallel calls.
class ScriptTask : public KXTask {
 public:
  ScriptTask(KXTaskInfo info, boost::shared_ptr<KXModule> module, std::string method,
             KXValue params)
      : KXTask(std::move(info)),
        mModule(std::move(module)),
        mMethod(std::move(method)),
        mParams(std::move(params)) {}

  void run() override {
    KXValue result;
    mModule->execute(mMethod, mParams, result);
  }

 private:
  boost::shared_ptr<KXModule> const mModule;
  std::string const mMethod;
  KXValue const mParams;
};

boost::shared_ptr<KXBroker> lockBroker(boost::weak_ptr<KXBroker> const& broker,
                                       std::string const& moduleName, char const* method) {
  boost::shared_ptr<KXBroker> locked = broker.lock();
  if (!locked) {
    throw KXError("KXProxy", method, "the broker of the proxy to '" + moduleName + "' is gone",
                  detail::kProxyFile, detail::kNoLine);
  }
  return locked;
}

}  // namespace

KXProxy::KXProxy(boost::shared_ptr<KXBroker> const& broker, boost::shared_ptr<KXModule> module)
    : mBroker(broker), mModuleName(module->getName()), mModule(std::move(module)) {}

KXProxy::KXProxy(boost::shared_ptr<KXBroker> const& broker, std::string moduleName,
                 boost::shared_ptr<KXTransport> transport)
    : mBroker(broker), mModuleName(std::move(moduleName)), mTransport(std::move(transport)) {}

KXProxy::~KXProxy() = default;

bool KXProxy::isScript() const noexcept {
  return mModule && mModule->isScript();
}

boost::shared_ptr<KXModuleCore> KXProxy::getModuleCore() const {
  return mModule;
}

int KXProxy::pCall(std::string const& method) {
  if (!isLocal()) {
    KXValue const params;
    KXValue result;
    PCALL_METHODS(method, params, result);
    return static_cast<int>(result);
  }
  if (isScript()) return xPCallScript(method, KXValue());

  KXMethodInfo const* const info = xLookupMethod(method);
  if (info == nullptr) {
    throw KXError("KXProxy", "getMethodInfo",
                  "Function " + method + " does not exist in module " + xGetModuleName(),
                  detail::kProxyFile, detail::kNoMethodLine, KXError::Kind::NotFound);
  }
  KXTaskInfo const taskInfo = xCreateTaskInfo(method);
  xAddTask(taskInfo.toString(), boost::shared_ptr<KXTask>(
                                    new detail::_pcall0(info->functor, taskInfo, getModuleCore())));
  return taskInfo.getID();
}

KXValue KXProxy::genericCall(std::string const& method, KXValue const& params, int timeoutMs) {
  KXValue result;
  if (!isLocal()) {
    CALL_METHODS(method, params, result, timeoutMs);
  } else if (isScript()) {
    xExecute(method, params, result);
  } else {
    // The base's, since only a script module answers through an execute() of its own.
    mModule->KXModule::execute(method, params, result);
  }
  return result;
}

KXModuleInfo KXProxy::describe() {
  return isLocal() ? mModule->describe() : mTransport->describe(mModuleName);
}

bool KXProxy::isRunning(int taskId) {
  if (!isLocal()) return mTransport->isRunning(mModuleName, taskId);
  return lockBroker(mBroker, mModuleName, "isRunning")->isTaskRunning(taskId);
}

bool KXProxy::wait(int taskId, int timeoutMs) {
  if (!isLocal()) return mTransport->wait(mModuleName, taskId, timeoutMs);
  return lockBroker(mBroker, mModuleName, "wait")->waitForTask(taskId, timeoutMs);
}

KXMethodInfo const* KXProxy::xLookupMethod(std::string const& method) const {
  return mModule->findMethod(method);
}

KXMethodInfo const& KXProxy::xLookupMethod(std::string const& method,
                                           std::vector<std::string> const& parameterTypes,
                                           bool byCountOnly) const {
  if (!byCountOnly) {
    KXMethodInfo const* const exact = mModule->findMethod(method, parameterTypes);
    if (exact != nullptr) return *exact;
  }
  // Not of these types: the caller's check names the first parameter that differs.
  return mModule->getMethod(method, static_cast<int>(parameterTypes.size()));
}

void KXProxy::xExecute(std::string const& method, KXValue const& params, KXValue& result) {
  mModule->execute(method, params, result);
}

int KXProxy::xPCallScript(std::string const& method, KXValue const& params) {
  KXTaskInfo const taskInfo = xCreateTaskInfo(method);
  xAddTask(taskInfo.toString(),
           boost::shared_ptr<KXTask>(new ScriptTask(taskInfo, mModule, method, params)));
  return taskInfo.getID();
}

void KXProxy::CALL_METHODS(std::string const& method, KXValue const& params, KXValue& result,
                           int timeoutMs) {
  mTransport->call(mModuleName, method, params, result, timeoutMs);
}

void KXProxy::PCALL_METHODS(std::string const& method, KXValue const& params, KXValue& result) {
  mTransport->pCall(mModuleName, method, params, result);
}

KXTaskInfo KXProxy::xCreateTaskInfo(std::string const& method) const {
  return KXTaskInfo(mModuleName, method);
}

void KXProxy::xAddTask(std::string const& key, boost::shared_ptr<KXTask> task) {
  lockBroker(mBroker, mModuleName, "pCall")->addTask(key, std::move(task));
}

}  // namespace KX
