// The few calls to the operating system that modules share. All are thread-safe.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include <kxerror/kxapi.hpp>

namespace ka::os {

/// Wall-clock time since 1970 (UTC), seconds and microseconds.
struct timeval {
  std::int64_t tv_sec = 0;
  std::int64_t tv_usec = 0;

  bool operator==(timeval const&) const = default;
};

/// Reads the wall clock. Returns 0.
KX_API int gettimeofday(timeval* time);

/// std::fopen for a path of any bytes; null and errno on failure.
KX_API std::FILE* fopen(char const* path, char const* mode);

/// Has the process keep memory that is freed for its next use, large blocks too, until
/// releaseFreeMemory(). By itself the allocator gives every block of some hundred kilobytes back at
/// once, and a process that buffers and hands over in turns gets each page anew each time: that
/// costs more than all else it does.
KX_API void keepFreedMemory() noexcept;

/// Gives memory that was freed back to the system. The allocator keeps what it cannot cut off the
/// end of its heaps, so without this a process stays as large as it ever was. Takes milliseconds
/// where there is much to give.
KX_API void releaseFreeMemory() noexcept;

/// Makes the calling thread's timed waits end as exactly as the kernel can, for its lifetime, and
/// restores the thread's former timer slack after that. The default slack of 50 us is the larger
/// part of the lateness of a paced thread.
class KX_API FineTimers {
 public:
  FineTimers();
  ~FineTimers();
  FineTimers(FineTimers const&) = delete;
  FineTimers& operator=(FineTimers const&) = delete;

 private:
  unsigned long mFormerSlackNs;
};

}  // namespace ka::os
