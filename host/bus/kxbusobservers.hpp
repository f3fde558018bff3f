// Who is told what befalls a connection.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbushandler.hpp>

namespace KX {

/// Ownership: of a bus; outlives the observations. Threads: any may add, one at a time tells.
class KXBusObservers {
 public:
  [[nodiscard]] std::unique_ptr<KXBusSubscription> add(KXBus::EventHandler handler);
  void tell(KXBusEvent const& event);

 private:
  using Handler = KXBusHandler<KXBusEvent>;
  class Observation;

  std::mutex mMutex;
  std::vector<std::shared_ptr<Handler>> mHandlers;  // guarded by mMutex
};

}  // namespace KX
