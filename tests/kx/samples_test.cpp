#include <kx/watch/samples.hpp>

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>

namespace KX::tool {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Taken = std::vector<std::pair<std::int64_t, KXValue>>;

// As getData gives them: [key, [[[seconds, microseconds], value], ...]].
KXValue entry(std::string const& key, Taken const& taken) {
  std::vector<KXValue> samples;
  for (auto const& [timeUs, value] : taken) {
    samples.push_back(KXValue::arrayOf(KXValue::arrayOf(static_cast<int>(timeUs / 1'000'000),
                                                        static_cast<int>(timeUs % 1'000'000)),
                                       value));
  }
  return KXValue::arrayOf(key, KXValue(std::move(samples)));
}

KXValue fetch(std::vector<KXValue> entries) {
  return KXValue(std::move(entries));
}

std::vector<std::string> keysOf(std::vector<KXSample> const& samples) {
  std::vector<std::string> keys;
  for (KXSample const& sample : samples) keys.push_back(sample.key + (sample.isEvent ? "!" : ""));
  return keys;
}

TEST(SampleReader, PutsSamplesInOrderOfTime) {
  KXSampleReader reader({.data = {"a", "b"}, .events = {"e"}});
  reader.read(fetch({entry("e", {{1, 0}})}), false);

  KXFetched const fetched =
      reader.read(fetch({entry("a", {{10, 1}, {20, 2}}), entry("b", {{10, 3}, {20, 4}}),
                         entry("e", {{15, 5}})}),
                  false);

  EXPECT_THAT(keysOf(fetched.samples), ElementsAre("a", "b", "e!", "a", "b"));
  EXPECT_EQ(15, fetched.samples[2].timeUs);
  EXPECT_EQ(KXValue(5), fetched.samples[2].value);
}

TEST(SampleReader, MakesOneBatchOfOneTime) {
  KXSampleReader reader({.data = {"a", "b"}});

  KXFetched const fetched =
      reader.read(fetch({entry("a", {{10, 1}, {20, 2}}), entry("b", {{10, 3}, {20, 4}})}), false);

  ASSERT_EQ(2U, fetched.batches.size());
  EXPECT_EQ(10, fetched.batches[0].timeUs);
  EXPECT_THAT(fetched.batches[0].values, ElementsAre(KXValue(1), KXValue(3)));
  EXPECT_EQ(20, fetched.batches[1].timeUs);
  EXPECT_THAT(fetched.batches[1].values, ElementsAre(KXValue(2), KXValue(4)));
}

TEST(SampleReader, HoldsTheNewestBatchUntilItIsWhole) {
  KXSampleReader reader({.data = {"a", "b"}});

  KXFetched const first = reader.read(fetch({entry("a", {{10, 1}}), entry("b", {})}), false);
  KXFetched const second = reader.read(fetch({entry("a", {}), entry("b", {{10, 2}})}), false);

  EXPECT_THAT(first.batches, IsEmpty());
  ASSERT_EQ(1U, second.batches.size());
  EXPECT_THAT(second.batches[0].values, ElementsAre(KXValue(1), KXValue(2)));
}

TEST(SampleReader, GivesABatchThatStaysIncompleteWhenANewerComes) {
  KXSampleReader reader({.data = {"a", "b"}});
  reader.read(fetch({entry("a", {{10, 1}}), entry("b", {})}), false);

  KXFetched const fetched =
      reader.read(fetch({entry("a", {{20, 2}}), entry("b", {{20, 3}})}), false);

  ASSERT_EQ(2U, fetched.batches.size());
  EXPECT_THAT(fetched.batches[0].values, ElementsAre(KXValue(1), KXValue()));
}

TEST(SampleReader, HoldsNothingAtTheEnd) {
  KXSampleReader reader({.data = {"a", "b"}});

  KXFetched const fetched = reader.read(fetch({entry("a", {{10, 1}})}), true);

  EXPECT_EQ(1U, fetched.batches.size());
}

TEST(SampleReader, LeavesOutTheValueFromBeforeTheFirstEvent) {
  KXSampleReader reader({.events = {"e"}});

  KXFetched const first = reader.read(fetch({entry("e", {{10, true}, {20, false}})}), false);
  KXFetched const second = reader.read(fetch({entry("e", {{30, true}})}), false);

  EXPECT_THAT(keysOf(first.samples), ElementsAre("e!"));
  EXPECT_EQ(20, first.samples[0].timeUs);
  EXPECT_THAT(keysOf(second.samples), ElementsAre("e!"));
}

TEST(SampleReader, SamplesUnknownKeysWithTheBatch) {
  KXSampleReader reader({.data = {"b"}, .unknown = {"a"}});

  KXFetched const fetched =
      reader.read(fetch({entry("a", {{10, KXValue()}}), entry("b", {{10, 1}})}), false);

  EXPECT_THAT(keysOf(fetched.samples), ElementsAre("b", "a"));
  ASSERT_EQ(1U, fetched.batches.size());
  EXPECT_THAT(fetched.batches[0].values, ElementsAre(KXValue(1), KXValue()));
}

TEST(SampleReader, TakesWhatAnUnknownKeyBringsBetweenBatchesForEvents) {
  KXSampleReader reader({.data = {"b"}, .unknown = {"a"}});

  KXFetched const fetched =
      reader.read(fetch({entry("b", {{10, 1}}), entry("a", {{12, "raised"}})}), true);

  EXPECT_THAT(keysOf(fetched.samples), ElementsAre("b", "a!"));
  EXPECT_EQ(1U, fetched.batches.size());
}

TEST(SampleReader, TakesSecondsFor32BitsWithoutSign) {
  KXSampleReader reader({.data = {"a"}});
  KXValue const time = KXValue::arrayOf(-1, 5);

  KXFetched const fetched = reader.read(
      fetch({KXValue::arrayOf("a", KXValue::arrayOf(KXValue::arrayOf(time, 1)))}), true);

  EXPECT_EQ(4'294'967'295'000'005, fetched.samples[0].timeUs);
}

TEST(SampleReader, RefusesAnotherForm) {
  KXSampleReader reader({.data = {"a"}});

  EXPECT_THROW(reader.read(fetch({KXValue(5)}), false), KXError);
  EXPECT_THROW(reader.read(fetch({entry("a", {{1, 1}})[1]}), false), KXError);
}

}  // namespace
}  // namespace KX::tool
