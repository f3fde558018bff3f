#include <boost/smart_ptr/make_shared.hpp>

#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>

namespace KX {

boost::shared_ptr<KXMutex> KXMutex::createKXMutex() {
  return boost::make_shared<KXMutex>();
}

KXMutex::KXMutex() = default;
KXMutex::~KXMutex() = default;

void KXMutex::lock() KX_NO_THREAD_SAFETY_ANALYSIS {
  mMutex.lock();
}
void KXMutex::unlock() KX_NO_THREAD_SAFETY_ANALYSIS {
  mMutex.unlock();
}
bool KXMutex::tryLock() KX_NO_THREAD_SAFETY_ANALYSIS {
  return mMutex.try_lock();
}

KXCriticalSection::KXCriticalSection(boost::shared_ptr<KXMutex> const& mutex) : mMutex(mutex) {
  mMutex->lock();
}

KXCriticalSection::~KXCriticalSection() {
  mMutex->unlock();
}

// The analysis has no word for a scoped lock that may hold nothing.
KXCriticalTrueIfLocked::KXCriticalTrueIfLocked(boost::shared_ptr<KXMutex> const& mutex,
                                               bool& wasLocked) KX_NO_THREAD_SAFETY_ANALYSIS
    : mMutex(mutex),
      mIsHeld(mMutex->tryLock()) {
  wasLocked = !mIsHeld;
}

KXCriticalTrueIfLocked::~KXCriticalTrueIfLocked() KX_NO_THREAD_SAFETY_ANALYSIS {
  if (mIsHeld) mMutex->unlock();
}

}  // namespace KX
