#include <memorywatcher/kxmemorywatcher.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <mutex>

#include <boost/function.hpp>

#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <ka/log.hpp>
#include <ka/os.hpp>
#include <ka/runlogged.hpp>
#include <kxcommon/kxmodulescope.hpp>
#include <kxerror/kxerror.hpp>
#include <kxthread/kxcriticalsection.hpp>
#include <memorywatcher/kxfetch.hpp>

namespace KX {

namespace {

using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

using boost::posix_time::microseconds;

constexpr int kCycleMs = 10;
// How long a batch read may take where the store is in another process: one period, but so long.
constexpr int kMinReadMs = 100;
constexpr char const* kModuleName = "KXMemoryWatcher";
constexpr char const* kEventMethod = "_onEventNotify";
// On purpose not the module's name: filters of the log, and kx, know the lines about keys that
// could not be found or read by this category and their very words.
constexpr char const* kStoreCategory = "memoryWatcher";

// Events wait in front of their table until somebody has access to it. Above this number the cycle
// takes them in itself, so that the next client need not.
constexpr std::size_t kManyEvents = 65536;

bool isEventNature(std::string const& nature) {
  return nature == kEvent || nature == kMicroEvent;
}

ptime const& epoch() {
  static ptime const value(boost::gregorian::date(1970, 1, 1));
  return value;
}

ptime utcTime(KXMoment const& moment) {
  return epoch() + microseconds(moment.wallUs);
}

// Stands around a loop, so that what is called from within it knows where it is.
class InLoop {
 public:
  explicit InLoop(KXMemoryWatcher const& watcher)
      : mWatcher(watcher), mOuter(std::exchange(tInnermost, this)) {}
  ~InLoop() { tInnermost = mOuter; }
  InLoop(InLoop const&) = delete;
  InLoop& operator=(InLoop const&) = delete;

  /// True on a thread that is running the module's loop.
  static bool of(KXMemoryWatcher const& watcher) {
    InLoop const* loop = tInnermost;
    while (loop != nullptr && &loop->mWatcher != &watcher) loop = loop->mOuter;
    return loop != nullptr;
  }

 private:
  static thread_local InLoop const* tInnermost;  // this thread's; null in no loop

  KXMemoryWatcher const& mWatcher;
  InLoop const* const mOuter;
};
thread_local InLoop const* InLoop::tInnermost = nullptr;

// Called in a catch block around the loop: nobody samples any more.
void warnStandstill(char const* function) noexcept {
  try {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", function, 0)
        << "the watch stands still: " << describeCurrentException()
        << "; only stopWatching and then startWatching set it going again";
  } catch (...) {
    // Out of memory: the line is lost, the host goes on.
  }
}

// For the way out of a failed fetch, whose own error is the one that counts.
void putBackLogged(KXListenerTable& table, KXTaken& taken) {
  ka::log::runLogged(kModuleName, "getData", "putting samples back failed",
                     [&] { table.putBack(std::move(taken)); });
}

}  // namespace

// ---- construction, method table, tear-down

KXMemoryWatcher::KXMemoryWatcher(boost::shared_ptr<KXBroker> broker, KXClock& clock)
    : KXModule(broker, kModuleName),
      mClock(clock),
      mDataMutex(KXMutex::createKXMutex()),
      mEventMutex(KXMutex::createKXMutex()),
      mSleepGate(clock),
      mDataItems(mDataMutex),
      mEventItems(mEventMutex),
      mMemoryProxy(new KXMemoryProxy(broker)),
      mPacingMutex(KXMutex::createKXMutex()),
      mClockWatch(clock),
      mControlMutex(KXMutex::createKXMutex()),
      mLoops(std::make_shared<KXCallbackGuard>()) {
  onClosing([this] { mSleepGate.interrupt(); });
  setModuleDescription("This is a module design to buffer and log values from KXMemory");
  xPublishMethods();
  mUseTimedSleep =
      !broker->getProxy("KXLauncher", 0)->call<bool, std::string>("isModulePresent", "VSM");
}

KXMemoryWatcher::~KXMemoryWatcher() {
  // Each on its own: one that fails must not keep the next from running.
  auto const step = [](char const* name, auto&& run) {
    ka::log::runLogged(kModuleName, "~KXMemoryWatcher", std::string(name) + " failed", run);
  };
  step("stopWatching", [this] { stopWatching(); });
  // A loop that stopped the watch itself, and so could not wait for its own end.
  mLoops->close();
  step("clearBufferData", [this] { clearBufferData(); });
  step("clearBufferEvent", [this] { clearBufferEvent(); });
  step("removeAllListeners", [this] { removeAllListeners(); });
}

// The texts stand in manuals and in clients, the runs of blanks within them included.
void KXMemoryWatcher::xPublishMethods() {
  using Self = KXMemoryWatcher;
  auto const blanks = [](std::size_t count) {
    return std::string(count, ' ');
  };

  publish(*this,
          {"listeners",
           "get the list of listened KXMemory keys",
           {},
           {"key list", "a list of KXMemory keys"}},
          &Self::listeners);
  publish(*this,
          {"addListener",
           "add an KXMemory key to the list of keys to listen to",
           {{"name", "the complete name of the KXMemory key"}}},
          &Self::addListener);
  publish(*this,
          {"addListeners",
           "add a list of KXMemory keys to the list of keys to listen",
           {{"listNames", "the vector of complete names of KXMemory keys"}}},
          &Self::addListeners);
  publish(*this, {"removeAllListeners", "remove all keys listened to"}, &Self::removeAllListeners);
  publish(*this,
          {"removeListener",
           "remove a key from the list to listen to",
           {{"name", "the name of the key to stop to listen"}}},
          &Self::removeListener);
  publish(*this,
          {"removeListeners",
           "remove a list of key from the list to listen",
           {{"listNames", "the vector of names of key to stop to listen"}}},
          &Self::removeListeners);
  publish(*this,
          {"getData",
           "return an KXValue containing all buffered data" + blanks(39) +
               "since the last call of getData().",
           {},
           {"data", "The complete array of all buffered data"}},
          &Self::getData);
  publish(*this,
          {"clearBuffer", "remove all buffered data." + blanks(43) +
                              "The list of keys listened to keeps unchanged."},
          &Self::clearBuffer);
  publish(*this,
          {"isWatching",
           "tells whether keys are watched and data being gathered.",
           {},
           {"watching", "true if keys are being watched."}},
          &Self::isWatching);
  publish(*this,
          {"startWatching",
           "start listening to selected keys from KXMemory",
           {{"period", "the time between two listen of KXMemory keys, in milliseconds."}}},
          &Self::startWatching);
  publish(*this,
          {"stopWatching", "stop listening selected keys from KXMemory." + blanks(36) +
                               "List of listened keys and associated buffers keep unchanged."},
          &Self::stopWatching);
  publish(*this, {"_mainThread", "simple loop calling buffer update every \"period\" milliseconds"},
          &Self::xMainThread);
  publish(*this,
          {"setPeriodMs",
           "edit \"period\" value between two buffering.",
           {{"period", "the new period (in ms) to apply."}}},
          &Self::setPeriodMs);
  publish(*this,
          {kEventMethod,
           "Be notified when an event we have subscribe to has changed in KXMemory",
           {{"dataName", "name of the data"},
            {"dataValue", "value of the data"},
            {"message", "callback message"}}},
          &Self::onEventNotify);
}

// ---- listener registry

void KXMemoryWatcher::addListener(std::string const& name) {
  KXMemoryWatcherItem item(name, kUnknownData, "");
  try {
    item.setNature(mMemoryProxy->getType(name));
  } catch (KXError const&) {
    // The store does not know the key yet: it is watched as data until its kind is known.
    ka::log::LogStream(ka::log::Warning, kStoreCategory, "", "addListener", 0)
        << "The key " << name
        << " could not be found, but it will be watched as soon as it becomes available.";
  }
  // Asked before any lock is taken, so that nobody waits behind the store.
  KXValue firstValue;
  ka::os::timeval firstTime;
  if (mIsWatching) {
    if (item.getNature() != kUnknownData) firstValue = mMemoryProxy->getData(name);
    firstTime = mClock.wallTime();
  }

  bool const isEvent = isEventNature(item.getNature());
  KXListenerTable::Access items(isEvent ? mEventItems : mDataItems);
  if (items.find(name) != nullptr) return;
  // On purpose asked anew: after a start in between, the first sample has no time and no value. The
  // subscription is made under the lock, so that a removal finds the key either absent or
  // subscribed.
  if (mIsWatching) {
    item.addData(firstTime, firstValue);
    if (isEvent) xSubscribe(name, item.getNature());
  }
  // What a callback for the new key left behind since the subscription gives way to the entry.
  items.takeIn();
  items.insert(name, std::move(item));
}

void KXMemoryWatcher::addListeners(std::vector<std::string> const& listNames) {
  for (std::string const& name : listNames) addListener(name);
}

void KXMemoryWatcher::removeListener(std::string const& name) {
  KXListenerTable::Dropped droppedData;  // destroyed without a lock, as all that is dropped
  KXListenerTable::Dropped droppedEvents;
  {
    KXListenerTable::Access data(mDataItems);
    droppedData = data.erase(name);
  }
  KXListenerTable::Access events(mEventItems);
  KXMemoryWatcherItem const* const item = events.find(name);
  if (item == nullptr) return;
  // Before the entry goes: if the store fails, the key must still be there. What was raised until
  // then belongs to the entry and goes with it.
  xUnsubscribe(name, std::string(item->getNature()));
  events.takeIn();
  droppedEvents = events.erase(name);
}

void KXMemoryWatcher::removeListeners(std::vector<std::string> const& listNames) {
  for (std::string const& name : listNames) removeListener(name);
}

void KXMemoryWatcher::removeAllListeners() {
  KXListenerTable::Dropped droppedData;
  KXListenerTable::Dropped droppedEvents;
  {
    KXListenerTable::Access data(mDataItems);
    droppedData = data.eraseAll();
  }
  KXListenerTable::Access events(mEventItems);
  for (auto const& [key, nature] : events.natures()) xUnsubscribe(key, nature);
  events.takeIn();
  droppedEvents = events.eraseAll();
}

std::vector<std::string> KXMemoryWatcher::listeners() {
  KXKeyListPtr dataList;
  KXKeyListPtr eventList;
  {
    KXListenerTable::Access events(mEventItems);
    KXListenerTable::Access data(mDataItems);
    dataList = data.list();
    eventList = events.list();
  }
  std::vector<std::string> names;
  names.reserve(dataList->since.size() + eventList->since.size());
  dataList->keys.ToStringArray(names, false);
  eventList->keys.ToStringArray(names, false);
  return names;
}

void KXMemoryWatcher::subscribeToEvent(std::string const& name) {
  mMemoryProxy->subscribeToEvent(name, getName(), kEventMethod);
}

void KXMemoryWatcher::subscribeToMicroEvent(std::string const& name) {
  mMemoryProxy->subscribeToMicroEvent(name, getName(), "", kEventMethod);
}

// A store that refuses to end a subscription leaves nothing to be done about it: the usual reason
// is that there was none.
void KXMemoryWatcher::unsubscribeFromEvent(std::string const& name) {
  try {
    mMemoryProxy->unsubscribeToEvent(name, getName());
  } catch (KXError const& error) {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", "unsubscribeFromEvent", 0)
        << "unsubscribeFromEvent:" << messageOf(error) << "\n";
  }
}

void KXMemoryWatcher::unsubscribeFromMicroEvent(std::string const& name) {
  try {
    mMemoryProxy->unsubscribeToMicroEvent(name, getName());
  } catch (KXError const& error) {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", "unsubscribeFromMicroEvent", 0)
        << "unsubscribeFromMicroEvent:" << messageOf(error) << "\n";
  }
}

// The two walks make their calls to the store without any lock, over a copy of keys and natures.
void KXMemoryWatcher::subscribeToEvents() {
  xUpdateValues(mEventItems);
  for (auto const& [key, nature] : xEventNatures()) xSubscribe(key, nature);
}

void KXMemoryWatcher::unsubscribeFromEvents() {
  for (auto const& [key, nature] : xEventNatures()) xUnsubscribe(key, nature);
}

void KXMemoryWatcher::xSubscribe(std::string const& name, std::string const& nature) {
  nature == kEvent ? subscribeToEvent(name) : subscribeToMicroEvent(name);
}

void KXMemoryWatcher::xUnsubscribe(std::string const& name, std::string const& nature) {
  nature == kEvent ? unsubscribeFromEvent(name) : unsubscribeFromMicroEvent(name);
}

std::vector<std::pair<std::string, std::string>> KXMemoryWatcher::xEventNatures() {
  return KXListenerTable::Access(mEventItems).natures();
}

// ---- event capture

void KXMemoryWatcher::onEventNotify(std::string const& dataName, KXValue const& dataValue,
                                    KXValue const&) {
  if (!mIsWatching) return;
  mEventItems.postSample(dataName, mClock.wallTime(), dataValue);
}

// ---- retrieval and clearing

KXValue KXMemoryWatcher::getData() {
  KXTaken data = KXListenerTable::Access(mDataItems).take();
  KXTaken events;
  try {
    events = KXListenerTable::Access(mEventItems).take();
    return buildFetch(data, events);
  } catch (...) {
    // Nothing is lost for want of memory.
    putBackLogged(mDataItems, data);
    putBackLogged(mEventItems, events);
    throw;
  }
}

void KXMemoryWatcher::clearBuffer() {
  clearBufferData();
  clearBufferEvent();
}

// What is taken is dropped behind the access, without a lock.
void KXMemoryWatcher::clearBufferData() {
  KXTaken const dropped = KXListenerTable::Access(mDataItems).takeSamples();
}

void KXMemoryWatcher::clearBufferEvent() {
  KXTaken const dropped = KXListenerTable::Access(mEventItems).takeSamples();
}

// ---- watch control, period and pacing

bool KXMemoryWatcher::isWatching() {
  return mIsStarting || mIsWatching;
}

void KXMemoryWatcher::setPeriodMs(int const& period) {
  int const newPeriod = std::max(period / kCycleMs * kCycleMs, kCycleMs);
  if (newPeriod != period) {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", "setPeriodMs", 0)
        << "Period have to be multiple of 10 ms, Value will be truncated to " << newPeriod;
  }
  bool const hasDeadline = mIsWatching && mUseTimedSleep;
  if (hasDeadline) xFollowClock();
  KXCriticalSection const lock(mPacingMutex);
  if (hasDeadline) {
    // Before the period changes: the pending deadline was computed with the old one.
    ptime const candidate =
        mNextWakeTime - milliseconds(mPeriodMs.load()) + milliseconds(newPeriod);
    // The moment that the deadline was last held against: the clock may be set at any time.
    mNextWakeTime = std::max(utcTime(mClockWatch.moment()), candidate);
    mSleepGate.interrupt();
  }
  mPeriodMs = newPeriod;
  mCyclesPerPeriod = newPeriod / kCycleMs;
}

void KXMemoryWatcher::startWatching(int const& period) {
  if (mIsStarting || mIsWatching || isClosing()) return;
  KXCriticalSection const control(mControlMutex);
  // A stop in progress is not waited for: it may wait for the very cycle that calls here.
  if (mIsStarting || mIsWatching || mIsStopping || isClosing()) return;
  mIsStarting = true;  // on purpose still set if this throws: the way back is a stop
  setPeriodMs(period);
  {
    KXCriticalSection const lock(mPacingMutex);
    mClockWatch.restart();
    if (mUseTimedSleep) xSetNextWakeTime();
  }
  ++mRun;
  mIsWatching = true;
  mUseTimedSleep ? xStartTimedPacing() : xStartCyclePacing();
  mIsStarting = false;
}

void KXMemoryWatcher::xSetNextWakeTime() {
  mNextWakeTime = utcTime(mClockWatch.moment()) + milliseconds(mPeriodMs.load());
}

void KXMemoryWatcher::xStartCyclePacing() {
  boost::shared_ptr<KXModule> const vsm = getParentBroker()->getProxy("VSM", 0)->getModule();
  if (vsm == nullptr) {
    throw KXError(kModuleName, "startWatching",
                  "expected module 'VSM' in this process, it is in another one", "", 0);
  }
  mVsmGuard = std::make_shared<KXCallbackGuard>();
  boost::function<void()> const slot = [this, guard = mVsmGuard] {
    if (!guard->enter()) return;
    xOnVSMUpdate();
    guard->leave();
  };
  mVsmConnection = vsm->cycleSignal().connect(slot);
  // A run that ended itself may still be in its last cycle: samples are posted in their order.
  auto const earlier = std::make_shared<boost::thread>(std::move(mWatchThread));
  try {
    mWatchThread = boost::thread([this, run = mRun.load(), loops = mLoops, earlier] {
      if (earlier->joinable()) earlier->join();
      // Until here the module may have gone, in that last cycle.
      if (loops->enter()) xRunWatchThread(run, *loops);
    });
  } catch (...) {
    mWatchThread = std::move(*earlier);
    throw;
  }
}

void KXMemoryWatcher::xStartTimedPacing() {
  mMainThreadTaskId = getParentBroker()->getProxy(kModuleName, 0)->pCall("_mainThread");
}

void KXMemoryWatcher::stopWatching() {
  if (!mIsWatching) return;
  {
    KXCriticalSection const control(mControlMutex);
    if (!mIsWatching.exchange(false)) return;
    // Also after a start that failed half-way.
    mIsStarting = false;
    mIsStopping = true;
  }
  // Whatever comes out of waiting, the next start must not be ignored for it.
  auto const end = [](KXMemoryWatcher* watcher) {
    KXCriticalSection const control(watcher->mControlMutex);
    watcher->mMainThreadTaskId = 0;
    watcher->mIsStopping = false;
  };
  std::unique_ptr<KXMemoryWatcher, decltype(end)> const stopping(this, end);
  // In both pacings: a client's own call of _mainThread sleeps here too.
  mSleepGate.interrupt();
  mUseTimedSleep ? xStopTimedPacing() : xStopCyclePacing();
}

void KXMemoryWatcher::xStopTimedPacing() {
  // A loop that stops the watch itself leaves after its cycle. Until then it keeps the gate, which
  // a task that was started since waits for.
  if (InLoop::of(*this)) return;
  int const taskId = mMainThreadTaskId;
  // On purpose asked of the store's proxy, although the call was made through our own.
  if (taskId == 0 || !mMemoryProxy->isRunning(taskId)) return;
  try {
    mMemoryProxy->wait(taskId, 0);
  } catch (KXError const&) {
    // The task itself: the module's last reference fell in its loop.
  }
}

void KXMemoryWatcher::xStopCyclePacing() {
  mCycleGate.unlock();
  mVsmConnection.disconnect();
  // Disconnecting does not wait for a callback that is just running.
  if (mVsmGuard != nullptr) mVsmGuard->close();
  mCycleCount = 1;
  // A loop that stops the watch itself can wait neither for its own end nor for one that follows
  // it.
  if (mWatchThread.joinable() && !InLoop::of(*this)) mWatchThread.join();
}

void KXMemoryWatcher::xOnVSMUpdate() {
  if (mCycleCount >= mCyclesPerPeriod) {
    mCycleCount = 1;
    mCycleGate.unlock();
  } else {
    ++mCycleCount;
  }
}

void KXMemoryWatcher::xRunWatchThread(int run, KXCallbackGuard& loops) noexcept {
  InLoop const inLoop(*this);
  KXModuleScope const scope(*this);  // ends first: the module may be destroyed in it
  try {
    xUpdateDataLoop(run);
  } catch (...) {
    warnStandstill("xUpdateDataLoop");
  }
  loops.leave();
}

void KXMemoryWatcher::xUpdateDataLoop(int run) {
  for (;;) {
    mCycleGate.lock();
    if (!xGoesOn(run)) break;
    xUpdateValues(mDataItems);
    // The last reference fell in this cycle: the module waits for this thread to leave, to end.
    if (weak_from_this().expired()) break;
    xFollowClock();
  }
  // Open again: the first cycle of the next run comes at once, and a loop that waits beside this
  // one gets to see that it is over.
  mCycleGate.unlock();
}

void KXMemoryWatcher::xMainThread() {
  if (InLoop::of(*this)) return;  // it would wait for its own end
  try {
    InLoop const inLoop(*this);
    xRunMainThread();
  } catch (...) {
    // A client that called this itself gets what came; of a parallel call nobody does.
    if (!KXModuleScope::isInside(*this)) throw;
    warnStandstill("xMainThread");
  }
}

void KXMemoryWatcher::xRunMainThread() {
  ka::os::FineTimers const fineTimers;
  // Unlocked on every way out: a store that fails must not lock out the next run.
  std::lock_guard<KXSleepGate> const held(mSleepGate);
  int const run = mRun;
  if (!mUseTimedSleep) {
    // A client's own call beside the hardware cycle: no start has set a deadline for it.
    xFollowClock();
    KXCriticalSection const lock(mPacingMutex);
    xSetNextWakeTime();
  }
  while (xGoesOn(run)) {
    if (isClosing()) break;
    xUpdateValues(mDataItems);
    xSleepForPeriod(run);
  }
}

void KXMemoryWatcher::xSleepForPeriod(int run) {
  while (mSleepGate.sleepUntil(xWakeTimeNs()) && xGoesOn(run) && !isClosing()) {
  }
  KXCriticalSection const lock(mPacingMutex);
  if (!xGoesOn(run)) return;  // the deadline may be that of the next run already
  // From the deadline, not from now: the schedule does not drift.
  mNextWakeTime += milliseconds(mPeriodMs.load());
}

// The deadline on the clock that waits: however the wall clock is set meanwhile, the sleep lasts as
// long as it should.
std::int64_t KXMemoryWatcher::xWakeTimeNs() {
  xFollowClock();
  KXCriticalSection const lock(mPacingMutex);
  KXMoment const& now = mClockWatch.moment();
  std::int64_t const wakeTimeUs = (mNextWakeTime - epoch()).total_microseconds();
  return now.monotonicNs + (wakeTimeUs - now.wallUs) * 1000;
}

// If the wall clock was set, the pending deadline moves with it: no silence after a step back, no
// burst after a step forward.
void KXMemoryWatcher::xFollowClock() {
  std::int64_t setUs = 0;
  {
    KXCriticalSection const lock(mPacingMutex);
    setUs = mClockWatch.look(mPeriodMs);
    if (setUs == 0) return;
    if (!mNextWakeTime.is_special()) mNextWakeTime += microseconds(setUs);
  }
  ka::log::LogStream(ka::log::Warning, kModuleName, "", "xFollowClock", 0)
      << "the wall clock was set " << (setUs > 0 ? "forward" : "back") << " by "
      << (std::abs(setUs) + 500) / 1000 << " ms; sampling keeps its rhythm";
}

// ---- update cycle

void KXMemoryWatcher::xUpdateValues(KXListenerTable& items) {
  bool const resolvesNatures = &items == &mDataItems;
  KXKeyListPtr list;
  {
    bool wasLocked = false;
    KXCriticalTrueIfLocked const probe(items.mutex(), wasLocked);
    if (wasLocked) return;
    list = KXListenerTable::Access(items, probe).list();
  }
  try {
    xReadBatch(items, list, resolvesNatures);
  } catch (KXError const& error) {
    // The period is lost for the keys whose values were not posted; the next one goes on.
    ka::log::LogStream(ka::log::Warning, kStoreCategory, "", "xUpdateValues", 0)
        << "Error caught getting data: " << messageOf(error);
  }
  if (mEventItems.waiting() > kManyEvents) xTakeInManyEvents();
}

void KXMemoryWatcher::xReadBatch(KXListenerTable& items, KXKeyListPtr const& list,
                                 bool resolvesNatures) {
  ka::os::timeval const time = mClock.wallTime();
  KXValue values = mMemoryProxy->getListData(list->names, std::max(mPeriodMs.load(), kMinReadMs));

  std::size_t const wanted = list->since.size();
  std::size_t const given =
      values.getType() == KXValue::TypeArray ? static_cast<std::size_t>(values.getSize()) : 0;
  std::size_t posted = 0;
  auto const postUpTo = [&](std::size_t end) {
    std::size_t const reached = std::min(end, given);
    if (reached > posted) items.postBatch(list, time, values, posted, reached);
    posted = reached;
    // A store that answers short: what it gave is kept, the first missing value is the error.
    if (reached < end) static_cast<void>(std::as_const(values)[static_cast<int>(reached)]);
  };

  std::vector<std::string> promoted;
  if (resolvesNatures) {
    for (std::uint32_t const place : list->unknown) {
      // A key's own sample is posted before its kind is asked, so that a failure does not lose it.
      postUpTo(place + 1);
      xResolveNature(static_cast<std::string const&>(list->keys[static_cast<int>(place)]),
                     promoted);
    }
  }
  postUpTo(wanted);
  values = KXValue();  // our share goes, so that a fetch may take the answer apart without a copy
  xErasePromoted(promoted);
}

void KXMemoryWatcher::xResolveNature(std::string const& name, std::vector<std::string>& promoted) {
  std::string const nature = mMemoryProxy->getType(name);
  if (nature == kUnknownData) return;
  std::string expected = kUnknownData;
  for (;;) {
    KXMemoryWatcherItem item;
    std::uint64_t removals = 0;
    {
      KXListenerTable::Access data(mDataItems);
      KXMemoryWatcherItem const* const known = data.find(name);
      // Removed by a client meanwhile, or resolved by another cycle.
      if (known == nullptr || known->getNature() != expected) return;
      if (isEventNature(nature)) {
        item = data.itemWithSamples(name);
        item.setNature(nature);
      }
      promoted.reserve(promoted.size() + 1);
      data.retype(name, nature);
      if (!isEventNature(nature)) return;
      removals = mDataItems.removals();
    }
    KXListenerTable::Access events(mEventItems);
    // Only one lock is held at a time, so a client may have removed the key in between. Who removes
    // it from now on waits for the event keys, and finds it there.
    if (mDataItems.removals() != removals) {
      expected = nature;
      continue;
    }
    promoted.push_back(name);
    events.insert(name, std::move(item));
    xSubscribe(name, nature);
    return;
  }
}

void KXMemoryWatcher::xErasePromoted(std::vector<std::string> const& promoted) {
  if (promoted.empty()) return;
  std::vector<KXListenerTable::Dropped> dropped;
  dropped.reserve(promoted.size());
  KXListenerTable::Access data(mDataItems);
  for (std::string const& name : promoted) {
    KXMemoryWatcherItem const* const item = data.find(name);
    // A client may have put a new key of that name there since: that one stays.
    if (item != nullptr && isEventNature(item->getNature())) dropped.push_back(data.erase(name));
  }
}

void KXMemoryWatcher::xTakeInManyEvents() {
  bool wasLocked = false;
  KXCriticalTrueIfLocked const probe(mEventMutex, wasLocked);
  if (!wasLocked) KXListenerTable::Access(mEventItems, probe);
}

}  // namespace KX
