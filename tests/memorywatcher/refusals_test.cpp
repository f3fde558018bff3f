// A system that is out of mutexes, condition variables or threads.

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

#include <gtest/gtest.h>
#include <boost/thread/exceptions.hpp>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace {

/// How many more of each this thread is given before one is refused; negative: no end.
thread_local int mutexesLeft = -1;
thread_local int conditionsLeft = -1;
thread_local int threadsLeft = -1;

bool isRefused(int& left) {
  if (left < 0) return false;
  return left-- == 0;
}

template <class Function>
Function realOne(char const* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// Stand before the C library's: what the system refuses cannot be had otherwise.
extern "C" {
__attribute__((visibility("default"))) int pthread_mutex_init(
    pthread_mutex_t* mutex, pthread_mutexattr_t const* attributes) noexcept {
  static auto const real = realOne<decltype(&pthread_mutex_init)>("pthread_mutex_init");
  return isRefused(mutexesLeft) ? ENOMEM : real(mutex, attributes);
}

__attribute__((visibility("default"))) int pthread_cond_init(
    pthread_cond_t* condition, pthread_condattr_t const* attributes) noexcept {
  static auto const real = realOne<decltype(&pthread_cond_init)>("pthread_cond_init");
  return isRefused(conditionsLeft) ? ENOMEM : real(condition, attributes);
}

__attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                          pthread_attr_t const* attributes,
                                                          void* (*start)(void*),
                                                          void* argument) noexcept {
  static auto const real = realOne<decltype(&pthread_create)>("pthread_create");
  return isRefused(threadsLeft) ? EAGAIN : real(thread, attributes, start, argument);
}
}

namespace KX {
namespace {

class PlainModule : public KXModule {
 public:
  explicit PlainModule(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Plain") {}
};

class Refusal : public ::testing::Test {
 protected:
  Refusal()
      : mBroker(KXBroker::createBroker("test")),
        mLauncher(KXModule::createModule<FakeLauncher>(mBroker)) {}
  ~Refusal() override { mBroker->shutdown(); }

  /// Makes the module with more and more of what `left` counts until it succeeds, beginning with
  /// what any module needs. How often it failed, each time with the thread library's error and
  /// leaving nothing behind.
  int countRefusals(int& left) {
    constexpr int kPlenty = 1000;
    left = kPlenty;
    KXModule::createModule<PlainModule>(mBroker);
    int const base = kPlenty - left;
    for (int given = base; given < kPlenty; ++given) {
      left = given;
      try {
        KXModule::createModule<KXMemoryWatcher>(mBroker);
        left = -1;
        return given - base;
      } catch (boost::thread_resource_error const&) {
        left = -1;
        EXPECT_FALSE(mBroker->isModulePresent("KXMemoryWatcher")) << given;
      }
    }
    return -1;
  }

  boost::shared_ptr<KXBroker> const mBroker;
  boost::shared_ptr<FakeLauncher> const mLauncher;
};

// Two data locks, two inner locks and the sleep gate's at least.
TEST_F(Refusal, OfAnyMutexIsTheConstructionsFailure) {
  EXPECT_GE(countRefusals(mutexesLeft), 5);
}

TEST_F(Refusal, OfAConditionVariableIsTheConstructionsFailure) {
  EXPECT_GE(countRefusals(conditionsLeft), 1);
}

TEST(SleepGateRefusal, IsTheThreadLibrarysError) {
  mutexesLeft = 0;
  EXPECT_THROW(KXSleepGate{KXClock::system()}, boost::thread_resource_error);
  conditionsLeft = 0;
  EXPECT_THROW(KXSleepGate{KXClock::system()}, boost::thread_resource_error);
  mutexesLeft = conditionsLeft = -1;
}

struct TimedRefusal : WatcherTest {
  TimedRefusal() : WatcherTest(Pacing::Timed) {}
};
struct CycleRefusal : WatcherTest {
  CycleRefusal() : WatcherTest(Pacing::Cycle) {}
};
template <class P>
class ThreadRefusal : public P {};
using Pacings = ::testing::Types<TimedRefusal, CycleRefusal>;
TYPED_TEST_SUITE(ThreadRefusal, Pacings);

// The failure reaches the caller, the flags stay as far as they were set.
TYPED_TEST(ThreadRefusal, LeavesTheModuleStartedUntilItIsStopped) {
  threadsLeft = 0;
  EXPECT_THROW(this->call("startWatching", 10), boost::thread_resource_error);
  threadsLeft = -1;

  EXPECT_TRUE(KXMemoryWatcherForTest::isStarting(*this->mWatcher));
  EXPECT_TRUE(this->client()->template call<bool>("isWatching"));
  this->call("startWatching", 30);  // ignored
  EXPECT_EQ(KXMemoryWatcherForTest::periodMs(*this->mWatcher), 10);
  EXPECT_TRUE(this->mMemory->getCalls("getListData").empty());
  // The callback is connected before the thread is made, so that no cycle of the hardware is
  // missed.
  EXPECT_EQ(this->mVsm == nullptr ? 1 : this->mVsm->getSlotCount(), 1);

  this->call("stopWatching");
  EXPECT_FALSE(this->client()->template call<bool>("isWatching"));
  this->call("startWatching", 30);
  EXPECT_TRUE(this->mMemory->waitForCalls("getListData", 1));
}

}  // namespace
}  // namespace KX
