// The module that publishes this machine into the store.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodule.hpp>
#include <modules/hostsensors/kxmachinesurvey.hpp>

namespace KX {

class KXProxy;

/// Reads the machine once per period and writes what it finds into the module "KXMemory": values in
/// one call, then events; keys whose device is gone are removed. README.md lists the keys.
/// Ownership: the broker's; owns its thread, which ends in exit() and at the latest in the
/// destructor, and owns nothing of the module or the broker.
/// Threads: the published methods may be called from any. The first period is read by init(), so
/// that the keys are there when the module is; all others by the module's thread.
/// A period whose deadline was missed is left out, never made up. What the store throws is logged,
/// and the next period goes on.
class KXHostSensors : public KXModule {
 public:
  /// This machine.
  explicit KXHostSensors(boost::shared_ptr<KXBroker> const& broker);
  /// Only these groups.
  KXHostSensors(boost::shared_ptr<KXBroker> const& broker,
                std::vector<std::unique_ptr<KXMachineGroup>> groups);
  ~KXHostSensors() override;
  void init() override;
  void exit() override;

  int getPeriodMs();
  /// Takes effect at once. A period outside of 10 to 60000 is corrected to the nearer of these.
  void setPeriodMs(int const& periodMs);

 private:
  void xRun();
  void xStop();
  void xPeriod();
  void xDeclareEvents(KXProxy& store);
  void xPublish(KXProxy& store, KXMachineReport const& report);

  // Of the thread that reads: the one that calls init(), then the module's own.
  KXMachineSurvey mSurvey;
  bool mAreEventsDeclared = false;
  std::set<std::string> mKeysToRemove;  ///< waiting for a store that can be reached

  std::mutex mMutex;  // guards what follows
  std::condition_variable mChanged;
  int mPeriodMs;
  bool mIsPeriodNew = false;
  bool mIsStopping = false;

  std::thread mThread;
};

}  // namespace KX
