// What the module logs, it logs without a lock, so that a slow log keeps nobody waiting. The one
// exception is the end of a subscription, which belongs under the event lock with its warning.

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/simulatedtime.hpp>

namespace KX {
namespace {

class LogLocks : public SimulatedTimeTest {
 protected:
  struct Line {
    std::string function;
    bool isDataHeld;
    bool isEventHeld;

    bool operator==(Line const&) const = default;
  };
  using Lines = std::vector<Line>;

  LogLocks() {
    mMemory->set("data", "Data", 1);
    mMemory->set("event", "Event", 2);
    mMemory->set("micro", "MicroEvent", 3);
    KXMemoryWatcher& watcher = *mWatcher;
    ka::log::addHandler("LogLocks", [this, &watcher](ka::log::Record const& record) {
      Line const line{record.function, isHeld(ForTest::dataMutex(watcher)),
                      isHeld(ForTest::eventMutex(watcher))};
      std::lock_guard const lock(mMutex);
      mLines.push_back(line);
    });
  }
  ~LogLocks() override { ka::log::removeHandler("LogLocks"); }

  Lines lines() {
    std::lock_guard const lock(mMutex);
    return mLines;
  }
  void refuseEnds() {
    mMemory->setHook("unsubscribeToEvent", FakeMemory::throwing("refused"));
    mMemory->setHook("unsubscribeToMicroEvent", FakeMemory::throwing("refused"));
  }

 private:
  std::mutex mMutex;
  Lines mLines;  // guarded by mMutex
};

TEST_F(LogLocks, NoneWhereAKeyIsUnknownOrAPeriodIsCorrected) {
  add("unknown");
  call("setPeriodMs", 15);

  EXPECT_EQ(lines(), (Lines{{"addListener", false, false}, {"setPeriodMs", false, false}}));
}

TEST_F(LogLocks, NoneWhereACycleFails) {
  mMemory->setHook("getListData", FakeMemory::throwing("no answer"));
  update();
  mMemory->setHook("getListData", {});
  mMemory->forget("data");
  add("data");
  mMemory->set("data", "Event", 1);
  mMemory->setHook("getType", FakeMemory::throwing("no answer"));
  update();
  mMemory->setHook("getType", {});
  mMemory->setHook("subscribeToEvent", FakeMemory::throwing("no answer"));
  update();

  EXPECT_EQ(lines(), (Lines{{"xUpdateValues", false, false},
                            {"addListener", false, false},
                            {"xUpdateValues", false, false},
                            {"xUpdateValues", false, false}}));
}

TEST_F(LogLocks, NoneWhereTheClockWasSetOrTheWatchStandsStill) {
  inCycle([this](int cycle) {
    if (cycle == 1) mClock.stepWallByMs(60'000);
    if (cycle == 2) throw std::runtime_error("broken");
  });
  start(50);
  ASSERT_TRUE(mClock.waitUntilParked());
  mClock.jumpByMs(50);
  while (lines().size() < 2) std::this_thread::yield();

  EXPECT_EQ(lines(), (Lines{{"xFollowClock", false, false}, {"xMainThread", false, false}}));
}

TEST_F(LogLocks, TheEventLockWhereAnEndIsRefused) {
  for (char const* name : {"event", "micro"}) add(name);
  refuseEnds();
  remove("event");
  call("removeAllListeners");

  EXPECT_EQ(lines(), (Lines{{"unsubscribeFromEvent", false, true},
                            {"unsubscribeFromMicroEvent", false, true}}));
}

TEST_F(LogLocks, NoneWhereAllEndsAreRefusedInTheWalk) {
  for (char const* name : {"event", "micro"}) add(name);
  refuseEnds();
  mWatcher->unsubscribeFromEvents();

  EXPECT_EQ(lines(), (Lines{{"unsubscribeFromEvent", false, false},
                            {"unsubscribeFromMicroEvent", false, false}}));
}

TEST_F(LogLocks, NoneWhereAStepOfTheEndFails) {
  add("event");
  mMemory->setHook("unsubscribeToEvent", FakeMemory::throwingValue(std::runtime_error("broken")));
  destroyWatcher();

  EXPECT_EQ(lines(), (Lines{{"~KXMemoryWatcher", false, false}}));
}

}  // namespace
}  // namespace KX
