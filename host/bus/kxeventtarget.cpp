#include <host/bus/kxeventtarget.hpp>

#include <kxerror/kxerror.hpp>

namespace KX {

bool KXEventTarget::call(KXNotification const& notification) {
  boost::shared_ptr<KXModule> module = mModule.lock();
  if (!module || module->isClosing()) module = xFind();
  if (!module) return false;
  KXValue const& arguments = notification.arguments;
  if (arguments.getSize() == 3 && arguments[0].getType() == KXValue::TypeString) {
    if (Functor* const functor = xFindFunctor(*module, notification.method)) {
      functor->invoke(static_cast<std::string const&>(arguments[0]), arguments[1], arguments[2]);
      return true;
    }
  }
  KXValue ignored;
  if (module->isScript()) {
    module->execute(notification.method, arguments, ignored);
  } else {
    // The base's, as for every call of a bound method.
    module->KXModule::execute(notification.method, arguments, ignored);
  }
  return true;
}

boost::shared_ptr<KXModule> KXEventTarget::xFind() {
  mFunctors.clear();
  mModule.reset();
  boost::shared_ptr<KXBroker> const broker = mBroker.lock();
  // On purpose: asked first, because a proxy may also be one to another process.
  if (!broker || !broker->isModulePresent(mModuleName)) return {};
  boost::shared_ptr<KXModule> module;
  try {
    module = broker->getProxy(mModuleName, 0)->getModule();
  } catch (KXError const&) {
    return {};  // Gone meanwhile.
  }
  mModule = module;
  return module;
}

// Null if the method takes other types, or is none: it is called by name then.
KXEventTarget::Functor* KXEventTarget::xFindFunctor(KXModule& module, std::string const& method) {
  auto const known = mFunctors.find(method);
  if (known != mFunctors.end()) return known->second;
  KXMethodInfo const* const info = module.isScript() ? nullptr : module.findMethod(method);
  // On purpose: unknown names are not kept, for anybody may send them.
  if (info == nullptr) return nullptr;
  return mFunctors[method] = dynamic_cast<Functor*>(info->functor.get());
}

}  // namespace KX
