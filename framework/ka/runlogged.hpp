// For steps that nobody is above of to catch what they throw. Any thread may run one.
#pragma once

#include <type_traits>
#include <utility>

#include <ka/log.hpp>
#include <kxerror/kxerror.hpp>

namespace ka::log {

/// Runs a step; true if it went well. What it throws, whatever it throws, becomes one warning:
/// `failure`, a colon and what the exception says. `failure` is a text such as "exit failed", or a
/// function that gives one and is called only when it is needed.
template <class Failure, class Step>
bool runLogged(char const* category, char const* function, Failure const& failure,
               Step&& step) noexcept {
  try {
    std::forward<Step>(step)();
    return true;
  } catch (...) {
    try {
      LogStream line(Warning, category, "", function, 0);
      if constexpr (std::is_invocable_v<Failure const&>) {
        line << failure();
      } else {
        line << failure;
      }
      line << ": " << KX::describeCurrentException();
    } catch (...) {
      // Out of memory: the line is lost, the caller goes on.
    }
    return false;
  }
}

}  // namespace ka::log
