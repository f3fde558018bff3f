// How a published method describes itself: texts for people, type strings for checks.
#pragma once

#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxfunctorbase.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// The type string of a signature type code: 1 void, 2 bool, 3 int, 4 float, 5 string, 6 value,
/// 25 vector<string>. Any other code is a KXError.
KX_API std::string const& getTypeString(int code);

/// One parameter, or the return value, of a published method.
struct KXParameterInfo {
  std::string defaultText;  ///< the default value as text; meaningful only if isOptional
  std::string name;
  std::string description;
  std::string type;  ///< a type string of getTypeString()
  bool isOptional = false;
};

/// One published method.
struct KXMethodInfo {
  std::string name;
  std::string moduleName;
  std::string description;
  std::vector<KXParameterInfo> parameters;
  KXParameterInfo result;
  boost::shared_ptr<KXFunctorBase> functor;
};

}  // namespace KX
