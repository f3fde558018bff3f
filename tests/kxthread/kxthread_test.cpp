#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>

#include <atomic>
#include <cerrno>
#include <latch>
#include <stdexcept>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/thread/exceptions.hpp>

#include <gtest/gtest.h>

namespace {

/// What the next pthread_mutex_init of this thread returns instead of doing anything; 0 does it.
thread_local int mutexInitError = 0;

}  // namespace

/// Stands before the C library's: a mutex that the system refuses cannot be had otherwise.
extern "C" __attribute__((visibility("default"))) int pthread_mutex_init(
    pthread_mutex_t* mutex, pthread_mutexattr_t const* attributes) noexcept {
  using Init = int (*)(pthread_mutex_t*, pthread_mutexattr_t const*);
  static Init const real = reinterpret_cast<Init>(::dlsym(RTLD_NEXT, "pthread_mutex_init"));
  if (mutexInitError != 0) return mutexInitError;
  return real(mutex, attributes);
}

namespace KX {
namespace {

/// Whether another thread could lock it now.
bool isFree(KXMutex& mutex) {
  bool result = false;
  std::thread([&] {
    if (mutex.tryLock()) {
      result = true;
      mutex.unlock();
    }
  }).join();
  return result;
}

TEST(Mutex, IsMadeFreeAndEachForItself) {
  auto const one = KXMutex::createKXMutex();
  auto const two = KXMutex::createKXMutex();
  KXCriticalSection const section(one);

  EXPECT_NE(one, two);
  EXPECT_FALSE(isFree(*one));
  EXPECT_TRUE(isFree(*two));
}

TEST(Mutex, IsRecursive) {
  auto const mutex = KXMutex::createKXMutex();
  {
    KXCriticalSection const outer(mutex);
    auto const sameMutex = mutex;
    {
      KXCriticalSection const inner(sameMutex);
      EXPECT_FALSE(isFree(*mutex));
    }
    EXPECT_FALSE(isFree(*mutex));
  }
  EXPECT_TRUE(isFree(*mutex));
}

TEST(Mutex, SaysWhenTheSystemRefusesIt) {
  for (int const error : {ENOMEM, EAGAIN}) {
    SCOPED_TRACE(error);

    mutexInitError = error;
    EXPECT_THROW(KXMutex::createKXMutex(), boost::thread_resource_error);
    mutexInitError = 0;

    EXPECT_NO_THROW(KXMutex::createKXMutex());
  }
}

TEST(CriticalSection, KeepsOtherThreadsOutUntilItEnds) {
  auto const mutex = KXMutex::createKXMutex();
  long counter = 0;
  std::latch start(2);
  auto const count = [&] {
    start.arrive_and_wait();
    for (int i = 0; i < 20000; ++i) {
      KXCriticalSection const section(mutex);
      ++counter;
    }
  };

  std::thread one(count);
  std::thread two(count);
  one.join();
  two.join();

  EXPECT_EQ(40000, counter);
}

TEST(CriticalSection, ReleasesWhenAnExceptionPasses) {
  auto const mutex = KXMutex::createKXMutex();

  EXPECT_THROW(
      {
        KXCriticalSection const section(mutex);
        EXPECT_FALSE(isFree(*mutex));
        throw std::runtime_error("passing");
      },
      std::runtime_error);

  EXPECT_TRUE(isFree(*mutex));
}

TEST(CriticalSection, SharesTheOwnershipOfItsMutex) {
  auto mutex = KXMutex::createKXMutex();
  boost::weak_ptr<KXMutex> const watched(mutex);
  {
    KXCriticalSection const section(mutex);
    mutex.reset();
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

TEST(CriticalTrueIfLocked, HoldsAFreeMutexAndSaysFalse) {
  auto const mutex = KXMutex::createKXMutex();
  bool wasLocked = true;
  {
    KXCriticalTrueIfLocked const probe(mutex, wasLocked);
    EXPECT_FALSE(wasLocked);
    EXPECT_FALSE(isFree(*mutex));
  }
  EXPECT_FALSE(wasLocked);
  EXPECT_TRUE(isFree(*mutex));
}

TEST(CriticalTrueIfLocked, SaysTrueAtOnceIfAnotherThreadHoldsItAndTakesNothing) {
  auto const mutex = KXMutex::createKXMutex();
  std::latch isHeld(1);
  std::latch mayRelease(1);
  std::thread holder([&] {
    KXCriticalSection const section(mutex);
    isHeld.count_down();
    mayRelease.wait();
  });
  isHeld.wait();

  bool wasLocked = false;
  {
    KXCriticalTrueIfLocked const probe(mutex, wasLocked);
    EXPECT_TRUE(wasLocked);
    EXPECT_FALSE(isFree(*mutex));

    mayRelease.count_down();
    holder.join();
    EXPECT_TRUE(isFree(*mutex));  // The probe itself holds nothing.
  }
  EXPECT_TRUE(isFree(*mutex));
}

TEST(CriticalTrueIfLocked, LeavesAnothersLockAloneWhenItEnds) {
  auto const mutex = KXMutex::createKXMutex();
  std::latch isHeld(1);
  std::latch mayRelease(1);
  std::thread holder([&] {
    KXCriticalSection const section(mutex);
    isHeld.count_down();
    mayRelease.wait();
  });
  isHeld.wait();

  bool wasLocked = false;
  { KXCriticalTrueIfLocked const probe(mutex, wasLocked); }

  EXPECT_FALSE(isFree(*mutex));
  mayRelease.count_down();
  holder.join();
}

TEST(CriticalTrueIfLocked, SaysFalseWithinTheSameThreadsLock) {
  auto const mutex = KXMutex::createKXMutex();
  KXCriticalSection const section(mutex);
  bool wasLocked = true;
  {
    KXCriticalTrueIfLocked const probe(mutex, wasLocked);
    EXPECT_FALSE(wasLocked);
  }

  EXPECT_FALSE(isFree(*mutex));
}

TEST(CriticalTrueIfLocked, ReleasesWhenAnExceptionPasses) {
  auto const mutex = KXMutex::createKXMutex();
  bool wasLocked = true;

  EXPECT_THROW(
      {
        KXCriticalTrueIfLocked const probe(mutex, wasLocked);
        throw std::runtime_error("passing");
      },
      std::runtime_error);

  EXPECT_TRUE(isFree(*mutex));
}

TEST(CriticalTrueIfLocked, SharesTheOwnershipOfItsMutex) {
  auto mutex = KXMutex::createKXMutex();
  boost::weak_ptr<KXMutex> const watched(mutex);
  bool wasLocked = true;
  {
    KXCriticalTrueIfLocked const probe(mutex, wasLocked);
    mutex.reset();
    EXPECT_FALSE(watched.expired());
  }
  EXPECT_TRUE(watched.expired());
}

}  // namespace
}  // namespace KX
