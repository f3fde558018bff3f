// A machine made of files: a folder with the parts of /proc and /sys that a test wants read.
#pragma once

#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include <modules/hostsensors/kxmachinegroup.hpp>
#include <tests/support/temporarydirectory.hpp>

namespace KX::testing {

/// The root of a machine that the test makes up, as long as it lives.
class FakeRoot {
 public:
  std::string path() const { return mDirectory.path().string(); }

  /// Writes a file, and the folders that it takes. `path` begins without a slash: proc/net/dev.
  void write(std::string const& path, std::string const& text) const {
    std::filesystem::create_directories((mDirectory.path() / path).parent_path());
    std::ofstream(mDirectory.path() / path, std::ios::binary) << text;
  }
  void makeFolder(std::string const& path) const {
    std::filesystem::create_directories(mDirectory.path() / path);
  }
  void remove(std::string const& path) const {
    std::filesystem::remove_all(mDirectory.path() / path);
  }

 private:
  TemporaryDirectory const mDirectory;
};

/// A moment for readings: so many milliseconds after some fixed one.
inline KXMachineTime at(int ms) {
  return KXMachineTime() + std::chrono::hours(1) + std::chrono::milliseconds(ms);
}

/// One reading of a group.
inline KXMachineReport readGroup(KXMachineGroup& group, int ms = 0) {
  KXMachineReport report;
  group.read(at(ms), report);
  return report;
}

/// The value of a key; nothing if the report does not have it.
inline std::optional<KXValue> find(KXMachineReport const& report, std::string const& key) {
  for (auto const& [name, value] : report.values) {
    if (name == key) return value;
  }
  return std::nullopt;
}

}  // namespace KX::testing
