#include <kx/watch/formats.hpp>

#include <array>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

std::string floatText(double value) {
  if (!std::isfinite(value)) return "";
  std::array<char, 32> buffer{};
  auto const [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  std::string text(buffer.data(), end);
  // A whole number would make some readers take the column for integers, or for times.
  if (text.find_first_of(".e") == std::string::npos) text += ".0";
  return text;
}

std::string csvText(std::string_view text) {
  std::string cell = asUtf8(text);
  for (char& c : cell) {
    if (c == '"') c = '\'';
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  bool const hasOuterBlank = !cell.empty() && (cell.front() == ' ' || cell.back() == ' ');
  if (hasOuterBlank || cell.find(',') != std::string::npos) return '"' + cell + '"';
  return cell;
}

std::string csvCell(KXValue const& value) {
  switch (value.getType()) {
    case KXValue::TypeInvalid:
      return "";
    case KXValue::TypeBool:
      return static_cast<bool>(value) ? "1" : "0";
    case KXValue::TypeFloat:
      return floatText(static_cast<double>(value));
    case KXValue::TypeArray:
      return csvText(value.toString(1));
    case KXValue::TypeBinary: {
      std::string const json = value.toString(1);
      return json.substr(1, json.size() - 2);
    }
    default:
      return csvText(value.toString(0));
  }
}

}  // namespace

std::string secondsText(std::int64_t timeUs, int decimals) {
  return fmt::format("{}.{:06}{}", timeUs / 1'000'000, timeUs % 1'000'000,
                     std::string(static_cast<std::size_t>(decimals - 6), '0'));
}

std::string jsonLine(KXSample const& sample) {
  return "{\"time\":" + secondsText(sample.timeUs, 6) +
         ",\"key\":" + KXValue(std::string(sample.key)).toString(1) +
         ",\"value\":" + sample.value.toString(1) + "}\n";
}

std::string csvHeader(std::vector<std::string> const& columns) {
  std::vector<std::string> cells{"time"};
  for (std::string const& column : columns) cells.push_back(csvText(column));
  return fmt::format("{}\n", fmt::join(cells, ","));
}

std::string csvLine(KXBatch const& batch) {
  std::vector<std::string> cells{secondsText(batch.timeUs, 9)};
  for (auto const& value : batch.values) cells.push_back(value ? csvCell(*value) : "");
  return fmt::format("{}\n", fmt::join(cells, ","));
}

}  // namespace KX::tool
