// A module's name, description and published methods. Built by the module's constructor on one
// thread; from initModule() on it is read by every thread that calls the module.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxcommon/kxmethodinfo.hpp>
#include <kxerror/kxapi.hpp>
#include <kxthread/kxcallbackguard.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

class KXBroker;

/// The part of a module that the broker knows.
/// Ownership: held by boost::shared_ptr, first of all by the broker that it is registered with.
/// A parallel call in progress does not own it: KXModule::createModule sees to it that the module's
/// end waits for those (KXModuleEnd).
/// Threads: registration calls belong into the constructor; the others are free for all.
class KX_API KXModuleCore : public boost::enable_shared_from_this<KXModuleCore> {
 public:
  KXModuleCore(boost::shared_ptr<KXBroker> const& broker, std::string name);
  KXModuleCore(KXModuleCore const&) = delete;
  KXModuleCore& operator=(KXModuleCore const&) = delete;
  virtual ~KXModuleCore();

  std::string const& getName() const noexcept { return mName; }
  std::string const& getModuleDescription() const noexcept { return mDescription; }
  /// The broker that the module was made with; KXError if that broker is gone.
  boost::shared_ptr<KXBroker> getParentBroker() const;
  /// True once the module is being taken out of service. Loops ask it and leave.
  bool isClosing() const noexcept { return mIsClosing.load(std::memory_order_acquire); }
  /// True if calls are answered by KXModule::execute and not by bound methods.
  bool isScript() const noexcept { return mIsScript; }

  /// Publishes the module under its name. KXError if the broker has a module of that name.
  void initModule();
  /// From now on isClosing(). The first time, the closing hooks run; what they throw is logged.
  void markClosing() noexcept;

  /// What every parallel call of a bound method enters while it runs.
  std::shared_ptr<KXCallbackGuard> const& getParallelCalls() const noexcept {
    return mParallelCalls;
  }

  /// The published methods, in the order of their registration.
  std::vector<KXMethodInfo> const& getMethods() const noexcept { return mMethods; }
  /// The only method of that name; null if there is none or if it is overloaded.
  KXMethodInfo const* findMethod(std::string const& name) const noexcept;
  /// The method of that name with these parameter types; null if there is none.
  KXMethodInfo const* findMethod(std::string const& name,
                                 std::vector<std::string> const& parameterTypes) const noexcept;
  /// The method of that name for so many arguments. Overloads are told apart by their number of
  /// parameters. KXError that names what is published if there is none.
  KXMethodInfo const& getMethod(std::string const& name, int argumentCount) const;
  /// The error for a call of a method that is not there.
  [[noreturn]] void throwUnknownMethod(std::string const& name) const;

 protected:
  void setModuleDescription(std::string description);
  /// Opens the description of a new method. `moduleName` is the module's own name; `flags` is 0.
  void functionName(std::string const& name, std::string const& moduleName,
                    std::string const& description, int flags);
  void addParam(std::string const& name, std::string const& description);
  void setReturn(std::string const& name, std::string const& description);
  /// The description that functionName() opened; KXError if none is open.
  KXMethodInfo& getCurrentMethodDescription();
  /// Closes the current description with its functor and adds it to the table.
  void bindMethod(boost::shared_ptr<KXFunctorBase> functor);
  /// Adds what is to be done when the module is taken out of service or is about to be destroyed:
  /// once, on the thread that does it, before anybody waits for the module's parallel calls. A loop
  /// that sleeps is woken here, so that it sees isClosing(). Belongs into the constructor.
  void onClosing(std::function<void()> hook);
  /// Makes this a script module.
  void setScript() noexcept { mIsScript = true; }

 private:
  std::string const mName;
  boost::weak_ptr<KXBroker> const mBroker;
  std::string mDescription;
  std::vector<KXMethodInfo> mMethods;
  std::unordered_map<std::string, std::vector<std::size_t>> mMethodsByName;
  KXMethodInfo mCurrentMethod;
  bool mHasCurrentMethod = false;
  bool mIsScript = false;
  std::vector<std::function<void()>> mClosingHooks;
  std::atomic<bool> mIsClosing{false};
  std::shared_ptr<KXCallbackGuard> const mParallelCalls = std::make_shared<KXCallbackGuard>();
};

/// How a module ends, whoever drops its last reference: it is marked as closing, which runs its
/// hooks; its parallel calls are waited for, and none begins any more; it is destroyed. On a thread
/// that is inside the module this is left to that thread's way out (KXModuleScope), and if other
/// parallel calls are inside by then, to the last of them.
struct KX_API KXModuleEnd {
  void operator()(KXModuleCore* module) const noexcept;
};

}  // namespace KX
