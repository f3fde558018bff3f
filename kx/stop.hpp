// The wish to end: SIGINT, SIGTERM and SIGHUP as something that can be asked and waited for.
#pragma once

#include <chrono>

namespace KX::tool {

/// Takes SIGINT, SIGTERM and SIGHUP for the whole process, and keeps SIGPIPE from ending it. A
/// SIGHUP that is ignored, as nohup has it, stays ignored.
/// Ownership: made by main() before any other thread is, since threads inherit what is blocked;
/// lives as long as the process works. A signal stays pending, so every later question sees it.
/// Threads: any. std::system_error if the system gives no descriptor.
class KXStop {
 public:
  KXStop();
  ~KXStop();
  KXStop(KXStop const&) = delete;
  KXStop& operator=(KXStop const&) = delete;

  bool isRequested() const;
  /// Waits until the time has come or the end is wished for; true in the latter case.
  bool waitUntil(std::chrono::steady_clock::time_point time) const;
  /// Readable from the wish on.
  int descriptor() const noexcept { return mDescriptor; }

 private:
  int const mDescriptor;
};

}  // namespace KX::tool
