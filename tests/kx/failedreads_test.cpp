#include "kx/failedreads.hpp"

#include <gtest/gtest.h>

#include <ka/log.hpp>

namespace KX::tool {
namespace {

void logWarning(char const* category, char const* function, char const* text) {
  ka::log::log(ka::log::Warning, category, "", function, 0, text);
}

TEST(FailedReads, AreWhatTheWatcherLogsOfItsUpdate) {
  KXFailedReads const failed;

  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: no store");
  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: ");

  EXPECT_EQ(2, failed.count());
}

TEST(FailedReads, AreNoOtherWarnings) {
  KXFailedReads const failed;

  logWarning("KXMemoryWatcher", "xUpdateValues", "Error caught getting data: no store");
  logWarning("memoryWatcher", "addListener", "Error caught getting data: no store");
  logWarning("memoryWatcher", "xUpdateValues", "something else");

  EXPECT_EQ(0, failed.count());
}

TEST(FailedReads, AreCountedOnlyWhileItLives) {
  { KXFailedReads const former; }
  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: no store");

  EXPECT_EQ(0, KXFailedReads().count());
}

}  // namespace
}  // namespace KX::tool
