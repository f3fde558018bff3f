// A robot's store, its watcher and their clients over a real server: what each of them still has,
// and says, after the server, a connection or a process failed.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/bus/cutproxy.hpp>
#include <tests/bus/listener.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/childprocess.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/parkinggate.hpp>

namespace KX {
namespace {

using namespace std::chrono_literals;
using KX::testing::ChildProcess;
using KX::testing::CutProxy;
using KX::testing::NatsServer;
using KX::testing::ParkingGate;
using KX::testing::waitUntil;
using Clock = std::chrono::steady_clock;
using Values = std::vector<KXValue>;

constexpr int kPeriodMs = 10;
constexpr char const* kWatcher = "KXMemoryWatcher";
// The last one of a test, after which what is made up for is counted.
constexpr std::chrono::milliseconds kLastFailure{1000};
constexpr auto kSoon = 3s;  // of what waits 5 s for an answer, or for ever, if it waits

bool isLong() {
  return std::getenv("KX_LONG") != nullptr;
}

/// How long a step takes.
template <class Step>
Clock::duration timeOf(Step&& step) {
  auto const start = Clock::now();
  step();
  return Clock::now() - start;
}

/// What fetches gave: of the key "number", which has to bring the numbers from 1 on, and of the key
/// "data", whose samples tell when batches were read.
class Ledger {
 public:
  void take(KXValue const& fetched) {
    for (int i = 0; i < fetched.getSize(); ++i) {
      KXValue const& samples = fetched[i][1];
      bool const isNumber = fetched[i][0] == KXValue("number");
      for (int j = 0; j < samples.getSize(); ++j) {
        if (isNumber) {
          // Declared, and not raised yet, it has an invalid value.
          if (samples[j][1].isValid()) xTakeNumber(static_cast<int>(samples[j][1]));
        } else {
          timesUs.push_back(static_cast<int>(samples[j][0][0]) * std::int64_t{1'000'000} +
                            static_cast<int>(samples[j][0][1]));
        }
      }
    }
  }
  std::ptrdiff_t countSince(std::int64_t timeUs) const {
    return timesUs.end() - std::ranges::lower_bound(timesUs, timeUs);
  }

  int last = 0;
  int skipped = 0;  ///< numbers that did not come in their turn
  int back = 0;     ///< numbers that came again, or too late
  std::vector<std::int64_t> timesUs{};

 private:
  void xTakeNumber(int number) {
    if (number <= last) ++back;
    if (number > last + 1) skipped += number - last - 1;
    last = std::max(last, number);
  }
};

/// The store in one host and the watcher in another, each behind a proxy of its own.
class Faults : public ::testing::Test {
 protected:
  Faults() {
    startStore();
    KXHost& host = watcher.emplace(hostOptions(watcherProxy.url(), KXHost::Announced::OwnModules));
    host.loadModule(KX_LIB_DIR "/libmemorywatcher.so");
    host.announce();
    call(*watcher, kWatcher, "startWatching", {kPeriodMs});
    call(*watcher, kWatcher, "addListeners", {KXValue(std::vector<std::string>{"number", "data"})});
    EXPECT_TRUE(isSampling());
    call(*watcher, kWatcher, "clearBuffer");
    mLedger = {};
    mStart = Clock::now();
    log.clear();
  }
  ~Faults() override {
    endPosting();
    watcher.reset();
    store.reset();
    if (!HasFailure()) return;
    std::vector<std::string> const texts = log.texts();
    auto const shown = std::min<std::ptrdiff_t>(std::ssize(texts), 20);
    for (auto text = texts.end() - shown; text != texts.end(); ++text) {
      std::cerr << "log: " << *text << '\n';
    }
    for (std::size_t i = 1; i < mLedger.timesUs.size(); ++i) {
      std::int64_t const gapMs = (mLedger.timesUs[i] - mLedger.timesUs[i - 1]) / 1000;
      if (gapMs > 3 * kPeriodMs) std::cerr << "batch " << i << " after " << gapMs << " ms\n";
    }
    std::cerr << "last " << mLedger.last << ", skipped " << mLedger.skipped << ", back "
              << mLedger.back << ", batches " << mLedger.timesUs.size() << '\n';
  }

  static std::int64_t nowUs() {
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  }
  static KXHost::Options hostOptions(std::string const& url, KXHost::Announced announced) {
    return {.withStore = false, .bus = KXBusOptions{.url = url}, .announced = announced};
  }
  static KXValue call(KXHost& host, std::string const& module, std::string const& method,
                      Values arguments = {}, int timeoutMs = 0) {
    return host.getBroker()->getProxy(module, 0)->genericCall(method, KXValue(std::move(arguments)),
                                                              timeoutMs);
  }
  void startStore() {
    KXHost::Options options = hostOptions(storeProxy.url(), KXHost::Announced::Everything);
    options.withStore = true;
    store.emplace(options);
    store->announce();
    call(*store, "KXMemory", "insertData", {"data", 1});
    call(*store, "KXMemory", "declareEvent", {"number"});
  }

  /// Raises "number" with the numbers up to `last`, some 10 000 a second.
  void startPosting(int last) {
    mIsPosting = true;
    mPoster = std::thread([this, last] {
      constexpr int kAtOnce = 10;
      auto const memory = store->getBroker()->getProxy("KXMemory", 0);
      std::string const key = "number";
      for (int number = 1; number <= last && mIsPosting; ++number) {
        memory->call<void>("raiseEvent", key, KXValue(number));
        if (number % kAtOnce == 0) std::this_thread::sleep_for(1ms);
      }
    });
  }
  void endPosting() {
    mIsPosting = false;
    if (mPoster.joinable()) mPoster.join();
  }
  void fetch() { mLedger.take(call(*watcher, kWatcher, "getData")); }
  /// Fetches until the number has come.
  bool isAt(int number) {
    return waitUntil([&] {
      fetch();
      return mLedger.last >= number;
    });
  }
  /// Fetches until some batches more have come.
  bool isSampling() {
    std::size_t const enough = mLedger.timesUs.size() + 5;
    return waitUntil([&] {
      fetch();
      return mLedger.timesUs.size() >= enough;
    });
  }

  /// Every number up to the last was fetched once and in order, or was dropped and counted so.
  void expectEveryNumberOnce(int last) {
    if (mPoster.joinable()) mPoster.join();
    EXPECT_TRUE(isAt(last));
    auto const transport = store->getBroker()->getTransport();
    std::string const address = std::string(kWatcher) + "@" + watcher->getBroker()->getName();
    KXNotificationCounts counts;
    EXPECT_TRUE(waitUntil([&] {
      counts = transport->notificationCounts(address);
      return counts.waiting == 0;
    }));
    EXPECT_EQ(counts.posted, static_cast<std::uint64_t>(last));
    EXPECT_EQ(counts.delivered + counts.dropped, counts.posted);
    EXPECT_EQ(static_cast<std::uint64_t>(mLedger.skipped), counts.dropped);
    EXPECT_EQ(mLedger.back, 0);
    EXPECT_EQ(mLedger.last, last);
  }
  /// Each period gave one batch or one warning, and none was made up for.
  void expectSteadySampling() {
    EXPECT_TRUE(isSampling());
    auto const periods = (Clock::now() - mStart) / std::chrono::milliseconds(kPeriodMs);
    auto const batches = static_cast<std::ptrdiff_t>(mLedger.timesUs.size());
    std::ptrdiff_t const warnings = countWarnings();
    RecordProperty("batches", std::to_string(batches));
    RecordProperty("warnings", std::to_string(warnings));
    EXPECT_LE(batches + warnings, periods + 10);
    // A read may take a tenth of a second, and a thread on a busy machine sleep for half a one: the
    // periods of that time are made up for, but not those of the failure.
    constexpr int kMadeUp = 600 / kPeriodMs;
    static_assert(kMadeUp < kLastFailure / std::chrono::milliseconds(kPeriodMs));
    std::int64_t const periodsSince = (nowUs() - mReturnUs) / (kPeriodMs * 1000);
    EXPECT_LE(mLedger.countSince(mReturnUs), periodsSince + kMadeUp);
  }
  std::ptrdiff_t countWarnings() const {
    auto const lines = log.lines();
    return std::ranges::count_if(lines, [](LogLine const& line) {
      return line.text.starts_with("Error caught getting data");
    });
  }

  void killTheServer(int times, int last) {
    startPosting(last);
    for (int i = 1; i <= times; ++i) {
      ASSERT_TRUE(isAt(last / (times + 1) * i));
      server.kill();
      std::this_thread::sleep_for(i < times ? 100ms : kLastFailure);  // some periods are to be lost
      fetch();
      mReturnUs = nowUs();
      server.start();
      EXPECT_TRUE(isSampling());
    }
    expectEveryNumberOnce(last);
    expectSteadySampling();
    EXPECT_GT(countWarnings(), 0);
  }
  void hangTheServer(std::chrono::milliseconds time, int last) {
    startPosting(last);
    ASSERT_TRUE(isAt(last / 4));
    server.hang();
    auto const end = Clock::now() + time;
    while (Clock::now() < end) {
      EXPECT_LT(timeOf([&] { fetch(); }), kSoon);  // the watcher itself does not stand still
      std::this_thread::sleep_for(50ms);
    }
    mReturnUs = nowUs();
    server.goOn();
    expectEveryNumberOnce(last);
    expectSteadySampling();
    EXPECT_GT(countWarnings(), 0);
  }
  void cutOff(CutProxy& proxy, int times, int last) {
    startPosting(last);
    for (int i = 1; i <= times; ++i) {
      ASSERT_TRUE(isAt(last / (times + 1) * i));
      proxy.cut();
      std::this_thread::sleep_for(i < times ? 100ms : kLastFailure);  // some periods are to be lost
      mReturnUs = nowUs();
      proxy.resume();
      EXPECT_TRUE(isSampling());
    }
    expectEveryNumberOnce(last);
    expectSteadySampling();
    EXPECT_GT(countWarnings(), 0);
  }

  LogCapture log;
  NatsServer server;
  CutProxy storeProxy{server.port()};
  CutProxy watcherProxy{server.port()};
  std::optional<KXHost> store;
  std::optional<KXHost> watcher;
  Ledger mLedger;

 private:
  Clock::time_point mStart;
  std::int64_t mReturnUs = 0;  // when what had failed was there again, on the wall clock
  std::atomic<bool> mIsPosting{false};
  std::thread mPoster;
};

using StressFaults = Faults;

TEST_F(Faults, AServerThatIsKilledLosesNoEventAndOnlyItsPeriods) {
  killTheServer(3, 20'000);
}

TEST_F(StressFaults, AServerThatIsKilledOftenLosesNoEventAndOnlyItsPeriods) {
  killTheServer(isLong() ? 20 : 5, isLong() ? 200'000 : 50'000);
}

TEST_F(Faults, AServerThatHangsLosesNoEventAndOnlyItsPeriods) {
  hangTheServer(2s, 20'000);
}

TEST_F(StressFaults, AServerThatHangsLongLosesNoEventAndOnlyItsPeriods) {
  hangTheServer(5s, isLong() ? 200'000 : 50'000);
}

TEST_F(Faults, CutsOfTheStoreLoseNoEventAndOnlyTheirPeriods) {
  cutOff(storeProxy, 2, 10'000);
}

TEST_F(Faults, CutsOfTheWatcherLoseNoEventAndOnlyTheirPeriods) {
  cutOff(watcherProxy, 2, 10'000);
}

TEST_F(StressFaults, ManyCutsLoseNoEventAndOnlyTheirPeriods) {
  int const times = isLong() ? 20 : 4;
  cutOff(watcherProxy, times, times * 5'000);
}

TEST_F(Faults, AShutdownDoesNotWaitForAServerThatHangs) {
  startPosting(1'000'000);
  ASSERT_TRUE(isAt(100));
  server.hang();
  std::this_thread::sleep_for(100ms);

  EXPECT_LT(timeOf([&] { watcher.reset(); }), kSoon);
  endPosting();
  EXPECT_LT(timeOf([&] { store.reset(); }), kSoon);
  server.goOn();
}

TEST_F(Faults, TwoWhoFetchInTurnGetEachSampleOnce) {
  constexpr int kLast = 10'000;
  constexpr int kKills = 2;
  KXHost one(hostOptions(server.url(), KXHost::Announced::Nothing));
  KXHost other(hostOptions(watcherProxy.url(), KXHost::Announced::Nothing));
  // A call that meets no connection fails before its first try, and took nothing out.
  auto const untilConnected = [](auto const& step) {
    KXValue result;
    EXPECT_TRUE(waitUntil([&] {
      try {
        result = step();
        return true;
      } catch (KXError const& error) {
        EXPECT_EQ(error.getKind(), KXError::Kind::Disconnected) << error.getDescription();
        return false;
      }
    }));
    return result;
  };
  auto const fetchInTurn = [&](int number) {
    return waitUntil([&] {
      for (KXHost* client : {&one, &other}) {
        mLedger.take(call(*client, kWatcher, "getData", {}, 30'000));
      }
      return mLedger.last >= number;
    });
  };
  startPosting(kLast);
  for (int i = 1; i <= kKills; ++i) {
    ASSERT_TRUE(fetchInTurn(kLast / (kKills + 1) * i));
    std::jthread fetching([&] {
      mLedger.take(untilConnected([&] { return call(one, kWatcher, "getData", {}, 30'000); }));
    });
    server.kill();
    server.start();
    fetching.join();
    untilConnected([&] { return call(other, kWatcher, "isWatching"); });
  }
  ASSERT_TRUE(fetchInTurn(kLast));
  expectEveryNumberOnce(kLast);
}

TEST_F(Faults, AStoreThatStartsAnewHasItsSubscribersBack) {
  startPosting(100);
  expectEveryNumberOnce(100);

  store.reset();
  std::this_thread::sleep_for(50ms);  // some periods are to be lost
  startStore();
  EXPECT_TRUE(isSampling());

  // The subscription comes back some time after the store: who raises meanwhile is not heard.
  mLedger = {};
  int number = 0;
  EXPECT_TRUE(waitUntil([&] {
    call(*store, "KXMemory", "raiseEvent", {"number", ++number});
    fetch();
    return mLedger.last > 0;
  }));
  EXPECT_TRUE(isAt(number));
  int const unheard = mLedger.skipped;
  for (int i = 0; i < 100; ++i) call(*store, "KXMemory", "raiseEvent", {"number", ++number});
  EXPECT_TRUE(isAt(number));
  EXPECT_EQ(mLedger.skipped, unheard);
  EXPECT_EQ(mLedger.back, 0);
}

TEST_F(Faults, AnEventAndTheEndOfItsSubscriptionDoNotHoldEachOtherUp) {
  startPosting(1'000'000);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(isAt(mLedger.last + 1));
    EXPECT_LT(timeOf([&] { call(*watcher, kWatcher, "removeListener", {"number"}); }), kSoon);
    // What was on its way made an entry of its own, which would pass for the one to be added.
    auto const transport = store->getBroker()->getTransport();
    std::string const address = std::string(kWatcher) + "@" + watcher->getBroker()->getName();
    EXPECT_TRUE(waitUntil([&] { return transport->notificationCounts(address).waiting == 0; }));
    fetch();
    call(*watcher, kWatcher, "removeAllListeners");
    EXPECT_LT(timeOf([&] { call(*watcher, kWatcher, "addListener", {"number"}); }), kSoon);
  }
  endPosting();
  call(*watcher, kWatcher, "addListener", {"data"});
  EXPECT_TRUE(isSampling());
}

// ---- real processes

class Processes : public ::testing::Test {
 protected:
  std::unique_ptr<ChildProcess> start(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--bus", server.url()});
    auto process = std::make_unique<ChildProcess>(arguments);
    process->waitForErrorText("serving");
    return process;
  }
  std::unique_ptr<ChildProcess> startHost() const { return start({KX_BIN_DIR "/kx", "host"}); }
  std::unique_ptr<ChildProcess> startWatcher() const {
    return start({KX_BIN_DIR "/memorywatcher"});
  }
  KXValue call(std::string const& module, std::string const& method, Values arguments = {}) {
    return client.getBroker()->getProxy(module, 0)->genericCall(method,
                                                                KXValue(std::move(arguments)));
  }

  LogCapture log;
  NatsServer server;
  KXHost client{{.withStore = false, .bus = KXBusOptions{.url = server.url()}}};
};

TEST_F(Processes, AWatcherThatIsKilledFailsTheFetchAndItsNameIsFree) {
  auto const host = startHost();
  call("KXMemory", "insertData", {"data", 1});
  std::optional<Clock::duration> firstStart;  // of a process, and where nobody had the name before
  for (int round = 0; round < 3; ++round) {
    auto const before = Clock::now();
    auto const watcher = startWatcher();
    if (!firstStart) firstStart = Clock::now() - before;
    call(kWatcher, "addListener", {"data"});
    call(kWatcher, "startWatching", {kPeriodMs});
    std::jthread killer([&] {
      std::this_thread::sleep_for(100ms);  // while it is fetched from
      watcher->sendSignal(SIGKILL);
    });
    std::optional<KXError::Kind> kind;
    Clock::duration worst{0};
    EXPECT_TRUE(waitUntil([&] {
      auto const asked = Clock::now();
      try {
        call(kWatcher, "getData");
      } catch (KXError const& error) {
        kind = error.getKind();
      }
      worst = std::max(worst, Clock::now() - asked);
      return kind.has_value();
    }));
    killer.join();
    EXPECT_TRUE(kind == KXError::Kind::Disconnected || kind == KXError::Kind::NotFound);
    EXPECT_LT(worst, kSoon);  // with the first repeat
    EXPECT_EQ(watcher->waitForEnd(), -SIGKILL);
  }
  auto const start = Clock::now();
  auto const watcher = startWatcher();
  EXPECT_LT(Clock::now() - start, *firstStart + 3s);
}

TEST_F(Processes, AHostThatIsKilledAndStartedAgainIsSampledAgain) {
  auto host = startHost();
  auto const watcher = startWatcher();
  call(kWatcher, "startWatching", {kPeriodMs});
  call("KXMemory", "declareEvent", {"number"});
  call(kWatcher, "addListener", {"number"});
  for (int round = 1; round <= 2; ++round) {
    host->sendSignal(SIGKILL);
    EXPECT_EQ(host->waitForEnd(), -SIGKILL);
    host = startHost();

    Ledger ledger;
    EXPECT_TRUE(waitUntil([&] {
      call("KXMemory", "raiseEvent", {"number", round});
      ledger.take(call(kWatcher, "getData"));
      return ledger.last == round;
    }));
  }
}

// ---- what meets

class Slow : public KXModule {
 public:
  explicit Slow(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Slow") {
    publish(*this, {"echo"}, &Slow::echo);
    publish(*this, {"park"}, &Slow::park);
  }
  KXValue echo(KXValue const& value) {
    ++echoed;
    return value;
  }
  KXValue park(KXValue const& value) {
    gate.pass();
    return value;
  }
  ParkingGate gate;
  std::atomic<int> echoed{0};
};

struct Meetings : ::testing::Test {
  Meetings() {
    slow = KXModule::createModule<Slow>(callee->getBroker());
    callee->announce();
  }
  ~Meetings() override { slow->gate.open(); }
  KXValue call(std::string const& method, KXValue const& value, int timeoutMs = 0) {
    return caller.getBroker()->getProxy("Slow", 0)->genericCall(method, KXValue::arrayOf(value),
                                                                timeoutMs);
  }

  LogCapture log;
  NatsServer server;
  std::optional<KXHost> callee{std::in_place,
                               KXHost::Options{.withStore = false,
                                               .bus = KXBusOptions{.url = server.url()},
                                               .announced = KXHost::Announced::OwnModules}};
  KXHost caller{{.withStore = false, .bus = KXBusOptions{.url = server.url()}}};
  boost::shared_ptr<Slow> slow;
};

TEST_F(Meetings, AReplyThatComesTooLateIsNobodysElse) {
  call("echo", 0);
  auto const before = Clock::now();
  try {
    call("park", "late", 1000);
    ADD_FAILURE() << "did not time out";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getKind(), KXError::Kind::TimedOut);
  }
  EXPECT_LT(Clock::now() - before, kSoon);
  EXPECT_TRUE(slow->gate.waitUntilParked(1));

  slow->gate.open();

  for (int i = 0; i < 100; ++i) EXPECT_EQ(call("echo", i), KXValue(i));
  EXPECT_EQ(slow->echoed, 101);
}

TEST_F(Meetings, WhoIsAnnouncedCanBeCalledAtOnce) {
  slow.reset();
  for (int i = 0; i < 10; ++i) {
    callee.reset();
    callee.emplace(KXHost::Options{.withStore = false,
                                   .bus = KXBusOptions{.url = server.url()},
                                   .announced = KXHost::Announced::OwnModules});
    slow = KXModule::createModule<Slow>(callee->getBroker());
    callee->announce();

    ASSERT_EQ(call("echo", i), KXValue(i));
  }
}

TEST_F(Meetings, CallsEndWithTheirCallee) {
  std::atomic<int> answered{0};
  std::atomic<int> errors{0};
  std::atomic<int> wrongKinds{0};
  std::vector<std::jthread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&](std::stop_token const& stop) {
      while (!stop.stop_requested()) {
        try {
          call("echo", 1);
          ++answered;
        } catch (KXError const& error) {
          ++errors;
          KXError::Kind const kind = error.getKind();
          if (kind != KXError::Kind::NotFound && kind != KXError::Kind::Disconnected) ++wrongKinds;
        }
      }
    });
  }
  EXPECT_TRUE(waitUntil([&] { return answered > 100; }));

  EXPECT_LT(timeOf([&] { callee.reset(); }), kSoon);

  EXPECT_TRUE(waitUntil([&] { return errors > 100; }));
  EXPECT_LT(timeOf([&] { callers.clear(); }), kSoon);
  EXPECT_EQ(wrongKinds, 0);
  EXPECT_EQ(slow->echoed, answered);  // none ran whose caller was told that it did not
}

TEST_F(Meetings, ACallEndsWhenItsCallersProcessShutsDown) {
  KXHost other({.withStore = false, .bus = KXBusOptions{.url = server.url()}});
  std::atomic<bool> hasFailed{false};
  std::jthread waiting([&] {
    try {
      other.getBroker()->getProxy("Slow", 0)->genericCall("park", KXValue::arrayOf(1), 30'000);
    } catch (KXError const&) {
      hasFailed = true;
    }
  });
  ASSERT_TRUE(slow->gate.waitUntilParked(1));

  EXPECT_LT(timeOf([&] { other.shutdown(); }), kSoon);

  waiting.join();
  EXPECT_TRUE(hasFailed);
}

}  // namespace
}  // namespace KX
