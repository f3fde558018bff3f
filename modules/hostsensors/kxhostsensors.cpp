#include <modules/hostsensors/kxhostsensors.hpp>

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <ka/runlogged.hpp>
#include <kxcommon/kxbroker.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

constexpr int kDefaultPeriodMs = 100;
constexpr int kMinPeriodMs = 10;
constexpr int kMaxPeriodMs = 60000;

// Makes one step of a period; a failure is logged and the steps that follow are made.
template <class Step>
bool tryStep(char const* what, std::string const& key, Step const& step) {
  auto const failure = [&] {
    return std::string("cannot ") + what + " '" + key + "'";
  };
  // Whatever a store throws, it must not end the thread.
  return ka::log::runLogged("KXHostSensors", "publish", failure, step);
}

KXValue asPairs(KXMachineReport const& report) {
  std::vector<KXValue> pairs;
  pairs.reserve(report.values.size());
  for (auto const& [key, value] : report.values) pairs.push_back(KXValue::arrayOf(key, value));
  return KXValue(std::move(pairs));
}

}  // namespace

KXHostSensors::KXHostSensors(boost::shared_ptr<KXBroker> const& broker)
    : KXHostSensors(broker, makeMachineGroups("")) {}

KXHostSensors::KXHostSensors(boost::shared_ptr<KXBroker> const& broker,
                             std::vector<std::unique_ptr<KXMachineGroup>> groups)
    : KXModule(broker, "KXHostSensors"), mSurvey(std::move(groups)), mPeriodMs(kDefaultPeriodMs) {
  setModuleDescription("Publishes this machine's sensors into KXMemory, below Host/.");

  publish(*this,
          {"getPeriodMs",
           "Tells how often the machine is read.",
           {},
           {"periodMs", "the period in milliseconds"}},
          &KXHostSensors::getPeriodMs);
  publish(*this,
          {"setPeriodMs",
           "Sets how often the machine is read.",
           {{"periodMs", "the period in milliseconds; corrected to 10 to 60000"}}},
          &KXHostSensors::setPeriodMs);
}

KXHostSensors::~KXHostSensors() {
  xStop();
}

void KXHostSensors::init() {
  xPeriod();
  mThread = std::thread([this] { xRun(); });
}

void KXHostSensors::exit() {
  xStop();
  KXModule::exit();  // Last: the module may die in it.
}

int KXHostSensors::getPeriodMs() {
  std::lock_guard const lock(mMutex);
  return mPeriodMs;
}

void KXHostSensors::setPeriodMs(int const& periodMs) {
  int const corrected = std::clamp(periodMs, kMinPeriodMs, kMaxPeriodMs);
  if (corrected != periodMs) {
    ka::log::LogStream(ka::log::Warning, "KXHostSensors", "", "setPeriodMs", 0)
        << "period of " << periodMs << " ms corrected to " << corrected << " ms";
  }
  {
    std::lock_guard const lock(mMutex);
    mPeriodMs = corrected;
    mIsPeriodNew = true;
  }
  mChanged.notify_one();
}

void KXHostSensors::xStop() {
  {
    std::lock_guard const lock(mMutex);
    mIsStopping = true;
  }
  mChanged.notify_one();
  if (mThread.joinable()) mThread.join();
}

void KXHostSensors::xRun() {
  ::pthread_setname_np(::pthread_self(), "kxhostsensors");
  KXMachineTime deadline = KXMachineClock::now();
  std::unique_lock lock(mMutex);
  while (!mIsStopping) {
    KXMachineTime const now = KXMachineClock::now();
    std::chrono::milliseconds const period(mPeriodMs);
    deadline += period;
    if (std::exchange(mIsPeriodNew, false) || deadline <= now) deadline = now + period;
    mChanged.wait_until(lock, deadline, [this] { return mIsStopping || mIsPeriodNew; });
    if (mIsStopping || mIsPeriodNew) continue;
    lock.unlock();
    xPeriod();
    lock.lock();
  }
}

void KXHostSensors::xPeriod() {
  KXMachineSurvey::Result const found = mSurvey.read(KXMachineClock::now());
  mKeysToRemove.insert(found.vanishedKeys.begin(), found.vanishedKeys.end());
  tryStep("reach the store", "KXMemory", [&] {
    // Asked for each time: the store may come later than this module, and may be replaced.
    boost::shared_ptr<KXProxy> const store = getParentBroker()->getProxy("KXMemory", 0);
    xDeclareEvents(*store);
    xPublish(*store, found.report);
  });
}

void KXHostSensors::xDeclareEvents(KXProxy& store) {
  if (mAreEventsDeclared) return;
  mAreEventsDeclared = true;
  for (KXMachineKey const& key : mSurvey.keys()) {
    if (key.kind == KXMachineKey::Kind::Data) continue;
    bool const isMicroEvent = key.kind == KXMachineKey::Kind::MicroEvent;
    char const* const method = isMicroEvent ? "declareMicroEvent" : "declareEvent";
    bool const isDeclared =
        tryStep("declare", key.pattern, [&] { store.call<void>(method, key.pattern); });
    mAreEventsDeclared = mAreEventsDeclared && isDeclared;
  }
}

// Removes first: a key may have come back since it vanished.
void KXHostSensors::xPublish(KXProxy& store, KXMachineReport const& report) {
  for (std::string const& key : std::exchange(mKeysToRemove, {})) {
    tryStep("remove", key, [&] { store.call<void>("removeData", key); });
  }
  tryStep("write", "Host/*", [&] { store.call<void>("insertListData", asPairs(report)); });
  for (KXMachineEvent const& event : report.events) {
    char const* const method = event.isMicroEvent ? "raiseMicroEvent" : "raiseEvent";
    tryStep("raise", event.key, [&] { store.call<void>(method, event.key, event.value); });
  }
}

}  // namespace KX
