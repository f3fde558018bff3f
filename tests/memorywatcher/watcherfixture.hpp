// The module in a broker with a launcher, a store and, on request, a hardware cycle that the test
// drives by hand; a record of what was logged; and a look at what no client can see. With
// KX_DISTANT_STORE in the environment the store is in another broker, reached over a bus.
#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <binding/kxfunctor.hpp>
#include <binding/kxproxycall.hpp>
#include <binding/kxsignature.hpp>
#include <ka/log.hpp>
#include <ka/os.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>
#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>
#include <tests/bus/joinedbrokers.hpp>
#include <tests/memorywatcher/memorywatcherfortest.hpp>
#include <tests/support/fakememory.hpp>
#include <tests/support/fakevsm.hpp>
#include <tests/support/logcapture.hpp>

namespace KX {

inline void PrintTo(KXValue const& value, std::ostream* out) {
  *out << value.toString(2);
}
inline void PrintTo(FakeMemory::Call const& call, std::ostream* out) {
  *out << call.method << KXValue(call.arguments).toString(1);
}

/// Is the store in another broker than the module?
inline bool isStoreDistant() {
  return std::getenv("KX_DISTANT_STORE") != nullptr;
}
/// What the store is told to call.
inline std::string watcherName() {
  return isStoreDistant() ? "KXMemoryWatcher@any.here" : "KXMemoryWatcher";
}

/// The call has to throw what the store throws; a distant store's failures are KXErrors.
template <class Error, class Call>
void expectStoreError(Call call) {
  if (isStoreDistant()) {
    EXPECT_THROW(call(), KXError);
  } else {
    EXPECT_THROW(call(), Error);
  }
}

/// A launcher that answers what its broker has, unless the test gives it a hook of its own.
class FakeLauncher : public KXModule {
 public:
  using Hook = std::function<bool(std::string const& name)>;

  explicit FakeLauncher(boost::shared_ptr<KXBroker> const& broker)
      : KXModule(broker, "KXLauncher") {
    auto const member = &FakeLauncher::isModulePresent;
    functionName("isModulePresent", getName(), "", 0);
    completeAndCheck(member, getCurrentMethodDescription());
    bindMethod(createFunctor(this, member));
  }

  bool isModulePresent(std::string const& name) {
    mAsked.push_back(name);
    return mHook ? mHook(name) : getParentBroker()->isModulePresent(name);
  }
  void setHook(Hook hook) { mHook = std::move(hook); }
  /// The names it was asked for, in order.
  std::vector<std::string> const& asked() const { return mAsked; }

 private:
  Hook mHook;
  std::vector<std::string> mAsked;
};

/// What the module logs when it corrects a period.
inline LogLine corrected(int period) {
  return {
      3,
      "KXMemoryWatcher",
      "",
      "setPeriodMs",
      0,
      "Period have to be multiple of 10 ms, Value will be truncated to " + std::to_string(period)};
}

/// A call on a thread of its own; the destructor waits for its end. The call must not throw.
class Caller {
 public:
  explicit Caller(std::function<void()> call)
      : mThread([this, call = std::move(call)] {
          mThreadId = gettid();
          call();
          mIsDone = true;
        }) {}
  ~Caller() { join(); }
  Caller(Caller const&) = delete;
  Caller& operator=(Caller const&) = delete;

  bool isDone() const { return mIsDone; }
  void join() {
    if (mThread.joinable()) mThread.join();
  }
  /// Waits until many looks in a row have found the call asleep in the kernel: true; or until it is
  /// over: false. False, too, after 30 s. A call also sleeps while a distant store answers, so
  /// there it has to sleep for much longer than an answer takes.
  bool isParked() const {
    using Clock = std::chrono::steady_clock;
    constexpr int kLooks = 100;
    auto const sleep = std::chrono::milliseconds(isStoreDistant() ? 150 : 0);
    auto const end = Clock::now() + std::chrono::seconds(30);
    int asleepCount = 0;
    auto awake = Clock::now();
    bool isAsleep = false;
    while (!mIsDone && !isAsleep && Clock::now() < end) {
      asleepCount = xIsAsleep() ? asleepCount + 1 : 0;
      if (asleepCount == 0) awake = Clock::now();
      isAsleep = asleepCount >= kLooks && Clock::now() - awake >= sleep;
      std::this_thread::yield();
    }
    return !mIsDone && isAsleep;
  }

 private:
  bool xIsAsleep() const {
    std::ifstream status("/proc/self/task/" + std::to_string(mThreadId) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("State:")) return line.find('S', 6) != std::string::npos;
    }
    return false;
  }

  std::atomic<int> mThreadId{0};
  std::atomic<bool> mIsDone{false};
  std::thread mThread;
};

/// True if a thread other than the caller's cannot have the mutex now.
inline bool isHeld(boost::shared_ptr<KXMutex> const& mutex) {
  bool wasLocked = false;
  std::thread([&] { KXCriticalTrueIfLocked const probe(mutex, wasLocked); }).join();
  return wasLocked;
}

/// Microseconds since 1970.
inline std::int64_t micros(ka::os::timeval time) {
  return time.tv_sec * 1'000'000 + time.tv_usec;
}
inline std::int64_t nowMicros() {
  ka::os::timeval time;
  ka::os::gettimeofday(&time);
  return micros(time);
}

/// The parts of [[[seconds, microseconds], value], ...].
inline std::vector<KXValue> valuesOf(KXValue const& samples) {
  std::vector<KXValue> values;
  for (int i = 0; i < samples.getSize(); ++i) values.push_back(samples[i][1]);
  return values;
}
inline std::vector<std::int64_t> timesOf(KXValue const& samples) {
  std::vector<std::int64_t> times;
  for (int i = 0; i < samples.getSize(); ++i) {
    times.push_back(static_cast<int>(samples[i][0][0]) * std::int64_t{1'000'000} +
                    static_cast<int>(samples[i][0][1]));
  }
  return times;
}

/// An error whose message is null.
class SilentError : public KXError {
 public:
  SilentError() : KXError("FakeMemory", "", "", "", 0) {}
  char const* what() const noexcept override { return nullptr; }
};

/// The module, made and published, in a broker of its own. Calls go through the broker as a
/// client's do. `watch()` only sets the flag, so the store's record holds the test's calls alone;
/// `call("startWatching", 10)` starts the real loop.
class WatcherTest : public ::testing::Test {
 protected:
  enum class Pacing { Timed, Cycle };
  using ForTest = KXMemoryWatcherForTest;
  using Names = std::vector<std::string>;
  using Calls = std::vector<FakeMemory::Call>;

  explicit WatcherTest(Pacing pacing = Pacing::Timed, KXClock& clock = KXClock::system())
      : mJoined(isStoreDistant() ? std::make_unique<testing::JoinedBrokers>() : nullptr),
        mBroker(mJoined ? mJoined->here.getBroker() : KXBroker::createBroker("test")),
        mLauncher(KXModule::createModule<FakeLauncher>(mBroker)),
        mMemory(
            KXModule::createModule<FakeMemory>(mJoined ? mJoined->there.getBroker() : mBroker)) {
    if (mJoined) mJoined->there.announce("KXMemory");
    if (pacing == Pacing::Cycle) mVsm = KXModule::createModule<FakeVsm>(mBroker);
    mWatcher = KXModule::createModule<KXMemoryWatcher>(mBroker, clock);
  }
  ~WatcherTest() override {
    // What a hook refers to ended with the test.
    for (auto const* method :
         {"getData", "getListData", "getType", "subscribeToEvent", "subscribeToMicroEvent",
          "unsubscribeToEvent", "unsubscribeToMicroEvent"}) {
      mMemory->setHook(method, {});
    }
    mWatcher.reset();
    if (mJoined) mJoined->here.shutdown();
    mBroker->shutdown();
  }

  /// Takes the module out of service and drops it; its destructor runs here.
  void destroyWatcher() {
    mWatcher.reset();
    mBroker->removeModule("KXMemoryWatcher");
  }

  boost::shared_ptr<KXProxy> client() { return mBroker->getProxy("KXMemoryWatcher", 0); }
  template <class... P>
  void call(std::string const& method, P const&... arguments) {
    client()->call<void, P...>(method, arguments...);
  }
  void add(std::string const& name) { call("addListener", name); }
  void remove(std::string const& name) { call("removeListener", name); }
  Names listeners() { return client()->call<Names>("listeners"); }
  KXValue fetch() { return client()->genericCall("getData", KXValue(std::vector<KXValue>())); }
  /// Raises a key as the store does: a call of the module's callback.
  void raise(std::string const& name, KXValue const& value, KXValue const& message = KXValue("")) {
    client()->genericCall("_onEventNotify", KXValue(std::vector<KXValue>{name, value, message}));
  }
  void watch(bool isOn = true) { ForTest::setWatching(*mWatcher, isOn); }
  void update() { ForTest::updateData(*mWatcher); }

  KXListenerMap dataItems() { return ForTest::dataItems(*mWatcher); }
  KXListenerMap eventItems() { return ForTest::eventItems(*mWatcher); }
  boost::shared_ptr<KXMutex> dataMutex() { return ForTest::dataMutex(*mWatcher); }
  boost::shared_ptr<KXMutex> eventMutex() { return ForTest::eventMutex(*mWatcher); }

  LogCapture mLog;
  std::unique_ptr<testing::JoinedBrokers> const mJoined;  // null if the store is in mBroker
  boost::shared_ptr<KXBroker> const mBroker;
  boost::shared_ptr<FakeLauncher> const mLauncher;
  boost::shared_ptr<FakeMemory> const mMemory;
  boost::shared_ptr<FakeVsm> mVsm;  // null under timed pacing
  boost::shared_ptr<KXMemoryWatcher> mWatcher;
};

/// The same with the hardware cycle of mVsm.
class CycleWatcherTest : public WatcherTest {
 protected:
  CycleWatcherTest() : WatcherTest(Pacing::Cycle) {}
};

}  // namespace KX
