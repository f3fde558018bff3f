// The bodies of KXProxy's typed calls. A call takes one of three ways: another process, a script
// module, or a bound method of this process, which is called directly with the typed arguments.
#pragma once

#include <string>
#include <type_traits>

#include <binding/kxerrorplaces.hpp>
#include <binding/kxfunctor.hpp>
#include <binding/kxfunctorconvert.hpp>
#include <binding/kxsignature.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace detail {

/// The type that an argument is passed as: texts in quotes are strings.
template <class P>
using KXArgument = std::conditional_t<std::is_convertible_v<P const&, char const*>, std::string, P>;

/// A result that came as a value, as an R; a call that wants nothing ignores what came.
template <class R>
R convertResult(KXValue const& result) {
  if constexpr (!std::is_void_v<R>) return converter<R>::convertFromKXValue(result);
}

/// Throws unless the arguments' type strings are the declared ones.
template <class... P>
void checkParameters(KXMethodInfo const& info, std::string const& moduleName) {
  [[maybe_unused]] std::size_t i = 0;
  [[maybe_unused]] auto const check = [&](std::string const& given) {
    if (i >= info.parameters.size()) return;
    std::string const& declared = info.parameters[i++].type;
    if (declared == given) return;
    throw KXError("KXProxy", "call/pCall",
                  "When trying to call module '" + moduleName + "' function '" + info.name +
                      "' parameter #" + std::to_string(i) + " is of type " + given +
                      " instead of type " + declared,
                  kProxyFile, kWrongParameterTypeLine);
  };
  (check(getParamStrType<P>()), ...);
  if (info.parameters.size() != sizeof...(P)) {
    throw KXError("KXProxy", "call",
                  "method '" + info.name + "' of module '" + moduleName + "' takes " +
                      std::to_string(info.parameters.size()) + " arguments, " +
                      std::to_string(sizeof...(P)) + " given",
                  kProxyFile, kNoLine);
  }
}

}  // namespace detail

template <class R, class... P>
R KXProxy::call(std::string const& method, P const&... arguments) {
  if (isLocal() && !isScript()) {
    return xCallLocal<R, detail::KXArgument<P>...>(method, arguments...);
  }

  KXValue const params = KXValue::arrayOf(KXValue(arguments)...);
  KXValue result;
  if (isLocal()) {
    xExecute(method, params, result);
    return detail::convertResult<R>(result);
  }
  CALL_METHODS(method, params, result);
  if (!std::is_void_v<R> && !result.isValid()) {
    throw KXError("KXProxy", "call",
                  "Waiting for the result of a void function " + method + " " + params.toString(1) +
                      "   " + result.toString(1),
                  detail::kProxyFile, detail::kVoidResultLine);
  }
  return detail::convertResult<R>(result);
}

template <class R, class... P>
R KXProxy::xCallLocal(std::string const& method, P const&... arguments) {
  KXMethodInfo const* info = xLookupMethod(method);
  if (info == nullptr) info = &xLookupMethod(method, {detail::getParamStrType<P>()...}, false);
  // A call that wants no result takes any.
  if constexpr (!std::is_void_v<R>) {
    std::string const& expected = detail::getParamStrType<R>();
    if (info->result.type != expected) {
      // On purpose without a closing quote.
      throw KXError("KXProxy", "call",
                    "wrong return type for function '" + method + "' type is '" +
                        info->result.type + "' instead of '" + expected,
                    detail::kProxyFile, detail::kWrongReturnTypeLine);
    }
  }
  detail::checkParameters<P...>(*info, xGetModuleName());
  auto* const typed = dynamic_cast<detail::KXTypedFunctor<R, P...>*>(info->functor.get());
  if (typed != nullptr) return typed->invoke(arguments...);
  // Same type strings over other C++ types, such as float for double, or a result not wanted.
  KXValue result;
  info->functor->call(KXValue::arrayOf(KXValue(arguments)...), result);
  return detail::convertResult<R>(result);
}

}  // namespace KX
