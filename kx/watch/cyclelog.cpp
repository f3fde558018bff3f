#include <kx/watch/cyclelog.hpp>

#include <utility>

#include <host/vsm/kxvsm.hpp>
#include <kxthread/kxcallbackguard.hpp>

namespace KX::tool {

KXCycleLog::KXCycleLog(boost::shared_ptr<KXVsm> vsm)
    : mVsm(std::move(vsm)), mGuard(std::make_shared<KXCallbackGuard>()) {
  mConnection = mVsm->cycleSignal().connect([this, guard = mGuard] {
    if (!guard->enter()) return;
    xOnCycle();
    guard->leave();
  });
}

KXCycleLog::~KXCycleLog() {
  mConnection.disconnect();
  mGuard->close();
}

void KXCycleLog::xOnCycle() {
  mPending.push_back(mVsm->getDeadlineNs() / 1000);
  mCount.fetch_add(1, std::memory_order_release);
  std::unique_lock const lock(mMutex, std::try_to_lock);
  if (!lock.owns_lock()) return;
  mDeadlinesUs.insert(mDeadlinesUs.end(), mPending.begin(), mPending.end());
  mPending.clear();
}

std::vector<std::int64_t> KXCycleLog::takeDeadlinesUs() {
  std::lock_guard const lock(mMutex);
  return std::exchange(mDeadlinesUs, {});
}

}  // namespace KX::tool
