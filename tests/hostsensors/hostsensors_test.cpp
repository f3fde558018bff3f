// The module, with groups and stores of the test's making.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxhostsensors.hpp>
#include <tests/support/testhost.hpp>

#include "fakegroup.hpp"

namespace KX {
namespace {

using testing::FakeGroup;
using testing::groupsOf;

/// Answers for "KXMemory" and keeps what it was called with, as method and arguments.
class RecordingStore {
 public:
  testing::Script script() {
    return [this](std::string const& method, KXValue const& params) {
      std::function<void()> failure;
      {
        std::lock_guard const lock(mMutex);
        mCalls.push_back(method + params.toString(1));
        ++mCounts[method];
        if (mFailures.contains(method)) failure = mFailures[method];
      }
      mChanged.notify_all();
      if (failure) failure();
      return KXValue();
    };
  }
  void failAt(std::string const& method, std::function<void()> failure) {
    std::lock_guard const lock(mMutex);
    mFailures[method] = std::move(failure);
  }
  std::vector<std::string> calls() {
    std::lock_guard const lock(mMutex);
    return mCalls;
  }
  int count(std::string const& method) {
    std::lock_guard const lock(mMutex);
    return mCounts[method];
  }
  /// False if it was not called so often within half a minute.
  bool waitForCount(std::string const& method, int count) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30),
                             [&] { return mCounts[method] >= count; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::string> mCalls;
  std::map<std::string, int> mCounts;
  std::map<std::string, std::function<void()>> mFailures;
};

class HostSensors : public ::testing::Test {
 protected:
  void publishStore() { mHost.publishScript("KXMemory", mStore.script()); }
  template <class... Group>
  boost::shared_ptr<KXHostSensors> publish(Group... groups) {
    boost::shared_ptr<KXHostSensors> module(
        new KXHostSensors(mHost.getBroker(), groupsOf(std::move(groups)...)));
    mHost.publish(module);
    return module;
  }
  KXValue call(std::string const& method) { return mHost.call("KXHostSensors", method); }
  void setPeriodMs(int periodMs) { mHost.call("KXHostSensors", "setPeriodMs", periodMs); }
  std::vector<std::string> warnings() {
    std::vector<std::string> texts;
    for (auto const& record : mHost.getLogged()) {
      if (record.level == ka::log::Warning && record.category == "KXHostSensors") {
        texts.push_back(record.function + ": " + record.text);
      }
    }
    return texts;
  }

  void countReading() {
    ++mReadings;
    mReadings.notify_all();
  }
  /// Waits for so many readings from now on; what the last but one found has been handed on then.
  void waitForReadings(int count) {
    int const end = mReadings + count;
    for (int seen = mReadings; seen < end; seen = mReadings) mReadings.wait(seen);
  }

  // What the groups use outlives the host, whose shutdown ends the module's thread.
  std::atomic<bool> mIsThere = true;
  std::atomic<int> mReadings = 0;
  RecordingStore mStore;
  testing::TestHost mHost;
};

FakeGroup one() {
  return FakeGroup("One", [](KXMachineReport& report) { report.add("a", KXValue(1)); });
}

TEST_F(HostSensors, DescribeThemselves) {
  publishStore();
  auto const module = publish(one());

  EXPECT_EQ("KXHostSensors", module->getName());
  EXPECT_EQ("Publishes this machine's sensors into KXMemory, below Host/.",
            module->getModuleDescription());
  ASSERT_EQ(2u, module->getMethods().size());
  EXPECT_EQ("getPeriodMs", module->getMethods()[0].name);
  EXPECT_EQ("int", module->getMethods()[0].result.type);
  EXPECT_EQ("setPeriodMs", module->getMethods()[1].name);
  EXPECT_EQ("int", module->getMethods()[1].parameters.at(0).type);
}

TEST_F(HostSensors, DeclareEventsAndPublishOncePerPeriodAlreadyWhenMade) {
  publishStore();
  using enum KXMachineKey::Kind;

  publish(FakeGroup("A",
                    [](KXMachineReport& report) {
                      report.add("a", KXValue(1));
                      report.add("unknown", KXValue());
                      report.events.push_back({"event", KXValue(true), false});
                      report.events.push_back({"moment", KXValue("x"), true});
                    },
                    0,
                    {{"a", "", Data, "", ""},
                     {"event", "", Event, "", ""},
                     {"moment", "", MicroEvent, "", ""}}),
          FakeGroup("B", [](KXMachineReport& report) { report.add("b", KXValue(2.5)); }));

  auto calls = mStore.calls();
  ASSERT_LE(5u, calls.size());
  calls.resize(5);
  EXPECT_EQ(
      (std::vector<std::string>{R"(declareEvent["event"])", R"(declareMicroEvent["moment"])",
                                R"(insertListData[[["a",1],["unknown",null],["b",2.5]]])",
                                R"(raiseEvent["event",true])", R"(raiseMicroEvent["moment","x"])"}),
      calls);
}

TEST_F(HostSensors, DeclareEventsOnlyOnce) {
  publishStore();
  publish(
      FakeGroup("A", [](KXMachineReport&) {}, 0, {{"e", "", KXMachineKey::Kind::Event, "", ""}}));
  setPeriodMs(10);

  ASSERT_TRUE(mStore.waitForCount("insertListData", 5));

  EXPECT_EQ(1, mStore.count("declareEvent"));
}

TEST_F(HostSensors, RemoveKeysThatVanish) {
  publishStore();
  publish(FakeGroup("A", [this](KXMachineReport& report) {
    report.add("stays", KXValue());
    if (mIsThere) report.add("goes", KXValue());
  }));
  setPeriodMs(10);

  mIsThere = false;
  ASSERT_TRUE(mStore.waitForCount("removeData", 1));
  int const periods = mStore.count("insertListData");
  ASSERT_TRUE(mStore.waitForCount("insertListData", periods + 3));

  EXPECT_EQ(1, mStore.count("removeData"));
  auto const calls = mStore.calls();
  EXPECT_EQ(1, std::count(calls.begin(), calls.end(), R"(removeData["goes"])"));
}

TEST_F(HostSensors, RemoveVanishedKeysWhenTheStoreIsBack) {
  publishStore();
  publish(FakeGroup("A", [this](KXMachineReport& report) {
    if (mIsThere) report.add("goes", KXValue());
    countReading();
  }));
  mHost.getBroker()->removeModule("KXMemory");
  mIsThere = false;
  setPeriodMs(10);
  waitForReadings(3);

  publishStore();

  EXPECT_TRUE(mStore.waitForCount("removeData", 1));
}

TEST_F(HostSensors, KeepAKeyThatIsBackBeforeTheStoreCouldRemoveIt) {
  publishStore();
  publish(FakeGroup("A", [this](KXMachineReport& report) {
    if (mIsThere) report.add("returns", KXValue());
    countReading();
  }));
  mHost.getBroker()->removeModule("KXMemory");
  setPeriodMs(10);
  mIsThere = false;
  waitForReadings(3);
  mIsThere = true;
  waitForReadings(3);
  int const periods = mStore.count("insertListData");

  publishStore();
  ASSERT_TRUE(mStore.waitForCount("insertListData", periods + 3));

  auto const calls = mStore.calls();
  auto const removed = std::find(calls.begin(), calls.end(), R"(removeData["returns"])");
  ASSERT_NE(calls.end(), removed);
  EXPECT_EQ(R"(insertListData[[["returns",null]]])", *std::next(removed));
  EXPECT_EQ(1, mStore.count("removeData"));
}

TEST_F(HostSensors, StartWithoutAStoreAndServeItWhenItComes) {
  publish(FakeGroup("A", [](KXMachineReport& report) { report.add("a", KXValue(1)); }, 0,
                    {{"e", "", KXMachineKey::Kind::Event, "", ""}}));
  ASSERT_EQ(1u, warnings().size());
  EXPECT_EQ(0u, warnings()[0].find("publish: cannot reach the store 'KXMemory': "));

  publishStore();

  EXPECT_TRUE(mStore.waitForCount("insertListData", 1));
  EXPECT_EQ(1, mStore.count("declareEvent"));
}

TEST_F(HostSensors, GoOnWhateverTheStoreThrows) {
  struct {
    char const* name;
    std::function<void()> failure;
    char const* text;
  } const variants[] = {
      {"KXError", [] { throw KXError("M", "m", "store says no", "", 0); }, "store says no"},
      {"std::exception", [] { throw std::runtime_error("bad day"); }, "bad day"},
      {"int", [] { throw 5; }, "an exception of unknown type"},
  };
  publishStore();
  publish(FakeGroup("A",
                    [this](KXMachineReport& report) {
                      report.add(std::to_string(mReadings++), KXValue());
                      report.events.push_back({"event", KXValue(), false});
                      report.events.push_back({"moment", KXValue(), true});
                    },
                    0, {{"e", "", KXMachineKey::Kind::Event, "", ""}}));
  setPeriodMs(10);

  for (auto const& variant : variants) {
    for (char const* const method :
         {"insertListData", "raiseEvent", "raiseMicroEvent", "removeData"}) {
      SCOPED_TRACE(std::string(variant.name) + " from " + method);
      mStore.failAt(method, variant.failure);
      std::map<std::string, int> before;
      for (char const* const each :
           {"insertListData", "raiseEvent", "raiseMicroEvent", "removeData"}) {
        before[each] = mStore.count(each);
      }
      for (auto const& [each, count] : before) EXPECT_TRUE(mStore.waitForCount(each, count + 3));
      mStore.failAt(method, {});
      bool const isLogged = [&] {
        for (std::string const& text : warnings()) {
          if (text.ends_with(variant.text)) return true;
        }
        return false;
      }();
      EXPECT_TRUE(isLogged);
    }
  }
}

TEST_F(HostSensors, DeclareAgainUntilTheStoreHasTakenIt) {
  publishStore();
  mStore.failAt("declareEvent", [] { throw std::runtime_error("not yet"); });
  publish(
      FakeGroup("A", [](KXMachineReport&) {}, 0, {{"e", "", KXMachineKey::Kind::Event, "", ""}}));
  setPeriodMs(10);
  ASSERT_TRUE(mStore.waitForCount("declareEvent", 3));

  mStore.failAt("declareEvent", {});
  int const failed = mStore.count("declareEvent");
  int const periods = mStore.count("insertListData");
  ASSERT_TRUE(mStore.waitForCount("insertListData", periods + 5));

  EXPECT_LE(mStore.count("declareEvent"), failed + 1);
}

TEST_F(HostSensors, DeclareAgainWhatWasRefusedBeforeOtherEventsWereTaken) {
  using enum KXMachineKey::Kind;
  publishStore();
  mStore.failAt("declareEvent", [] { throw std::runtime_error("not yet"); });

  publish(FakeGroup("A", [](KXMachineReport&) {}, 0,
                    {{"refused", "", Event, "", ""}, {"taken", "", MicroEvent, "", ""}}));
  setPeriodMs(10);

  EXPECT_TRUE(mStore.waitForCount("declareEvent", 3));
}

TEST_F(HostSensors, ReadEvery100MsUnlessTold) {
  publishStore();
  publish(one());

  EXPECT_EQ(KXValue(100), call("getPeriodMs"));
  setPeriodMs(500);
  EXPECT_EQ(KXValue(500), call("getPeriodMs"));
  EXPECT_TRUE(warnings().empty());
}

TEST_F(HostSensors, CorrectAPeriodAndLogIt) {
  struct {
    int asked;
    int taken;
  } const variants[] = {{10, 10}, {60000, 60000}, {9, 10}, {0, 10}, {-5, 10}, {60001, 60000}};
  publishStore();
  publish(one());

  for (auto const& variant : variants) {
    SCOPED_TRACE(variant.asked);
    std::size_t const logged = warnings().size();
    setPeriodMs(variant.asked);
    EXPECT_EQ(KXValue(variant.taken), call("getPeriodMs"));
    if (variant.asked == variant.taken) {
      EXPECT_EQ(logged, warnings().size());
    } else {
      EXPECT_EQ("setPeriodMs: period of " + std::to_string(variant.asked) + " ms corrected to " +
                    std::to_string(variant.taken) + " ms",
                warnings().back());
    }
  }
}

TEST_F(HostSensors, FollowANewPeriodAtOnce) {
  publishStore();
  // Set while it reads, so that the module goes on to wait for a minute.
  publish(FakeGroup("A", [this](KXMachineReport&) {
    if (mReadings++ > 0) setPeriodMs(60000);
  }));

  // Many times, as it is not known whether the module waits already.
  for (int count = 2; count < 30; ++count) {
    ASSERT_TRUE(mStore.waitForCount("insertListData", count));
    setPeriodMs(10);
  }
}

class TimingHostSensors : public HostSensors {};

TEST_F(TimingHostSensors, LeaveOutThePeriodsThatALongReadingMissed) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point end;
  Clock::duration pause{};
  publishStore();
  publish(FakeGroup("A", [&](KXMachineReport&) {
    int const reading = ++mReadings;
    if (reading == 4) pause = Clock::now() - end;
    if (reading != 3) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    end = Clock::now();
  }));
  setPeriodMs(10);

  EXPECT_TRUE(mStore.waitForCount("insertListData", 5));
  mHost.getBroker()->removeModule("KXHostSensors");

  EXPECT_GE(pause, std::chrono::milliseconds(10));
}

TEST_F(HostSensors, ReadNoMoreWhenTheyHaveLeftService) {
  publishStore();
  auto const module = publish(FakeGroup("A", [this](KXMachineReport&) { ++mReadings; }));
  setPeriodMs(10);
  ASSERT_TRUE(mStore.waitForCount("insertListData", 3));

  module->exit();
  int const readings = mReadings;
  EXPECT_FALSE(mHost.getBroker()->isModulePresent("KXHostSensors"));
  // As long as another takes for three periods.
  publish(one());
  setPeriodMs(10);
  ASSERT_TRUE(mStore.waitForCount("insertListData", mStore.count("insertListData") + 3));

  EXPECT_EQ(readings, mReadings);
}

TEST_F(HostSensors, DoNotWaitForTheEndOfALongPeriodWhenTheyLeave) {
  publishStore();
  publish(one());
  setPeriodMs(60000);

  auto const begin = std::chrono::steady_clock::now();
  mHost.getBroker()->removeModule("KXHostSensors");

  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST_F(HostSensors, MayDieWithoutEverBeingInService) {
  { KXHostSensors const module(mHost.getBroker(), groupsOf(one())); }

  EXPECT_TRUE(mStore.calls().empty());
}

}  // namespace
}  // namespace KX
