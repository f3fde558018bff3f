// The log: records go to every handler and, unless switched off, to stderr. Any thread may log.
#pragma once

#include <functional>
#include <ostream>
#include <sstream>
#include <string>

#include <ka/os.hpp>
#include <kxerror/kxapi.hpp>

namespace ka::log {

/// Severities; a smaller number is more severe.
enum Level { Fatal = 1, Error = 2, Warning = 3, Info = 4, Verbose = 5, Debug = 6 };

struct Record {
  int level;
  ka::os::timeval time;
  std::string category;
  std::string file;
  std::string function;
  int line;
  std::string text;
};

/// Called on the logging thread, by several threads at once if several log: a handler guards its
/// own data. No lock of the log's is held meanwhile, so it may log, call modules, add and remove
/// handlers, and wait for threads that do. What it throws is dropped. What handlers log is handed
/// out at once, nested up to eight deep on one thread, and no deeper.
using Handler = std::function<void(Record const&)>;

/// Adds a handler; one of that name is removed as by removeHandler(), and misses no record before
/// the new one gets its first. Handlers get every record, whatever its level.
KX_API void addHandler(std::string const& name, Handler handler);
/// Waits for the calls of the handler that are in progress: when this returns, it runs no more and
/// is destroyed. Called from within that handler, it returns at once; the handler is not called any
/// more, but calls on other threads may still be in progress. Two handlers must not remove each
/// other: both would wait for ever. Unknown names are ignored.
KX_API void removeHandler(std::string const& name);

/// The least severe level that is written to stderr; 0 writes nothing. Initially Warning.
KX_API void setStderrLevel(int level);

/// Hands one record to all handlers, and to stderr: repeated warnings of one category and function
/// are held back there for a second, and counted in the next line that is written.
KX_API void log(int level, std::string const& category, std::string const& file,
                std::string const& function, int line, std::string const& text);

/// Collects a record's text by stream insertion and logs it when it ends:
/// `ka::log::LogStream(ka::log::Warning, "category", "", "function", 0) << "text " << 5;`
class KX_API LogStream {
 public:
  LogStream(int level, std::string category, std::string file, std::string function, int line);
  ~LogStream();
  LogStream(LogStream const&) = delete;
  LogStream& operator=(LogStream const&) = delete;

  template <class T>
  LogStream& operator<<(T const& part) {
    mText << part;
    return *this;
  }
  LogStream& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    mText << manipulator;
    return *this;
  }

 private:
  int const mLevel;
  std::string const mCategory;
  std::string const mFile;
  std::string const mFunction;
  int const mLine;
  std::ostringstream mText;
};

}  // namespace ka::log
