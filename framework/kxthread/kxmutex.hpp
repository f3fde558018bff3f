// The framework's mutex. Recursive: a store that calls back into the module on the thread that
// called it must not deadlock that thread.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include <kxerror/kxapi.hpp>
#include <kxthread/kxannotations.hpp>

namespace KX {

/// A recursive mutex, held by shared pointer and locked through the scoped locks of
/// kxcriticalsection.hpp. Making one may throw boost::thread_resource_error.
class KX_API KX_CAPABILITY("mutex") KXMutex {
 public:
  static boost::shared_ptr<KXMutex> createKXMutex();

  KXMutex();
  ~KXMutex();
  KXMutex(KXMutex const&) = delete;
  KXMutex& operator=(KXMutex const&) = delete;

  void lock() KX_ACQUIRE();
  void unlock() KX_RELEASE();
  /// False at once if another thread holds it.
  bool tryLock() KX_TRY_ACQUIRE(true);
  /// Tells the thread-safety analysis, and nobody else, that the caller holds this mutex: for
  /// holders that it cannot follow, such as a lock that was tried.
  void assertHeld() const KX_ASSERT_CAPABILITY(this) {}

 private:
  boost::recursive_mutex mMutex;
};

}  // namespace KX
