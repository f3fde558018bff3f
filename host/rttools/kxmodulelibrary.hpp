// Module libraries: finding, opening and entering them. Used by the thread that builds a host.
#pragma once

#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxerror/kxapi.hpp>

namespace KX {

class KXBroker;

/// The file of a module library: "memorywatcher" is "lib/libmemorywatcher.so" beside the "bin" of
/// the running executable, else "libmemorywatcher.so" beside the framework's libraries. What
/// contains a '/' or ends in ".so" is a file's name already and comes back as it is. KXError that
/// tells where it looked if there is no such file.
KX_API std::string findLibrary(std::string const& name);

/// A module library that was opened, with its two entry points. It stays in the process for ever,
/// since objects, handlers and exceptions of its code may outlive every owner of this handle.
/// Ownership: a value. Threads: not synchronised.
class KX_API KXModuleLibrary {
 public:
  /// Opens the file with all symbols resolved. KXError that names it, what was expected and what
  /// was found if there is no such file, it is no library, or a symbol or an entry point is
  /// missing.
  explicit KXModuleLibrary(std::string const& path);

  /// Calls `_createModule`. KXError if it throws, whatever it throws, or returns anything but 0;
  /// the modules that it published until then are taken out of the broker again.
  void createModule(boost::shared_ptr<KXBroker> const& broker) const;
  /// Calls `_closeModule`. What goes wrong there is logged.
  void closeModule() const noexcept;

 private:
  void* xEntryPoint(void* handle, char const* name) const;
  void xEnter(boost::shared_ptr<KXBroker> const& broker) const;
  [[noreturn]] void xFail(std::string const& expected, std::string const& found) const;

  std::string mPath;
  int (*mCreate)(boost::shared_ptr<KXBroker>) = nullptr;
  int (*mClose)() = nullptr;
};

}  // namespace KX
