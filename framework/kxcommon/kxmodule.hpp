// The base of every module.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <boost/signals2/signal.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodulecore.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Base class of a module: derive, describe and bind the methods in the constructor, and let
/// createModule() do the rest. docs/writing-a-module.md shows a complete one.
/// Threads: the virtual operations are called by the framework, one at a time, but execute(), which
/// serves calls and may overlap.
class KX_API KXModule : public KXModuleCore {
 public:
  using CycleSignal = boost::signals2::signal<void()>;

  KXModule(boost::shared_ptr<KXBroker> const& broker, std::string const& name);
  ~KXModule() override;

  /// Serves a call by method name; `params` is the array of arguments. The base calls the bound
  /// method; a script module overrides it. `result` is left alone by methods that return nothing.
  virtual void execute(std::string const& method, KXValue const& params, KXValue& result);
  /// The module's version; empty unless overridden.
  virtual std::string version();
  /// Takes the module out of service: isClosing() and no longer published.
  virtual void exit();
  /// Name, description, version and methods as a value, for whoever is in another process.
  KXModuleInfo describe();
  /// A page about the module; empty unless overridden.
  virtual std::string httpGet();
  /// Called once after the methods are published. A KXError refuses service.
  virtual void init();
  /// Asks to stop the parallel call of that id; the base does nothing.
  virtual void stop(int const& taskId);

  /// Raised once per hardware cycle by modules that have one, on their cycle thread.
  CycleSignal& cycleSignal() { return *mCycleSignal; }

  /// Makes a module from the broker and further arguments, publishes it and calls init(). If init()
  /// fails with a KXError, exit() is called and a copy of the error thrown. The broker keeps the
  /// module; the result may be dropped. Whoever drops the last reference ends it by KXModuleEnd.
  template <class T, class... Arguments>
  static boost::shared_ptr<T> createModule(boost::shared_ptr<KXBroker> const& broker,
                                           Arguments&&... arguments) {
    boost::shared_ptr<T> module(new T(broker, std::forward<Arguments>(arguments)...),
                                KXModuleEnd());
    module->initModule();
    try {
      module->init();
    } catch (KXError const& error) {
      module->exit();
      throw KXError(error);
    }
    return module;
  }

 private:
  std::unique_ptr<CycleSignal> const mCycleSignal;
};

}  // namespace KX
