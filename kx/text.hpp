// Text of any bytes made fit for terminals and for files that must parse. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace KX::tool {

/// One character of a text of any bytes: its code point, and how many bytes it takes.
struct KXCharacter {
  char32_t codePoint;  ///< U+FFFD where the bytes are not UTF-8
  std::size_t length;  ///< at least 1
  bool isValid;
};

/// The character that begins at `at`, which is below the text's size.
KXCharacter characterAt(std::string_view text, std::size_t at) noexcept;

/// The text as UTF-8: each byte that belongs to no character becomes U+FFFD.
std::string asUtf8(std::string_view text);

/// The text on one line and without effect on a terminal: UTF-8, with control characters written
/// as \n, \t, \r, \xNN, or \u00NN for those above ASCII. A backslash stays as it is.
std::string forTerminal(std::string_view text);

/// The columns that a text without control characters takes, one per character.
std::size_t displayWidth(std::string_view text) noexcept;

/// Where a text that is too long loses characters: of keys, which begin alike, at the start.
enum class KXCut { Start, End };

/// The text cut to so many columns, the cut marked by an ellipsis, or filled up with blanks.
std::string fitToWidth(std::string_view text, std::size_t width, KXCut cut = KXCut::End);

/// `1 key`, `2 keys`.
std::string counted(std::int64_t count, std::string_view noun);

/// Up to three candidates with the fewest insertions, removals, replacements and swaps of
/// neighbours between them and `name`, capitals ignored; the nearest first. Near is what a third of
/// the name, or two characters but not all of them, would have to change for, and at most one
/// change farther than the nearest.
std::vector<std::string> nearest(std::string_view name, std::span<std::string const> candidates);

/// `nearest is 'NAME'`, `nearest are 'NAME', 'NAME'`, fit for a terminal; empty if none is near.
std::string nearestText(std::string_view name, std::span<std::string const> candidates);

/// The same behind `; ` for the end of an error message.
std::string nearestHint(std::string_view name, std::span<std::string const> candidates);

}  // namespace KX::tool
