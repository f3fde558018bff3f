// Scoped locks on the framework's mutex: released on every exit path, exceptions included.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxerror/kxapi.hpp>
#include <kxthread/kxannotations.hpp>
#include <kxthread/kxmutex.hpp>

namespace KX {

/// Holds a mutex from construction to destruction, and shares its ownership meanwhile.
class KX_API KX_SCOPED_CAPABILITY KXCriticalSection {
 public:
  explicit KXCriticalSection(boost::shared_ptr<KXMutex> const& mutex) KX_ACQUIRE(*mutex);
  ~KXCriticalSection() KX_RELEASE();
  KXCriticalSection(KXCriticalSection const&) = delete;
  KXCriticalSection& operator=(KXCriticalSection const&) = delete;

 private:
  boost::shared_ptr<KXMutex> const mMutex;
};

/// Tries a mutex without waiting: `wasLocked` becomes true if another thread held it, and nothing
/// is locked then; otherwise it becomes false and the mutex is held until destruction.
class KX_API KXCriticalTrueIfLocked {
 public:
  KXCriticalTrueIfLocked(boost::shared_ptr<KXMutex> const& mutex, bool& wasLocked);
  ~KXCriticalTrueIfLocked();
  KXCriticalTrueIfLocked(KXCriticalTrueIfLocked const&) = delete;
  KXCriticalTrueIfLocked& operator=(KXCriticalTrueIfLocked const&) = delete;

 private:
  boost::shared_ptr<KXMutex> const mMutex;
  bool mIsHeld;
};

}  // namespace KX
