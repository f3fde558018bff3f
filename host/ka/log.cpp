#include <ka/log.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <locale>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include "loglines.hpp"

namespace ka::log {
namespace {

/// Writes records to stderr. A lock of its own, so that a slow handler holds no line back.
class StderrWriter {
 public:
  StderrWriter() : mLogger("ka", std::make_shared<spdlog::sinks::stderr_sink_st>()) {
    mLogger.set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
  }

  void write(Record const& record) {
    if (record.level > maxLevel) return;
    std::lock_guard const lock(mMutex);
    auto const lines = mLines.take(record, std::chrono::steady_clock::now());
    xWrite(lines, record.time);
  }

  void writeRest() {
    std::lock_guard const lock(mMutex);
    ka::os::timeval now;
    ka::os::gettimeofday(&now);
    xWrite(mLines.takeRest(), now);
  }

  std::atomic<int> maxLevel{Warning};

 private:
  void xWrite(std::vector<std::string> const& lines, ka::os::timeval const& time) {
    spdlog::log_clock::time_point const shown{std::chrono::seconds(time.tv_sec) +
                                              std::chrono::microseconds(time.tv_usec)};
    // The line names our own level; spdlog's is only there to let it through.
    for (auto const& line : lines) mLogger.log(shown, {}, spdlog::level::critical, line);
  }

  std::mutex mMutex;
  LogLines mLines;
  spdlog::logger mLogger;
};

/// The handlers, and one record at a time to each of them.
class Handlers {
 public:
  void add(std::string const& name, Handler handler) {
    auto entry = std::make_shared<Entry>(Entry{name, std::move(handler)});
    std::lock_guard const lock(mMutex);
    remove(name);
    mEntries.push_back(std::move(entry));
  }

  void remove(std::string const& name) {
    std::lock_guard const lock(mMutex);
    auto const found = std::find_if(mEntries.begin(), mEntries.end(),
                                    [&](auto const& entry) { return entry->name == name; });
    if (found == mEntries.end()) return;
    (*found)->isRemoved = true;
    mEntries.erase(found);
  }

  void call(Record const& record) {
    std::lock_guard const lock(mMutex);
    if (mDepth == kMaxDepth) return;
    // A copy: handlers may add and remove handlers, themselves too.
    auto const entries = mEntries;
    ++mDepth;
    for (auto const& entry : entries) {
      if (!entry->isRemoved) xCall(*entry, record);
    }
    --mDepth;
  }

 private:
  struct Entry {
    std::string name;
    Handler handler;
    bool isRemoved = false;
  };

  /// A handler that logs whenever it is called would otherwise end in a full stack.
  static constexpr int kMaxDepth = 8;

  static void xCall(Entry const& entry, Record const& record) {
    try {
      entry.handler(record);
    } catch (...) {
      // Whoever logs can neither know nor mend the handler.
    }
  }

  std::recursive_mutex mMutex;
  std::vector<std::shared_ptr<Entry>> mEntries;
  int mDepth = 0;
};

struct Log {
  StderrWriter stderrWriter;
  Handlers handlers;
};

/// Never destroyed, because destructors of static objects may log.
Log& theLog() {
  static Log* const log = [] {
    std::atexit([] { theLog().stderrWriter.writeRest(); });
    return new Log;
  }();
  return *log;
}

}  // namespace

void addHandler(std::string const& name, Handler handler) {
  theLog().handlers.add(name, std::move(handler));
}

void removeHandler(std::string const& name) {
  theLog().handlers.remove(name);
}

void setStderrLevel(int level) {
  theLog().stderrWriter.maxLevel = level;
}

void log(int level, std::string const& category, std::string const& file,
         std::string const& function, int line, std::string const& text) {
  Record record{level, {}, category, file, function, line, text};
  ka::os::gettimeofday(&record.time);
  theLog().stderrWriter.write(record);
  theLog().handlers.call(record);
}

LogStream::LogStream(int level, std::string category, std::string file, std::string function,
                     int line)
    : mLevel(level),
      mCategory(std::move(category)),
      mFile(std::move(file)),
      mFunction(std::move(function)),
      mLine(line) {
  // A host that sets a locale must not change what numbers in a log text look like.
  mText.imbue(std::locale::classic());
}

LogStream::~LogStream() {
  try {
    log(mLevel, mCategory, mFile, mFunction, mLine, mText.str());
  } catch (...) {
    // Out of memory: a record is lost, the work that it reports goes on.
  }
}

}  // namespace ka::log
