// Reading the small files of /proc and /sys. Paths begin with the root of the machine that is
// read: empty for this one, a folder for a test's. Stateless: any thread may call.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace KX {

/// The error of a source that failed with this errno.
[[noreturn]] void throwUnreadable(std::string const& source, int error);

/// The whole file. KXError that names the path and the cause.
std::string readMachineFile(std::string const& path);
/// The whole file, or nothing if it cannot be read.
std::optional<std::string> tryReadMachineFile(std::string const& path);
/// The number that the file begins with, or nothing.
std::optional<std::int64_t> tryReadMachineNumber(std::string const& path);

/// The names in a folder, without those that begin with a dot, in no order. KXError as above.
std::vector<std::string> listMachineFolder(std::string const& path);
/// The same, empty if the folder cannot be read.
std::vector<std::string> tryListMachineFolder(std::string const& path);

/// Cuts the text before the next newline off `rest`; false at the end.
bool takeLine(std::string_view& rest, std::string_view& line);
/// The parts of a line between blanks and tabs.
std::vector<std::string_view> splitWords(std::string_view line);
/// A decimal number that is the whole word, or nothing.
std::optional<std::uint64_t> parseCount(std::string_view word);

}  // namespace KX
