#include <kx/watch/punctuality.hpp>

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace KX::tool {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kStartUs = 1'000'000'000;

std::int64_t atMs(double ms) {
  return kStartUs + static_cast<std::int64_t>(ms * 1000);
}

// Times in milliseconds after the start.
KXTimedPunctuality timed(int periodMs, std::initializer_list<double> batchesMs,
                         std::int64_t limit = KXPunctuality::kNoLimit) {
  KXTimedPunctuality punctuality(periodMs, kStartUs, limit);
  for (double const ms : batchesMs) punctuality.addBatch(atMs(ms));
  return punctuality;
}

KXPunctualityReport reportAt(KXPunctuality& punctuality, double stopMs) {
  punctuality.finish(atMs(stopMs));
  KXPunctualityReport const report = punctuality.report();
  EXPECT_EQ(report.asked, report.taken + report.failedReads + report.cyclesSkipped +
                              report.skipped + report.overdue);
  return report;
}

KXPunctualityReport reportAt(KXPunctuality&& punctuality, double stopMs) {
  return reportAt(punctuality, stopMs);
}

TEST(PeriodsAsked, AreThoseDueBeforeTheEnd) {
  EXPECT_EQ(30, periodsAsked(3s, 100));
  EXPECT_EQ(1, periodsAsked(100ms, 100));
  EXPECT_EQ(2, periodsAsked(101ms, 100));
  EXPECT_EQ(3, periodsAsked(250ms, 100));
  EXPECT_EQ(1, periodsAsked(1ms, 5000));
  EXPECT_EQ(3'600'000, periodsAsked(10h, 10));
}

TEST(TimedPunctuality, CountsEveryPeriodTaken) {
  auto const report = reportAt(timed(50, {0.1, 50.2, 100.1, 150.3}), 200);

  EXPECT_EQ(4, report.asked);
  EXPECT_EQ(4, report.taken);
  EXPECT_EQ(4, report.latenessCount);
  EXPECT_EQ(100, report.p50Us);
  EXPECT_EQ(300, report.p99Us);
  EXPECT_EQ(300, report.maxUs);
}

TEST(TimedPunctuality, AsksForAsManyPeriodsAsTheLimitWhateverTheStop) {
  for (double const stopMs : {200.0, 199.2, 260.0}) {
    SCOPED_TRACE(stopMs);
    auto const report = reportAt(timed(50, {0.1, 50.2, 100.1, 150.3}, 4), stopMs);
    EXPECT_EQ(4, report.asked);
    EXPECT_EQ(4, report.taken);
  }
}

TEST(TimedPunctuality, LeavesOutWhatTheStopCameTooLateFor) {
  auto punctuality = timed(50, {0.1, 50.2, 100.1, 150.3, 200.1, 250.1}, 4);

  punctuality.finish(atMs(251));
  EXPECT_EQ(2, punctuality.takeBeyondLimit());
  EXPECT_EQ(4, punctuality.report().asked);
  EXPECT_EQ(4, punctuality.report().taken);
  EXPECT_EQ(4, punctuality.report().latenessCount);
}

// One skipped, one too many: the number of batches is right, and a period is missing all the same.
TEST(TimedPunctuality, DoesNotTakeABatchTooManyForOneThatIsMissing) {
  auto punctuality = timed(50, {0.1, 100.1, 150.3, 200.1}, 4);

  punctuality.finish(atMs(200.3));
  EXPECT_EQ(1, punctuality.takeBeyondLimit());
  EXPECT_EQ(3, punctuality.report().taken);
  EXPECT_EQ(1, punctuality.report().skipped);
}

TEST(TimedPunctuality, GapBetweenBatchesIsSkipped) {
  auto const report = reportAt(timed(50, {0.1, 150.1, 200.1}), 250);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(3, report.taken);
  EXPECT_EQ(2, report.skipped);
  EXPECT_EQ(100, report.maxUs);
}

TEST(TimedPunctuality, FailedReadsExplainGaps) {
  auto punctuality = timed(50, {0.1, 150.1, 200.1});
  punctuality.addFailedReads(1);
  auto const report = reportAt(punctuality, 250);

  EXPECT_EQ(1, report.failedReads);
  EXPECT_EQ(1, report.skipped);
}

TEST(TimedPunctuality, FailedReadsThatCostNoBatchAreNoGaps) {
  auto punctuality = timed(50, {0.1, 50.1});
  punctuality.addFailedReads(5);
  auto const report = reportAt(punctuality, 100);

  EXPECT_EQ(2, report.asked);
  EXPECT_EQ(0, report.failedReads);
}

TEST(TimedPunctuality, PeriodsAfterTheLastBatchAreOverdue) {
  auto const report = reportAt(timed(50, {0.1}), 200);

  EXPECT_EQ(4, report.asked);
  EXPECT_EQ(3, report.overdue);
}

TEST(TimedPunctuality, PeriodThatTheStopCutShortIsNotAsked) {
  EXPECT_EQ(2, reportAt(timed(50, {0.1, 50.1}), 149).asked);
}

TEST(TimedPunctuality, PeriodTakenBeforeItEndedIsAsked) {
  auto const report = reportAt(timed(50, {0.1, 50.1}), 51);

  EXPECT_EQ(2, report.asked);
  EXPECT_EQ(2, report.taken);
}

TEST(TimedPunctuality, PeriodsMadeUpForAreLateAndNotMissed) {
  auto const report = reportAt(timed(50, {0, 160, 160.1, 160.2, 200, 250}), 300);

  EXPECT_EQ(6, report.asked);
  EXPECT_EQ(6, report.taken);
  EXPECT_EQ(110'000, report.maxUs);
  EXPECT_EQ(0, report.p50Us);
}

TEST(TimedPunctuality, PeriodsAreMadeUpForAcrossSeveral) {
  // Each cycle takes 30 ms until the backlog is gone.
  auto const report = reportAt(timed(50, {0, 160, 190, 220, 250, 280, 300}), 350);

  EXPECT_EQ(7, report.asked);
  EXPECT_EQ(7, report.taken);
  EXPECT_EQ(110'000, report.maxUs);
}

// A process that was stopped for five seconds takes them all at once, some in one microsecond.
TEST(TimedPunctuality, StoppedProcessMissesNothing) {
  KXTimedPunctuality punctuality(100, kStartUs, 90);
  for (int k = 0; k < 10; ++k) punctuality.addBatch(atMs(k * 100));
  for (int k = 10; k <= 60; ++k) punctuality.addBatch(atMs(6005 + k / 10 * 0.001));
  for (int k = 61; k < 90; ++k) punctuality.addBatch(atMs(k * 100));
  auto const report = reportAt(punctuality, 9000);

  EXPECT_EQ(90, report.asked);
  EXPECT_EQ(90, report.taken);
  EXPECT_EQ(5'005'001, report.maxUs);
}

// The end of --for fell into the time for which the process was stopped.
TEST(TimedPunctuality, StopWhileItCatchesUpLeavesTheRestOverdue) {
  auto const some = reportAt(timed(100, {0, 100, 205, 805, 805.1, 805.2}, 8), 806);
  auto const one = reportAt(timed(100, {0, 100, 205, 850}, 8), 851);
  auto all = timed(100, {0, 100, 205, 805, 805, 805.1, 805.1, 805.2, 805.2, 805.2}, 8);

  EXPECT_EQ(6, some.taken);
  EXPECT_EQ(2, some.overdue);
  EXPECT_EQ(505'000, some.maxUs);
  EXPECT_EQ(4, one.taken);
  EXPECT_EQ(4, one.overdue);
  all.finish(atMs(806));
  EXPECT_EQ(2, all.takeBeyondLimit());
  EXPECT_EQ(8, all.report().taken);
}

// Steps of the wall clock that are too small for the watcher to make up for.
TEST(TimedPunctuality, ScheduleThatMovedIsFollowed) {
  auto const forward = reportAt(timed(50, {0.1, 50.1, 97.1, 147.2, 202.1}), 247.05);
  auto const back = reportAt(timed(50, {0.1, 50.1, 103.1, 153.1, 203.1}), 250);

  EXPECT_EQ(5, forward.asked);
  EXPECT_EQ(5, forward.taken);
  EXPECT_EQ(5000, forward.maxUs);
  EXPECT_EQ(5, back.asked);
  EXPECT_EQ(5, back.taken);
  EXPECT_EQ(3100, back.maxUs);
}

TEST(TimedPunctuality, NeverStartedIsOverdue) {
  auto const report = reportAt(timed(50, {}), 100);

  EXPECT_EQ(2, report.asked);
  EXPECT_EQ(2, report.overdue);
  EXPECT_EQ(0, report.latenessCount);
}

TEST(TimedPunctuality, SettlesALongBacklogInTheEnd) {
  KXTimedPunctuality punctuality(10, kStartUs);
  punctuality.addBatch(kStartUs);
  for (std::int64_t k = 5; k < 20'000; ++k) punctuality.addBatch(kStartUs + k * 10'000 + 7);
  auto const report = reportAt(punctuality, 200'000);

  EXPECT_EQ(20'000, report.asked);
  EXPECT_EQ(4, report.skipped);
  EXPECT_EQ(7, report.maxUs);
}

// The hardware cycle, due every 10 ms from 3 ms after the start on, but for those left out. The
// cycle that was due 7 ms before the start is the last that the watcher does not count.
class CyclePunctuality : public ::testing::Test {
 protected:
  KXCyclePunctuality& make(int periodMs, std::int64_t limit = KXPunctuality::kNoLimit) {
    mPunctuality.emplace(periodMs, kStartUs, limit);
    mPunctuality->setFirstCycle(1, 1);
    return *mPunctuality;
  }
  void cycles(double fromMs, double untilMs) {
    std::vector<std::int64_t> deadlines;
    for (double ms = fromMs; ms <= untilMs; ms += 10) deadlines.push_back(atMs(ms));
    mPunctuality->addCycles(deadlines);
  }
  void batches(std::initializer_list<double> batchesMs) {
    for (double const ms : batchesMs) mPunctuality->addBatch(atMs(ms));
  }

  std::optional<KXCyclePunctuality> mPunctuality;
};

TEST_F(CyclePunctuality, MeasuresAgainstTheCyclesDeadlines) {
  auto& punctuality = make(50);
  cycles(-7, 200);
  batches({0.1, 43.1, 93.2, 143.5, 193.1});
  auto const report = reportAt(punctuality, 200);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(4, report.latenessCount);
  EXPECT_EQ(100, report.p50Us);
  EXPECT_EQ(500, report.maxUs);
}

TEST_F(CyclePunctuality, MeasuresEveryBatchOfAFullRate) {
  auto& punctuality = make(10);
  cycles(-7, 200);
  batches({0.1, 3.1, 13.1, 23.1, 33.2});
  auto const report = reportAt(punctuality, 43);

  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(0, report.skipped);
  EXPECT_EQ(100, report.p50Us);
  EXPECT_EQ(200, report.maxUs);
}

TEST_F(CyclePunctuality, CyclesServedByOneBatchAreSkippedAndItsLatenessExceedsAPeriod) {
  auto& punctuality = make(10);
  cycles(-7, 60);
  batches({0.1, 3.1, 48.1, 53.1});
  auto const report = reportAt(punctuality, 60);

  // 13, 23, 33 and 43 ms are one batch.
  EXPECT_EQ(7, report.asked);
  EXPECT_EQ(4, report.taken);
  EXPECT_EQ(3, report.skipped);
  EXPECT_EQ(0, report.cyclesSkipped);
  EXPECT_EQ(35'100, report.maxUs);
}

TEST_F(CyclePunctuality, CyclesThatDidNotComeAreToldApart) {
  auto& punctuality = make(10);
  // Stopped from 20 ms on: the cycle due at 23 ms comes a second late, the next ones on the grid.
  cycles(-7, 23);
  cycles(1033, 1060);
  batches({0.1, 3.1, 13.1, 1030.2, 1033.1, 1043.1, 1053.1});
  auto const report = reportAt(punctuality, 1062);

  EXPECT_EQ(107, report.asked);
  EXPECT_EQ(7, report.taken);
  EXPECT_EQ(100, report.cyclesSkipped);
  EXPECT_EQ(0, report.skipped);
  EXPECT_EQ(1'007'200, report.maxUs);
}

TEST_F(CyclePunctuality, CyclesThatDidNotComeMakeAPeriodLongerBeforeTheyCostOne) {
  auto& punctuality = make(50);
  cycles(-7, 63);
  cycles(93, 200);  // two are missing
  batches({0.1, 43.1, 113.1, 163.1});
  auto const report = reportAt(punctuality, 190);

  EXPECT_EQ(4, report.asked);
  EXPECT_EQ(4, report.taken);
  EXPECT_EQ(100, report.maxUs);
}

TEST_F(CyclePunctuality, FailedReadsServeTheirCycles) {
  auto& punctuality = make(10);
  cycles(-7, 60);
  punctuality.addFailedReads(2);
  batches({0.1, 3.1, 33.1, 43.1});
  auto const report = reportAt(punctuality, 50);

  EXPECT_EQ(2, report.failedReads);
  EXPECT_EQ(0, report.skipped);
  EXPECT_EQ(100, report.maxUs);
}

TEST_F(CyclePunctuality, BatchThatSawItsCycleComeIsNotALateOneOfTheCycleBefore) {
  auto& punctuality = make(10);
  cycles(-7, 60);
  // The batch for 13 ms looks at the clock at 23.05 ms, and is followed by the one for 23 ms.
  batches({0.1, 3.1, 23.05, 23.1, 33.1});
  auto const report = reportAt(punctuality, 40);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(10'050, report.maxUs);
}

TEST_F(CyclePunctuality, StartAmidstACycleIsSettledByTheSecondBatch) {
  for (double const second : {43.1, 53.1}) {
    SCOPED_TRACE(second);
    auto& punctuality = make(50);
    punctuality.setFirstCycle(1, 2);
    cycles(-7, 200);
    batches({0.1, second, second + 50, second + 100});
    auto const report = reportAt(punctuality, second + 110);
    EXPECT_EQ(4, report.taken);
    EXPECT_EQ(4, report.asked);
    EXPECT_EQ(100, report.maxUs);
  }
}

TEST_F(CyclePunctuality, LeavesOutWhatIsBeyondTheLimit) {
  auto& punctuality = make(50, 4);
  cycles(-7, 200);
  batches({0.1, 43.1, 93.1, 143.1, 193.1});

  punctuality.finish(atMs(200));
  EXPECT_EQ(1, punctuality.takeBeyondLimit());
  EXPECT_EQ(4, punctuality.report().asked);
  EXPECT_EQ(4, punctuality.report().taken);
}

// The last fetch but one may come so late that it brings the first batch beyond.
TEST_F(CyclePunctuality, TellsOfWhatIsBeyondTheLimitAsSoonAsItComes) {
  auto& punctuality = make(50, 3);
  cycles(-7, 200);
  batches({0.1, 43.1, 93.1});
  EXPECT_EQ(0, punctuality.takeBeyondLimit());

  batches({143.1});

  EXPECT_EQ(1, punctuality.takeBeyondLimit());
  punctuality.finish(atMs(150));
  EXPECT_EQ(0, punctuality.takeBeyondLimit());
}

TEST_F(CyclePunctuality, CyclesComeInPartsAsTheyAreFetched) {
  auto& punctuality = make(20);
  cycles(-7, 50);
  batches({0.1, 13.1, 33.1});
  cycles(53, 100);
  batches({53.1, 73.1, 93.1});
  auto const report = reportAt(punctuality, 100);

  EXPECT_EQ(6, report.asked);
  EXPECT_EQ(6, report.taken);
  EXPECT_EQ(100, report.maxUs);
}

TEST_F(CyclePunctuality, OneBatchHasNoLateness) {
  auto& punctuality = make(50);
  cycles(-7, 40);
  batches({0.1});
  auto const report = reportAt(punctuality, 40);

  EXPECT_EQ(1, report.asked);
  EXPECT_EQ(0, report.latenessCount);
}

TEST(FetchTime, LiesHalfWayBetweenPeriods) {
  for (int const periodMs : {10, 20, 30, 50, 70, 90, 100, 110, 500, 1000, 1010, 1500, 5000}) {
    SCOPED_TRACE(periodMs);
    std::int64_t const periodUs = std::int64_t{periodMs} * 1000;
    std::int64_t nowUs = kStartUs;
    for (int i = 0; i < 50; ++i) {
      std::int64_t const fetchUs = nextFetchUs(nowUs, kStartUs, periodMs);
      std::int64_t const intoPeriodUs = (fetchUs - kStartUs) % periodUs;
      EXPECT_GT(fetchUs, nowUs);
      EXPECT_LE(fetchUs - nowUs, 1'000'000);
      EXPECT_GE(intoPeriodUs, std::min<std::int64_t>(periodUs / 2, 250'000));
      EXPECT_LE(intoPeriodUs, periodUs - std::min<std::int64_t>(periodUs / 2, 250'000));
      if (i > 0) {
        EXPECT_GE(fetchUs - nowUs, 100'000);
      }
      nowUs = fetchUs;
    }
  }
}

TEST(CorrectedPeriod, IsAMultipleOfTenFromTenOn) {
  EXPECT_EQ(10, correctedPeriodMs(10));
  EXPECT_EQ(30, correctedPeriodMs(30));
  EXPECT_EQ(10, correctedPeriodMs(15));
  EXPECT_EQ(20, correctedPeriodMs(25));
  EXPECT_EQ(10, correctedPeriodMs(0));
  EXPECT_EQ(10, correctedPeriodMs(-20));
}

}  // namespace
}  // namespace KX::tool
