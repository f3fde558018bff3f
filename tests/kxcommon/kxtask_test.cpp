// Parallel calls: the broker's pool, and what it promises about ids, waiting and ends.
#include <kxcommon/kxtask.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <set>
#include <stdexcept>
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
#include <tests/support/parkinggate.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using testing::ParkingGate;

// A task of one function, and of another that its destructor calls.
class HookedTask : public KXTask {
 public:
  using Hook = std::function<void()>;

  explicit HookedTask(Hook onRun, Hook onRelease = {})
      : KXTask(KXTaskInfo("Test", "task")),
        mOnRun(std::move(onRun)),
        mOnRelease(std::move(onRelease)) {}
  ~HookedTask() override {
    if (mOnRelease) mOnRelease();
  }
  void run() override { mOnRun(); }

 private:
  Hook const mOnRun;
  Hook const mOnRelease;
};

class Task : public ::testing::Test {
 protected:
  int start(HookedTask::Hook onRun, HookedTask::Hook onRelease = {}) {
    boost::shared_ptr<KXTask> const task(new HookedTask(std::move(onRun), std::move(onRelease)));
    int const id = task->getInfo().getID();
    mHost.getBroker()->addTask(task->getInfo().toString(), task);
    return id;
  }
  int park() {
    return start([this] { mGate.pass(); });
  }
  KXBroker& broker() { return *mHost.getBroker(); }

  ~Task() override { mGate.open(); }

  ParkingGate mGate;
  testing::TestHost mHost;
};

TEST(TaskInfo, IdsArePositiveAndUniqueOverAllThreads) {
  std::vector<std::vector<int>> ids(4);
  std::vector<std::thread> threads;
  for (std::vector<int>& mine : ids) {
    threads.emplace_back([&mine] {
      for (int i = 0; i < 1000; ++i) mine.push_back(KXTaskInfo("M", "m").getID());
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::set<int> all;
  for (std::vector<int> const& mine : ids) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), 4000U);
  EXPECT_GT(*all.begin(), 0);
}

TEST(TaskInfo, TextNamesModuleMethodAndId) {
  KXTaskInfo const info("KXMemoryWatcher", "_mainThread");

  EXPECT_EQ(info.toString(), "KXMemoryWatcher._mainThread#" + std::to_string(info.getID()));
}

TEST(TaskInfo, CopyKeepsTheId) {
  KXTaskInfo const info("M", "m");
  KXTaskInfo const copy(info);

  EXPECT_EQ(copy.getID(), info.getID());
}

TEST_F(Task, RunsOnceOnAThreadOfItsOwn) {
  std::promise<std::thread::id> thread;

  int const id = start([&] { thread.set_value(std::this_thread::get_id()); });

  EXPECT_NE(thread.get_future().get(), std::this_thread::get_id());
  EXPECT_TRUE(broker().waitForTask(id, 0));
}

TEST_F(Task, CountsAsRunningFromTheMomentItIsQueued) {
  for (int i = 0; i < 50; ++i) {
    int const id = park();

    EXPECT_TRUE(broker().isTaskRunning(id));
  }
}

TEST_F(Task, NeverWaitsForAnotherToEnd) {
  constexpr int kCount = 40;
  for (int i = 0; i < kCount; ++i) park();

  EXPECT_TRUE(mGate.waitUntilParked(kCount));
}

// The number of the calling thread. The system's ids may come again after a thread's end.
int threadNumber() {
  static std::atomic<int> count{0};
  thread_local int const number = ++count;
  return number;
}

std::ptrdiff_t countThreadsOfProcess() {
  std::filesystem::directory_iterator const threads("/proc/self/task");
  return std::distance(begin(threads), end(threads));
}

TEST_F(Task, ReusesThreadsThatAreIdle) {
  constexpr std::ptrdiff_t kCount = 200;
  std::ptrdiff_t const before = countThreadsOfProcess();
  std::set<int> threads;

  for (std::ptrdiff_t i = 0; i < kCount; ++i) {
    broker().waitForTask(start([&] { threads.insert(threadNumber()); }), 0);
  }

  // A thread that is not idle again when the next task comes is rightly passed over.
  EXPECT_LT(std::ssize(threads), kCount);
  EXPECT_LT(countThreadsOfProcess() - before, kCount);
}

TEST_F(Task, IsWaitedForWithoutLimitIfTheTimeOutIsZero) {
  int const id = park();
  std::promise<void> isWaiting;
  auto waited = std::async(std::launch::async, [&] {
    isWaiting.set_value();
    return broker().waitForTask(id, 0);
  });
  isWaiting.get_future().get();
  ASSERT_TRUE(mGate.waitUntilParked(1));

  EXPECT_TRUE(broker().isTaskRunning(id));
  mGate.open();

  EXPECT_TRUE(waited.get());
  EXPECT_FALSE(broker().isTaskRunning(id));
}

TEST_F(Task, WaitGivesUpWhenTheTimeOutHasPassed) {
  int const id = park();
  auto const start = std::chrono::steady_clock::now();

  EXPECT_FALSE(broker().waitForTask(id, 20));

  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_TRUE(broker().isTaskRunning(id));
}

TEST_F(Task, WaitWithTimeOutReturnsAsSoonAsItEnds) {
  int const id = park();
  auto waited = std::async(std::launch::async, [&] { return broker().waitForTask(id, 1'000'000); });
  ASSERT_TRUE(mGate.waitUntilParked(1));

  mGate.open();

  EXPECT_TRUE(waited.get());
}

TEST_F(Task, WaitOnAnUnknownOrFinishedIdReturnsAtOnce) {
  int const finished = start([] {});
  broker().waitForTask(finished, 0);

  for (int const id : {finished, 0, -1, std::numeric_limits<int>::max()}) {
    SCOPED_TRACE(id);
    EXPECT_TRUE(broker().waitForTask(id, 0));
    EXPECT_TRUE(broker().waitForTask(id, 1000));
    EXPECT_FALSE(broker().isTaskRunning(id));
  }
}

TEST_F(Task, IsWaitedForByManyThreads) {
  int const id = park();
  std::vector<std::future<bool>> waits;
  for (int i = 0; i < 5; ++i) {
    waits.push_back(std::async(std::launch::async, [&] { return broker().waitForTask(id, 0); }));
  }

  mGate.open();

  for (std::future<bool>& wait : waits) EXPECT_TRUE(wait.get());
}

TEST_F(Task, ThatWaitsOnItselfGetsAnError) {
  std::promise<std::string> error;
  std::promise<int> ownId;
  std::shared_future<int> const id = ownId.get_future().share();

  ownId.set_value(start([&, id] {
    try {
      broker().waitForTask(id.get(), 0);
      error.set_value("no error");
    } catch (KXError const& caught) {
      error.set_value(caught.getDescription());
    }
  }));

  EXPECT_EQ(error.get_future().get(),
            "parallel call " + std::to_string(id.get()) + " waits on itself");
}

TEST_F(Task, MayWaitForAnotherTask) {
  int const parked = park();
  int const waiting = start([this, parked] { broker().waitForTask(parked, 0); });

  EXPECT_TRUE(broker().isTaskRunning(waiting));
  mGate.open();

  EXPECT_TRUE(broker().waitForTask(waiting, 0));
}

TEST_F(Task, HasEndedBeforeItsRecordIsReleased) {
  std::promise<int> ownId;
  std::shared_future<int> const id = ownId.get_future().share();
  std::promise<bool> wasRunning;

  ownId.set_value(start([] {},
                        [&, id] {
                          broker().waitForTask(id.get(), 0);
                          wasRunning.set_value(broker().isTaskRunning(id.get()));
                        }));

  EXPECT_FALSE(wasRunning.get_future().get());
}

TEST_F(Task, LogsWhatItThrowsAndHasEnded) {
  int const first = start([] { throw KXError("m", "f", "as told", "file", 1); });
  broker().waitForTask(first, 0);
  int const second = start([] { throw std::runtime_error("other"); });
  broker().waitForTask(second, 0);
  int const third = start([] { throw 5; });
  broker().waitForTask(third, 0);

  auto const logged = mHost.getLogged();
  ASSERT_EQ(logged.size(), 3U);
  int const ids[] = {first, second, third};
  char const* const texts[] = {"as told", "other", "an exception of unknown type"};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(logged[i].level, ka::log::Warning);
    EXPECT_EQ(logged[i].category, "KXBroker");
    EXPECT_EQ(logged[i].text,
              "parallel call 'Test.task#" + std::to_string(ids[i]) + "' failed: " + texts[i]);
    EXPECT_FALSE(broker().isTaskRunning(ids[i]));
  }
}

TEST_F(Task, IsWaitedForByShutdown) {
  std::atomic<bool> hasEnded = false;
  start([&] {
    mGate.pass();
    hasEnded = true;
  });
  ASSERT_TRUE(mGate.waitUntilParked(1));
  auto shutdown = std::async(std::launch::async, [this] { broker().shutdown(); });
  EXPECT_EQ(shutdown.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);

  mGate.open();
  shutdown.get();

  EXPECT_TRUE(hasEnded);
}

TEST_F(Task, IsRefusedAfterShutdown) {
  broker().shutdown();
  bool hasRun = false;
  try {
    start([&] { hasRun = true; });
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    std::string const text = error.getDescription();
    EXPECT_EQ(text.find("cannot start parallel call 'Test.task#"), 0U) << text;
    EXPECT_NE(text.find("the broker is shut down"), std::string::npos) << text;
  }
  EXPECT_FALSE(hasRun);
}

TEST_F(Task, MayShutItsBrokerDown) {
  int const id = start([this] { broker().shutdown(); });

  EXPECT_TRUE(broker().waitForTask(id, 0));
  EXPECT_TRUE(broker().getModuleNames().empty());
}

// A broker that only one of its own tasks still holds; the test opens the gate to that task.
class LastTask : public ::testing::Test {
 protected:
  void start(HookedTask::Hook const& onRun, HookedTask::Hook const& onRelease) {
    boost::shared_ptr<KXTask> const task(new HookedTask(onRun, onRelease));
    mHeld->addTask("last", task);
  }
  void drop() { mHeld.reset(); }

  ParkingGate mGate;
  ParkingGate mHasEnded;
  boost::shared_ptr<KXBroker> mHeld = KXBroker::createBroker("dropped");
  boost::weak_ptr<KXBroker> const mBroker = mHeld;
};

TEST_F(LastTask, MayDropItsBrokerWhileItRuns) {
  start(
      [this] {
        mGate.pass();
        drop();
      },
      [this] { mHasEnded.open(); });
  ASSERT_TRUE(mGate.waitUntilParked(1));

  mGate.open();

  EXPECT_TRUE(mHasEnded.waitUntilOpen());
  EXPECT_TRUE(mBroker.expired());
}

TEST_F(LastTask, MayDropItsBrokerWhenItIsReleased) {
  start([this] { mGate.pass(); },
        [this] {
          drop();
          mHasEnded.open();
        });
  ASSERT_TRUE(mGate.waitUntilParked(1));

  mGate.open();

  EXPECT_TRUE(mHasEnded.waitUntilOpen());
  EXPECT_TRUE(mBroker.expired());
}

// A module whose own loop is a parallel call, and whose destructor ends it.
class LoopingModule : public KXModule {
 public:
  LoopingModule(boost::shared_ptr<KXBroker> const& broker, std::function<void()> onDestroyed)
      : KXModule(broker, "Looping"), mOnDestroyed(std::move(onDestroyed)) {
    publish(*this, {"loop"}, &LoopingModule::loop);
  }
  ~LoopingModule() override {
    gate.open();
    getParentBroker()->waitForTask(taskId, 0);
    mOnDestroyed();
  }
  void loop() { gate.pass(); }

  ParkingGate gate;
  int taskId = 0;

 private:
  std::function<void()> const mOnDestroyed;
};

TEST(ModulesOwnTask, DoesNotKeepItsModule) {
  testing::TestHost host;
  bool isDestroyed = false;
  {
    auto const module =
        boost::make_shared<LoopingModule>(host.getBroker(), [&] { isDestroyed = true; });
    host.publish(module);
    module->taskId = host.getProxy("Looping")->pCall("loop");
    ASSERT_TRUE(module->gate.waitUntilParked(1));
  }

  host.getBroker()->removeModule("Looping");

  EXPECT_TRUE(isDestroyed);
}

TEST(ModulesOwnTask, DoesNothingOnceItsModuleIsGone) {
  struct CountingFunctor : KXFunctorBase {
    void call(KXValue const& params, KXValue&) override {
      EXPECT_EQ(params, KXValue::arrayOf());
      ++count;
    }
    int count = 0;
  };
  auto const broker = KXBroker::createBroker("test");
  auto const functor = boost::make_shared<CountingFunctor>();
  auto module = boost::make_shared<KXModule>(broker, "Plain");
  detail::_pcall0 task(functor, KXTaskInfo("Plain", "count"), module);

  task.run();
  EXPECT_EQ(functor->count, 1);
  module.reset();
  task.run();

  EXPECT_EQ(functor->count, 1);
}

TEST(ScriptsTask, KeepsItsModuleUntilItHasEnded) {
  ParkingGate gate;
  testing::TestHost host;
  host.publishScript("Scripted", [&gate](std::string const&, KXValue const&) {
    gate.pass();
    return KXValue();
  });
  int const id = host.getProxy("Scripted")->pCall("anything");
  ASSERT_TRUE(gate.waitUntilParked(1));

  host.getBroker()->removeModule("Scripted");
  EXPECT_TRUE(host.getBroker()->isTaskRunning(id));
  gate.open();

  EXPECT_TRUE(host.getBroker()->waitForTask(id, 0));
}

}  // namespace
}  // namespace KX
