// Which modules have come back, or may have: whoever told them something tells it again.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxsubject.hpp>

namespace KX {

/// Listens to who is announced on a robot. A module has come back if it is announced by another
/// instance than the last time; it may have if this process was cut off meanwhile.
/// Ownership: the bus outlives it; what observe() returned may outlive it too.
/// Threads: any; handlers run on a thread of the bus.
class KXReturns {
 public:
  KXReturns(KXBus& bus, KXSubjects const& subjects);

  /// Says that a module of this process is announced.
  static void announce(KXBus& bus, KXSubjects const& subjects, std::string const& module,
                       std::string const& instance);

  /// As KXTransport::observeReturns().
  std::shared_ptr<void> observe(std::string const& module, std::function<void()> handler);

 private:
  using Handler = std::shared_ptr<std::function<void()>>;
  struct State {
    std::mutex mutex;
    std::multimap<std::string, Handler> handlers;  // guarded by mutex
    std::map<std::string, std::string> instances;  // guarded by mutex; of observed modules
  };

  void xHear(KXBusMessage const& message);
  static void xRun(std::list<Handler> const& handlers);

  std::shared_ptr<State> const mState = std::make_shared<State>();
  std::unique_ptr<KXBusSubscription> mEvents;
  std::unique_ptr<KXBusSubscription> mAnnouncements;
};

}  // namespace KX
