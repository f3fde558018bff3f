// What the tests of the value share: a value of each type, and the text of an error.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// One value of each type, at the index that is the type's number.
inline std::vector<KXValue> oneOfEachType() {
  return {KXValue(),
          KXValue::arrayOf(1, "two"),
          KXValue(true),
          KXValue(-7),
          KXValue(2.5),
          KXValue("text"),
          KXValue::binary(std::string("\0\xff", 2))};
}

/// "method: description" of the error that `action` throws, "none" if it throws none.
inline std::string errorOf(std::function<void()> const& action) {
  try {
    action();
  } catch (KXError const& error) {
    return error.getMethodName() + ": " + error.getDescription();
  }
  return "none";
}

inline void PrintTo(KXValue const& value, std::ostream* out) {
  *out << value.toString(2);
}

}  // namespace KX
