// What ended subscriptions leave in this process's memory.
#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <host/bus/kxnatsbus.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/waituntil.hpp>

namespace KX {
namespace {

using testing::NatsServer;
using testing::waitUntil;

std::size_t usedBytes() {
  auto const info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Nothing else ends on that connection.
TEST(EndedSubscription, IsFreedWithTheMessagesThatItHas) {
  constexpr int kCount = 40;
  constexpr std::size_t kTotal = std::size_t{kCount} * 500'000;
  NatsServer const server;
  auto const sender = connectNats({.url = server.url()});
  auto const receiver = connectNats({.url = server.url()});
  std::atomic<bool> hasCome{false};
  std::atomic<bool> hasEnded{false};
  std::unique_ptr<KXBusSubscription> subscription =
      receiver->subscribe("s", "", 1, [&](KXBusMessage const&) {
        waitUntil([&] { return hasCome.load(); });
        subscription.reset();
        hasEnded = true;
      });
  receiver->flush(30'000);
  std::size_t const before = usedBytes();
  {
    std::string const payload(kTotal / kCount, 'x');
    for (int i = 0; i < kCount; ++i) sender->publish({.subject = "s", .payload = payload});
  }
  sender->flush(30'000);
  receiver->flush(30'000);  // behind what has come
  hasCome = true;
  ASSERT_TRUE(waitUntil([&] { return hasEnded.load(); }));
  ASSERT_GT(usedBytes(), before + kTotal / 2);

  EXPECT_TRUE(waitUntil([&] { return usedBytes() < before + kTotal / 10; }));
}

}  // namespace
}  // namespace KX
