// Notifications to modules of other processes. Any thread may enter.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxsubject.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Sends notifications in packs, each once and in order, over lost connections, restarts of the
/// server and receivers that come later. What is beyond the bound is dropped, counted and told in
/// the log.
/// Ownership: must not outlive the bus. Its end sends nothing more; what was not delivered then is
/// one line in the log.
/// Threads: every operation may be called from any thread. Packs are sent by whoever gave cause: a
/// notify(), the bus's thread that brings an acknowledgement, or a thread of its own.
class KX_API KXEventSender {
 public:
  static constexpr std::size_t kMaxWaitingBytes = 8 << 20;
  static constexpr std::chrono::minutes kGoneAfter{10};

  /// `maxWaitingBytes` are for each module, of what was never sent. A module that nobody has
  /// listened for in `goneAfter` is taken for gone.
  KXEventSender(KXBus& bus, KXSubjects const& subjects,
                std::size_t maxWaitingBytes = kMaxWaitingBytes,
                std::chrono::milliseconds goneAfter = kGoneAfter);
  ~KXEventSender();
  KXEventSender(KXEventSender const&) = delete;
  KXEventSender& operator=(KXEventSender const&) = delete;

  /// As KXTransport: for a module by its name, or by "NAME@USER.NONCE". Waits for the network no
  /// longer than one message takes to be written, and not at all without a connection. KXError
  /// (NotFound), and what waited is forgotten, if the module is taken for gone.
  void notify(std::string const& module, std::vector<KXNotification> const& notifications);
  KXNotificationCounts getCounts(std::string const& module) const;
  void forget(std::string const& module);

 private:
  class Impl;
  std::unique_ptr<Impl> const mImpl;
};

}  // namespace KX
