#include <ka/log.hpp>

#include <atomic>
#include <cstdlib>
#include <iomanip>
#include <latch>
#include <locale>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ka/runlogged.hpp>
#include <tests/support/parkinggate.hpp>

namespace ka::log {
namespace {

using KX::testing::ParkingGate;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

/// Writes nothing to stderr unless a test asks for it, and leaves no handler behind.
class Log : public testing::Test {
 protected:
  Log() { setStderrLevel(0); }
  ~Log() override {
    for (auto const* name : {"one", "two", "three"}) removeHandler(name);
    setStderrLevel(Warning);
  }

  /// A handler that keeps the texts under its name.
  Handler keep(std::string const& name) {
    return [this, name](Record const& record) {
      mTexts.push_back(name + ":" + record.text);
    };
  }

  std::vector<std::string> mTexts;
};

void say(std::string const& text) {
  log(Info, "test", "", "", 0, text);
}

TEST_F(Log, HandlersGetTheRecordAsItWasGiven) {
  std::vector<Record> records;
  addHandler("one", [&](Record const& record) { records.push_back(record); });
  ka::os::timeval before;
  ka::os::timeval after;

  ka::os::gettimeofday(&before);
  log(Warning, "category", "file.cpp", "function", 42, "text \x01\xff with\nbytes\n");
  ka::os::gettimeofday(&after);

  ASSERT_EQ(1U, records.size());
  EXPECT_EQ(3, records[0].level);
  EXPECT_EQ("category", records[0].category);
  EXPECT_EQ("file.cpp", records[0].file);
  EXPECT_EQ("function", records[0].function);
  EXPECT_EQ(42, records[0].line);
  EXPECT_EQ("text \x01\xff with\nbytes\n", records[0].text);
  auto const us = [](ka::os::timeval const& time) {
    return time.tv_sec * 1000000 + time.tv_usec;
  };
  EXPECT_LE(us(before), us(records[0].time));
  EXPECT_GE(us(after), us(records[0].time));
}

TEST_F(Log, HandlersGetEveryLevelAndEveryRepetition) {
  std::vector<int> levels;
  addHandler("one", [&](Record const& record) { levels.push_back(record.level); });

  for (int const level : {6, 3, 3, 3, 1, 99}) log(level, "c", "", "f", 0, "same");

  EXPECT_THAT(levels, ElementsAre(6, 3, 3, 3, 1, 99));
}

TEST_F(Log, HandlersAreCalledInTheOrderOfAddingOnTheLoggingThread) {
  std::thread::id caller;
  addHandler("one", keep("one"));
  addHandler("two", [&](Record const& record) {
    caller = std::this_thread::get_id();
    mTexts.push_back("two:" + record.text);
  });

  say("a");

  EXPECT_THAT(mTexts, ElementsAre("one:a", "two:a"));
  EXPECT_EQ(std::this_thread::get_id(), caller);
}

TEST_F(Log, AddingUnderTheSameNameReplaces) {
  addHandler("one", keep("first"));
  addHandler("one", keep("second"));

  say("a");

  EXPECT_THAT(mTexts, ElementsAre("second:a"));
}

TEST_F(Log, RemovedHandlersAndUnknownNamesAreNoMore) {
  addHandler("one", keep("one"));

  removeHandler("one");
  removeHandler("one");
  removeHandler("never added");
  say("a");

  EXPECT_THAT(mTexts, IsEmpty());
}

TEST_F(Log, WhatAHandlerThrowsIsDroppedAndTheOthersAreServed) {
  addHandler("one", [](Record const&) { throw std::runtime_error("no"); });
  addHandler("two", [](Record const&) { throw 5; });
  addHandler("three", keep("three"));

  EXPECT_NO_THROW(say("a"));

  EXPECT_THAT(mTexts, ElementsAre("three:a"));
}

TEST_F(Log, AnEmptyHandlerIsHarmless) {
  addHandler("one", Handler());
  addHandler("two", keep("two"));

  say("a");

  EXPECT_THAT(mTexts, ElementsAre("two:a"));
}

TEST_F(Log, AHandlerMayLog) {
  addHandler("one", [](Record const& record) {
    if (record.text == "outer") say("inner");
  });
  addHandler("two", keep("two"));

  say("outer");

  EXPECT_THAT(mTexts, ElementsAre("two:inner", "two:outer"));
}

TEST_F(Log, AHandlerThatAnswersEveryRecordEnds) {
  int calls = 0;
  addHandler("one", [&](Record const&) {
    ++calls;
    say("again");
  });

  say("a");
  EXPECT_EQ(8, calls);
  say("b");
  EXPECT_EQ(16, calls);
}

TEST_F(Log, AHandlerMayRemoveItself) {
  addHandler("one", [this, text = std::string("still there after its own removal")](auto const&) {
    removeHandler("one");
    mTexts.push_back(text);
  });

  say("a");
  say("b");

  EXPECT_THAT(mTexts, ElementsAre("still there after its own removal"));
}

TEST_F(Log, AHandlerThatAnotherRemovedRunsNoMore) {
  addHandler("one", [](Record const&) { removeHandler("two"); });
  addHandler("two", keep("two"));

  say("a");

  EXPECT_THAT(mTexts, IsEmpty());
}

TEST_F(Log, AHandlerThatAnotherAddedGetsTheNextRecord) {
  addHandler("one", [this](Record const&) { addHandler("two", keep("two")); });

  say("a");
  EXPECT_THAT(mTexts, IsEmpty());
  say("b");
  EXPECT_THAT(mTexts, IsEmpty());  // Replaced by the call before its own.
  removeHandler("one");
  say("c");
  EXPECT_THAT(mTexts, ElementsAre("two:c"));
}

TEST_F(Log, RecordsOfManyThreadsAllArrive) {
  constexpr int kThreads = 4;
  constexpr int kRecords = 500;
  std::atomic<int> calls{0};
  addHandler("one", [&](Record const&) { ++calls; });
  std::latch start(kThreads);

  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (int k = 0; k < kRecords; ++k) say("a");
    });
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(kThreads * kRecords, calls);
}

TEST_F(Log, AHandlerThatIsHeldUpHoldsUpNoOtherThread) {
  ParkingGate gate;
  std::atomic<int> served{0};
  addHandler("one", [&](Record const& record) {
    if (record.text == "stuck") gate.pass();
  });
  addHandler("two", [&](Record const&) { ++served; });
  std::thread stuck([] { say("stuck"); });
  ASSERT_TRUE(gate.waitUntilParked(1));

  say("a");
  EXPECT_EQ(1, served);
  addHandler("three", [&](Record const&) { ++served; });
  say("b");
  EXPECT_EQ(3, served);

  gate.open();
  stuck.join();
}

TEST_F(Log, AHandlerMayWaitForAThreadThatLogs) {
  std::atomic<int> served{0};
  addHandler("one", [&](Record const& record) {
    ++served;
    if (record.text == "outer") std::thread([] { say("inner"); }).join();
  });

  say("outer");

  EXPECT_EQ(2, served);
}

TEST_F(Log, TheBoundOfNestingIsEachThreadsOwn) {
  constexpr int kThreads = 3;
  std::atomic<int> calls{0};
  std::latch areAllWithin(kThreads);
  addHandler("one", [&](Record const& record) {
    ++calls;
    if (record.text == "first") areAllWithin.arrive_and_wait();
    say("again");
  });

  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([] { say("first"); });
  for (auto& thread : threads) thread.join();

  EXPECT_EQ(kThreads * 8, calls);
}

TEST_F(Log, RemovalWaitsForAHandlerThatRunsElsewhere) {
  std::latch entered(1);
  std::atomic<bool> mayLeave{false};
  std::atomic<bool> hasLeft{false};
  addHandler("one", [&](Record const&) {
    entered.count_down();
    mayLeave.wait(false);
    hasLeft = true;
  });
  std::thread logging([] { say("a"); });
  entered.wait();

  std::atomic<bool> isRemoving{false};
  std::thread removing([&] {
    isRemoving = true;
    isRemoving.notify_one();
    removeHandler("one");
    EXPECT_TRUE(hasLeft);
  });
  isRemoving.wait(false);
  for (int i = 0; i < 100; ++i) std::this_thread::yield();  // A chance to return too early.
  mayLeave = true;
  mayLeave.notify_one();

  removing.join();
  logging.join();
}

TEST_F(Log, ReplacingWaitsForTheFormerHandlerToo) {
  ParkingGate gate;
  std::atomic<bool> hasLeft{false};
  addHandler("one", [&](Record const&) {
    gate.pass();
    hasLeft = true;
  });
  std::thread logging([] { say("a"); });
  ASSERT_TRUE(gate.waitUntilParked(1));

  std::thread replacing([&] {
    addHandler("one", keep("second"));
    EXPECT_TRUE(hasLeft);
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();  // A chance to return too early.
  gate.open();
  replacing.join();
  logging.join();
  say("b");

  EXPECT_THAT(mTexts, ElementsAre("second:b"));
}

TEST_F(Log, AHandlerThatRunsElsewhereTooMayRemoveItself) {
  ParkingGate gate;
  std::atomic<bool> hasLeft{false};
  addHandler("one", [&](Record const& record) {
    if (record.text == "remove") {
      removeHandler("one");
      return;
    }
    gate.pass();
    hasLeft = true;
  });
  std::thread stuck([] { say("stuck"); });
  ASSERT_TRUE(gate.waitUntilParked(1));

  say("remove");

  std::thread removing([&] {
    removeHandler("one");  // Of no effect but to wait for the call in progress.
    EXPECT_TRUE(hasLeft);
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();  // A chance to return too early.
  gate.open();
  removing.join();
  stuck.join();
}

TEST_F(Log, WhatAHandlerHoldsIsFreeOnceItIsRemoved) {
  auto const held = std::make_shared<int>(5);
  ParkingGate gate;
  addHandler("one", [&](Record const& record) {
    if (record.text == "stuck") gate.pass();
  });
  addHandler("two", [held](Record const&) {});
  // Has the second handler on its list while it is in the first.
  std::thread stuck([] { say("stuck"); });
  ASSERT_TRUE(gate.waitUntilParked(1));

  removeHandler("two");

  EXPECT_EQ(1, held.use_count());
  gate.open();
  stuck.join();
}

TEST_F(Log, WhatAHandlerHoldsMayLogAsItGoes) {
  struct Talker {
    ~Talker() { say("gone"); }
  };
  addHandler("one", keep("one"));
  addHandler("two", [talker = std::make_shared<Talker>()](Record const& record) {
    if (record.text == "remove") removeHandler("two");
  });
  addHandler("three", [talker = std::make_shared<Talker>()](Record const&) {});

  say("remove");
  removeHandler("three");

  EXPECT_THAT(mTexts, ElementsAre("one:remove", "one:gone", "one:gone"));
}

TEST_F(Log, StreamAssemblesTheTextAndLogsWhenItEnds) {
  std::vector<Record> records;
  addHandler("one", [&](Record const& record) { records.push_back(record); });

  {
    LogStream stream(Warning, "category", "file", "function", 3);
    stream << "text " << 5 << ' ' << std::setprecision(3) << 2.5 << std::endl;
    EXPECT_THAT(records, IsEmpty());
  }

  ASSERT_EQ(1U, records.size());
  EXPECT_EQ("text 5 2.5\n", records[0].text);
  EXPECT_EQ(3, records[0].level);
  EXPECT_EQ("category", records[0].category);
  EXPECT_EQ("file", records[0].file);
  EXPECT_EQ("function", records[0].function);
  EXPECT_EQ(3, records[0].line);
}

TEST_F(Log, NumbersInAStreamDoNotFollowTheLocale) {
  struct Grouped : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  addHandler("one", keep("one"));
  std::locale const former = std::locale::global(std::locale(std::locale(), new Grouped));

  LogStream(Warning, "c", "", "", 0) << 1234567;
  std::locale::global(former);

  EXPECT_THAT(mTexts, ElementsAre("one:1234567"));
}

TEST_F(Log, AStepThatFailsIsOneWarningWithItsReason) {
  std::vector<Record> records;
  addHandler("one", [&](Record const& record) { records.push_back(record); });
  auto const failure = [] {
    return std::string("second failed");
  };

  EXPECT_TRUE(runLogged("category", "function", "none failed", [] {}));
  EXPECT_FALSE(runLogged("category", "function", "first failed",
                         [] { throw std::runtime_error("reason"); }));
  EXPECT_FALSE(runLogged("category", "function", failure, [] { throw 5; }));

  ASSERT_EQ(2U, records.size());
  EXPECT_EQ(Warning, records[0].level);
  EXPECT_EQ("category", records[0].category);
  EXPECT_EQ("function", records[0].function);
  EXPECT_EQ("first failed: reason", records[0].text);
  EXPECT_EQ("second failed: an exception of unknown type", records[1].text);
}

TEST_F(Log, StderrGetsALineWithTheTimeUpToItsLevel) {
  setStderrLevel(Error);

  testing::internal::CaptureStderr();
  log(Warning, "c", "", "", 0, "less severe");
  log(Error, "store", "", "insert", 0, "full\x1b[2J\n");
  std::string const output = testing::internal::GetCapturedStderr();

  EXPECT_THAT(output, MatchesRegex("[0-9]+-[0-9][0-9]-[0-9][0-9] "
                                   "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] "
                                   "\\[error\\] store\\.insert: full\\\\x1b\\[2J\n"));
}

TEST_F(Log, StderrGetsNothingAtLevelZero) {
  testing::internal::CaptureStderr();
  log(Fatal, "c", "", "", 0, "a");

  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(Log, StderrGetsWarningsUnlessToldOtherwise) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setStderrLevel(Warning);
        log(Info, "c", "", "f", 0, "not shown");
        for (int i = 0; i < 3; ++i) log(Warning, "c", "", "f", 0, "shown");
        std::exit(0);
      },
      testing::ExitedWithCode(0), "^[^\n]* \\[warning\\] c\\.f: shown\n[^\n]* 2 more held back\n$");
}

TEST(StressLog, NoHandlerRunsOnceItIsRemoved) {
  setStderrLevel(0);
  std::atomic<bool> isDone{false};
  std::vector<std::thread> logging;
  for (int i = 0; i < 3; ++i)
    logging.emplace_back([&] {
      while (!isDone) say("a");
    });
  std::atomic<int> lateCalls{0};
  std::atomic<int> calls{0};
  auto const comeAndGo = [&](std::string const& name) {
    for (int i = 0; i < 2000; ++i) {
      auto isRemoved = std::make_unique<bool>(false);  // Freed as soon as the handler is removed.
      addHandler(name, [&lateCalls, &calls, flag = isRemoved.get()](Record const&) {
        if (*flag) ++lateCalls;
        ++calls;
      });
      if (i % 2 == 0) addHandler(name, [&calls](Record const&) { ++calls; });
      removeHandler(name);
      *isRemoved = true;
    }
  };

  std::thread other([&] { comeAndGo("one"); });
  comeAndGo("two");
  other.join();
  isDone = true;
  for (auto& thread : logging) thread.join();
  int const callsSoFar = calls;
  say("b");

  EXPECT_EQ(0, lateCalls);
  EXPECT_EQ(callsSoFar, calls);
  setStderrLevel(Warning);
}

}  // namespace
}  // namespace ka::log
