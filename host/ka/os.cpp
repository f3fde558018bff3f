#include <ka/os.hpp>

#include <cstdio>
#include <ctime>

#include <malloc.h>
#include <sys/prctl.h>

namespace ka::os {

int gettimeofday(timeval* time) {
  ::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

std::FILE* fopen(char const* path, char const* mode) {
  return std::fopen(path, mode);
}

void keepFreedMemory() noexcept {
  // The largest that the allocator takes.
  ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
}

void releaseFreeMemory() noexcept {
  ::malloc_trim(0);
}

FineTimers::FineTimers() {
  int const formerSlackNs = ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
  // Setting 0 means "the thread's default", which is also right where none could be read.
  mFormerSlackNs = formerSlackNs > 0 ? static_cast<unsigned long>(formerSlackNs) : 0UL;
  ::prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
}

FineTimers::~FineTimers() {
  ::prctl(PR_SET_TIMERSLACK, mFormerSlackNs, 0, 0, 0);
}

}  // namespace ka::os
