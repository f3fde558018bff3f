// Which modules have come back, or may have: whoever told them something tells it again.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxrareline.hpp>
#include <host/bus/kxsubject.hpp>

namespace KX {

/// Listens to who is announced on a robot, again and again. A module has come back for whoever
/// observes it if it is announced by another instance than the last time, or for the first time
/// since he does; it may have if this process was cut off meanwhile. Once a second at most: those
/// that come sooner are told with what is announced after that.
/// Ownership: the bus outlives it; what observe() returned may outlive it too.
/// Threads: any; handlers run on a thread of the bus.
class KXReturns {
 public:
  KXReturns(KXBus& bus, KXSubjects const& subjects);

  /// Says that a module of this process is announced.
  static void announce(KXBus& bus, KXSubjects const& subjects, std::string const& module,
                       std::string const& instance);

  /// As KXTransport::observeReturns().
  std::shared_ptr<void> observe(std::string const& module, std::function<bool()> handler);

 private:
  using Clock = std::chrono::steady_clock;
  struct Observer {
    std::function<bool()> handler;
    std::string instance{};  // that it was told of last; empty: none; guarded by the state's mutex
  };
  using Observers = std::list<std::shared_ptr<Observer>>;
  struct State {
    std::mutex mutex;
    std::multimap<std::string, std::shared_ptr<Observer>> observers;  // guarded by mutex
    std::map<std::string, Clock::time_point> toldAt;  // guarded by mutex; of observed modules
  };

  void xHear(KXBusMessage const& message);
  Observers xToTell(std::string const& module, std::string const& instance);
  void xTell(Observers const& observers, std::string const& instance);

  std::shared_ptr<State> const mState = std::make_shared<State>();
  KXRareLine mMalformed{"KXReturns", "hear"};
  std::unique_ptr<KXBusSubscription> mEvents;
  std::unique_ptr<KXBusSubscription> mAnnouncements;
};

}  // namespace KX
