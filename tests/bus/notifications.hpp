// Notifications that are known by their numbers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <host/bus/kxwire.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX::testing {

/// Of a method of the usual types; `size` is of the message that it carries.
inline KXNotification numbered(int number, std::size_t size = 0) {
  return {"onEvent", KXValue::arrayOf("key", number, std::string(size, '.'))};
}

/// The numbers from `first` to `last`.
inline std::vector<KXNotification> numberedFrom(int first, int last, std::size_t size = 0) {
  std::vector<KXNotification> all;
  for (int number = first; number <= last; ++number) all.push_back(numbered(number, size));
  return all;
}

inline int numberOf(KXNotification const& notification) {
  return static_cast<int>(notification.arguments[1]);
}

inline std::vector<int> numbersIn(std::string_view bytes, std::uint32_t count) {
  std::vector<int> numbers;
  for (KXNotification const& notification : decodePack(bytes, count)) {
    numbers.push_back(numberOf(notification));
  }
  return numbers;
}

}  // namespace KX::testing
