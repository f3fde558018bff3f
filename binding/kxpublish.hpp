// Publishing a method in one call: its texts, its signature and the member function behind it.
#pragma once

#include <string>
#include <vector>

#include <binding/kxfunctor.hpp>
#include <binding/kxsignature.hpp>
#include <kxcommon/kxmodulecore.hpp>

namespace KX {

/// What a method tells people about itself. The types are told by its signature.
struct KXMethodText {
  struct Named {
    std::string name;
    std::string description;
  };

  std::string name;
  std::string description = {};
  /// In the order of the member's parameters; those beyond are described as "arg".
  std::vector<Named> parameters = {};
  /// Without a name where the method returns nothing, or nothing that needs words.
  Named result = {};
};

namespace detail {

/// The registration calls, which belong to a module's constructor: it hands itself to publish().
/// Never made; the names that it opens are those of the base.
class KXRegistration : public KXModuleCore {
 public:
  using KXModuleCore::addParam;
  using KXModuleCore::bindMethod;
  using KXModuleCore::functionName;
  using KXModuleCore::getCurrentMethodDescription;
  using KXModuleCore::setReturn;
};

/// Opens the description of a new method and gives it back, for its types to be completed.
inline KXMethodInfo& describeMethod(KXModuleCore& module, KXMethodText const& text) {
  (module.*&KXRegistration::functionName)(text.name, module.getName(), text.description, 0);
  for (KXMethodText::Named const& parameter : text.parameters) {
    (module.*&KXRegistration::addParam)(parameter.name, parameter.description);
  }
  if (!text.result.name.empty()) {
    (module.*&KXRegistration::setReturn)(text.result.name, text.result.description);
  }
  return (module.*&KXRegistration::getCurrentMethodDescription)();
}

}  // namespace detail

/// Publishes a member function of the module. For the module's constructor:
///
///     publish(*this, {"wait", "waits", {{"ms", "how long"}}, {"done", "true if it is over"}},
///             &Module::wait);
///
/// Threads: as KXModuleCore's registration calls.
template <class T, class Member>
void publish(T& module, KXMethodText const& text, Member member) {
  completeAndCheck(member, detail::describeMethod(module, text));
  (static_cast<KXModuleCore&>(module).*
   &detail::KXRegistration::bindMethod)(createFunctor(&module, member));
}

}  // namespace KX
