// How a proxy reaches a module in another process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <kxcommon/kxmoduleinfo.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// A call that nobody waits for.
struct KXNotification {
  std::string method;
  KXValue arguments;  ///< an array
};

/// What became of the notifications to one module since the transport was made:
/// posted = delivered + dropped + waiting + unhandled.
struct KXNotificationCounts {
  std::uint64_t posted = 0;
  std::uint64_t delivered = 0;   ///< brought to the module, the receiver said so
  std::uint64_t dropped = 0;     ///< for want of room, or what cannot be sent
  std::uint64_t waiting = 0;     ///< none of these yet
  std::size_t waitingBytes = 0;  ///< of those that were never sent
  std::uint64_t unhandled = 0;   ///< the receiver had no such module, or could not read them
};

/// The way to modules in other processes. Threads: all operations may overlap. Failures of the way
/// itself, and errors of the module called, are KXErrors: their kind tells them apart.
class KX_API KXTransport {
 public:
  virtual ~KXTransport();

  /// Calls and waits. An invalid `result` means that the method returns nothing. A method runs once
  /// for one call, whatever is lost on the way. A time-out of 0 is the transport's own.
  virtual void call(std::string const& module, std::string const& method, KXValue const& params,
                    KXValue& result, int timeoutMs) = 0;
  /// Starts a parallel call; `result` is its task id, an int.
  virtual void pCall(std::string const& module, std::string const& method, KXValue const& params,
                     KXValue& result) = 0;
  virtual bool isRunning(std::string const& module, int taskId) = 0;
  /// False if the time-out passed first; a time-out of 0 waits without limit.
  virtual bool wait(std::string const& module, int taskId, int timeoutMs) = 0;

  /// Queues calls that nobody waits for: each is delivered once and in order, or counted as
  /// dropped. Never waits. A receiver that is cut off, or not there yet, is waited for. KXError,
  /// and nothing is queued: NotFound if nobody has listened for so long that the receiver has to be
  /// taken for gone.
  virtual void notify(std::string const& module, std::vector<KXNotification> notifications) = 0;
  /// Zeros for a module that nothing was ever sent to.
  virtual KXNotificationCounts notificationCounts(std::string const& module) const = 0;
  /// Drops what waits for the module, and forgets it: it is known to be gone for good.
  virtual void forget(std::string const& module) = 0;

  /// Returns if the module is there. KXError: NotFound if nobody has it; another kind if that could
  /// not be asked.
  virtual void find(std::string const& module) = 0;
  /// Has the handler called each time when the module has come back, or may have while nobody could
  /// tell: as a new one it knows nothing of what the former was told. The first sign of the module
  /// counts as well. A handler that returns false is called again at the next sign of the module,
  /// with no new one as well. On a thread of the transport, which must not be kept; until the
  /// result is destroyed.
  [[nodiscard]] virtual std::shared_ptr<void> observeReturns(std::string const& module,
                                                             std::function<bool()> handler) = 0;
  /// What the module says of itself. KXError as find().
  virtual KXModuleInfo describe(std::string const& module) = 0;
};

}  // namespace KX
