// From KXValue to the C++ type of a parameter or result. Stateless: any thread may convert.
#pragma once

#include <string>
#include <vector>

#include <binding/kxerrorplaces.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace detail {

/// The error of a value that has another type than the method takes.
[[noreturn]] inline void throwConversionError(KXValue const& value, char const* suffix, int line) {
  throw KXError("convertFromKXValue", "convertFromKXValue",
                "Parameter type is " + KXValue::TypeToString(value.getType()) + suffix,
                kConvertFile, line);
}

/// converter<T>::convertFromKXValue(value) gives the value as a T. A value of a type that is not
/// accepted is a KXError.
template <class T>
struct converter;

template <>
struct converter<int> {
  static int convertFromKXValue(KXValue const& value) {
    if (value.getType() != KXValue::TypeInt)
      throwConversionError(value, " instead of int", kNoIntLine);
    return static_cast<int>(value);
  }
};

template <>
struct converter<std::string> {
  static std::string convertFromKXValue(KXValue const& value) {
    if (value.getType() != KXValue::TypeString) {
      throwConversionError(value, " instead of string", kNoStringLine);
    }
    return static_cast<std::string const&>(value);
  }
};

template <>
struct converter<bool> {
  static bool convertFromKXValue(KXValue const& value) {
    if (value.getType() == KXValue::TypeBool) return static_cast<bool>(value);
    if (value.getType() == KXValue::TypeInt) return static_cast<int>(value) != 0;
    throwConversionError(value, " instead of bool", kNoBoolLine);
  }
};

template <>
struct converter<std::vector<std::string>> {
  static std::vector<std::string> convertFromKXValue(KXValue const& value) {
    if (value.getType() != KXValue::TypeArray) {
      throwConversionError(value, " instead of vector", kNoVectorLine);
    }
    std::vector<std::string> texts;
    value.ToStringArray(texts, false);
    return texts;
  }
};

/// Accepts float and int.
template <>
struct converter<double> {
  static double convertFromKXValue(KXValue const& value) {
    if (value.getType() != KXValue::TypeFloat && value.getType() != KXValue::TypeInt) {
      throwConversionError(value, " instead of float", kNoLine);
    }
    return static_cast<double>(value);
  }
};

template <>
struct converter<float> {
  static float convertFromKXValue(KXValue const& value) {
    return static_cast<float>(converter<double>::convertFromKXValue(value));
  }
};

/// Any value, as it is.
template <>
struct converter<KXValue> {
  static KXValue convertFromKXValue(KXValue const& value) { return value; }
};

}  // namespace detail

using detail::converter;

}  // namespace KX
