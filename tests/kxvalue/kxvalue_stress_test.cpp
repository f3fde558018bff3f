#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace KX
