#include <kx/arguments.hpp>

#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include <kx/text.hpp>

namespace KX::tool {
namespace {

// Reads a number and leaves what follows it in `text`; false if there is none.
template <class T>
bool readNumber(std::string_view& text, T& number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

}  // namespace

std::chrono::milliseconds parseDuration(std::string const& text) {
  constexpr std::array<std::pair<std::string_view, long long>, 4> kUnitsMs{
      {{"ms", 1}, {"s", 1000}, {"m", 60'000}, {"h", 3'600'000}}};
  constexpr long long kYearMs = 366LL * 24 * 3'600'000;
  std::string_view rest = text;
  long long number = 0;
  if (readNumber(rest, number) && number > 0) {
    for (auto const& [unit, unitMs] : kUnitsMs) {
      if (rest == unit && number <= kYearMs / unitMs) {
        return std::chrono::milliseconds(number * unitMs);
      }
    }
  }
  throw KXUsageError("--for: expected a duration like 500ms, 10s, 2m or 1h, got '" +
                     forTerminal(text) + "'");
}

int parsePeriodMs(std::string const& text) {
  std::string_view rest = text;
  int periodMs = 0;
  if (readNumber(rest, periodMs) && rest.empty()) return periodMs;
  throw KXUsageError("--period: expected a whole number of milliseconds, got '" +
                     forTerminal(text) + "'");
}

KXFormat parseFormat(std::string const& text) {
  static std::array<std::string, 3> const kNames{"table", "jsonl", "csv"};
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if (text == kNames[i]) return static_cast<KXFormat>(i);
  }
  throw KXUsageError("--format: expected table, jsonl or csv, got '" + forTerminal(text) + "'" +
                     nearestHint(text, kNames));
}

KXListing parseListing(std::string const& text) {
  if (text == "table") return KXListing::Table;
  if (text == "json") return KXListing::Json;
  throw KXUsageError("--format: expected table or json, got '" + forTerminal(text) + "'");
}

}  // namespace KX::tool
