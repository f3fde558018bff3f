// How a proxy reaches a module in another process.
#pragma once

#include <string>

#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// The way to modules in other processes. Threads: all operations may overlap. Failures of the way
/// itself, and errors of the module called, are KXErrors.
class KX_API KXTransport {
 public:
  virtual ~KXTransport();

  /// Calls and waits. An invalid `result` means that the method returns nothing.
  virtual void call(std::string const& module, std::string const& method, KXValue const& params,
                    KXValue& result) = 0;
  /// Starts a parallel call; `result` is its task id, an int.
  virtual void pCall(std::string const& module, std::string const& method, KXValue const& params,
                     KXValue& result) = 0;
  virtual bool isRunning(std::string const& module, int taskId) = 0;
  /// False if the time-out passed first; a time-out of 0 waits without limit.
  virtual bool wait(std::string const& module, int taskId, int timeoutMs) = 0;
};

}  // namespace KX
