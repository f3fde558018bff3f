#include <kxcommon/kxmodulescope.hpp>

#include <kxcommon/kxmodulecore.hpp>

namespace KX {

namespace {

// This thread's innermost scope; null outside all modules.
thread_local KXModuleScope* tInnermost = nullptr;

}  // namespace

KXModuleScope::KXModuleScope(KXModuleCore& module) noexcept : mModule(module), mOuter(tInnermost) {
  tInnermost = this;
}

KXModuleScope::~KXModuleScope() {
  tInnermost = mOuter;
  // Not waiting for the module's other parallel calls: one of them may wait for this thread. The
  // last of them ends the module then.
  if (mIsToEndModule && mModule.getParallelCalls()->abandon()) delete &mModule;
}

KXModuleScope* KXModuleScope::xOutermost(KXModuleCore const& module) noexcept {
  KXModuleScope* outermost = nullptr;
  for (KXModuleScope* scope = tInnermost; scope != nullptr; scope = scope->mOuter) {
    if (&scope->mModule == &module) outermost = scope;
  }
  return outermost;
}

bool KXModuleScope::takeOver(KXModuleCore& module) noexcept {
  KXModuleScope* const scope = xOutermost(module);
  if (scope != nullptr) scope->mIsToEndModule = true;
  return scope != nullptr;
}

bool KXModuleScope::isInside(KXModuleCore const& module) noexcept {
  return xOutermost(module) != nullptr;
}

}  // namespace KX
