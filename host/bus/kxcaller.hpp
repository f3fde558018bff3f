// Calls to modules of other processes, over a bus: each method runs once for each call, and each
// way in which a call can fail has an error of its own.
#pragma once

#include <memory>
#include <string>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// The calling side of one process on one robot; the operations are those of KXTransport.
/// Ownership: the bus outlives it. Nobody may be in a call when it is destroyed, but for those that
/// close() has told to leave.
/// Threads: all operations may overlap; a call waits on its own thread.
/// Errors: KXError. Those of the module called come as they were thrown; those of the way have
/// "KXBus" as their module: NotFound (nobody has the module), Refused (the server forbids it),
/// TimedOut, Disconnected, and Failed for what nobody can send or read.
class KX_API KXCaller {
 public:
  /// `robot` is for error texts, `timeoutMs` for calls that are given none.
  KXCaller(KXBus& bus, KXSubjects subjects, std::string robot, int timeoutMs);
  /// As close(), and waits until all calls have left.
  ~KXCaller();
  KXCaller(KXCaller const&) = delete;
  KXCaller& operator=(KXCaller const&) = delete;

  void call(std::string const& module, std::string const& method, KXValue const& params,
            KXValue& result, int timeoutMs);
  void pCall(std::string const& module, std::string const& method, KXValue const& params,
             KXValue& result);
  bool isRunning(std::string const& module, int taskId);
  bool wait(std::string const& module, int taskId, int timeoutMs);
  void find(std::string const& module);
  KXModuleInfo describe(std::string const& module);

  /// All calls, those in progress too, fail from now on: Disconnected.
  void close();

 private:
  class Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
