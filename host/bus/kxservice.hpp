// NATS's service protocol for one announced module: what stock tools list modules and methods by.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxmethodstatistics.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Who serves a module, beside what it says of itself.
struct KXServiceIdentity {
  std::string robot;
  std::string broker;
  std::string instance;  ///< unique to what serves; one token
  std::chrono::system_clock::time_point started{};
};

/// Answers PING, INFO and STATS for one module: to all, by its name, and by name and instance. The
/// name of the service is that of the module, with "_" for what the protocol does not allow; the
/// metadata has it as it is. Each published method is an endpoint.
/// Ownership: borrows the bus, which outlives it. Threads: answers on threads of the bus.
class KX_API KXService {
 public:
  /// Methods that are missing were never called. Called on any thread.
  using Statistics = std::function<std::vector<KXMethodStatistics>()>;

  KXService(KXBus& bus, KXServiceIdentity const& identity, KXModuleInfo const& module,
            Statistics statistics);
  ~KXService();
  KXService(KXService const&) = delete;
  KXService& operator=(KXService const&) = delete;

 private:
  struct Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
