#include <host/rttools/kxmodulelibrary.hpp>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

#include <dlfcn.h>

#include <ka/log.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

namespace fs = std::filesystem;

constexpr char kFile[] = "rttools/kxmodulelibrary";
constexpr char kCreate[] = "_createModule";
constexpr char kClose[] = "_closeModule";

/// The system's last complaint about a library, without the path that it begins with.
std::string lastLibraryError(std::string const& path) {
  char const* const error = ::dlerror();
  std::string text = error != nullptr ? error : "no reason given";
  std::string const prefix = path + ": ";
  return text.starts_with(prefix) ? text.substr(prefix.size()) : text;
}

/// What an entry point threw, and of which kind; call it from a catch block.
std::string describeFailure() {
  try {
    throw;
  } catch (KXError const& error) {
    return "it threw a KXError of '" + error.getModuleName() + "', '" + error.getMethodName() +
           "': " + error.getDescription();
  } catch (std::exception const& error) {
    return std::string("it threw a std::exception: ") + messageOf(error);
  } catch (...) {
    return "it threw something that is no std::exception";
  }
}

/// Absolute, because a bare name would be looked for on the system's library path.
std::string absolutePath(std::string const& path) {
  std::error_code error;
  return fs::absolute(path, error).string();
}

/// Where the library of this code was found.
fs::path ownFolder() {
  ::Dl_info info{};
  if (::dladdr(reinterpret_cast<void const*>(&findLibrary), &info) == 0) return {};
  return fs::path(absolutePath(info.dli_fname)).lexically_normal().parent_path();
}

void removeModulesBut(KXBroker& broker, std::vector<std::string> const& kept) {
  auto names = broker.getModuleNames();
  std::reverse(names.begin(), names.end());
  for (auto const& name : names)
    if (std::find(kept.begin(), kept.end(), name) == kept.end()) broker.removeModule(name);
}

}  // namespace

std::string findLibrary(std::string const& name) {
  if (name.find('/') != std::string::npos || name.ends_with(".so")) return name;
  std::error_code error;
  std::string const fileName = "lib" + name + ".so";
  fs::path const programs = fs::read_symlink("/proc/self/exe", error).parent_path();
  fs::path const besideProgram = (programs / "../lib" / fileName).lexically_normal();
  if (fs::exists(besideProgram, error)) return besideProgram.string();
  fs::path const besideUs = ownFolder() / fileName;
  if (fs::exists(besideUs, error)) return besideUs.string();
  std::string places = "'" + besideProgram.string() + "'";
  if (besideUs != besideProgram) places += " and '" + besideUs.string() + "'";
  throw KXError("KXHost", "findLibrary", "no module library '" + name + "', looked for " + places,
                kFile, 0);
}

KXModuleLibrary::KXModuleLibrary(std::string const& path) : mPath(absolutePath(path)) {
  std::error_code error;
  if (!fs::exists(mPath, error)) xFail("a module library", "there is no such file");
  void* const handle = ::dlopen(mPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr)
    xFail("a library with all its symbols resolved", "it has a fault: " + lastLibraryError(mPath));
  mCreate = reinterpret_cast<decltype(mCreate)>(xEntryPoint(handle, kCreate));
  mClose = reinterpret_cast<decltype(mClose)>(xEntryPoint(handle, kClose));
}

void* KXModuleLibrary::xEntryPoint(void* handle, char const* name) const {
  void* const found = ::dlsym(handle, name);
  if (found == nullptr)
    xFail("the entry points '_createModule' and '_closeModule'",
          std::string("it has no '") + name + "'");
  return found;
}

void KXModuleLibrary::createModule(boost::shared_ptr<KXBroker> const& broker) const {
  auto const modulesBefore = broker->getModuleNames();
  try {
    xEnter(broker);
  } catch (...) {
    removeModulesBut(*broker, modulesBefore);
    throw;
  }
}

void KXModuleLibrary::xEnter(boost::shared_ptr<KXBroker> const& broker) const {
  std::string found;
  try {
    int const result = mCreate(broker);
    if (result == 0) return;
    found = "it returned " + std::to_string(result);
  } catch (...) {
    found = describeFailure();
  }
  xFail(std::string("'") + kCreate + "' to return 0", found);
}

void KXModuleLibrary::closeModule() const noexcept {
  std::string found;
  try {
    int const result = mClose();
    if (result == 0) return;
    found = "it returned " + std::to_string(result);
  } catch (...) {
    found = describeFailure();
  }
  ka::log::LogStream(ka::log::Error, "KXHost", "", "shutdown", 0)
      << "module library '" << mPath << "': expected '" << kClose << "' to return 0, but " << found;
}

void KXModuleLibrary::xFail(std::string const& expected, std::string const& found) const {
  throw KXError("KXHost", "loadModule",
                "cannot load '" + mPath + "': expected " + expected + ", but " + found, kFile, 0);
}

}  // namespace KX
