#include <limits>

#include <gtest/gtest.h>

#include <modules/hostsensors/kxcounters.hpp>

#include "fakeroot.hpp"

namespace KX {
namespace {

using testing::at;

constexpr std::uint64_t kMax32 = std::numeric_limits<std::uint32_t>::max();

TEST(CounterIncrease, IsTheDifferenceOfAGrowingCounter) {
  EXPECT_EQ(0u, counterIncrease(5, 5));
  EXPECT_EQ(7u, counterIncrease(5, 12));
  EXPECT_EQ(10u, counterIncrease(kMax32 - 4, kMax32 + 6));
}

TEST(CounterIncrease, PassesTheEndOf32Bits) {
  EXPECT_EQ(11u, counterIncrease(kMax32 - 4, 6));
  EXPECT_EQ(1u, counterIncrease(kMax32, 0));
}

TEST(CounterIncrease, CountsFromZeroAfterAReset) {
  EXPECT_EQ(6u, counterIncrease(1000, 6));
  EXPECT_EQ(6u, counterIncrease(kMax32 + 1000, 6));
  EXPECT_EQ(kMax32 - 10, counterIncrease(kMax32 - 4, kMax32 - 10));
}

TEST(KeySegment, ReplacesWhatWouldSplitOrHideAKey) {
  EXPECT_EQ("Core_0", keySegment("Core 0"));
  EXPECT_EQ("cciss_c0d0", keySegment("cciss/c0d0"));
  EXPECT_EQ("a_b_c_", keySegment(std::string("a\nb\0c\x7f", 6)));
  EXPECT_EQ("wärme", keySegment("wärme"));
}

TEST(Rates, AreInvalidAtFirstAndPerSecondThen) {
  KXRates rates;

  EXPECT_EQ(KXValue(), rates.update("a", 1000, 1, at(0)));
  EXPECT_EQ(KXValue(300.0), rates.update("a", 1030, 1, at(100)));
  EXPECT_EQ(KXValue(0.0), rates.update("a", 1030, 1, at(200)));
  EXPECT_EQ(KXValue(5.0), rates.update("a", 1040, 1, at(2200)));
}

TEST(Rates, CarryTheirUnit) {
  KXRates rates;

  rates.update("a", 0, 512, at(0));

  EXPECT_EQ(KXValue(1024.0), rates.update("a", 4, 512, at(2000)));
}

TEST(Rates, AreInvalidWhenNoTimeHasPassed) {
  KXRates rates;

  rates.update("a", 0, 1, at(0));

  EXPECT_EQ(KXValue(), rates.update("a", 10, 1, at(0)));
}

TEST(Rates, BeginAgainForADeviceThatWasAway) {
  KXRates rates;
  rates.update("gone", 1000, 1, at(0));
  rates.update("there", 1000, 1, at(0));

  rates.update("there", 1000, 1, at(100));
  rates.forgetOthers(at(100));

  EXPECT_EQ(KXValue(), rates.update("gone", 5, 1, at(200)));
  EXPECT_EQ(KXValue(0.0), rates.update("there", 1000, 1, at(200)));
}

TEST(Usage, NeedsTwoReadingsWithTicksBetweenThem) {
  KXUsage usage;

  EXPECT_EQ(KXValue(), usage.update(50, 100, at(0)));
  EXPECT_EQ(KXValue(), usage.update(50, 100, at(10)));
  EXPECT_EQ(KXValue(25.0), usage.update(55, 120, at(200)));
}

TEST(Usage, LooksBackOneSecond) {
  KXUsage usage;
  // Idle for two seconds, then busy.
  for (int ms = 0; ms <= 2000; ms += 100)
    usage.update(0, static_cast<std::uint64_t>(ms / 10), at(ms));

  EXPECT_EQ(KXValue(10.0), usage.update(10, 210, at(2100)));
  EXPECT_EQ(KXValue(20.0), usage.update(20, 220, at(2200)));
  EXPECT_EQ(KXValue(100.0), usage.update(120, 320, at(3200)));
}

TEST(Usage, StaysBetween0And100WhenTheKernelTakesIdleTimeBack) {
  KXUsage usage;
  usage.update(100, 200, at(0));

  EXPECT_EQ(KXValue(100.0), usage.update(112, 210, at(100)));
  EXPECT_EQ(KXValue(0.0), usage.update(99, 220, at(200)));
}

TEST(Usage, KeepsTheLastValueWhileNoTickPasses) {
  KXUsage usage;
  usage.update(0, 0, at(0));
  usage.update(5, 10, at(100));

  EXPECT_EQ(KXValue(50.0), usage.update(5, 10, at(101)));
}

TEST(Usage, IsSettledWhenItSpansASecond) {
  KXUsage usage;

  usage.update(0, 0, at(0));
  EXPECT_FALSE(usage.isSettled());
  usage.update(5, 90, at(900));
  EXPECT_FALSE(usage.isSettled());
  usage.update(5, 100, at(1000));
  EXPECT_TRUE(usage.isSettled());
}

TEST(Usage, IsNotSettledWithoutAValue) {
  KXUsage usage;

  EXPECT_FALSE(usage.isSettled());
  usage.update(0, 0, at(0));
  usage.update(0, 0, at(1000));
  EXPECT_FALSE(usage.isSettled());
}

TEST(Usage, SettlesAtPeriodsLongerThanASecond) {
  KXUsage usage;

  usage.update(0, 0, at(0));
  usage.update(300, 300, at(3000));

  EXPECT_TRUE(usage.isSettled());
  EXPECT_EQ(KXValue(0.0), usage.update(300, 600, at(6000)));
}

TEST(Hysteresis, ChangesAtTwoThresholds) {
  KXHysteresis state(95, 85);
  struct {
    double value;
    std::optional<bool> change;
  } const steps[] = {{94.9, {}},    {95, true}, {100, {}},  {94, {}},     {85, {}},
                     {84.9, false}, {90, {}},   {94.9, {}}, {95.1, true}, {0, false}};

  for (auto const& step : steps) {
    SCOPED_TRACE(step.value);
    EXPECT_EQ(step.change, state.update(step.value));
  }
}

}  // namespace
}  // namespace KX
