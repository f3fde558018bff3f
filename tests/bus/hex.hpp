// Bytes as tests write them, and why they are refused.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

/// "93 c0 01": two lower-case digits a byte; blanks are skipped.
inline std::string fromHex(std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string digits;
  for (char const c : text) {
    if (c != ' ') digits += c;
  }
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes += static_cast<char>(kDigits.find(digits[i]) << 4 | (kDigits.find(digits[i + 1]) & 0xf));
  }
  return bytes;
}

inline std::string toHex(std::string_view bytes) {
  constexpr char const* kDigits = "0123456789abcdef";
  std::string text;
  for (char const c : bytes) {
    auto const byte = static_cast<unsigned char>(c);
    text += {kDigits[byte >> 4], kDigits[byte & 0xf]};
  }
  return text;
}

inline std::string repeated(std::string_view bytes, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += bytes;
  return text;
}

/// The error of a value that cannot be decoded; "none" if it can.
inline std::string refusalOf(std::string_view bytes) {
  try {
    decodeValue(bytes);
  } catch (KXError const& error) {
    return error.getDescription();
  }
  return "none";
}

}  // namespace KX
