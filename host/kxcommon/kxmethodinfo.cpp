#include <kxcommon/kxmethodinfo.hpp>

#include <kxerror/kxerror.hpp>

namespace KX {

KXFunctorBase::~KXFunctorBase() = default;

std::string const& getTypeString(int code) {
  struct Names {
    std::string const asVoid = "void";
    std::string const asBool = "bool";
    std::string const asInt = "int";
    std::string const asFloat = "float";
    std::string const asString = "string";
    std::string const asValue = "value";
    std::string const asStrings = "vector<string>";
  };
  // Never destroyed: modules may still be called while the process ends.
  static Names const& names = *new Names;
  switch (code) {
    case 1:
      return names.asVoid;
    case 2:
      return names.asBool;
    case 3:
      return names.asInt;
    case 4:
      return names.asFloat;
    case 5:
      return names.asString;
    case 6:
      return names.asValue;
    case 25:
      return names.asStrings;
    default:
      throw KXError(
          "KXMethodInfo", "getTypeString",
          "unknown signature type code " + std::to_string(code) + ", expected 1 to 6 or 25",
          "kxcommon/kxmethodinfo", 0);
  }
}

}  // namespace KX
