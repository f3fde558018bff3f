#include <host/memory/kxglob.hpp>

namespace KX {

namespace {

constexpr std::size_t kNone = std::string_view::npos;

unsigned char at(std::string_view text, std::size_t i) {
  return static_cast<unsigned char>(text[i]);
}

// Where the set that opens at `open` ends, just behind its bracket; kNone if it is never closed.
std::size_t endOfSet(std::string_view pattern, std::size_t open) {
  std::size_t i = open + 1;
  if (i < pattern.size() && (pattern[i] == '!' || pattern[i] == '^')) ++i;
  // A closing bracket that comes first is a member of the set.
  std::size_t const close = pattern.find(']', i + 1);
  return close == kNone ? kNone : close + 1;
}

bool isInSet(std::string_view set, unsigned char byte) {
  bool const isNegated = set[0] == '!' || set[0] == '^';
  bool isMember = false;
  for (std::size_t i = isNegated ? 1 : 0; i < set.size(); ++i) {
    bool const isRange = i + 2 < set.size() && set[i + 1] == '-';
    isMember = isMember || (at(set, i) <= byte && byte <= at(set, isRange ? i + 2 : i));
    if (isRange) i += 2;
  }
  return isMember != isNegated;
}

// Matches one byte against the pattern's element at `p`, and moves `p` behind that element.
bool matchesOne(std::string_view pattern, std::size_t& p, unsigned char byte) {
  char const element = pattern[p];
  if (element == '[') {
    std::size_t const end = endOfSet(pattern, p);
    if (end != kNone) {
      std::string_view const set = pattern.substr(p + 1, end - p - 2);
      p = end;
      return isInSet(set, byte);
    }
  }
  if (element == '\\' && p + 1 < pattern.size()) ++p;
  unsigned char const literal = at(pattern, p++);
  return element == '?' || literal == byte;
}

}  // namespace

bool matchesGlob(std::string_view pattern, std::string_view name) {
  std::size_t p = 0;
  std::size_t n = 0;
  // Behind the last star, and where in the name its share ends so far: only the last star is ever
  // tried again, which keeps hostile patterns quick.
  std::size_t star = kNone;
  std::size_t starEnd = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = ++p;
      starEnd = n;
    } else if (p < pattern.size() && matchesOne(pattern, p, at(name, n))) {
      ++n;
    } else if (star != kNone) {
      p = star;
      n = ++starEnd;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

}  // namespace KX
