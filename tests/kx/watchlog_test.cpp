#include <kx/watch/watchlog.hpp>

#include <gtest/gtest.h>

#include <ka/log.hpp>

namespace KX::tool {
namespace {

void logWarning(char const* category, char const* function, char const* text) {
  ka::log::log(ka::log::Warning, category, "", function, 0, text);
}

TEST(FailedReads, AreWhatTheWatcherLogsOfItsUpdate) {
  KXWatchLog const log;

  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: no store");
  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: ");

  EXPECT_EQ(2, log.failedReads());
}

TEST(FailedReads, AreNoOtherWarnings) {
  KXWatchLog const log;

  logWarning("KXMemoryWatcher", "xUpdateValues", "Error caught getting data: no store");
  logWarning("memoryWatcher", "addListener", "Error caught getting data: no store");
  logWarning("memoryWatcher", "xUpdateValues", "something else");

  EXPECT_EQ(0, log.failedReads());
}

TEST(FailedReads, AreCountedOnlyWhileItLives) {
  { KXWatchLog const former; }
  logWarning("memoryWatcher", "xUpdateValues", "Error caught getting data: no store");

  EXPECT_EQ(0, KXWatchLog().failedReads());
}

TEST(Warnings, AreNoticedOnce) {
  KXWatchLog log;
  EXPECT_FALSE(log.takeHasWarned());

  logWarning("any", "function", "text");

  EXPECT_TRUE(log.takeHasWarned());
  EXPECT_FALSE(log.takeHasWarned());
}

TEST(Warnings, AreNotWhatIsOnlyOfInterest) {
  KXWatchLog log;

  ka::log::log(ka::log::Info, "any", "", "function", 0, "text");

  EXPECT_FALSE(log.takeHasWarned());
}

}  // namespace
}  // namespace KX::tool
