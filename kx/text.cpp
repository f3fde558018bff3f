#include <kx/text.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace KX::tool {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

bool isControl(char32_t codePoint) {
  // U+2028 and U+2029 end a line for some terminals and editors.
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) || codePoint == 0x2028 ||
         codePoint == 0x2029;
}

std::string escaped(char32_t codePoint) {
  switch (codePoint) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      break;
  }
  auto const number = static_cast<std::uint32_t>(codePoint);
  return number < 0x80 ? fmt::format("\\x{:02x}", number) : fmt::format("\\u{:04x}", number);
}

// Changes between two texts; swapping two neighbours is one change.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> beforeLast(b.size() + 1);
  std::vector<std::size_t> last(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      std::size_t const replaced = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], beforeLast[j - 2] + 1);
      }
    }
    std::swap(beforeLast, last);
    std::swap(last, row);
  }
  return last[b.size()];
}

std::size_t byteOfColumn(std::string_view text, std::size_t column) {
  std::size_t at = 0;
  for (std::size_t i = 0; i < column; ++i) at += characterAt(text, at).length;
  return at;
}

std::string lowerCase(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](unsigned char c) { return std::tolower(c); });
  return result;
}

}  // namespace

KXCharacter characterAt(std::string_view text, std::size_t at) noexcept {
  auto const byte = [&](std::size_t i) {
    return static_cast<unsigned char>(text[at + i]);
  };
  unsigned char const first = byte(0);
  if (first < 0x80) return {first, 1, true};
  constexpr KXCharacter kInvalid{0xFFFD, 1, false};
  std::size_t const length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || at + length > text.size()) return kInvalid;
  char32_t codePoint = first & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return kInvalid;
    codePoint = (codePoint << 6) | (byte(i) & 0x3FU);
  }
  // Longer than needed, a half of a pair, or beyond the last code point: no character either.
  constexpr std::array<char32_t, 5> kLeast{0, 0, 0x80, 0x800, 0x10000};
  bool const isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
  if (codePoint < kLeast[length] || isSurrogate || codePoint > 0x10FFFF) return kInvalid;
  return {codePoint, length, true};
}

std::string asUtf8(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    KXCharacter const character = characterAt(text, at);
    result += character.isValid ? text.substr(at, character.length) : kReplacement;
    at += character.length;
  }
  return result;
}

std::string forTerminal(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    KXCharacter const character = characterAt(text, at);
    if (!character.isValid) {
      result += kReplacement;
    } else if (isControl(character.codePoint)) {
      result += escaped(character.codePoint);
    } else {
      result += text.substr(at, character.length);
    }
    at += character.length;
  }
  return result;
}

std::size_t displayWidth(std::string_view text) noexcept {
  std::size_t width = 0;
  for (std::size_t at = 0; at < text.size(); at += characterAt(text, at).length) ++width;
  return width;
}

std::string fitToWidth(std::string_view text, std::size_t width, KXCut cut) {
  std::size_t const needed = displayWidth(text);
  if (needed <= width) return std::string(text) + std::string(width - needed, ' ');
  if (width == 0) return "";
  std::size_t const tail = cut == KXCut::Start ? width - 1 : 0;
  std::size_t const head = width - 1 - tail;
  return std::string(text.substr(0, byteOfColumn(text, head))) + std::string(kEllipsis) +
         std::string(text.substr(byteOfColumn(text, needed - tail)));
}

std::string counted(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::vector<std::string> nearest(std::string_view name, std::span<std::string const> candidates) {
  constexpr std::size_t kMost = 3;
  std::string const wanted = lowerCase(name);
  std::size_t const least = std::min<std::size_t>(2, name.empty() ? 0 : name.size() - 1);
  std::size_t const farthest = std::max(least, name.size() / 3);
  std::vector<std::pair<std::size_t, std::string>> near;
  for (std::string const& candidate : candidates) {
    std::size_t const distance = editDistance(wanted, lowerCase(candidate));
    if (distance <= farthest) near.emplace_back(distance, candidate);
  }
  std::ranges::stable_sort(near, {}, &std::pair<std::size_t, std::string>::first);
  std::vector<std::string> names;
  for (auto const& [distance, candidate] : near) {
    bool const isFarther = distance > near.front().first + 1;
    if (!isFarther && names.size() < kMost) names.push_back(candidate);
  }
  return names;
}

std::string nearestText(std::string_view name, std::span<std::string const> candidates) {
  std::vector<std::string> names = nearest(name, candidates);
  if (names.empty()) return "";
  for (std::string& each : names) each = forTerminal(each);
  return fmt::format("nearest {} '{}'", names.size() == 1 ? "is" : "are", fmt::join(names, "', '"));
}

std::string nearestHint(std::string_view name, std::span<std::string const> candidates) {
  std::string const text = nearestText(name, candidates);
  return text.empty() ? "" : "; " + text;
}

}  // namespace KX::tool
