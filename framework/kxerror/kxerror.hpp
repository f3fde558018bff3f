// The framework's exception. Any thread may throw, copy and catch it.
#pragma once

#include <exception>
#include <string>

#include <kxerror/kxapi.hpp>

namespace KX {

/// A failure that crosses module borders: who failed, where, and one line of text.
/// what() is the description alone, so a log line or a tool can print it behind its own words.
class KX_API KXError : public std::exception {
 public:
  /// What kind of failure: whoever must tell "not there" from "could not ask" asks this, never the
  /// text.
  enum class Kind {
    Failed,        ///< the callee threw, or the call itself was wrong
    NotFound,      ///< no such module, method or key
    Refused,       ///< not allowed
    TimedOut,      ///< no answer in time; what was called may have run
    Disconnected,  ///< no way to the callee, or lost before its answer came
  };

  /// `file` and `line` name the place in the source that gave up; a line of 0 means "none".
  KXError(std::string module, std::string method, std::string description, std::string file,
          int line, Kind kind = Kind::Failed);
  KXError(KXError const&) = default;
  KXError& operator=(KXError const&) = default;
  ~KXError() override;

  std::string const& getModuleName() const noexcept { return mModule; }
  std::string const& getMethodName() const noexcept { return mMethod; }
  std::string const& getDescription() const noexcept { return mDescription; }
  std::string const& getFileName() const noexcept { return mFile; }
  int getLine() const noexcept { return mLine; }
  Kind getKind() const noexcept { return mKind; }

  /// The description.
  char const* what() const noexcept override;

 private:
  std::string mModule;
  std::string mMethod;
  std::string mDescription;
  std::string mFile;
  int mLine;
  Kind mKind;
};

/// What an exception says; empty where what() is null, as it may be in a derived class.
inline char const* messageOf(std::exception const& error) noexcept {
  return error.what() == nullptr ? "" : error.what();
}

/// What the exception that is being handled says; "an exception of unknown type" for one that is no
/// std::exception. To be called in a catch block: there is no other exception to describe.
KX_API std::string describeCurrentException();

}  // namespace KX
