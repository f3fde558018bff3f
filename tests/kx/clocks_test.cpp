#include <kx/watch/clocks.hpp>

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace KX::tool {
namespace {

using ::testing::ElementsAre;

constexpr std::int64_t kWallUs = 1'700'000'000'000'000;

// Milliseconds after the start, on either clock; the wall clock stands `stepMs` ahead.
KXClocks clocks(std::int64_t monotonicMs, std::int64_t stepMs) {
  return {kWallUs + (monotonicMs + stepMs) * 1000, monotonicMs * 1000};
}

std::vector<std::int64_t> fetched(KXTimeline& timeline, std::vector<std::int64_t> wallMs,
                                  KXClocks now) {
  for (std::int64_t& time : wallMs) time = kWallUs + time * 1000;
  auto times = timeline.toMonotonic(std::move(wallMs), now);
  for (std::int64_t& time : times) time /= 1000;
  return times;
}

TEST(Timeline, GivesTimesOnTheMonotonicClock) {
  KXTimeline timeline(100, clocks(0, 0));

  EXPECT_THAT(fetched(timeline, {0, 100, 200}, clocks(250, 0)), ElementsAre(0, 100, 200));
  EXPECT_THAT(fetched(timeline, {300, 400}, clocks(450, 0)), ElementsAre(300, 400));
}

struct Step {
  char const* name;
  std::vector<std::int64_t> wallMs;
  std::int64_t stepMs;
};

// The batches are taken at 300, 400, 500 and 600 ms after the start.
TEST(Timeline, FindsWhereTheWallClockWasSet) {
  std::vector<Step> const steps{
      {"an hour forward", {300, 400, 3'600'500, 3'600'600}, 3'600'000},
      {"an hour back", {300, 400, -3'599'500, -3'599'400}, -3'600'000},
      {"30 ms forward", {300, 430, 530, 630}, 30},
      {"30 ms back", {300, 400, 500, 570}, -30},
      {"a period forward", {300, 400, 600, 700}, 100},
      {"a period back", {300, 300, 400, 500}, -100},
      {"before the first", {1300, 1400, 1500, 1600}, 1000},
      {"after the last", {300, 400, 500, 600}, 1000},
  };
  for (Step const& step : steps) {
    SCOPED_TRACE(step.name);
    KXTimeline timeline(100, clocks(0, 0));
    fetched(timeline, {0, 100, 200}, clocks(250, 0));

    EXPECT_THAT(fetched(timeline, step.wallMs, clocks(650, step.stepMs)),
                ElementsAre(300, 400, 500, 600));
    EXPECT_THAT(fetched(timeline, {700 + step.stepMs}, clocks(750, step.stepMs)), ElementsAre(700));
  }
}

// The watcher had looked at the clock, and was still reading when the fetch before came.
TEST(Timeline, KnowsABatchThatWasStampedBeforeTheClockWasSetAndCameLate) {
  for (std::int64_t const stepMs : {3'600'000, -3'600'000}) {
    SCOPED_TRACE(stepMs);
    KXTimeline timeline(100, clocks(0, 0));
    fetched(timeline, {0, 100}, clocks(201, stepMs));

    EXPECT_THAT(fetched(timeline, {200, 300 + stepMs, 400 + stepMs}, clocks(450, stepMs)),
                ElementsAre(200, 300, 400));
  }
}

TEST(Timeline, FindsAStepBeforeAnythingWasTaken) {
  KXTimeline timeline(100, clocks(0, 0));

  EXPECT_THAT(fetched(timeline, {5000, 5100}, clocks(150, 5000)), ElementsAre(0, 100));
}

TEST(Timeline, NeverFallsNorLeavesTheFetch) {
  KXTimeline timeline(100, clocks(0, 0));

  // There and back between two fetches: nobody can tell.
  EXPECT_THAT(fetched(timeline, {0, 9100, 200}, clocks(250, 0)), ElementsAre(0, 250, 250));
}

TEST(Clocks, AreReadTogether) {
  KXClocks const first = readClocks();
  KXClocks const second = readClocks();

  EXPECT_GE(second.monotonicUs, first.monotonicUs);
  EXPECT_GT(first.wallUs, kWallUs);
}

}  // namespace
}  // namespace KX::tool
