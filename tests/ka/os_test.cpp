#include <ka/os.hpp>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>

#include <sys/prctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

long timerSlackNs() {
  return ::prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
}

std::int64_t wallClockUs() {
  ::timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * 1'000'000 + now.tv_nsec / 1000;
}

TEST(Gettimeofday, ReadsTheWallClockInSecondsAndMicroseconds) {
  ka::os::timeval time{-1, -1};

  std::int64_t const beforeUs = wallClockUs();
  int const result = ka::os::gettimeofday(&time);
  std::int64_t const afterUs = wallClockUs();

  EXPECT_EQ(0, result);
  EXPECT_GE(time.tv_usec, 0);
  EXPECT_LT(time.tv_usec, 1'000'000);
  EXPECT_LE(beforeUs, time.tv_sec * 1'000'000 + time.tv_usec);
  EXPECT_GE(afterUs, time.tv_sec * 1'000'000 + time.tv_usec);
}

TEST(Timeval, IsTwoSigned64BitNumbersInitiallyZero) {
  ka::os::timeval const time;

  EXPECT_EQ(16U, sizeof(time));
  EXPECT_EQ((ka::os::timeval{0, 0}), time);
  EXPECT_NE((ka::os::timeval{0, 1}), time);
}

TEST(Fopen, OpensAPathOfAnyBytesAndTruncatesInModeWb) {
  std::string const path = testing::TempDir() + "ka_fopen_\xff\x01 \n" + std::to_string(::getpid());

  for (std::string const text : {"longer text", "short"}) {
    std::FILE* const written = ka::os::fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, written);
    std::fputs(text.c_str(), written);
    std::fclose(written);
  }

  std::FILE* const read = ka::os::fopen(path.c_str(), "rb");
  ASSERT_NE(nullptr, read);
  char buffer[32] = {};
  std::size_t const size = std::fread(buffer, 1, sizeof(buffer), read);
  std::fclose(read);
  std::remove(path.c_str());
  EXPECT_EQ("short", std::string(buffer, size));
}

TEST(Fopen, GivesNullAndErrnoOnFailure) {
  errno = 0;

  std::FILE* const file = ka::os::fopen("/nonexistent/folder/file", "wb");

  EXPECT_EQ(nullptr, file);
  EXPECT_EQ(ENOENT, errno);
}

TEST(FineTimers, HoldForTheirLifetimeAndRestoreTheThreadsOwnSlack) {
  std::thread([] {
    ::prctl(PR_SET_TIMERSLACK, 123456UL, 0, 0, 0);
    ASSERT_EQ(123456, timerSlackNs());

    {
      ka::os::FineTimers const fineTimers;
      EXPECT_EQ(1, timerSlackNs());
    }

    EXPECT_EQ(123456, timerSlackNs());
  }).join();
}

TEST(FineTimers, ConcernTheCallingThreadOnly) {
  long const slackNs = timerSlackNs();

  std::thread([&] {
    ka::os::FineTimers const fineTimers;
    EXPECT_EQ(1, timerSlackNs());
    std::thread([] {}).join();
  }).join();
  ka::os::FineTimers const ours;
  long otherSlackNs = 0;
  std::thread([&] { otherSlackNs = timerSlackNs(); }).join();

  EXPECT_NE(1, slackNs);
  EXPECT_EQ(1, timerSlackNs());
  EXPECT_EQ(1, otherSlackNs);  // A new thread inherits from the thread that makes it.
}

}  // namespace
