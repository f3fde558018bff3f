#include <atomic>
#include <cstddef>
#include <latch>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/allocationcount.hpp"
#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20'000;

/// Runs `work(thread number)` on kThreads threads that begin together, and waits for them.
template <class Work>
void onThreads(Work const& work) {
  std::latch start(kThreads);
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      work(i);
    });
  }
}

KXValue sample() {
  return KXValue::arrayOf(KXValue::arrayOf(12, 5), "text", KXValue::binary("bytes"));
}

TEST(StressValue, ManyThreadsCopyAndDropOneBlock) {
  KXValue const shared = sample();
  std::atomic<int> wrong{0};

  onThreads([&](int) {
    for (int i = 0; i < kRounds; ++i) {
      KXValue const copy = shared;
      KXValue const inner = copy[0];
      KXValue const text = copy[1];
      if (static_cast<int>(inner[1]) != 5 || text.getSize() != 4) ++wrong;
    }
  });

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(shared, sample());
}

TEST(StressValue, ManyThreadsChangeTheirOwnCopies) {
  KXValue const shared = sample();
  std::atomic<int> wrong{0};

  onThreads([&](int number) {
    for (int i = 0; i < kRounds; ++i) {
      KXValue copy = shared;
      copy[0][1] = number;
      copy.arrayPush(i);
      if (static_cast<int>(copy[0][1]) != number || copy.getSize() != 4) ++wrong;
    }
  });

  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(shared, sample());
}

// Who drops the last share frees the block, and who finds itself alone writes in place: both must
// see all that the other owners did before they let go.
TEST(StressValue, TheLastOwnersOfABlockLetGoAndWriteAtOnce) {
  for (int round = 0; round < 500; ++round) {
    std::vector<KXValue> owners(kThreads, sample());
    std::atomic<int> wrong{0};

    onThreads([&](int number) {
      KXValue own = std::move(owners[static_cast<std::size_t>(number)]);
      if (static_cast<int>(std::as_const(own)[0][0]) != 12) ++wrong;
      if (number % 2 == 0) own[0][0] = number;
      if (static_cast<int>(std::as_const(own)[0][0]) != (number % 2 == 0 ? number : 12)) ++wrong;
    });

    ASSERT_EQ(wrong, 0);
  }
}

constexpr int kKeys = 8;
constexpr int kRows = 30;

/// For each key an array of [[i, 10 i], value], the pairs those of all keys; every other key's
/// values are texts.
std::vector<KXValue> fetch() {
  KXRows times(kRows);
  for (int i = 0; i < kRows; ++i) times.push(i, 10 * i);
  KXValue const shared = times.take();
  std::vector<KXValue> keys;
  for (int key = 0; key < kKeys; ++key) {
    KXRows rows(kRows, shared);
    for (int i = 0; i < kRows; ++i) {
      rows.pushShared(static_cast<std::size_t>(i), key % 2 == 0 ? KXValue(i) : KXValue("text"));
    }
    keys.push_back(rows.take());
  }
  return keys;
}

/// Takes rows and pairs out of arrays, writes to them, hands some to another thread and lets go of
/// all in a changing order. Gives the number of wrong values that it saw.
class Client {
 public:
  Client(int number, std::vector<KXValue> arrays, std::mutex& mutex, std::vector<KXValue>& exchange)
      : mRandom(static_cast<unsigned>(number)),
        mArrays(std::move(arrays)),
        mMutex(mutex),
        mExchange(exchange) {}

  int run() {
    int wrong = 0;
    while (!mArrays.empty()) {
      std::swap(mArrays[pick(mArrays.size())], mArrays.back());
      KXValue array = std::move(mArrays.back());
      mArrays.pop_back();
      for (int step = 0; step < 4; ++step) {
        auto const index = static_cast<int>(pick(kRows));
        KXValue pair = std::as_const(array)[index][0];
        KXValue row = std::as_const(array)[index];
        if (!isPair(pair, index) || !isPair(std::as_const(row)[0], index)) ++wrong;
        if (pick(2) == 0) {
          pair[1] = -1;
          row[0][0] = -2;
          if (pair != KXValue::arrayOf(index, -1)) ++wrong;
          if (!isPair(std::as_const(array)[index][0], index)) ++wrong;
          pair[1] = 10 * index;
        }
        if (pick(4) == 0) array[(index + 1) % kRows].arrayPush(pair);
        if (pick(4) == 0) row[1] = pair;
        wrong += exchange(std::move(pair));
        exchange(std::move(row));
      }
    }
    return wrong;
  }

 private:
  std::size_t pick(std::size_t count) {
    return std::uniform_int_distribution<std::size_t>(0, count - 1)(mRandom);
  }
  static bool isPair(KXValue const& value, int index) {
    return static_cast<int>(value[0]) == index && static_cast<int>(value[1]) == 10 * index;
  }
  // Leaves a value for some other thread, and drops what that left here.
  int exchange(KXValue value) {
    {
      std::lock_guard const lock(mMutex);
      value.swap(mExchange[pick(mExchange.size())]);
    }
    bool const isSound = !value.isValid() || value[0].getType() == KXValue::TypeArray ||
                         isPair(value, static_cast<int>(value[0]));
    return isSound ? 0 : 1;
  }

  std::mt19937 mRandom;
  std::vector<KXValue> mArrays;
  std::mutex& mMutex;
  std::vector<KXValue>& mExchange;
};

/// `count` rows of which nothing is said.
KXValue someRows(std::size_t count) {
  KXRows rows(count);
  for (std::size_t i = 0; i < count; ++i) rows.push(0, 0);
  return rows.take();
}

class StressRows : public testing::TestWithParam<std::size_t> {};

// Where much lives in pieces, their memory comes from elsewhere.
INSTANTIATE_TEST_SUITE_P(BesideRows, StressRows, testing::Values(0, 100'000));

TEST_P(StressRows, ManyThreadsUseAndFreeRowsThatSharePieces) {
  KXValue const beside = someRows(GetParam());
  long const before = liveAllocations();
  {
    std::mutex mutex;
    std::vector<KXValue> exchanged(6);
    std::atomic<int> wrong{0};
    for (int round = 0; round < 100; ++round) {
      // Some arrays belong to all threads, some to one each that has only the pairs in common with
      // the others'.
      std::vector<KXValue> common = fetch();
      std::vector<KXValue> own = fetch();
      std::vector<std::vector<KXValue>> arrays(kThreads, common);
      for (std::size_t i = 0; i < own.size(); ++i) {
        arrays[i % kThreads].push_back(std::move(own[i]));
      }
      common.clear();
      onThreads([&](int number) {
        wrong += Client(round * kThreads + number,
                        std::move(arrays[static_cast<std::size_t>(number)]), mutex, exchanged)
                     .run();
      });
      ASSERT_EQ(wrong, 0);
    }
  }

  EXPECT_EQ(liveAllocations(), before);
}

}  // namespace
}  // namespace KX
