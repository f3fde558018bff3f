// What is logged while a test runs.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <ka/log.hpp>

namespace KX {

/// A record without its time, so that two can be compared.
struct LogLine {
  int level;
  std::string category;
  std::string file;
  std::string function;
  int line;
  std::string text;

  bool operator==(LogLine const&) const = default;
};
inline void PrintTo(LogLine const& line, std::ostream* out) {
  *out << line.level << " [" << line.category << "] '" << line.file << "' " << line.function << ":"
       << line.line << " \"" << line.text << '"';
}

/// Keeps what is logged during its lifetime, and keeps stderr quiet.
/// Threads: any thread may log, and ask.
class LogCapture {
 public:
  /// Of one category, or of all.
  explicit LogCapture(std::string const& category = "") : mHandler(xNextName()) {
    ka::log::setStderrLevel(0);
    ka::log::addHandler(mHandler, [this, category](ka::log::Record const& record) {
      if (!category.empty() && record.category != category) return;
      std::lock_guard const lock(mMutex);
      mLines.push_back(
          {record.level, record.category, record.file, record.function, record.line, record.text});
      mChanged.notify_all();
    });
  }
  ~LogCapture() {
    ka::log::removeHandler(mHandler);
    ka::log::setStderrLevel(ka::log::Warning);
  }
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard const lock(mMutex);
    return mLines;
  }
  std::vector<std::string> texts() const {
    std::vector<std::string> all;
    for (LogLine const& line : lines()) all.push_back(line.text);
    return all;
  }
  /// Waits for so many lines, or 30 s, and gives what came.
  std::vector<LogLine> waitFor(std::size_t count) const {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mLines.size() >= count; });
    return mLines;
  }
  void clear() {
    std::lock_guard const lock(mMutex);
    mLines.clear();
  }

 private:
  static std::string xNextName() {
    static std::atomic<int> count{0};
    return "LogCapture" + std::to_string(++count);
  }

  std::string const mHandler;
  mutable std::mutex mMutex;
  mutable std::condition_variable mChanged;
  std::vector<LogLine> mLines;  // guarded by mMutex
};

}  // namespace KX
