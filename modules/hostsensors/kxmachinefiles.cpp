#include <modules/hostsensors/kxmachinefiles.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <system_error>

#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// 0, or the errno of what failed. A file of /proc tells no size, so it is read to its end.
int readAll(std::string const& path, std::string& text) {
  int const file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return errno;
  ssize_t got = 0;
  do {
    std::size_t const filled = text.size();
    text.resize(filled + 4096);
    got = ::read(file, text.data() + filled, 4096);
    text.resize(filled + static_cast<std::size_t>(got > 0 ? got : 0));
  } while (got > 0);
  int const error = got < 0 ? errno : 0;
  ::close(file);
  return error;
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// 0, or the errno of opening.
int listAll(std::string const& path, std::vector<std::string>& names) {
  std::unique_ptr<DIR, CloseFolder> const folder(::opendir(path.c_str()));
  if (!folder) return errno;
  while (dirent const* const entry = ::readdir(folder.get())) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  return 0;
}

}  // namespace

void throwUnreadable(std::string const& source, int error) {
  throw KXError("KXHostSensors", "read",
                "cannot read '" + source + "': " + std::generic_category().message(error),
                "hostsensors/kxmachinefiles", 0);
}

std::string readMachineFile(std::string const& path) {
  std::string text;
  if (int const error = readAll(path, text)) throwUnreadable(path, error);
  return text;
}

std::optional<std::string> tryReadMachineFile(std::string const& path) {
  std::string text;
  if (readAll(path, text) != 0) return std::nullopt;
  return text;
}

std::optional<std::int64_t> tryReadMachineNumber(std::string const& path) {
  std::optional<std::string> const text = tryReadMachineFile(path);
  if (!text) return std::nullopt;
  std::int64_t number = 0;
  auto const parsed = std::from_chars(text->data(), text->data() + text->size(), number);
  if (parsed.ec != std::errc()) return std::nullopt;
  return number;
}

std::vector<std::string> listMachineFolder(std::string const& path) {
  std::vector<std::string> names;
  if (int const error = listAll(path, names)) throwUnreadable(path, error);
  return names;
}

std::vector<std::string> tryListMachineFolder(std::string const& path) {
  std::vector<std::string> names;
  listAll(path, names);
  return names;
}

bool takeLine(std::string_view& rest, std::string_view& line) {
  if (rest.empty()) return false;
  std::size_t const end = rest.find('\n');
  line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return true;
}

std::vector<std::string_view> splitWords(std::string_view line) {
  std::vector<std::string_view> words;
  std::size_t begin = line.find_first_not_of(" \t");
  while (begin != std::string_view::npos) {
    std::size_t const end = line.find_first_of(" \t", begin);
    words.push_back(line.substr(begin, end - begin));
    begin = end == std::string_view::npos ? end : line.find_first_not_of(" \t", end);
  }
  return words;
}

std::optional<std::uint64_t> parseCount(std::string_view word) {
  std::uint64_t count = 0;
  auto const parsed = std::from_chars(word.data(), word.data() + word.size(), count);
  if (parsed.ec != std::errc() || parsed.ptr != word.data() + word.size()) return std::nullopt;
  return count;
}

}  // namespace KX
