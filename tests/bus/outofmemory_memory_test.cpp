// Posting where memory ends, by standing in for the global operator new of this program.
#include <cstdlib>
#include <new>
#include <vector>

#include <gtest/gtest.h>

#include <host/bus/kxpackstream.hpp>
#include <tests/bus/notifications.hpp>

namespace {
// So many allocations of this thread succeed; negative: all.
thread_local int tAllocationsLeft = -1;
}  // namespace

// Never inlined: g++ takes the pair for mismatched where it sees into one of the two only.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (tAllocationsLeft == 0) throw std::bad_alloc();
  if (tAllocationsLeft > 0) --tAllocationsLeft;
  if (void* const memory = std::malloc(size); memory != nullptr) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  ::operator delete(memory);
}

namespace KX {
namespace {

TEST(PackSenderMemory, NothingIsQueuedWhereMemoryEnds) {
  auto const notifications = testing::numberedFrom(3, 9, 60);
  int failureCount = 0;
  for (int allocations = 0;; ++allocations) {
    SCOPED_TRACE(allocations);
    KXPackSender sender("0123456789abcdef", {.pack = 200, .message = 1000});
    sender.post(testing::numberedFrom(1, 2));
    bool hasFailed = false;
    tAllocationsLeft = allocations;
    try {
      sender.post(notifications);
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    tAllocationsLeft = -1;

    EXPECT_EQ(sender.getCounts().posted, hasFailed ? 2u : 9u);
    EXPECT_EQ(sender.getCounts().waiting, hasFailed ? 2u : 9u);
    if (hasFailed) sender.post(notifications);
    std::vector<int> all;
    while (auto const pack = sender.take(0)) {
      for (int const number : testing::numbersIn(*pack->bytes, pack->header.count)) {
        all.push_back(number);
      }
      sender.onAck({"0123456789abcdef", pack->header.first + pack->header.count, false}, 0);
    }
    EXPECT_EQ(all, (std::vector{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_TRUE(sender.isDone());
    EXPECT_EQ(sender.getCounts().waitingBytes, 0u);
    if (!hasFailed) break;
    ++failureCount;
  }
  EXPECT_GT(failureCount, 5);
}

}  // namespace
}  // namespace KX
