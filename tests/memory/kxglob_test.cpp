#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <host/memory/kxglob.hpp>

namespace KX {
namespace {

using namespace std::string_view_literals;

TEST(Glob, MatchesAsAShellDoes) {
  struct {
    std::string_view pattern;
    std::string_view name;
    bool isMatch;
  } const cases[] = {
      {"", "", true},
      {"", "a", false},
      {"abc", "abc", true},
      {"abc", "ab", false},
      {"ab", "abc", false},
      {"*", "", true},
      {"*", "any/thing", true},
      {"a*", "a", true},
      {"a*c", "abbc", true},
      {"a*c", "abbcd", false},
      {"*b*b*", "abab", true},
      {"*b*b*", "ab", false},
      {"*ab", "aab", true},
      {"**", "x", true},
      {"?", "a", true},
      {"?", "", false},
      {"?", "\xff", true},
      {"a?c", "abc", true},
      {"a?c", "ac", false},
      {"[abc]", "b", true},
      {"[abc]", "d", false},
      {"[a-c]x", "bx", true},
      {"[a-c]x", "dx", false},
      {"[!a-c]", "d", true},
      {"[!a-c]", "b", false},
      {"[^a-c]", "d", true},
      {"[]]", "]", true},
      {"[!]]", "]", false},
      {"[!]]", "x", true},
      {"[a-]", "-", true},
      {"[a-]", "b", false},
      {"[\x80-\xff]", "\xc3", true},
      {"[", "[", true},
      {"[a", "[a", true},
      {"[!", "[!", true},
      {"a[", "a", false},
      {"\\*", "*", true},
      {"\\*", "a", false},
      {"\\?", "?", true},
      {"\\?", "a", false},
      {"\\[a]", "[a]", true},
      {"a\\", "a\\", true},
      {"a\0*"sv, "a\0b"sv, true},
      {"a\0b"sv, "a\0c"sv, false},
      {"*[0-9]", "Cpu/7", true},
      {"*[0-9]", "Cpu/x", false},
      {"*.[ch]*", "kx.cpp", true},
  };
  for (auto const& [pattern, name, isMatch] : cases) {
    EXPECT_EQ(matchesGlob(pattern, name), isMatch) << "'" << pattern << "' on '" << name << "'";
  }
}

TEST(Glob, StaysQuickOnHostilePatterns) {
  std::string pattern;
  for (int i = 0; i < 50; ++i) pattern += "a*";

  EXPECT_FALSE(matchesGlob(pattern + "b", std::string(5000, 'a')));
}

}  // namespace
}  // namespace KX
