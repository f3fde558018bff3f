#include <memorywatcher/kxmemorywatcher.hpp>

#include <algorithm>
#include <exception>

#include <boost/function.hpp>

#include <binding/kxfunctor.hpp>
#include <binding/kxproxycall.hpp>
#include <binding/kxsignature.hpp>
#include <ka/log.hpp>
#include <ka/os.hpp>
#include <kxerror/kxerror.hpp>
#include <kxthread/kxcriticalsection.hpp>

namespace KX {

namespace {

using boost::posix_time::microsec_clock;
using boost::posix_time::milliseconds;
using boost::posix_time::ptime;

constexpr int kCycleMs = 10;
constexpr char const* kModuleName = "KXMemoryWatcher";
constexpr char const* kEventMethod = "_onEventNotify";

// Natures that mean something here; any other is plain data.
constexpr char const* kEvent = "Event";
constexpr char const* kMicroEvent = "MicroEvent";
constexpr char const* kUnknownData = "Unknown data";

bool isEventNature(std::string const& nature) {
  return nature == kEvent || nature == kMicroEvent;
}

void appendEntries(KXListenerMap const& map, KXTimePairs& pairs, KXValue& result) {
  for (auto const& [key, item] : map) {
    result.arrayPush(KXValue::arrayOf(KXValue(key), item.newSamples(pairs)));
  }
}

void clearAll(KXListenerMap& map) {
  for (auto& [key, item] : map) item.clear();
}

// Runs a step that nobody is above of to catch what it throws: that would end the whole host.
template <class Step>
void runLogged(char const* function, char const* stepName, Step&& step) {
  try {
    step();
  } catch (std::exception const& error) {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", function, 0)
        << stepName << " failed: " << messageOf(error);
  } catch (...) {
    ka::log::LogStream(ka::log::Warning, kModuleName, "", function, 0)
        << stepName << " failed with an exception of unknown type";
  }
}

}  // namespace

// ---- construction, method table, tear-down

KXMemoryWatcher::KXMemoryWatcher(boost::shared_ptr<KXBroker> broker)
    : KXModule(broker, kModuleName),
      mDataMutex(KXMutex::createKXMutex()),
      mEventMutex(KXMutex::createKXMutex()),
      mMemoryProxy(new KXMemoryProxy(broker)),
      mPacingMutex(KXMutex::createKXMutex()),
      mControlMutex(KXMutex::createKXMutex()) {
  setModuleDescription("This is a module design to buffer and log values from KXMemory");
  xPublishMethods();
  mUseTimedSleep =
      !broker->getProxy("KXLauncher", 0)->call<bool, std::string>("isModulePresent", "VSM");
}

KXMemoryWatcher::~KXMemoryWatcher() {
  // Each on its own: one that fails must not keep the next from running.
  auto const step = [](char const* name, auto&& run) {
    runLogged("~KXMemoryWatcher", name, run);
  };
  step("stopWatching", [this] { stopWatching(); });
  // What stopWatching() may have left: a loop that stopped the watch itself and so could not wait
  // for its own end, and parallel calls of _mainThread that clients made.
  if (mWatchThread.joinable()) step("join", [this] { mWatchThread.join(); });
  step("clearBufferData", [this] { clearBufferData(); });
  step("clearBufferEvent", [this] { clearBufferEvent(); });
  step("removeAllListeners", [this] { removeAllListeners(); });
}

void KXMemoryWatcher::xPublishMethods() {
  struct Parameter {
    char const* name;
    char const* description;
  };
  auto const open = [this](char const* name, std::string const& description,
                           std::vector<Parameter> const& parameters = {}) {
    functionName(name, getName(), description, 0);
    for (Parameter const& parameter : parameters) addParam(parameter.name, parameter.description);
  };
  // Members with parameters: completeAndCheck() writes all type strings.
  auto const bind = [this](auto member) {
    completeAndCheck(member, getCurrentMethodDescription());
    bindMethod(createFunctor(this, member));
  };
  // Members without parameters: there is but the result's type string to write.
  auto const bindVoid = [this](void (KXMemoryWatcher::*member)()) {
    getCurrentMethodDescription().result.type = getParamStrType<void>();
    bindMethod(createFunctor(this, member));
  };
  auto const bindResult = [this]<class R>(R (KXMemoryWatcher::*member)()) {
    getCurrentMethodDescription().result.type = getParamStrType<R>();
    bindMethod(boost::shared_ptr<KXFunctorBase>(
        new detail::KXFunctor_0<KXMemoryWatcher, R>(this, member)));
  };
  // The runs of blanks within some texts are part of them.
  auto const blanks = [](std::size_t count) {
    return std::string(count, ' ');
  };

  open("listeners", "get the list of listened KXMemory keys");
  setReturn("key list", "a list of KXMemory keys");
  bindResult(&KXMemoryWatcher::listeners);

  open("addListener", "add an KXMemory key to the list of keys to listen to",
       {{"name", "the complete name of the KXMemory key"}});
  bind(&KXMemoryWatcher::addListener);

  open("addListeners", "add a list of KXMemory keys to the list of keys to listen",
       {{"listNames", "the vector of complete names of KXMemory keys"}});
  bind(&KXMemoryWatcher::addListeners);

  open("removeAllListeners", "remove all keys listened to");
  bindVoid(&KXMemoryWatcher::removeAllListeners);

  open("removeListener", "remove a key from the list to listen to",
       {{"name", "the name of the key to stop to listen"}});
  bind(&KXMemoryWatcher::removeListener);

  open("removeListeners", "remove a list of key from the list to listen",
       {{"listNames", "the vector of names of key to stop to listen"}});
  bind(&KXMemoryWatcher::removeListeners);

  open("getData", "return an KXValue containing all buffered data" + blanks(39) +
                      "since the last call of getData().");
  setReturn("data", "The complete array of all buffered data");
  bindResult(&KXMemoryWatcher::getData);

  open("clearBuffer",
       "remove all buffered data." + blanks(43) + "The list of keys listened to keeps unchanged.");
  bindVoid(&KXMemoryWatcher::clearBuffer);

  open("isWatching", "tells whether keys are watched and data being gathered.");
  setReturn("watching", "true if keys are being watched.");
  bindResult(&KXMemoryWatcher::isWatching);

  open("startWatching", "start listening to selected keys from KXMemory",
       {{"period", "the time between two listen of KXMemory keys, in milliseconds."}});
  bind(&KXMemoryWatcher::startWatching);

  open("stopWatching", "stop listening selected keys from KXMemory." + blanks(36) +
                           "List of listened keys and associated buffers keep unchanged.");
  bindVoid(&KXMemoryWatcher::stopWatching);

  open("_mainThread", "simple loop calling buffer update every \"period\" milliseconds");
  bindVoid(&KXMemoryWatcher::xMainThread);

  open("setPeriodMs", "edit \"period\" value between two buffering.",
       {{"period", "the new period (in ms) to apply."}});
  bind(&KXMemoryWatcher::setPeriodMs);

  open(kEventMethod, "Be notified when an event we have subscribe to has changed in KXMemory",
       {{"dataName", "name of the data"},
        {"dataValue", "value of the data"},
        {"message", "callback message"}});
  bind(&KXMemoryWatcher::onEventNotify);
}

// ---- listener registry

void KXMemoryWatcher::addListener(std::string const& name) {
  KXMemoryWatcherItem item(name, kUnknownData, "");
  try {
    item.setNature(mMemoryProxy->getType(name));
  } catch (KXError const&) {
    // The store does not know the key yet: it is watched as data until its kind is known.
    ka::log::LogStream(ka::log::Warning, "memoryWatcher", "", "addListener", 0)
        << "The key " << name
        << " could not be found, but it will be watched as soon as it becomes available.";
  }
  // Asked before any lock is taken, so that nobody waits behind the store.
  KXValue firstValue;
  ka::os::timeval firstTime;
  if (mIsWatching) {
    if (item.getNature() != kUnknownData) firstValue = mMemoryProxy->getData(name);
    ka::os::gettimeofday(&firstTime);
  }

  // In both halves the inbox is filed once more before the entry is written: what a callback for
  // the new key left behind since the subscription gives way to the entry.
  if (isEventNature(item.getNature())) {
    KXCriticalSection const lock(mEventMutex);
    xFileEvents();
    if (mEventItems.contains(name)) return;
    if (mIsWatching) {
      item.addData(firstTime, firstValue);
      xSubscribe(name, item.getNature());
    }
    xFileEvents();
    mEventList.isCurrent = false;
    mEventItems.insert_or_assign(name, item);
  } else {
    KXCriticalSection const lock(mDataMutex);
    xFileData();
    if (mDataItems.contains(name)) return;
    if (mIsWatching) item.addData(firstTime, firstValue);
    xFileData();
    mDataList.isCurrent = false;
    mDataItems.insert_or_assign(name, item);
  }
}

void KXMemoryWatcher::addListeners(std::vector<std::string> const& listNames) {
  for (std::string const& name : listNames) addListener(name);
}

void KXMemoryWatcher::removeListener(std::string const& name) {
  {
    KXCriticalSection const lock(mDataMutex);
    xFileData();
    if (mDataItems.erase(name) > 0) mDataList.isCurrent = false;
  }
  KXCriticalSection const lock(mEventMutex);
  xFileEvents();
  auto const entry = mEventItems.find(name);
  if (entry == mEventItems.end()) return;
  std::string const nature = entry->second.getNature();
  // Before the entry goes: if the store fails, the key must still be there. What was raised until
  // then belongs to the entry and goes with it.
  xUnsubscribe(name, nature);
  xFileEvents();
  mEventItems.erase(name);
  mEventList.isCurrent = false;
}

void KXMemoryWatcher::removeListeners(std::vector<std::string> const& listNames) {
  for (std::string const& name : listNames) removeListener(name);
}

void KXMemoryWatcher::removeAllListeners() {
  {
    KXCriticalSection const lock(mDataMutex);
    xFileData();
    mDataItems.clear();
    mDataList.isCurrent = false;
  }
  KXCriticalSection const lock(mEventMutex);
  for (auto const& [key, nature] : xEventNatures()) xUnsubscribe(key, nature);
  xFileEvents();
  mEventItems.clear();
  mEventList.isCurrent = false;
}

std::vector<std::string> KXMemoryWatcher::listeners() {
  KXCriticalSection const eventLock(mEventMutex);
  KXCriticalSection const dataLock(mDataMutex);
  xFileEvents();
  xFileData();
  std::vector<std::string> names;
  names.reserve(mDataItems.size() + mEventItems.size());
  for (auto const& [key, item] : mDataItems) names.push_back(key);
  for (auto const& [key, item] : mEventItems) names.push_back(key);
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
  xUpdateValues(xEventItems());
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
  KXCriticalSection const lock(mEventMutex);
  xFileEvents();
  std::vector<std::pair<std::string, std::string>> natures;
  natures.reserve(mEventItems.size());
  for (auto const& [key, item] : mEventItems) natures.emplace_back(key, item.getNature());
  return natures;
}

// ---- event capture

void KXMemoryWatcher::onEventNotify(std::string const& dataName, KXValue const& dataValue,
                                    KXValue const&) {
  if (!mIsWatching) return;
  ka::os::timeval time;
  ka::os::gettimeofday(&time);
  mEventInbox.postSample(dataName, time, dataValue);
}

// ---- retrieval and clearing

KXValue KXMemoryWatcher::getData() {
  KXValue result;
  result.arraySetSize(0);
  KXTimePairs pairs;
  // On purpose copied in one hold of the lock and cleared in another. What is filed in between is
  // returned by the next fetch: only what was handed out is cleared.
  {
    KXCriticalSection const lock(mDataMutex);
    xFileData();
    appendEntries(mDataItems, pairs, result);
    for (auto& [key, item] : mDataItems) item.markHandedOut();
  }
  {
    KXCriticalSection const lock(mDataMutex);
    for (auto& [key, item] : mDataItems) item.clearHandedOut();
  }
  {
    KXCriticalSection const lock(mEventMutex);
    xFileEvents();
    appendEntries(mEventItems, pairs, result);
    for (auto& [key, item] : mEventItems) item.markHandedOut();
  }
  {
    KXCriticalSection const lock(mEventMutex);
    for (auto& [key, item] : mEventItems) item.clearHandedOut();
  }
  return result;
}

void KXMemoryWatcher::clearBuffer() {
  clearBufferData();
  clearBufferEvent();
}

void KXMemoryWatcher::clearBufferData() {
  KXCriticalSection const lock(mDataMutex);
  xFileData();
  clearAll(mDataItems);
}

void KXMemoryWatcher::clearBufferEvent() {
  KXCriticalSection const lock(mEventMutex);
  xFileEvents();
  clearAll(mEventItems);
}

// ---- watch control, period and pacing

bool KXMemoryWatcher::isWatching() {
  return mIsStarting || mIsWatching;
}

void KXMemoryWatcher::setPeriodMs(int const& period) {
  int const truncated = period / kCycleMs * kCycleMs;
  int newPeriod = period;
  if (period != truncated || period <= 9) {
    newPeriod = truncated >= 11 ? truncated : kCycleMs;
    ka::log::LogStream(ka::log::Warning, kModuleName, "", "setPeriodMs", 0)
        << "Period have to be multiple of 10 ms, Value will be truncated to " << newPeriod;
  }
  KXCriticalSection const lock(mPacingMutex);
  if (mIsWatching && mUseTimedSleep) {
    // Before the period changes: the pending deadline was computed with the old one.
    ptime const candidate =
        mNextWakeTime - milliseconds(mPeriodMs.load()) + milliseconds(newPeriod);
    ptime const now = microsec_clock::universal_time();
    mNextWakeTime = now > candidate ? now : candidate;
    mSleepGate.unlock();
  }
  mPeriodMs = newPeriod;
  mCyclesPerPeriod = newPeriod / kCycleMs;
}

void KXMemoryWatcher::startWatching(int const& period) {
  if (mIsStarting || mIsWatching || isClosing()) return;
  // A start that meets a stop in progress waits for it, so that there is never a second loop.
  KXCriticalSection const control(mControlMutex);
  if (mIsStarting || mIsWatching || isClosing()) return;
  mIsStarting = true;
  setPeriodMs(period);
  if (mUseTimedSleep) {
    KXCriticalSection const lock(mPacingMutex);
    mNextWakeTime = microsec_clock::universal_time() + milliseconds(mPeriodMs.load());
  }
  mIsWatching = true;
  mUseTimedSleep ? xStartTimedPacing() : xStartCyclePacing();
  mIsStarting = false;
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
  mWatchThread = boost::thread([this] { xRunWatchThread(); });
}

void KXMemoryWatcher::xStartTimedPacing() {
  mMainThreadTaskId = getParentBroker()->getProxy(kModuleName, 0)->pCall("_mainThread");
}

void KXMemoryWatcher::stopWatching() {
  if (!mIsWatching) return;
  KXCriticalSection const control(mControlMutex);
  if (!mIsWatching.exchange(false)) return;
  // Also after a start that failed half-way.
  mIsStarting = false;
  mUseTimedSleep ? xStopTimedPacing() : xStopCyclePacing();
  mMainThreadTaskId = 0;
}

void KXMemoryWatcher::xStopTimedPacing() {
  mSleepGate.unlock();
  int const taskId = mMainThreadTaskId;
  // On purpose asked of the store's proxy, although the call was made through our own.
  if (taskId == 0 || !mMemoryProxy->isRunning(taskId)) return;
  try {
    mMemoryProxy->wait(taskId, 0);
  } catch (KXError const&) {
    // The watch is off all the same; the loop leaves at its next look.
  }
}

void KXMemoryWatcher::xStopCyclePacing() {
  mCycleGate.unlock();
  mVsmConnection.disconnect();
  // Disconnecting does not wait for a callback that is just running.
  if (mVsmGuard != nullptr) mVsmGuard->close();
  mCycleCount = 1;
  if (mWatchThread.joinable()) mWatchThread.join();
}

void KXMemoryWatcher::xOnVSMUpdate() {
  if (mCycleCount >= mCyclesPerPeriod) {
    mCycleCount = 1;
    mCycleGate.unlock();
  } else {
    ++mCycleCount;
  }
}

void KXMemoryWatcher::xRunWatchThread() noexcept {
  runLogged("xUpdateDataLoop", "the watch loop", [this] { xUpdateDataLoop(); });
}

void KXMemoryWatcher::xUpdateDataLoop() {
  for (;;) {
    mCycleGate.lock();
    if (!mIsWatching) break;
    xUpdateValues(xDataItems());
  }
  mCycleGate.unlock();
}

void KXMemoryWatcher::xMainThread() {
  ka::os::FineTimers const fineTimers;
  mSleepGate.lock();
  // Unlocked on every way out: a store that fails must not lock out the next run.
  auto const unlock = [](KXSleepGate* gate) {
    gate->unlock();
  };
  std::unique_ptr<KXSleepGate, decltype(unlock)> const held(&mSleepGate, unlock);
  if (!mUseTimedSleep) {
    // A client's own call beside the hardware cycle: no start has set a deadline for it.
    KXCriticalSection const lock(mPacingMutex);
    mNextWakeTime = microsec_clock::universal_time() + milliseconds(mPeriodMs.load());
  }
  while (mIsWatching) {
    if (isClosing()) break;
    xUpdateValues(xDataItems());
    xSleepForPeriod();
  }
}

void KXMemoryWatcher::xSleepForPeriod() {
  auto const deadline = [this] {
    KXCriticalSection const lock(mPacingMutex);
    return mNextWakeTime;
  };
  while (mSleepGate.lockUntil(deadline()) && mIsWatching) {
  }
  // From the deadline, not from now: the schedule does not drift.
  KXCriticalSection const lock(mPacingMutex);
  mNextWakeTime += milliseconds(mPeriodMs.load());
}

// ---- update cycle

void KXMemoryWatcher::xUpdateValues(KXListenerMap& items) {
  bool const isData = &items == &xDataItems();
  Cycle cycle;
  if (!xBeginCycle(isData, cycle)) return;
  try {
    xReadBatch(isData, cycle);
  } catch (KXError const& error) {
    // The period is lost for the keys that were not filed; the next one goes on.
    ka::log::LogStream(ka::log::Warning, "memoryWatcher", "", "xUpdateValues", 0)
        << "Error caught getting data: " << messageOf(error);
  }
  if (mDataInbox.isFilingDue()) xFileDueBatches();
}

// After the read, so that filing never delays the moment at which values are taken. Whoever holds
// the mutex here files by himself, or leaves it to the next cycle.
void KXMemoryWatcher::xFileDueBatches() {
  bool wasLocked = false;
  KXCriticalTrueIfLocked const probe(mDataMutex, wasLocked);
  if (wasLocked) return;
  mDataMutex->assertHeld();
  xFileData();
}

// Probes the map's mutex; false if somebody holds it. While the probe lives, and only then, the
// cycle takes what it needs of the map.
bool KXMemoryWatcher::xBeginCycle(bool isData, Cycle& cycle) {
  bool wasLocked = false;
  KXCriticalTrueIfLocked const probe(isData ? mDataMutex : mEventMutex, wasLocked);
  if (wasLocked) return false;
  if (isData) {
    mDataMutex->assertHeld();
    mDataList.refresh(mDataItems);
    cycle = {mDataList.names, mDataList.keys, mDataList.unknown};
  } else {
    mEventMutex->assertHeld();
    xFileEvents();
    mEventList.refresh(mEventItems);
    // Event keys have their nature from the start.
    cycle = {mEventList.names, mEventList.keys, {}};
  }
  return true;
}

void KXMemoryWatcher::xReadBatch(bool isData, Cycle const& cycle) {
  ka::os::timeval time;
  ka::os::gettimeofday(&time);
  KXValue const values = mMemoryProxy->getListData(cycle.names);

  KXSampleInbox& inbox = isData ? mDataInbox : mEventInbox;
  std::size_t const wanted = static_cast<std::size_t>(cycle.keys.getSize());
  std::size_t const given =
      values.getType() == KXValue::TypeArray ? static_cast<std::size_t>(values.getSize()) : 0;
  std::size_t filed = 0;
  auto const fileUpTo = [&](std::size_t end) {
    std::size_t const reached = std::min(end, given);
    if (reached > filed) inbox.postBatch(time, cycle.keys, values, filed, reached);
    filed = reached;
    // A store that answers short: what it gave is kept, the first missing value is the error.
    if (reached < end) static_cast<void>(values[static_cast<int>(reached)]);
  };

  std::vector<std::string> promoted;
  for (std::uint32_t const place : cycle.unknown) {
    // A key's own sample is filed before its kind is asked, so that a failure does not lose it.
    fileUpTo(place + 1);
    xResolveNature(static_cast<std::string const&>(cycle.keys[static_cast<int>(place)]), promoted);
  }
  fileUpTo(wanted);
  xErasePromoted(promoted);
}

void KXMemoryWatcher::xResolveNature(std::string const& name, std::vector<std::string>& promoted) {
  std::string const nature = mMemoryProxy->getType(name);
  if (nature == kUnknownData) return;
  KXMemoryWatcherItem item;
  {
    KXCriticalSection const lock(mDataMutex);
    xFileData();
    auto const entry = mDataItems.find(name);
    // Removed by a client meanwhile, or resolved by another cycle.
    if (entry == mDataItems.end() || entry->second.getNature() != kUnknownData) return;
    entry->second.setNature(nature);
    mDataList.isCurrent = false;
    if (!isEventNature(nature)) return;
    item = entry->second;
  }
  promoted.push_back(name);
  KXCriticalSection const lock(mEventMutex);
  xFileEvents();
  mEventList.isCurrent = false;
  mEventItems.insert_or_assign(name, item);
  xSubscribe(name, nature);
}

void KXMemoryWatcher::xErasePromoted(std::vector<std::string> const& promoted) {
  if (promoted.empty()) return;
  KXCriticalSection const lock(mDataMutex);
  xFileData();
  for (std::string const& name : promoted) {
    auto const entry = mDataItems.find(name);
    // A client may have put a new key of that name there since: that one stays.
    if (entry != mDataItems.end() && isEventNature(entry->second.getNature())) {
      mDataItems.erase(entry);
    }
  }
  mDataList.isCurrent = false;
}

}  // namespace KX
