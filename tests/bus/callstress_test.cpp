// Many threads call over a network that loses, repeats, delays and cuts.
#include <tests/bus/callfixture.hpp>

#include <atomic>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace KX {
namespace {

using testing::Callee;
using testing::Outcome;
using testing::waitUntil;

class StressCallTest : public testing::CallTest {
 protected:
  StressCallTest() : CallTest(16 * 1024) { newCaller(20'000); }

  // Each key is called once; all calls come back, and no method runs twice.
  void callFromThreads(int threadCount, int callCount) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
      threads.emplace_back([=, this] {
        for (int i = 0; i < callCount; ++i) {
          int const key = 1 + thread * callCount + i;
          Outcome const outcome = call("count", key);
          EXPECT_EQ(outcome.result, KXValue(1)) << outcome.text();
        }
      });
    }
    for (std::jthread& thread : threads) thread.join();
    EXPECT_EQ(callee->totalRuns(), threadCount * callCount);
    EXPECT_EQ(callee->mostRuns(), 1);
    auto const counts = callee->server->counts();
    EXPECT_EQ(counts.running, 0U);
    EXPECT_EQ(counts.admitted, static_cast<std::uint64_t>(threadCount * callCount));
    EXPECT_EQ(counts.admitted, counts.kept + counts.acknowledged + counts.expired);
  }
};

TEST_F(StressCallTest, SixteenThreads) {
  callFromThreads(16, 500);
}

TEST_F(StressCallTest, SixteenThreadsOverABadNetwork) {
  call("echo");
  for (std::uint32_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    callee.reset();
    callee = std::make_unique<Callee>(*calleeBus);
    newCaller(20'000);
    setFaults(KXBusNetwork::randomFaults(
        seed, {.loss = 0.02, .duplicate = 0.05, .overtaken = 0.1, .maxDelayUs = 1000}));
    callFromThreads(16, 50);
    setFaults({});
  }
}

TEST_F(StressCallTest, SixteenThreadsWhileConnectionsAreCut) {
  call("echo");
  std::jthread cutter([&](std::stop_token const& stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      KXBus& bus = i % 2 == 0 ? *callerBus : *calleeBus;
      network.cut(bus);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      network.mend(bus);
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
  });
  std::atomic<int> keyCount = 0;
  std::atomic<int> goodCount = 0;
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 16; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 60; ++i) {
        // What is not connected at the beginning has not been sent at all.
        Outcome outcome;
        int const key = ++keyCount;
        while ((outcome = call("count", key)).error &&
               outcome.kind() == KXError::Kind::Disconnected &&
               outcome.text().starts_with("no connection")) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(outcome.result, KXValue(1)) << outcome.text();
        if (!outcome.error) ++goodCount;
      }
    });
  }
  for (std::jthread& thread : threads) thread.join();
  cutter.request_stop();
  cutter.join();

  EXPECT_EQ(goodCount, 16 * 60);
  EXPECT_EQ(callee->mostRuns(), 1);
}

TEST_F(StressCallTest, CallersAndCalleesComeAndGo) {
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread](std::stop_token const& stop) {
      for (int i = 0; !stop.stop_requested(); ++i) {
        auto const bus = network.connect();
        KXCaller own(*bus, KXSubjects("r"), "r", 2000);
        for (int k = 0; k < 20; ++k) {
          try {
            KXValue result;
            own.call("Module", "echo", KXValue::arrayOf(thread, i, k), result, 0);
            EXPECT_EQ(result, KXValue::arrayOf(thread, i, k));
          } catch (KXError const& error) {
            EXPECT_NE(error.getKind(), KXError::Kind::Refused) << error.what();
          }
        }
      }
    });
  }
  for (int i = 0; i < 30; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    callee.reset();
    callee = std::make_unique<Callee>(*calleeBus);
  }
  threads.clear();
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));
}

}  // namespace
}  // namespace KX
