#include <kxvalue/kxvalue.hpp>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "host/kxvalue/kxlevels.hpp"

namespace KX {

namespace {

std::string base64(std::string const& bytes) {
  constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::size_t const count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      bits = bits << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      out += k <= count ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
    }
  }
  return out;
}

// The shortest text that reads back as the same number, and that shows it to be a float.
std::string floatText(double value) {
  if (!std::isfinite(value)) return std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
  char buffer[32];
  auto const end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  std::string text(buffer, end);
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::string jsonString(std::string const& text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

std::string KXValue::toString(int verbosity) const {
  bool const isJson = verbosity >= 1;
  bool const isTyped = verbosity >= 2;
  struct Level {
    KXValue const* next;
    KXValue const* end;
  };
  Levels<Level> levels;
  std::string out;
  KXValue const* value = this;
  for (;;) {
    if (isTyped) out += TypeToString(value->getType()) + "(";
    if (value->getType() == TypeArray) {
      KXValue const* const elements = value->arrayData();
      out += '[';
      levels.push({elements, elements + value->xArray()->size});
      // The first element has no comma before it.
      if (value->xArray()->size > 0) {
        value = levels.last().next++;
        continue;
      }
    } else {
      value->xAppendText(out, isJson, isTyped);
      if (isTyped) out += ')';
    }
    while (!levels.isEmpty() && levels.last().next == levels.last().end) {
      out += isTyped ? "])" : "]";
      levels.pop();
    }
    if (levels.isEmpty()) return out;
    out += isJson ? "," : ", ";
    value = levels.last().next++;
  }
}

// The text of a value that is no array, without its type name.
void KXValue::xAppendText(std::string& out, bool isJson, bool isTyped) const {
  switch (getType()) {
    case TypeInvalid:
      if (isJson) out += "null";
      break;
    case TypeBool:
      out += mPayload.asBool ? "true" : "false";
      break;
    case TypeInt:
      out += std::to_string(mPayload.asInt);
      break;
    case TypeFloat:
      out += isJson && !isTyped && !std::isfinite(mPayload.asDouble) ? "null"
                                                                     : floatText(mPayload.asDouble);
      break;
    case TypeString:
      out += isJson ? jsonString(static_cast<std::string const&>(*this))
                    : static_cast<std::string const&>(*this);
      break;
    case TypeBinary:
      out += isJson ? '"' + base64(getBinary()) + '"' : getBinary();
      break;
    case TypeArray:
      break;
  }
}

std::string KXValue::TypeToString(Type type) {
  switch (type) {
    case TypeInvalid:
      return "invalid";
    case TypeArray:
      return "array";
    case TypeBool:
      return "bool";
    case TypeInt:
      return "int";
    case TypeFloat:
      return "float";
    case TypeString:
      return "string";
    case TypeBinary:
      return "binary";
  }
  return "type " + std::to_string(static_cast<int>(type));
}

}  // namespace KX
