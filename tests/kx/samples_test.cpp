#include <kx/watch/samples.hpp>

#include <algorithm>
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

/// The [seconds, microseconds] of one batch: its samples share the block.
KXValue at(std::int64_t timeUs) {
  return KXValue::arrayOf(static_cast<int>(timeUs / 1'000'000),
                          static_cast<int>(timeUs % 1'000'000));
}

using Taken = std::vector<std::pair<KXValue, KXValue>>;

// As getData gives them: [key, [[time, value], ...]].
KXValue entry(std::string const& key, Taken const& taken) {
  std::vector<KXValue> samples;
  for (auto const& [time, value] : taken) samples.push_back(KXValue::arrayOf(time, value));
  return KXValue::arrayOf(key, KXValue(std::move(samples)));
}

KXValue fetch(std::vector<KXValue> entries) {
  return KXValue(std::move(entries));
}

KXSampleReader readerOf(KXWatchedKeys const& keys, std::vector<std::string> becomeEvents = {}) {
  return KXSampleReader(keys, [becomeEvents](std::string const& key) {
    return std::ranges::find(becomeEvents, key) != becomeEvents.end();
  });
}

// `TIME:VALUE,VALUE`, a dash for what was not sampled.
std::vector<std::string> batchesOf(KXFetched const& fetched) {
  std::vector<std::string> texts;
  for (KXBatch const& batch : fetched.batches) {
    std::string text = std::to_string(batch.timeUs);
    char separator = ':';
    for (auto const& value : batch.values) {
      text += std::exchange(separator, ',') + (value ? value->toString(1) : "-");
    }
    texts.push_back(text);
  }
  return texts;
}

// `TIME:KEY=VALUE`.
std::vector<std::string> eventsOf(KXFetched const& fetched) {
  std::vector<std::string> texts;
  for (KXEvent const& event : fetched.events) {
    texts.push_back(std::to_string(event.timeUs) + ":" + event.key + "=" + event.value.toString(1));
  }
  return texts;
}

std::vector<std::string> inOrder(KXFetched const& fetched, KXWatchedKeys const& keys) {
  std::vector<std::string> texts;
  std::vector<std::string> const columns = keys.columns();
  for (KXSample const& sample : samplesInOrder(fetched, columns)) {
    texts.push_back(std::to_string(sample.timeUs) + ":" + std::string(sample.key) + "=" +
                    sample.value.toString(1));
  }
  return texts;
}

TEST(Batches, AreTheSamplesThatShareATime) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(20);

  auto const fetched =
      reader.read(fetch({entry("a", {{t1, 1}, {t2, 2}}), entry("b", {{t1, 3}, {t2, 4}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,3", "20:2,4"));
}

// A watcher that catches up takes several batches within a microsecond.
TEST(Batches, OfOneMicrosecondStaySeveral) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(10), t3 = at(10);

  auto const fetched = reader.read(
      fetch({entry("a", {{t1, 1}, {t2, 2}, {t3, 3}}), entry("b", {{t1, 4}, {t2, 5}, {t3, 6}})}),
      false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,4", "10:2,5", "10:3,6"));
}

TEST(Batches, OfOneMicrosecondAreToldApartByTheirBlocks) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(10);

  auto const fetched =
      reader.read(fetch({entry("a", {{t1, 1}}), entry("b", {{t1, 2}, {t2, 3}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,2", "10:-,3"));
}

TEST(Batches, StayInTheirOrderWhenTheWallClockIsSetBack) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(1'000'000), t2 = at(1'100'000), t3 = at(200'000);

  auto const fetched = reader.read(
      fetch({entry("a", {{t1, 1}, {t2, 2}, {t3, 3}}), entry("b", {{t1, 4}, {t2, 5}, {t3, 6}})}),
      false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("1000000:1,4", "1100000:2,5", "200000:3,6"));
}

TEST(Batches, AreLinedUpAtTheEndForAKeyThatCameLater) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(10), t3 = at(20);

  auto const fetched = reader.read(
      fetch({entry("a", {{t2, 1}, {t3, 2}}), entry("b", {{t1, 3}, {t2, 4}, {t3, 5}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:-,3", "10:1,4", "20:2,5"));
}

TEST(Batches, LackAKeyThatWasAwayForAWhile) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(20), t3 = at(30);

  auto const fetched = reader.read(
      fetch({entry("a", {{t1, 1}, {t3, 2}}), entry("b", {{t1, 3}, {t2, 4}, {t3, 5}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,3", "20:-,4", "30:2,5"));
}

TEST(Batches, AreThereWithoutAKeyThatTheWatcherNoLongerHas) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(20);

  auto const first = reader.read(fetch({entry("b", {{t1, 1}, {t2, 2}})}), true);

  EXPECT_THAT(batchesOf(first), ElementsAre("10:-,1", "20:-,2"));
}

TEST(Batches, WaitForTheirRestIfTheyAreTheNewest) {
  auto reader = readerOf({.data = {"a", "b"}});
  KXValue const t1 = at(10), t2 = at(20);

  auto const first =
      reader.read(fetch({entry("a", {{t1, 1}, {t2, 2}}), entry("b", {{t1, 3}})}), false);
  // Another fetch, another block.
  auto const second = reader.read(fetch({entry("a", {}), entry("b", {{at(20), 4}})}), false);

  EXPECT_THAT(batchesOf(first), ElementsAre("10:1,3"));
  EXPECT_THAT(batchesOf(second), ElementsAre("20:2,4"));
}

TEST(Batches, ThatStayIncompleteAreGivenWithTheNextOne) {
  auto reader = readerOf({.data = {"a", "b"}});
  reader.read(fetch({entry("a", {{at(10), 1}}), entry("b", {})}), false);
  KXValue const t2 = at(20);

  auto const fetched = reader.read(fetch({entry("a", {{t2, 2}}), entry("b", {{t2, 3}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,-", "20:2,3"));
}

TEST(Batches, OfOneTimeAreNotJoinedIfBothHaveAKey) {
  auto reader = readerOf({.data = {"a", "b"}});
  reader.read(fetch({entry("a", {{at(10), 1}}), entry("b", {})}), false);
  KXValue const again = at(10);

  auto const fetched =
      reader.read(fetch({entry("a", {{again, 2}}), entry("b", {{again, 3}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,-", "10:2,3"));
}

TEST(Batches, DoNotWaitAtTheEnd) {
  auto reader = readerOf({.data = {"a", "b"}});

  EXPECT_THAT(batchesOf(reader.read(fetch({entry("a", {{at(10), 1}})}), true)),
              ElementsAre("10:1,-"));
}

TEST(Batches, KnowWhatWasNotSampledFromWhatHadNoValue) {
  auto reader = readerOf({.data = {"a", "b"}});

  auto const fetched = reader.read(fetch({entry("a", {{at(10), KXValue()}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:null,-"));
  EXPECT_EQ(1, fetched.batches[0].sampleCount());
}

TEST(Batches, TakeSecondsFor32BitsWithoutSign) {
  auto reader = readerOf({.data = {"a"}});

  auto const fetched = reader.read(fetch({entry("a", {{KXValue::arrayOf(-1, 5), 1}})}), true);

  EXPECT_EQ(4'294'967'295'000'005, fetched.batches.at(0).timeUs);
}

// What comes from another process: no two values share a block.
TEST(SharedBatches, AreTheSamplesOfOneTime) {
  KXSampleReader reader(
      {.data = {"a", "b"}}, [](std::string const&) { return false; }, KXSharedWatcher{});

  auto const fetched = reader.read(fetch({entry("a", {{at(10), 1}, {at(10), 2}, {at(20), 3}}),
                                          entry("b", {{at(10), 4}, {at(10), 5}, {at(20), 6}})}),
                                   false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,4", "10:2,5", "20:3,6"));
}

TEST(SharedBatches, LeaveOutTheKeysOfOthers) {
  KXSampleReader reader(
      {.data = {"a"}}, [](std::string const&) { return false; }, KXSharedWatcher{});

  auto const fetched =
      reader.read(fetch({entry("a", {{at(10), 1}}), entry("others", {{at(10), 2}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1"));
}

TEST(SharedEvents, BeginWithARaiseWhereTheWatcherHadThemBefore) {
  KXSampleReader reader(
      {.events = {"added", "former"}}, [](std::string const&) { return false; },
      KXSharedWatcher{.formerEvents = {"former"}});

  auto const fetched = reader.read(fetch({entry("added", {{at(10), 1}, {at(20), 2}}),
                                          entry("former", {{at(10), 3}, {at(20), 4}})}),
                                   false);

  EXPECT_THAT(eventsOf(fetched), ElementsAre("20:added=2", "10:former=3", "20:former=4"));
}

TEST(UnknownKeys, AreSampledWithTheBatch) {
  auto reader = readerOf({.data = {"b"}, .unknown = {"a"}});
  KXValue const t1 = at(10);

  auto const fetched =
      reader.read(fetch({entry("a", {{t1, KXValue()}}), entry("b", {{t1, 1}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,null"));
  EXPECT_THAT(fetched.events, IsEmpty());
}

TEST(UnknownKeys, ThatBecameEventsAreRaisedBetweenTheBatches) {
  auto reader = readerOf({.data = {"b"}, .unknown = {"a"}}, {"a"});
  KXValue const t1 = at(10), t2 = at(20), t3 = at(30);

  auto const first = reader.read(
      fetch({entry("b", {{t1, 1}, {t2, 2}}), entry("a", {{t1, KXValue()}, {at(12), "up"}})}),
      false);
  auto const second = reader.read(fetch({entry("b", {{t3, 3}}), entry("a", {})}), false);

  EXPECT_THAT(batchesOf(first), ElementsAre("10:1,null", "20:2,-"));
  EXPECT_THAT(eventsOf(first), ElementsAre("12:a=\"up\""));
  EXPECT_THAT(batchesOf(second), ElementsAre("30:3,-"));
}

// What was sampled before moves with the key, and comes back with a time of its own.
TEST(UnknownKeys, KeepInTheBatchWhatWasSampledBeforeTheyBecameEvents) {
  auto reader = readerOf({.data = {"b"}, .unknown = {"a"}}, {"a"});
  KXValue const t1 = at(10), t2 = at(20);

  auto const fetched =
      reader.read(fetch({entry("b", {{t1, 1}, {t2, 2}}),
                         entry("a", {{at(10), KXValue()}, {at(20), "up"}, {at(25), "down"}})}),
                  true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,null", "20:2,\"up\""));
  EXPECT_THAT(eventsOf(fetched), ElementsAre("25:a=\"down\""));
}

TEST(UnknownKeys, ThatAreInBothHalvesOfAFetchCountOnce) {
  auto reader = readerOf({.data = {"b"}, .unknown = {"a"}}, {"a"});
  KXValue const t1 = at(10);

  auto const fetched = reader.read(
      fetch({entry("a", {{t1, 7}}), entry("b", {{t1, 1}}), entry("a", {{t1, 7}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1,7"));
  EXPECT_THAT(fetched.events, IsEmpty());
}

TEST(UnknownKeys, AloneAreSampledUntilTheyAreEvents) {
  auto reader = readerOf({.unknown = {"a"}, .events = {"e"}}, {"a"});

  auto const fetched = reader.read(
      fetch({entry("a", {{at(10), KXValue()}, {at(20), KXValue()}, {at(25), 5}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:null", "20:null"));
  EXPECT_THAT(eventsOf(fetched), ElementsAre("25:a=5"));
}

TEST(UnknownKeys, ThatBecameDataStayInTheBatches) {
  auto reader = readerOf({.unknown = {"a"}, .events = {"e"}});

  auto const fetched = reader.read(fetch({entry("a", {{at(10), KXValue()}, {at(20), 5}})}), true);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:null", "20:5"));
  EXPECT_THAT(fetched.events, IsEmpty());
}

TEST(Events, AreGivenWithoutTheValueFromBeforeTheFirst) {
  auto reader = readerOf({.events = {"e"}});

  auto const first = reader.read(fetch({entry("e", {{at(10), true}, {at(20), false}})}), false);
  auto const second = reader.read(fetch({entry("e", {{at(30), true}})}), false);

  EXPECT_THAT(eventsOf(first), ElementsAre("20:e=false"));
  EXPECT_THAT(eventsOf(second), ElementsAre("30:e=true"));
}

TEST(Events, AreNoBatchEvenIfTheyShareItsTime) {
  auto reader = readerOf({.data = {"a"}, .events = {"e"}});
  KXValue const t1 = at(10);
  reader.read(fetch({entry("e", {{at(1), 0}})}), false);

  auto const fetched = reader.read(fetch({entry("a", {{t1, 1}}), entry("e", {{t1, 2}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1"));
  EXPECT_THAT(eventsOf(fetched), ElementsAre("10:e=2"));
}

TEST(SampleReader, LeavesOutWhatNobodyAskedFor) {
  auto reader = readerOf({.data = {"a"}});
  KXValue const t1 = at(10);

  auto const fetched =
      reader.read(fetch({entry("a", {{t1, 1}}), entry("other", {{at(5), 2}, {t1, 3}})}), false);

  EXPECT_THAT(batchesOf(fetched), ElementsAre("10:1"));
  EXPECT_THAT(fetched.events, IsEmpty());
}

TEST(SampleReader, RefusesAnotherForm) {
  auto reader = readerOf({.data = {"a"}});

  EXPECT_THROW(reader.read(fetch({KXValue(5)}), false), KXError);
  EXPECT_THROW(reader.read(fetch({entry("a", {{at(1), 1}})[1]}), false), KXError);
}

KXFetched fetchedOf(std::vector<std::int64_t> const& batchTimes, std::vector<KXEvent> events) {
  KXFetched fetched{{}, std::move(events)};
  for (std::int64_t const timeUs : batchTimes) fetched.batches.push_back({timeUs, {KXValue(1)}});
  return fetched;
}

TEST(SampleOrder, PutsEventsBetweenTheBatchesByTime) {
  KXWatchedKeys const keys{.data = {"a"}};

  EXPECT_THAT(inOrder(fetchedOf({10, 20}, {{15, "e", 5}, {20, "e", 6}, {5, "f", 7}}), keys),
              ElementsAre("5:f=7", "10:a=1", "15:e=5", "20:a=1", "20:e=6"));
}

TEST(SampleOrder, LeavesBatchesAndEventsOfAKeyInTheirOrderWhateverTheirTimes) {
  KXWatchedKeys const keys{.data = {"a"}};

  EXPECT_THAT(inOrder(fetchedOf({100, 20, 30}, {{40, "e", 5}, {25, "e", 6}}), keys),
              ElementsAre("40:e=5", "25:e=6", "100:a=1", "20:a=1", "30:a=1"));
}

}  // namespace
}  // namespace KX::tool
