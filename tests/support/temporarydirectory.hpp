// A directory of a test's own. For one thread.
#pragma once

#include <filesystem>
#include <string>

namespace KX::testing {

/// Below the system's directory for temporary files, and gone with everything in it when the object
/// is. std::system_error if it cannot be made.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(TemporaryDirectory const&) = delete;
  TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

  std::filesystem::path const& path() const { return mPath; }
  /// The path of a file in it.
  std::string file(std::string const& name) const { return mPath / name; }
  /// Writes a file that nobody else can read; its path.
  std::string write(std::string const& name, std::string const& text) const;

 private:
  std::filesystem::path mPath;
};

}  // namespace KX::testing
