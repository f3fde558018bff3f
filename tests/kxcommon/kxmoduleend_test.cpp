// How a module ends, seen by a module whose author knows nothing of it.
#include <kxcommon/kxmodulescope.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <binding/kxpublish.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <tests/support/parkinggate.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using testing::ParkingGate;

/// What happened, in order. Outlives every module.
class Diary {
 public:
  void note(std::string const& what) {
    std::lock_guard const lock(mMutex);
    mNotes.push_back(what);
  }
  std::vector<std::string> notes() const {
    std::lock_guard const lock(mMutex);
    return mNotes;
  }

 private:
  mutable std::mutex mMutex;
  std::vector<std::string> mNotes;
};

/// A module with one method that takes its time, and members that it uses to the end.
class Worker : public KXModule {
 public:
  Worker(boost::shared_ptr<KXBroker> const& broker, Diary& diary, std::function<void()> work,
         std::vector<std::function<void()>> hooks = {})
      : KXModule(broker, "Worker"), mDiary(diary), mWork(std::move(work)) {
    for (std::function<void()> const& hook : hooks) onClosing(hook);
    publish(*this, {"work"}, &Worker::work);
  }
  ~Worker() override { mDiary.note("destroyed"); }

  void work() {
    mWork();
    // A module that had gone under this call would be found out here.
    mDiary.note(mText + " and done");
  }

 private:
  Diary& mDiary;
  std::function<void()> const mWork;
  std::string const mText = "a text that is too long for the string itself";
};
constexpr char const* kDone = "a text that is too long for the string itself and done";

class ModuleEnd : public ::testing::Test {
 protected:
  using Notes = std::vector<std::string>;

  void publish(std::function<void()> work, std::vector<std::function<void()>> hooks = {}) {
    KXModule::createModule<Worker>(mHost.getBroker(), mDiary, std::move(work), std::move(hooks));
  }
  int pCall() { return mHost.getProxy("Worker")->pCall("work"); }
  void remove() { mHost.getBroker()->removeModule("Worker"); }
  bool waitFor(int task) { return mHost.getBroker()->waitForTask(task, 30'000); }
  bool becomes(Notes const& expected) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (mDiary.notes() != expected && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    return mDiary.notes() == expected;
  }
  std::vector<std::string> logged() const {
    std::vector<std::string> texts;
    for (LogLine const& record : mHost.getLogged()) texts.push_back(record.text);
    return texts;
  }

  Diary mDiary;
  ParkingGate mGate;
  testing::TestHost mHost;
};

// ---- parallel calls

TEST_F(ModuleEnd, WaitsForTheParallelCallInProgress) {
  publish([this] { mGate.pass(); });
  int const task = pCall();
  ASSERT_TRUE(mGate.waitUntilParked(1));
  std::atomic<bool> isRemoved{false};
  std::thread remover([&] {
    remove();
    isRemoved = true;
  });
  while (mHost.getBroker()->isModulePresent("Worker")) std::this_thread::yield();
  EXPECT_EQ(mDiary.notes(), Notes{});

  mGate.open();
  remover.join();

  EXPECT_TRUE(waitFor(task));
  EXPECT_EQ(mDiary.notes(), (Notes{kDone, "destroyed"}));
}

TEST_F(ModuleEnd, WaitsForAllParallelCallsInProgress) {
  publish([this] { mGate.pass(); });
  for (int i = 0; i < 4; ++i) pCall();
  ASSERT_TRUE(mGate.waitUntilParked(4));
  std::thread remover([this] { remove(); });

  mGate.open();
  remover.join();

  ASSERT_EQ(mDiary.notes().size(), 5U);
  EXPECT_EQ(mDiary.notes().back(), "destroyed");
}

TEST_F(ModuleEnd, ComesAtOnceWithoutAParallelCall) {
  publish([] {});

  remove();

  EXPECT_EQ(mDiary.notes(), Notes{"destroyed"});
}

TEST_F(ModuleEnd, LetsNoParallelCallBegin) {
  ParkingGate isStarted;
  publish([] {});
  // Queued, with nothing of the module's but a weak reference, until the module has gone.
  boost::shared_ptr<KXProxy> proxy = mHost.getProxy("Worker");
  std::vector<int> tasks;
  std::thread remover([this] { remove(); });
  for (int i = 0; i < 100; ++i) tasks.push_back(proxy->pCall("work"));
  remover.join();
  proxy.reset();

  for (int const task : tasks) EXPECT_TRUE(waitFor(task));
  Notes const notes = mDiary.notes();
  ASSERT_FALSE(notes.empty());
  EXPECT_EQ(notes.back(), "destroyed");
  EXPECT_EQ(std::count(notes.begin(), notes.end(), "destroyed"), 1);
}

TEST_F(ModuleEnd, MayBeginWithinItsOwnParallelCall) {
  publish([this] { remove(); });

  int const task = pCall();

  EXPECT_TRUE(waitFor(task));
  EXPECT_TRUE(becomes({kDone, "destroyed"}));
}

TEST_F(ModuleEnd, WithinItsOwnParallelCallWaitsForTheOthers) {
  std::atomic<bool> isFirst{true};
  ParkingGate callers;
  publish([&] {
    if (isFirst.exchange(false)) {
      mGate.pass();
      return;
    }
    callers.pass();
    remove();
  });
  int const other = pCall();
  ASSERT_TRUE(mGate.waitUntilParked(1));
  int const ending = pCall();
  callers.open();  // they have no reference left, whose end would wait for the call at the gate
  ASSERT_TRUE(becomes({kDone}));  // of the call that removed the module

  mGate.open();

  EXPECT_TRUE(waitFor(other));
  EXPECT_TRUE(waitFor(ending));
  EXPECT_TRUE(becomes({kDone, kDone, "destroyed"}));
}

// ---- scopes of a module's own threads

TEST_F(ModuleEnd, WaitsForTheOutermostScopeOfItsThread) {
  boost::shared_ptr<Worker> module =
      boost::shared_ptr<Worker>(new Worker(mHost.getBroker(), mDiary, [] {}), KXModuleEnd());
  KXModuleCore const& core = *module;
  EXPECT_FALSE(KXModuleScope::isInside(core));
  {
    KXModuleScope const outer(*module);
    EXPECT_TRUE(KXModuleScope::isInside(core));
    {
      KXModuleScope const inner(*module);
      module.reset();
      EXPECT_EQ(mDiary.notes(), Notes{});
    }
    EXPECT_EQ(mDiary.notes(), Notes{});
  }
  EXPECT_EQ(mDiary.notes(), Notes{"destroyed"});
}

TEST_F(ModuleEnd, ScopeOfAnotherModuleKeepsNothing) {
  auto const other = boost::shared_ptr<KXModule>(new KXModule(mHost.getBroker(), "Other"));
  auto module =
      boost::shared_ptr<Worker>(new Worker(mHost.getBroker(), mDiary, [] {}), KXModuleEnd());
  KXModuleScope const scope(*other);

  module.reset();

  EXPECT_EQ(mDiary.notes(), Notes{"destroyed"});
}

TEST_F(ModuleEnd, ScopeOnAnotherThreadKeepsNothing) {
  auto module =
      boost::shared_ptr<Worker>(new Worker(mHost.getBroker(), mDiary, [] {}), KXModuleEnd());
  KXModuleScope const scope(*module);
  std::thread([&] { EXPECT_FALSE(KXModuleScope::isInside(*module)); }).join();
}

// ---- closing hooks

TEST_F(ModuleEnd, RunsTheHooksInOrderAndOnce) {
  publish([] {}, {[this] { mDiary.note("first"); },
                  [this] {
                    mDiary.note("second");
                  }});
  auto held = mHost.getProxy("Worker");

  remove();
  EXPECT_EQ(mDiary.notes(), (Notes{"first", "second"}));
  held->getModule()->exit();
  held->getModule()->markClosing();
  held.reset();

  EXPECT_EQ(mDiary.notes(), (Notes{"first", "second", "destroyed"}));
}

TEST_F(ModuleEnd, MarksTheModuleAsClosingBeforeTheHooks) {
  KXModuleCore const* core = nullptr;
  bool wasClosing = false;
  publish([] {}, {[&] {
            wasClosing = core->isClosing();
          }});
  core = mHost.getProxy("Worker")->getModule().get();

  remove();

  EXPECT_TRUE(wasClosing);
}

TEST_F(ModuleEnd, RunsTheHooksOfAModuleThatWasNeverPublished) {
  auto module = boost::shared_ptr<Worker>(new Worker(mHost.getBroker(), mDiary, [] {}, {[this] {
                                                       mDiary.note("hook");
                                                     }}),
                                          KXModuleEnd());

  module.reset();

  EXPECT_EQ(mDiary.notes(), (Notes{"hook", "destroyed"}));
}

// The call leaves only because the hook wakes it: waiting first would be for ever.
TEST_F(ModuleEnd, RunsTheHooksBeforeItWaitsForParallelCalls) {
  publish([this] { mGate.pass(); }, {[this] {
            mDiary.note("hook");
            mGate.open();
          }});
  int const task = pCall();
  ASSERT_TRUE(mGate.waitUntilParked(1));

  remove();

  EXPECT_TRUE(waitFor(task));
  EXPECT_EQ(mDiary.notes(), (Notes{"hook", kDone, "destroyed"}));
}

TEST_F(ModuleEnd, LogsWhatAHookThrowsAndRunsTheOthers) {
  publish([] {}, {[this] { mDiary.note("first"); }, [] { throw std::runtime_error("no way"); },
                  [] { throw 5; },
                  [this] {
                    mDiary.note("last");
                  }});

  remove();

  EXPECT_EQ(mDiary.notes(), (Notes{"first", "last", "destroyed"}));
  EXPECT_EQ(logged(),
            (std::vector<std::string>{
                "a closing hook of module 'Worker' failed: no way",
                "a closing hook of module 'Worker' failed: an exception of unknown type"}));
}

TEST_F(ModuleEnd, RunsTheHooksOnceWhenManyEndIt) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> hooks{0};
    publish([] {}, {[&] {
              ++hooks;
            }});
    {
      auto const held = mHost.getProxy("Worker");
      std::jthread const one([&] { held->getModule()->markClosing(); });
      std::jthread const other([this] { remove(); });
    }
    ASSERT_EQ(hooks, 1);
  }
}

}  // namespace
}  // namespace KX
