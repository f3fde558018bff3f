// The module: watches keys of the store, buffers what it saw, hands it over in one fetch.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/signals2/connection.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/thread/thread_only.hpp>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <kxthread/kxannotations.hpp>
#include <kxthread/kxcallbackguard.hpp>
#include <kxthread/kxclock.hpp>
#include <kxthread/kxmutex.hpp>
#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxclockwatch.hpp>
#include <memorywatcher/kxgates.hpp>
#include <memorywatcher/kxlistenertable.hpp>

namespace KX {

/// Published as "KXMemoryWatcher". Samples plain data keys of the store "KXMemory" once per period,
/// in one batch with one wall-clock time, and captures the events that the store pushes.
///
/// Ownership: held by a boost::shared_ptr that the broker keeps; made by KXModule::createModule.
/// The destructor stops the watch and waits for its loop.
///
/// Threads: clients call on any thread, several at once. The store calls onEventNotify() on a
/// thread of its own. One loop runs the update cycles: xUpdateDataLoop() on mWatchThread where the
/// host has a hardware cycle (VSM), whose thread runs xOnVSMUpdate(); else xMainThread() as a
/// parallel call. All operations may also be called from within that loop, where they wait for
/// nothing that the loop itself would have to do: a stop returns at once and the loop ends after
/// its cycle.
///
/// Locks: mDataMutex guards mDataItems, mEventMutex guards mEventItems; who needs both takes
/// mEventMutex first. onEventNotify() takes neither, it posts. The update cycle posts too; it skips
/// its period if it finds its mutex held when it begins, and waits only where it moves a key to the
/// events. Whoever holds a mutex takes in what waits before anything else. Clients hold them for
/// moments, however much is buffered, but mEventMutex also while the store answers to a
/// subscription or to its end. mControlMutex comes before mPacingMutex, and neither beside the two
/// others. What a start makes (mWatchThread, mVsmConnection, mVsmGuard) belongs to it, and to the
/// stop while mIsStopping. The two gates are signals, not locks.
///
/// Errors: what the store or the host throws reaches the caller, but where an operation says that
/// it logs it.
class KXMemoryWatcher : public KXModule {
 public:
  /// Asks the launcher for "VSM" once; its answer fixes the pacing. KXError if it does not answer,
  /// boost::thread_resource_error if the system is out of mutexes.
  /// `clock` must outlive the module.
  explicit KXMemoryWatcher(boost::shared_ptr<KXBroker> broker, KXClock& clock = KXClock::system());
  ~KXMemoryWatcher() override;

  /// The watched keys: data keys in byte order, then event keys in byte order.
  std::vector<std::string> listeners();
  /// Watches a key, as data or event by the store's answer; logs if the store does not know it yet.
  /// A key that is there already is left as it is. An event key is subscribed only while watching.
  void addListener(std::string const& name);
  /// One by one; the first failure ends it.
  void addListeners(std::vector<std::string> const& listNames);
  void removeAllListeners();
  /// Drops the key and its samples, and ends its subscription. Unknown names are ignored.
  void removeListener(std::string const& name);
  /// One by one; the first failure ends it.
  void removeListeners(std::vector<std::string> const& listNames);

  /// Everything buffered since the last call: an array of [key, [[[seconds, microseconds], value],
  /// ...]] for every watched key, data keys first. Empties the buffers.
  KXValue getData();
  void clearBuffer();
  void clearBufferData();
  void clearBufferEvent();

  bool isWatching();
  /// Starts with a period in milliseconds; does nothing if already watching, or while a stop still
  /// waits for the loop.
  void startWatching(int const& period);
  /// Stops and waits until the loop has ended; does nothing if not watching.
  void stopWatching();
  /// Milliseconds; anything but a positive multiple of 10 is corrected and logged.
  void setPeriodMs(int const& period);
  /// Called by the store for each raise of a subscribed key. Takes no lock and waits for nobody.
  void onEventNotify(std::string const& dataName, KXValue const& dataValue, KXValue const& message);

  // For callers in this process; not published.
  void subscribeToEvent(std::string const& name);
  void subscribeToMicroEvent(std::string const& name);
  /// Logs it if the store refuses.
  void unsubscribeFromEvent(std::string const& name);
  /// Logs it if the store refuses.
  void unsubscribeFromMicroEvent(std::string const& name);
  /// Reads every event key that is watched once, as a cycle does, and subscribes it.
  void subscribeToEvents();
  /// Ends the subscription of every event key that is watched; the keys stay.
  void unsubscribeFromEvents();

 private:
  friend struct KXMemoryWatcherForTest;

  void xPublishMethods();

  void xMainThread();
  void xRunMainThread();
  void xSleepForPeriod(int run);
  std::int64_t xWakeTimeNs();
  void xFollowClock();
  void xSetNextWakeTime() KX_REQUIRES(*mPacingMutex);
  void xOnVSMUpdate();
  void xUpdateDataLoop(int run);
  void xRunWatchThread(int run, KXCallbackGuard& loops) noexcept;
  bool xGoesOn(int run) const { return mIsWatching && mRun == run; }
  void xStartCyclePacing();
  void xStartTimedPacing();
  void xStopTimedPacing();
  void xStopCyclePacing();

  void xUpdateValues(KXListenerTable& items);
  void xReadBatch(KXListenerTable& items, KXKeyListPtr const& list, bool resolvesNatures);
  void xResolveNature(std::string const& name, std::vector<std::string>& promoted);
  void xErasePromoted(std::vector<std::string> const& promoted);
  void xTakeInManyEvents();

  void xSubscribe(std::string const& name, std::string const& nature);
  void xUnsubscribe(std::string const& name, std::string const& nature);
  std::vector<std::pair<std::string, std::string>> xEventNatures();

  KXClock& mClock;
  boost::shared_ptr<KXMutex> mDataMutex;
  boost::shared_ptr<KXMutex> mEventMutex;
  KXCycleGate mCycleGate;
  std::atomic<int> mPeriodMs{50};
  KXSleepGate mSleepGate;
  boost::posix_time::ptime mNextWakeTime KX_GUARDED_BY(*mPacingMutex);
  boost::thread mWatchThread;
  std::atomic<int> mMainThreadTaskId{0};
  std::atomic<bool> mIsStarting{false};
  std::atomic<bool> mIsWatching{false};
  std::atomic<int> mCycleCount{1};
  std::atomic<int> mCyclesPerPeriod{0};
  bool mUseTimedSleep = true;  // constant once the constructor has run
  boost::signals2::connection mVsmConnection;
  KXListenerTable mDataItems;   // guards itself by mDataMutex
  KXListenerTable mEventItems;  // guards itself by mEventMutex
  boost::shared_ptr<KXMemoryProxy> mMemoryProxy;

  boost::shared_ptr<KXMutex> mPacingMutex;  // mNextWakeTime and what belongs to it
  KXClockWatch mClockWatch KX_GUARDED_BY(*mPacingMutex);
  boost::shared_ptr<KXMutex> mControlMutex;  // a start, and the beginning and end of a stop
  bool mIsStopping KX_GUARDED_BY(*mControlMutex) = false;
  std::atomic<int> mRun{0};  // counts the starts: the loop of an earlier one ends
  std::shared_ptr<KXCallbackGuard> mVsmGuard;
  std::shared_ptr<KXCallbackGuard> const mLoops;  // entered by every watch thread
};

}  // namespace KX
