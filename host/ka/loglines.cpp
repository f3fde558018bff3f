#include "loglines.hpp"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace ka::log {
namespace {

std::string nameOfLevel(int level) {
  switch (level) {
    case Fatal:
      return "fatal";
    case Error:
      return "error";
    case Warning:
      return "warning";
    case Info:
      return "info";
    case Verbose:
      return "verbose";
    case Debug:
      return "debug";
    default:
      return fmt::format("level {}", level);
  }
}

bool isContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

/// The length of the printable UTF-8 character that begins the text; 0 if there is none: control
/// characters, overlong forms, surrogates and whatever lies beyond Unicode.
std::size_t printableLength(std::string_view text) {
  auto const first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  std::size_t const length = first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (length == 0 || first > 0xF4 || text.size() < length) return 0;
  if (!std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                   isContinuation))
    return 0;
  auto const second = static_cast<unsigned char>(text[1]);
  bool const isControl = first == 0xC2 && second < 0xA0;
  bool const isOverlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  bool const isBeyond = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
  return isControl || isOverlong || isBeyond ? 0 : length;
}

std::string escaped(char c) {
  switch (c) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
}

std::string_view withoutLineBreak(std::string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

std::string line(int level, std::string const& category, std::string const& function,
                 std::string_view printableText) {
  return fmt::format("[{}] {}{}{}: {}", nameOfLevel(level), printable(category),
                     function.empty() ? "" : ".", printable(function), printableText);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    std::size_t const length = printableLength(text);
    if (length == 0)
      result += escaped(text[0]);
    else
      result += text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::vector<std::string> LogLines::take(Record const& record, TimePoint now) {
  std::vector<std::string> lines;
  Source const source(record.category, record.function);
  std::string text = printable(withoutLineBreak(record.text));
  bool isHeldBack = false;
  if (auto const found = mHeld.find(source); record.level == Warning && found != mHeld.end()) {
    isHeldBack = now < found->second.end;
    if (isHeldBack) {
      ++found->second.count;
    } else {
      if (found->second.count > 0)
        text += fmt::format(" ({} more held back before)", found->second.count);
      mHeld.erase(found);
    }
  }
  xForgetEnded(now, lines);
  if (isHeldBack) return lines;
  if (record.level == Warning) xRemember(source, now, lines);
  lines.push_back(line(record.level, record.category, record.function, text));
  return lines;
}

std::vector<std::string> LogLines::takeRest() {
  std::vector<std::string> lines;
  while (!mHeld.empty()) xForget(mHeld.begin(), lines);
  return lines;
}

LogLines::HeldBySource::iterator LogLines::xForget(HeldBySource::iterator source,
                                                   std::vector<std::string>& lines) {
  auto const& [names, held] = *source;
  if (held.count > 0)
    lines.push_back(
        line(Warning, names.first, names.second, fmt::format("{} more held back", held.count)));
  return mHeld.erase(source);
}

void LogLines::xForgetEnded(TimePoint now, std::vector<std::string>& lines) {
  for (auto source = mHeld.begin(); source != mHeld.end();)
    source = source->second.end <= now ? xForget(source, lines) : std::next(source);
}

void LogLines::xRemember(Source const& source, TimePoint now, std::vector<std::string>& lines) {
  if (mHeld.size() >= kMaxSources) {
    auto const endsEarlier = [](auto const& a, auto const& b) {
      return a.second.end < b.second.end;
    };
    xForget(std::min_element(mHeld.begin(), mHeld.end(), endsEarlier), lines);
  }
  mHeld.emplace(source, Held{now + kHoldTime});
}

}  // namespace ka::log
