// The module of this process that notifications are for.
#pragma once

#include <map>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <binding/kxfunctor.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxtransport.hpp>

namespace KX {

/// Calls the methods of one module, as long as it is there; it may go, and another of its name
/// come. Ownership: keeps the module alive during a call only. Threads: one at a time.
class KXEventTarget {
 public:
  KXEventTarget(boost::shared_ptr<KXBroker> const& broker, std::string moduleName)
      : mBroker(broker), mModuleName(std::move(moduleName)) {}

  /// False if the module is not there. Throws what the method throws.
  bool call(KXNotification const& notification);

 private:
  // What callbacks of stores take: key, value, message.
  using Functor = detail::KXTypedFunctor<void, std::string, KXValue, KXValue>;

  boost::shared_ptr<KXModule> xFind();
  Functor* xFindFunctor(KXModule& module, std::string const& method);

  boost::weak_ptr<KXBroker> const mBroker;
  std::string const mModuleName;
  boost::weak_ptr<KXModule> mModule;
  std::map<std::string, Functor*> mFunctors;  ///< the module's, by method; null: other types
};

}  // namespace KX
