#include <tests/support/temporarydirectory.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace KX::testing {

TemporaryDirectory::TemporaryDirectory() {
  // mkdtemp() puts letters of its own in the place of six X at the end.
  std::string pattern = std::filesystem::temp_directory_path() / ("kxtest-" + std::string(6, 'X'));
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  mPath = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;  // What is left behind harms no test.
  std::filesystem::remove_all(mPath, ignored);
}

std::string TemporaryDirectory::write(std::string const& name, std::string const& text) const {
  std::string const path = file(name);
  std::ofstream(path) << text;
  ::chmod(path.c_str(), 0600);
  return path;
}

}  // namespace KX::testing
