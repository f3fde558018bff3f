#include <host/vsm/kxvsm.hpp>

#include <exception>

#include <pthread.h>
#include <sched.h>

#include <binding/kxfunctor.hpp>
#include <binding/kxsignature.hpp>
#include <ka/log.hpp>
#include <ka/os.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// Above ordinary real-time work, below the kernel's own threads.
constexpr int kPriority = 60;

// Without the right to it, the thread stays an ordinary one: the cycle is later, but there.
void askForRealTimePriority() {
  sched_param parameters{};
  parameters.sched_priority = kPriority;
  pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
}

void logFailure(char const* what) {
  ka::log::LogStream(ka::log::Warning, "VSM", "", "cycle", 0) << "a cycle slot failed: " << what;
}

}  // namespace

/// The cycle thread's sleep, and what ends it.
struct KXVsm::Alarm {
  explicit Alarm(KXClock& itsClock) : clock(itsClock) {}

  /// False, at once, when the cycle is to end.
  bool sleepUntil(std::int64_t deadlineNs) {
    boost::unique_lock<boost::mutex> lock(mutex);
    while (!isStopping && clock.monotonicNs() < deadlineNs) {
      clock.waitUntil(changed, lock, deadlineNs);
    }
    return !isStopping;
  }
  void stop() {
    boost::lock_guard<boost::mutex> const lock(mutex);
    isStopping = true;
    changed.notify_one();
  }

  KXClock& clock;
  boost::mutex mutex;
  boost::condition_variable changed;
  bool isStopping = false;  // guarded by mutex
};

KXCycleStep nextCycle(std::int64_t deadlineNs, std::int64_t nowNs) noexcept {
  std::int64_t const lateNs = nowNs - (deadlineNs + KXVsm::kCycleNs);
  std::int64_t const missed = lateNs <= 0 ? 0 : (lateNs + KXVsm::kCycleNs - 1) / KXVsm::kCycleNs;
  return {deadlineNs + (missed + 1) * KXVsm::kCycleNs, static_cast<int>(missed)};
}

KXVsm::KXVsm(boost::shared_ptr<KXBroker> const& broker, KXClock& clock)
    : KXModule(broker, "VSM"), mAlarm(std::make_shared<Alarm>(clock)) {
  setModuleDescription("The hardware cycle: a signal every 10 ms.");
  functionName("getCycleCount", getName(), "Tells how often the cycle has been raised.", 0);
  setReturn("count", "cycles since the start");
  completeAndCheck(&KXVsm::getCycleCount, getCurrentMethodDescription());
  bindMethod(createFunctor(this, &KXVsm::getCycleCount));

  functionName("getMissedCycleCount", getName(), "Tells how many cycles were late and skipped.", 0);
  setReturn("count", "cycles that were not raised because their time had passed");
  completeAndCheck(&KXVsm::getMissedCycleCount, getCurrentMethodDescription());
  bindMethod(createFunctor(this, &KXVsm::getMissedCycleCount));
}

KXVsm::~KXVsm() {
  xStop();
}

void KXVsm::init() {
  boost::lock_guard<boost::mutex> const lock(mMutex);
  mThread = std::thread([module = boost::weak_ptr<KXModuleCore>(shared_from_this()),
                         alarm = mAlarm] { xRun(module, *alarm); });
}

void KXVsm::exit() {
  xStop();
  KXModule::exit();  // Last: the module may die in it.
}

void KXVsm::xStop() {
  mAlarm->stop();
  std::thread thread;
  {
    boost::lock_guard<boost::mutex> const lock(mMutex);
    thread.swap(mThread);
  }
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

void KXVsm::xRun(boost::weak_ptr<KXModuleCore> const& module, Alarm& alarm) {
  ka::os::FineTimers const fineTimers;
  askForRealTimePriority();
  std::int64_t deadlineNs = alarm.clock.monotonicNs() + kCycleNs;
  while (alarm.sleepUntil(deadlineNs)) {
    // Held for one cycle only: the module's end is its owner's matter, also in the midst of this.
    boost::shared_ptr<KXModuleCore> const core = module.lock();
    if (!core) return;
    KXVsm& vsm = static_cast<KXVsm&>(*core);
    vsm.mDeadlineNs = deadlineNs;
    vsm.xCycle();
    KXCycleStep const step = nextCycle(deadlineNs, alarm.clock.monotonicNs());
    vsm.mMissedCycleCount += static_cast<std::uint32_t>(step.missedCycles);
    deadlineNs = step.deadlineNs;
  }
}

void KXVsm::xCycle() noexcept {
  ++mCycleCount;
  try {
    cycleSignal()();
  } catch (std::exception const& error) {
    // A slot that fails must not stop the machine's cycle.
    logFailure(messageOf(error));
  } catch (...) {
    logFailure("an exception of unknown type");
  }
}

int KXVsm::getCycleCount() {
  return static_cast<int>(mCycleCount.load() & 0x7fffffffU);
}

int KXVsm::getMissedCycleCount() {
  return static_cast<int>(mMissedCycleCount.load() & 0x7fffffffU);
}

}  // namespace KX
