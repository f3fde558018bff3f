// A watch from what getData returned to what is printed: two fetches of a watcher that was stopped
// for a while, whose wall clock was set, and one of whose keys became an event.
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kx/watch/samples.hpp>
#include <kx/watch/writers.hpp>

#include "tool.hpp"

namespace KX::tool {
namespace {

KXValue at(std::int64_t ms) {
  std::int64_t const timeMs = 1'700'000'000'000 + ms;
  return KXValue::arrayOf(static_cast<int>(timeMs / 1000), static_cast<int>(timeMs % 1000 * 1000));
}

KXValue entry(std::string const& key, std::vector<std::pair<KXValue, KXValue>> const& taken) {
  std::vector<KXValue> samples;
  for (auto const& [time, value] : taken) samples.push_back(KXValue::arrayOf(time, value));
  return KXValue::arrayOf(key, KXValue(std::move(samples)));
}

std::string printed(KXFormat format) {
  KXWatchedKeys const keys{
      .data = {"arm/current", "arm/name"}, .unknown = {"door"}, .events = {"lamp"}};
  KXSampleReader reader(keys, [](std::string const& key) { return key == "door"; });
  auto const writer = makeWriter(format, keys, [] { return KXTerminal{}; });
  std::string text = writer->begin();

  // Two batches of one microsecond, then the clock is set back by an hour; `door` became an event.
  KXValue const t1 = at(100), t2 = at(1200), t3 = at(1200), t4 = at(1300 - 3'600'000);
  std::vector<KXValue> const first{
      entry("arm/current", {{t1, 0.25}, {t2, 1e-9}, {t3, 3}, {t4, KXValue()}}),
      entry("arm/name", {{t1, "left, upper"}, {t2, "a\"b\n"}, {t3, true}, {t4, ""}}),
      entry("door", {{at(100), KXValue()}, {at(150), "open"}}),
      entry("lamp", {{at(0), false}, {at(1250), true}})};
  // The second key came back after it had been away for one batch.
  KXValue const t5 = at(1400 - 3'600'000), t6 = at(1500 - 3'600'000);
  std::vector<KXValue> const second{
      entry("arm/current", {{t5, -1}, {t6, -2}}),
      entry("arm/name", {{t6, KXValue::arrayOf(1, "two")}}), entry("door", {}),
      entry("lamp", {{at(1450 - 3'600'000), false}, {at(1460 - 3'600'000), true}})};
  text += writer->next(reader.read(KXValue(first), false), false);
  text += writer->next(reader.read(KXValue(second), true), true);
  return text;
}

TEST(Golden, Jsonl) {
  EXPECT_EQ(testing::goldenOf("watch.jsonl"), printed(KXFormat::Jsonl));
}

TEST(Golden, Csv) {
  EXPECT_EQ(testing::goldenOf("watch.csv"), printed(KXFormat::Csv));
}

TEST(Golden, Table) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();

  EXPECT_EQ(testing::goldenOf("watch.table"), printed(KXFormat::Table));
}

}  // namespace
}  // namespace KX::tool
