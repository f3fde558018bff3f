// Lets a thread that is inside a module outlive the last reference to it.
#pragma once

#include <kxerror/kxapi.hpp>

namespace KX {

class KXModuleCore;

/// For the threads that a module runs itself: stands around everything that they do with the
/// module. If the last reference to the module falls on such a thread, in the midst of its work,
/// the module is destroyed when the thread's outermost scope ends, and not under its feet. Parallel
/// calls have theirs; a proxy's calls need none, for a proxy is a reference.
class KX_API KXModuleScope {
 public:
  /// The module is alive.
  explicit KXModuleScope(KXModuleCore& module) noexcept;
  ~KXModuleScope();
  KXModuleScope(KXModuleScope const&) = delete;
  KXModuleScope& operator=(KXModuleScope const&) = delete;

  /// Leaves the module's end to this thread's outermost scope of it: true; false if it has none.
  static bool takeOver(KXModuleCore& module) noexcept;
  /// True on a thread that is inside the module.
  static bool isInside(KXModuleCore const& module) noexcept;

 private:
  static KXModuleScope* xOutermost(KXModuleCore const& module) noexcept;

  KXModuleCore& mModule;
  KXModuleScope* const mOuter;  // the scope around this one, of any module
  bool mIsToEndModule = false;
};

}  // namespace KX
