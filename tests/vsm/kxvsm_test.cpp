// The hardware cycle: its arithmetic, its thread, its rhythm.
#if defined(__GNUC__) && !defined(__clang__)
// With sanitizers, g++ 12 takes an optional inside Boost's signals for uninitialised.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <host/vsm/kxvsm.hpp>
#include <ka/log.hpp>
#include <kxcommon/kxbroker.hpp>
#include <tests/support/fakevsm.hpp>
#include <tests/support/parkinggate.hpp>

namespace KX {
namespace {

using testing::ParkingGate;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t kMs = 1'000'000;

TEST(CycleStep, GoesToTheFirstDeadlineThatHasNotPassed) {
  struct {
    char const* what;
    std::int64_t nowMs;
    std::int64_t deadlineMs;
    int missed;
  } const cases[] = {
      {"on time", 1000, 1010, 0},
      {"in the middle of the cycle", 1005, 1010, 0},
      {"just when the next is due", 1010, 1010, 0},
      {"just after the next was due", 1011, 1020, 1},
      {"when the second next is due", 1020, 1020, 1},
      {"three and a half cycles late", 1045, 1050, 4},
      {"a minute late", 61000, 61000, 5999},
  };
  for (auto const& [what, nowMs, deadlineMs, missed] : cases) {
    SCOPED_TRACE(what);
    EXPECT_EQ(nextCycle(1000 * kMs, nowMs * kMs), (KXCycleStep{deadlineMs * kMs, missed}));
  }
}

TEST(CycleStep, CountsACycleThatIsANanosecondLate) {
  EXPECT_EQ(nextCycle(0, 10 * kMs + 1), (KXCycleStep{20 * kMs, 1}));
}

TEST(CycleStep, NeverLeavesTheGridNorLosesACycle) {
  std::int64_t deadlineNs = 7 * kMs;
  std::int64_t nowNs = deadlineNs;
  std::int64_t accounted = 0;
  for (int i = 1; i <= 1000; ++i) {
    nowNs = std::max(nowNs, deadlineNs) + (i * 7919LL * kMs) % (43 * kMs) / 2;
    KXCycleStep const step = nextCycle(deadlineNs, nowNs);
    accounted += 1 + step.missedCycles;
    ASSERT_EQ(step.deadlineNs, 7 * kMs + accounted * 10 * kMs);
    ASSERT_GE(step.deadlineNs, nowNs);
    deadlineNs = step.deadlineNs;
  }
}

struct Vsm : ::testing::Test {
  Vsm() {
    ka::log::setStderrLevel(0);
    ka::log::addHandler("Vsm", [this](ka::log::Record const& record) {
      std::lock_guard const lock(mMutex);
      mRecords.push_back(record);
    });
  }
  ~Vsm() override {
    vsm.reset();
    broker->shutdown();
    ka::log::removeHandler("Vsm");
    ka::log::setStderrLevel(ka::log::Warning);
  }
  void onCycle(KXModule::CycleSignal::slot_type const& slot) { vsm->cycleSignal().connect(slot); }
  std::vector<ka::log::Record> records() {
    std::lock_guard const lock(mMutex);
    return mRecords;
  }

  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  boost::shared_ptr<KXVsm> vsm = KXModule::createModule<KXVsm>(broker);

 private:
  std::mutex mMutex;
  std::vector<ka::log::Record> mRecords;
};

// Counts cycles, keeps their times, and lets a test wait for them.
class CycleListener {
 public:
  void operator()() {
    std::lock_guard const lock(mMutex);
    mTimes.push_back(Clock::now());
    mChanged.notify_all();
  }
  std::vector<Clock::time_point> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, std::chrono::seconds(30), [&] { return mTimes.size() >= count; });
    return mTimes;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Clock::time_point> mTimes;
};

TEST_F(Vsm, IsPublishedWithItsCounters) {
  EXPECT_EQ(vsm->getName(), "VSM");
  EXPECT_NE(vsm->getModuleDescription(), "");
  ASSERT_EQ(vsm->getMethods().size(), 2U);
  EXPECT_EQ(vsm->getMethods()[0].name, "getCycleCount");
  EXPECT_EQ(vsm->getMethods()[1].name, "getMissedCycleCount");
  for (auto const& method : vsm->getMethods()) {
    EXPECT_EQ(method.result.type, "int");
    EXPECT_NE(method.description, "");
    EXPECT_TRUE(method.parameters.empty());
  }
}

TEST_F(Vsm, RaisesTheCycleOnOneThreadOfItsOwn) {
  std::mutex mutex;
  std::vector<std::thread::id> ids;
  onCycle([&] {
    std::lock_guard const lock(mutex);
    ids.push_back(std::this_thread::get_id());
  });
  CycleListener listener;
  onCycle(std::ref(listener));

  listener.waitFor(3);
  vsm->exit();

  ASSERT_GE(ids.size(), 3U);
  for (auto const id : ids) {
    EXPECT_EQ(id, ids.front());
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST_F(Vsm, CountsItsCycles) {
  CycleListener listener;
  onCycle(std::ref(listener));
  listener.waitFor(3);

  vsm->exit();

  std::size_t const heard = listener.waitFor(0).size();
  EXPECT_GE(vsm->getCycleCount(), static_cast<int>(heard));
  EXPECT_GE(heard, 3U);
}

TEST_F(Vsm, GoesOnWhenASlotThrowsAndLogsIt) {
  std::atomic<int> count{0};
  onCycle([&] {
    int const cycle = count++;
    if (cycle == 0) throw std::runtime_error("the reason");
    if (cycle == 1) throw cycle;
  });
  CycleListener listener;
  onCycle(std::ref(listener));

  listener.waitFor(1);

  auto const logged = records();
  ASSERT_EQ(logged.size(), 2U);
  EXPECT_EQ(logged[0].level, ka::log::Warning);
  EXPECT_EQ(logged[0].category, "VSM");
  EXPECT_EQ(logged[0].text, "a cycle slot failed: the reason");
  EXPECT_EQ(logged[1].text, "a cycle slot failed: an exception of unknown type");
}

TEST_F(Vsm, RaisesNoCycleAfterExit) {
  CycleListener listener;
  onCycle(std::ref(listener));
  listener.waitFor(1);

  vsm->exit();

  int const count = vsm->getCycleCount();
  std::size_t const heard = listener.waitFor(0).size();
  EXPECT_TRUE(vsm->isClosing());
  EXPECT_FALSE(broker->isModulePresent("VSM"));
  vsm->exit();
  EXPECT_EQ(vsm->getCycleCount(), count);
  EXPECT_EQ(listener.waitFor(0).size(), heard);
}

TEST_F(Vsm, MayBeEndedByASlot) {
  ParkingGate isEnded;
  onCycle([&] {
    vsm->exit();
    isEnded.open();
  });

  EXPECT_TRUE(isEnded.waitUntilOpen());
}

TEST_F(Vsm, MayBeDestroyedByASlot) {
  // Whoever holds it last: the slot itself may not, since it lives in the signal.
  ParkingGate gate;
  ParkingGate isDropped;
  boost::weak_ptr<KXVsm> const observed = vsm;
  auto holder = std::make_shared<boost::shared_ptr<KXVsm>>(vsm);
  onCycle([&] {
    gate.pass();
    holder->reset();
    isDropped.open();
  });
  ASSERT_TRUE(gate.waitUntilParked(1));
  vsm.reset();
  broker->removeModule("VSM");

  gate.open();

  ASSERT_TRUE(isDropped.waitUntilOpen());
  auto const end = Clock::now() + std::chrono::seconds(30);
  while (!observed.expired() && Clock::now() < end) std::this_thread::yield();
  EXPECT_TRUE(observed.expired());
}

TEST_F(Vsm, EndsWithItsLastReferenceWithoutExit) {
  boost::weak_ptr<KXVsm> const observed = vsm;
  broker->removeModule("VSM");
  vsm.reset();

  auto const end = Clock::now() + std::chrono::seconds(30);
  while (!observed.expired() && Clock::now() < end) std::this_thread::yield();
  EXPECT_TRUE(observed.expired());
}

using TimingVsm = Vsm;

TEST_F(TimingVsm, KeepsTheRhythmWithoutDrift) {
  // How far each cycle is behind the grid that the counters tell. The least of many is what the
  // clock makes of it; the others also show what else the machine had to do.
  std::vector<double> offsetsMs;
  ParkingGate isEnough;
  auto const start = Clock::now();
  onCycle([&] {
    if (offsetsMs.size() == 100) return isEnough.open();
    double const atMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    offsetsMs.push_back(atMs - 10.0 * (vsm->getCycleCount() + vsm->getMissedCycleCount()));
  });

  ASSERT_TRUE(isEnough.waitUntilOpen());
  vsm->exit();

  auto const middle = offsetsMs.begin() + 50;
  EXPECT_NEAR(*std::min_element(offsetsMs.begin(), middle),
              *std::min_element(middle, offsetsMs.end()), 2.0);
}

TEST(HandRaisedCycle, RunsTheSlotsAsOftenAsTheTestSays) {
  auto const broker = KXBroker::createBroker("test");
  auto const vsm = KXModule::createModule<FakeVsm>(broker);
  int count = 0;
  auto const connection = vsm->cycleSignal().connect([&] { ++count; });
  EXPECT_EQ(vsm->getSlotCount(), 1);

  vsm->cycle(5);
  EXPECT_EQ(count, 5);

  connection.disconnect();
  vsm->cycle();
  EXPECT_EQ(count, 5);
  EXPECT_EQ(vsm->getSlotCount(), 0);
  EXPECT_TRUE(broker->isModulePresent("VSM"));
}

}  // namespace
}  // namespace KX
