#include <kxcommon/kxmodule.hpp>

#include <kxcommon/kxbroker.hpp>

namespace KX {
namespace {

int countArguments(std::string const& method, KXValue const& params) {
  if (params.getType() == KXValue::TypeArray) return params.getSize();
  if (!params.isValid()) return 0;
  throw KXError("KXModule", "execute",
                "expected an array of arguments for method '" + method + "', got " +
                    KXValue::TypeToString(params.getType()),
                "kxcommon/kxmodule", 0);
}

}  // namespace

KXModule::KXModule(boost::shared_ptr<KXBroker> const& broker, std::string const& name)
    : KXModuleCore(broker, name), mCycleSignal(new CycleSignal) {}

KXModule::~KXModule() = default;

void KXModule::execute(std::string const& method, KXValue const& params, KXValue& result) {
  getMethod(method, countArguments(method, params)).functor->call(params, result);
}

std::string KXModule::version() {
  return {};
}

KXModuleInfo KXModule::describe() {
  KXModuleInfo info{getName(), getModuleDescription(), version(), getMethods()};
  for (KXMethodInfo& method : info.methods) method.functor.reset();
  return info;
}

void KXModule::exit() {
  markClosing();
  boost::shared_ptr<KXBroker> broker;
  try {
    broker = getParentBroker();
  } catch (KXError const&) {
    return;  // A broker that is gone has no module to take out.
  }
  broker->removeModule(getName());
}

std::string KXModule::httpGet() {
  return {};
}

void KXModule::init() {}

void KXModule::stop(int const& /*taskId*/) {}

}  // namespace KX
