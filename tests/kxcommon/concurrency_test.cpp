// Many threads on one broker; each test ends by counting that nothing was lost.
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

class CountingModule : public KXModule {
 public:
  CountingModule(boost::shared_ptr<KXBroker> const& broker, std::string const& name)
      : KXModule(broker, name) {
    publish(*this, {"add"}, &CountingModule::add);
    publish(*this, {"tick"}, &CountingModule::tick);
  }
  int add(int const& number) { return sum += number; }
  void tick() { ++ticks; }

  std::atomic<int> sum{0};
  std::atomic<int> ticks{0};
};

void runThreads(int count, std::function<void(int)> const& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& thread : threads) thread.join();
}

TEST(StressBroker, EveryCallOfManyThreadsIsServedOnce) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 3000;
  testing::TestHost host;
  auto const module = boost::make_shared<CountingModule>(host.getBroker(), "Counting");
  host.publish(module);

  runThreads(kThreads, [&](int) {
    for (int i = 0; i < kCalls; ++i) {
      host.getProxy("Counting")->call<int>("add", 1);
      host.call("Counting", "add", 1);
    }
  });

  EXPECT_EQ(module->sum, kThreads * kCalls * 2);
}

TEST(StressBroker, EveryParallelCallOfManyThreadsRunsOnce) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 500;
  testing::TestHost host;
  auto const module = boost::make_shared<CountingModule>(host.getBroker(), "Counting");
  host.publish(module);

  runThreads(kThreads, [&](int) {
    auto const proxy = host.getProxy("Counting");
    for (int i = 0; i < kCalls; ++i) {
      int const id = proxy->pCall("tick");
      if (i % 3 == 0) {
        EXPECT_TRUE(proxy->wait(id, 0));
      }
      if (i % 3 == 1) proxy->isRunning(id);
    }
  });
  host.getBroker()->shutdown();

  EXPECT_EQ(module->ticks, kThreads * kCalls);
}

TEST(StressBroker, ModulesComeAndGoWhileOthersCallThem) {
  constexpr int kRounds = 200;
  testing::TestHost host;
  std::atomic<bool> isOver{false};
  std::atomic<int> served{0};
  std::atomic<int> counted{0};

  std::thread changer([&] {
    for (int i = 0; i < kRounds; ++i) {
      auto const module = boost::make_shared<CountingModule>(host.getBroker(), "Changing");
      host.publish(module);
      std::this_thread::yield();
      host.getBroker()->removeModule("Changing");
      // A client may still be in a call: count when the last has left.
      while (module.use_count() > 1) std::this_thread::yield();
      counted += module->sum;
    }
    isOver = true;
  });
  runThreads(3, [&](int) {
    while (!isOver) {
      try {
        host.getProxy("Changing")->call<int>("add", 1);
        ++served;
      } catch (KXError const& error) {
        EXPECT_EQ(error.getDescription().find("unknown module 'Changing'"), 0U) << error.what();
      }
    }
  });
  changer.join();

  EXPECT_EQ(served, counted);
  EXPECT_FALSE(host.getBroker()->isModulePresent("Changing"));
}

// Its method works on memory of the module's own, so that a sanitizer sees a call that comes late.
class FragileModule : public KXModule {
 public:
  explicit FragileModule(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Fragile") {
    publish(*this, {"tick"}, &FragileModule::tick);
  }
  void tick() { ++*mTicks; }

 private:
  std::unique_ptr<std::atomic<int>> const mTicks = std::make_unique<std::atomic<int>>(0);
};

TEST(StressBroker, ModulesAreDroppedWhileParallelCallsOfThemBegin) {
  testing::TestHost host;
  for (int round = 0; round < 500; ++round) {
    std::vector<int> ids;
    {
      auto const module = host.publish<FragileModule>();
      auto const proxy = host.getProxy("Fragile");
      for (int i = 0; i < 4; ++i) ids.push_back(proxy->pCall("tick"));
      host.getBroker()->removeModule("Fragile");
    }
    for (int const id : ids) EXPECT_TRUE(host.getBroker()->waitForTask(id, 0));
  }
  EXPECT_TRUE(host.getLogged().empty());
}

TEST(StressBroker, ShutsDownWhileOthersCallAndStartParallelCalls) {
  for (int round = 0; round < 50; ++round) {
    auto const broker = KXBroker::createBroker("round");
    auto const module = boost::make_shared<CountingModule>(broker, "Counting");
    module->initModule();
    auto const proxy = broker->getProxy("Counting", 0);
    std::atomic<int> started{0};
    std::atomic<int> callers{0};

    std::thread shutdown([&] {
      while (callers < 2) std::this_thread::yield();
      broker->shutdown();
    });
    runThreads(2, [&](int) {
      ++callers;
      try {
        for (;;) {
          proxy->pCall("tick");
          ++started;
          if (started % 64 == 0) std::this_thread::yield();
        }
      } catch (KXError const& error) {
        EXPECT_NE(error.getDescription().find("the broker is shut down"), std::string::npos);
      }
    });
    shutdown.join();

    EXPECT_EQ(module->ticks, started);
  }
}

}  // namespace
}  // namespace KX
