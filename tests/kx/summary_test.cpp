#include <kx/watch/summary.hpp>

#include <gtest/gtest.h>

namespace KX::tool {
namespace {

KXPunctualityReport const kWhole{
    .asked = 20, .taken = 20, .latenessCount = 20, .p50Us = 96, .p99Us = 850, .maxUs = 1250};
KXWatchedKeys const kKeys{.data = {"a", "b"}, .events = {"e"}};

TEST(Summary, TellsPeriodsSamplesEventsAndLateness) {
  EXPECT_EQ(
      "asked 20 periods of 100 ms, took 20, missed 0; 40 samples of 2 data keys, 1 event of "
      "1 event key; lateness p50 0.096 ms, p99 0.850 ms, max 1.250 ms",
      summaryText(kWhole, 100, kKeys, {.samples = 40, .events = 1}));
}

TEST(Summary, TellsWhyPeriodsWereMissed) {
  KXPunctualityReport const report{
      .asked = 10, .taken = 4, .failedReads = 3, .skipped = 2, .overdue = 1, .latenessCount = 0};
  KXWatchedKeys const keys{.data = {"a"}};

  EXPECT_EQ(
      "asked 10 periods of 50 ms, took 4, missed 6 (3 read failed, 2 skipped, 1 overdue at the "
      "stop); 4 samples of 1 data key; lateness unknown",
      summaryText(report, 50, keys, {.samples = 4, .events = 0}));
}

TEST(Summary, TellsWhatTheHardwareCycleDidNotPace) {
  KXPunctualityReport const report{.asked = 2, .taken = 1, .cyclesSkipped = 1, .latenessCount = 0};

  EXPECT_EQ(
      "asked 2 periods of 10 ms, took 1, missed 1 (1 hardware cycle late); 2 samples of "
      "2 data keys, 0 events of 1 event key; lateness unknown",
      summaryText(report, 10, kKeys, {.samples = 2, .events = 0}));
}

TEST(Summary, SaysThatEventsAloneShowNoPeriods) {
  EXPECT_EQ("no data key was watched, so no period was seen; 3 events of 1 event key",
            summaryText({}, 100, {.events = {"e"}}, {.samples = 0, .events = 3}));
  EXPECT_EQ(
      "no data key was watched, so no period was seen; 4 samples of 1 data key, 3 events of 1 "
      "event key",
      summaryText({}, 100, {.unknown = {"u"}, .events = {"e"}}, {.samples = 4, .events = 3}));
}

TEST(Summary, CountsRaisesOfKeysThatBecameEvents) {
  EXPECT_EQ(
      "asked 0 periods of 100 ms, took 0, missed 0; 4 samples of 2 data keys, 3 events; "
      "lateness unknown",
      summaryText({}, 100, {.data = {"a"}, .unknown = {"u"}}, {.samples = 4, .events = 3}));
}

}  // namespace
}  // namespace KX::tool
