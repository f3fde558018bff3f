#include <kx/watch/punctuality.hpp>

#include <initializer_list>

#include <gtest/gtest.h>

namespace KX::tool {
namespace {

constexpr std::int64_t kStartUs = 1'700'000'000'000'000;

// Times in milliseconds after the start.
KXPunctuality timed(int periodMs, std::initializer_list<double> batchesMs) {
  KXPunctuality punctuality(periodMs, kStartUs, KXPacing::Timed);
  for (double const ms : batchesMs) {
    punctuality.addBatch(kStartUs + static_cast<std::int64_t>(ms * 1000));
  }
  return punctuality;
}

KXPunctuality cyclePaced(int periodMs, std::initializer_list<double> batchesMs) {
  KXPunctuality punctuality(periodMs, kStartUs, KXPacing::Cycle);
  for (double const ms : batchesMs) {
    punctuality.addBatch(kStartUs + static_cast<std::int64_t>(ms * 1000));
  }
  return punctuality;
}

KXPunctualityReport reportAt(KXPunctuality const& punctuality, double stopMs,
                             std::int64_t failedReads = 0) {
  return punctuality.report(kStartUs + static_cast<std::int64_t>(stopMs * 1000), failedReads);
}

void expectAddsUp(KXPunctualityReport const& report) {
  EXPECT_EQ(report.asked, report.taken + report.failedReads + report.skipped + report.overdue);
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

TEST(TimedPunctuality, GapBetweenBatchesIsSkipped) {
  auto const report = reportAt(timed(50, {0.1, 150.1, 200.1}), 250);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(3, report.taken);
  EXPECT_EQ(2, report.skipped);
  EXPECT_EQ(100, report.maxUs);
  expectAddsUp(report);
}

TEST(TimedPunctuality, FailedReadsExplainGaps) {
  auto const report = reportAt(timed(50, {0.1, 150.1, 200.1}), 250, 1);

  EXPECT_EQ(1, report.failedReads);
  EXPECT_EQ(1, report.skipped);
  expectAddsUp(report);
}

TEST(TimedPunctuality, FailedReadsThatCostNoBatchAreNoGaps) {
  auto const report = reportAt(timed(50, {0.1, 50.1}), 100, 5);

  EXPECT_EQ(2, report.asked);
  EXPECT_EQ(0, report.failedReads);
  expectAddsUp(report);
}

TEST(TimedPunctuality, PeriodsAfterTheLastBatchAreOverdue) {
  auto const report = reportAt(timed(50, {0.1}), 200);

  EXPECT_EQ(4, report.asked);
  EXPECT_EQ(3, report.overdue);
  expectAddsUp(report);
}

TEST(TimedPunctuality, PeriodThatTheStopCutShortIsNotAsked) {
  auto const report = reportAt(timed(50, {0.1, 50.1}), 149);

  EXPECT_EQ(2, report.asked);
  expectAddsUp(report);
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
  expectAddsUp(report);
}

TEST(TimedPunctuality, PeriodsAreMadeUpForAcrossSeveral) {
  // Each cycle takes 30 ms until the backlog is gone.
  auto const report = reportAt(timed(50, {0, 160, 190, 220, 250, 280, 300}), 350);

  EXPECT_EQ(7, report.asked);
  EXPECT_EQ(7, report.taken);
  EXPECT_EQ(110'000, report.maxUs);
  expectAddsUp(report);
}

TEST(TimedPunctuality, ClockSetBackLosesNothing) {
  auto const report = reportAt(timed(50, {0, 50, 100, 20, 70}), 120);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(0, report.maxUs);
  expectAddsUp(report);
}

TEST(TimedPunctuality, NeverStartedIsOverdue) {
  auto const report = reportAt(timed(50, {}), 100);

  EXPECT_EQ(2, report.asked);
  EXPECT_EQ(2, report.overdue);
  EXPECT_EQ(0, report.latenessCount);
}

TEST(TimedPunctuality, SettlesALongBacklogInTheEnd) {
  KXPunctuality punctuality(10, kStartUs, KXPacing::Timed);
  punctuality.addBatch(kStartUs);
  for (std::int64_t k = 5; k < 20'000; ++k) punctuality.addBatch(kStartUs + k * 10'000 + 7);

  auto const report = punctuality.report(kStartUs + 200'000'000, 0);

  EXPECT_EQ(20'000, report.asked);
  EXPECT_EQ(4, report.skipped);
  EXPECT_EQ(7, report.maxUs);
}

TEST(CyclePunctuality, MeasuresAgainstTheEarliestBatch) {
  // The first comes at once; the second was 0.4 ms later on the grid than the third.
  auto const report = reportAt(cyclePaced(50, {0.1, 43.9, 93.5, 143.6, 193.5}), 200);

  EXPECT_EQ(5, report.asked);
  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(4, report.latenessCount);
  EXPECT_EQ(0, report.p50Us);
  EXPECT_EQ(400, report.maxUs);
}

TEST(CyclePunctuality, OverduePeriodsThatBecameOneAreSkipped) {
  auto const report = reportAt(cyclePaced(50, {0.1, 45, 95, 260, 295}), 300);

  EXPECT_EQ(7, report.asked);
  EXPECT_EQ(5, report.taken);
  EXPECT_EQ(2, report.skipped);
  EXPECT_EQ(15'000, report.maxUs);
  expectAddsUp(report);
}

TEST(CyclePunctuality, OneBatchHasNoLateness) {
  auto const report = reportAt(cyclePaced(50, {0.1}), 40);

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
