#include <ka/log.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
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

/// The handlers. They are called without the lock, so each counts its calls in progress: whoever
/// removes one waits for those.
class Handlers {
 public:
  void add(std::string const& name, Handler handler) {
    auto entry = std::make_shared<Entry>(Entry{name, std::move(handler)});
    std::unique_lock lock(mMutex);
    Entries const former = xMarkRemoved(name);
    mEntries.push_back(std::move(entry));
    xEnd(former, lock);
  }

  void remove(std::string const& name) {
    std::unique_lock lock(mMutex);
    xEnd(xMarkRemoved(name), lock);
  }

  void call(Record const& record) {
    if (xDepth() == kMaxDepth) return;
    Entries entries;
    std::unique_lock lock(mMutex);
    // A copy: handlers come and go meanwhile. It dies without the lock, since what a handler holds
    // may log as it goes.
    entries = mEntries;
    for (auto const& entry : entries) {
      if (!entry->isRemoved) xCall(*entry, record, lock);
    }
  }

 private:
  struct Entry {
    std::string const name;
    Handler handler;
    int callCount = 0;  ///< how many threads are in it
    bool isRemoved = false;
  };
  using Entries = std::vector<std::shared_ptr<Entry>>;

  /// A call in progress on this thread, and the one around it.
  struct Call {
    Entry const* entry;
    Call const* outer;
  };
  static thread_local Call const* tInnermost;

  /// A handler that logs whenever it is called would otherwise end in a full stack.
  static constexpr int kMaxDepth = 8;

  static int xDepth() {
    int depth = 0;
    for (Call const* call = tInnermost; call != nullptr; call = call->outer) ++depth;
    return depth;
  }
  static bool xIsWithin(Entry const& entry) {
    Call const* call = tInnermost;
    while (call != nullptr && call->entry != &entry) call = call->outer;
    return call != nullptr;
  }

  /// The entries of that name: besides the current one those that are removed and still running,
  /// so that everybody who removes the name waits for them.
  Entries xMarkRemoved(std::string const& name) {
    Entries removed;
    for (auto const& entry : mEntries) {
      if (entry->name == name) removed.push_back(entry);
    }
    for (auto const& entry : removed) entry->isRemoved = true;
    return removed;
  }

  /// Waits for the calls of removed entries and destroys their handlers, behind the lock. A thread
  /// does not wait for what it is in itself: the end of that call drops the entry.
  void xEnd(Entries const& removed, std::unique_lock<std::mutex>& lock) {
    std::vector<Handler> dying;
    for (auto const& entry : removed) {
      if (xIsWithin(*entry)) continue;
      mHasReturned.wait(lock, [&] { return entry->callCount == 0; });
      dying.push_back(std::exchange(entry->handler, {}));
      xDrop(*entry);
    }
    lock.unlock();
  }

  void xDrop(Entry const& entry) {
    std::erase_if(mEntries, [&](auto const& one) { return one.get() == &entry; });
  }

  void xCall(Entry& entry, Record const& record, std::unique_lock<std::mutex>& lock) {
    ++entry.callCount;
    lock.unlock();
    Call const call{&entry, tInnermost};
    tInnermost = &call;
    try {
      entry.handler(record);
    } catch (...) {
      // Whoever logs can neither know nor mend the handler.
    }
    tInnermost = call.outer;
    lock.lock();
    if (--entry.callCount > 0 || !entry.isRemoved) return;
    xDrop(entry);
    mHasReturned.notify_all();
  }

  std::mutex mMutex;
  std::condition_variable mHasReturned;
  Entries mEntries;
};

thread_local Handlers::Call const* Handlers::tInnermost = nullptr;

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
