// What becomes of notifications and of calls where memory ends, by standing in for the global
// operator new of this program.
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <host/bus/kxpackstream.hpp>
#include <host/bus/kxresponder.hpp>
#include <host/bus/kxwire.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/bus/notifications.hpp>
#include <tests/support/testhost.hpp>

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

constexpr char const* kInstance = "fedcba9876543210";

// Wherever it ends: a call has at most run once, and whoever asks for its reply gets one.
TEST(ResponderMemory, EveryCallHasAReplyAndRunsOnce) {
  KXBusNetwork network(KXBusNetwork::Pacing::Stepped);
  auto const bus = network.connect("host");
  testing::TestHost host;
  int runs = 0;
  host.publishScript("Module", [&](std::string const&, KXValue const&) { return KXValue(++runs); });
  KXCallee callee(host.getBroker(), kInstance);
  KXStatisticsTable statistics;
  KXResponder responder(*bus, callee, statistics, kInstance, {});
  std::vector<std::string> replies;
  auto const inbox = bus->subscribe("_INBOX_host.reply", "", 1, [&](KXBusMessage const& message) {
    replies.emplace_back(message.payload);
  });
  KXSubjects::Call const call{.to = {.module = "Module"}, .method = "count"};
  std::string const payload = encodeValue(KXValue::arrayOf(1));
  int failureCount = 0;
  std::uint64_t number = 1;
  for (int allocations = 0;; ++allocations, ++number) {
    SCOPED_TRACE(allocations);
    std::string const id = formatCallId(
        {.caller = "0123456789abcdef", .number = number, .done = number - 1, .to = kInstance});
    KXBusMessage const request{.subject = "kx.r.Module.count",
                               .reply = "_INBOX_host.reply",
                               .headers = {{kCallHeader, id}},
                               .payload = payload};
    KXBusMessage again = request;
    again.headers.emplace_back(kAgainHeader, "0");
    replies.clear();
    runs = 0;
    bool hasFailed = false;
    tAllocationsLeft = allocations;
    try {
      responder.answer(call, request);
      hasFailed = tAllocationsLeft == 0;
    } catch (std::bad_alloc const&) {
      hasFailed = true;
    }
    tAllocationsLeft = -1;
    responder.answer(call, again);
    while (network.step()) {
    }

    EXPECT_LE(runs, 1);
    ASSERT_FALSE(replies.empty());
    EXPECT_EQ(responder.counts().running, 0u);
    EXPECT_EQ(responder.counts().kept, 1u);
    if (!hasFailed) break;
    ++failureCount;
  }
  EXPECT_GT(failureCount, 10);
  EXPECT_EQ(responder.counts().admitted, number);
}

// As it does at the end of a process, and when a connection is replaced.
TEST(SubscriptionMemory, EndingOneTakesNone) {
  testing::NatsServer const server;
  auto const bus = connectNats({.url = server.url()});
  for (int const threads : {1, 2}) {
    SCOPED_TRACE(threads);
    auto subscription = bus->subscribe("s", "", threads, [](KXBusMessage const&) {});
    tAllocationsLeft = 0;
    subscription.reset();
    tAllocationsLeft = -1;
  }
  bus->flush(30'000);
}

}  // namespace
}  // namespace KX
