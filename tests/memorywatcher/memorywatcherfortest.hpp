// What no client can see or do with the module: for tests and benchmarks.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxproxies/kxmemoryproxy.hpp>
#include <kxthread/kxcallbackguard.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <kxthread/kxmutex.hpp>
#include <memorywatcher/kxgates.hpp>
#include <memorywatcher/kxlistenertable.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>
#include <memorywatcher/kxmemorywatcheritem.hpp>

namespace KX {

/// Items by key.
using KXListenerMap = std::map<std::string, KXMemoryWatcherItem>;

struct KXMemoryWatcherForTest {
  /// Copies with all samples, also those that wait or stand in batches.
  static KXListenerMap dataItems(KXMemoryWatcher& watcher) { return itemsOf(watcher.mDataItems); }
  static KXListenerMap eventItems(KXMemoryWatcher& watcher) { return itemsOf(watcher.mEventItems); }
  static KXListenerMap itemsOf(KXListenerTable& table) {
    KXListenerTable::Access access(table);
    KXListenerMap items;
    for (auto const& [key, nature] : access.natures()) {
      items.emplace(key, access.itemWithSamples(key));
    }
    return items;
  }
  static KXListenerTable& dataTable(KXMemoryWatcher& watcher) { return watcher.mDataItems; }
  static KXListenerTable& eventTable(KXMemoryWatcher& watcher) { return watcher.mEventItems; }
  static boost::shared_ptr<KXMutex> dataMutex(KXMemoryWatcher& watcher) {
    return watcher.mDataMutex;
  }
  static boost::shared_ptr<KXMutex> eventMutex(KXMemoryWatcher& watcher) {
    return watcher.mEventMutex;
  }
  static boost::shared_ptr<KXMutex> controlMutex(KXMemoryWatcher& watcher) {
    return watcher.mControlMutex;
  }
  static boost::shared_ptr<KXMutex> pacingMutex(KXMemoryWatcher& watcher) {
    return watcher.mPacingMutex;
  }

  /// One update cycle over one table, on the caller's thread.
  static void updateData(KXMemoryWatcher& watcher) { watcher.xUpdateValues(watcher.mDataItems); }
  static void updateEvents(KXMemoryWatcher& watcher) { watcher.xUpdateValues(watcher.mEventItems); }
  /// The flag alone: the module takes itself for watching, but no loop runs.
  static void setWatching(KXMemoryWatcher& watcher, bool isOn) { watcher.mIsWatching = isOn; }

  static int periodMs(KXMemoryWatcher& watcher) { return watcher.mPeriodMs; }
  static int cyclesPerPeriod(KXMemoryWatcher& watcher) { return watcher.mCyclesPerPeriod; }
  static bool usesTimedSleep(KXMemoryWatcher& watcher) { return watcher.mUseTimedSleep; }
  static bool isStarting(KXMemoryWatcher& watcher) { return watcher.mIsStarting; }
  static int cycleCount(KXMemoryWatcher& watcher) { return watcher.mCycleCount; }
  static boost::posix_time::ptime nextWakeTime(KXMemoryWatcher& watcher) {
    KXCriticalSection const lock(watcher.mPacingMutex);
    return watcher.mNextWakeTime;
  }
  static KXCycleGate& cycleGate(KXMemoryWatcher& watcher) { return watcher.mCycleGate; }
  /// What each callback of the hardware cycle enters, since the last start.
  static std::shared_ptr<KXCallbackGuard> vsmGuard(KXMemoryWatcher& watcher) {
    return watcher.mVsmGuard;
  }
  /// Sets another store; while nobody calls.
  static void setStore(KXMemoryWatcher& watcher, boost::shared_ptr<KXMemoryProxy> store) {
    watcher.mMemoryProxy = std::move(store);
  }
  static int mainThreadTaskId(KXMemoryWatcher& watcher) { return watcher.mMainThreadTaskId; }
};

}  // namespace KX
