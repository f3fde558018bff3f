// Answers requests that have come over a bus.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxcallee.hpp>
#include <host/bus/kxmethodstatistics.hpp>
#include <host/bus/kxreplykeeper.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

/// Has requests run, those with an id once for however often they arrive, and sends the replies.
/// Ownership: borrows the bus, the callee and the statistics, which outlive it.
/// Threads: all operations may overlap.
class KX_API KXResponder {
 public:
  /// `instance` tells this server from its predecessors.
  KXResponder(KXBus& bus, KXCallee& callee, KXStatisticsTable& statistics, std::string instance,
              KXReplyKeeper::Limits limits);

  /// Runs the call on this thread, if it is to run.
  void answer(KXSubjects::Call const& call, KXBusMessage const& message);
  /// Says that the module is not served any more, or by another server, unless the call may have
  /// run before.
  void turnAway(KXSubjects::Call const& call, KXBusMessage const& message) const;

  /// Gives up the replies that are too old.
  void expire();
  KXReplyKeeper::Counts counts() const;

 private:
  void xSendMoved(KXSubjects::Call const& call, KXBusMessage const& message) const;
  void xAnswerOnce(KXSubjects::Call const& call, KXCallId const& id, KXBusMessage const& message);
  std::shared_ptr<KXReply const> xRunOnce(KXSubjects::Call const& call, KXCallId const& id,
                                          KXBusMessage const& message) noexcept;
  std::shared_ptr<KXReply> xRun(KXSubjects::Call const& call, KXBusMessage const& message,
                                std::string_view caller, bool mayHaveParts);
  void xFit(KXSubjects::Call const& call, KXReply& reply, bool mayHaveParts) const;
  std::shared_ptr<KXReply const> xNoMemory() const;
  void xSend(KXSubjects::Call const& call, std::string_view subject, KXReply const& reply,
             std::uint32_t fromPart) const;
  template <class Step>
  auto xWithKeeper(Step step);

  KXBus& mBus;
  KXCallee& mCallee;
  KXStatisticsTable& mStatistics;
  std::string const mInstance;
  std::shared_ptr<KXReply const> const mNoMemory;

  mutable std::mutex mMutex;
  KXReplyKeeper mKeeper;  // guarded by mMutex
};

}  // namespace KX
