// Names that nobody else has.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace KX {

/// 16 hexadecimal digits, that nobody can guess.
inline std::string makeRandomId() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::random_device device;
  std::string id;
  for (int word = 0; word < 2; ++word) {
    std::uint32_t bits = device();
    for (int digit = 0; digit < 8; ++digit, bits >>= 4) id += kDigits[bits & 0xf];
  }
  return id;
}

}  // namespace KX
