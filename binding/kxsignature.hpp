// Type strings of C++ signatures, and the completion of a method's description from them.
#pragma once

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <kxcommon/kxmethodinfo.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace detail {

/// The signature type code of T; 0 for a type that no published method may have.
template <class T>
inline constexpr int kTypeCode = 0;
template <>
inline constexpr int kTypeCode<void> = 1;
template <>
inline constexpr int kTypeCode<bool> = 2;
template <>
inline constexpr int kTypeCode<int> = 3;
template <>
inline constexpr int kTypeCode<float> = 4;
template <>
inline constexpr int kTypeCode<double> = 4;
template <>
inline constexpr int kTypeCode<std::string> = 5;
template <>
inline constexpr int kTypeCode<KXValue> = 6;
template <>
inline constexpr int kTypeCode<std::vector<std::string>> = 25;

/// The type string of T; references and const make no difference.
template <class T>
std::string const& getParamStrType() {
  constexpr int code = kTypeCode<std::remove_cvref_t<T>>;
  static_assert(code != 0,
                "a published method takes and returns void, bool, int, float, double, std::string, "
                "KXValue or std::vector<std::string>");
  return getTypeString(code);
}

/// Writes the type strings of R and P into the description, and appends a record named argK for
/// each parameter that addParam() did not declare. Records beyond the last parameter stay.
template <class R, class... P>
void completeDescription(KXMethodInfo& info) {
  static_assert(sizeof...(P) <= 9, "the names arg1 to arg9 end with one digit");
  info.result.type = getParamStrType<R>();
  for (std::size_t k = info.parameters.size(); k < sizeof...(P); ++k) {
    KXParameterInfo& added = info.parameters.emplace_back();
    added.name = "arg0";
    added.name.back() = static_cast<char>('1' + k);
    added.description = "arg";
  }
  [[maybe_unused]] std::size_t i = 0;
  ((info.parameters[i++].type = getParamStrType<P>()), ...);
}

/// Completes the description of the method that `member` implements.
template <class T, class R, class... P>
void completeAndCheck(R (T::*)(P...), KXMethodInfo& info) {
  completeDescription<R, P...>(info);
}
template <class T, class R, class... P>
void completeAndCheck(R (T::*)(P...) const, KXMethodInfo& info) {
  completeDescription<R, P...>(info);
}

}  // namespace detail

using detail::completeAndCheck;
using detail::getParamStrType;

}  // namespace KX
