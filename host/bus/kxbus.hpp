// The bus: messages under subjects between processes. Two implementations: NATS, and one in memory
// for tests. What is promised here holds for both, and one suite of tests says so.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <kxerror/kxapi.hpp>

namespace KX {

using KXBusHeaders = std::vector<std::pair<std::string, std::string>>;

/// One message. What is borrowed lives as long as the call that it is an argument of.
struct KXBusMessage {
  std::string_view subject{};
  std::string_view reply{};  ///< where an answer goes; empty: nobody waits for one
  /// Those of one name keep their order. Blanks at the ends of a value, and headers without a
  /// value, do not arrive.
  KXBusHeaders headers{};
  std::string_view payload{};
  /// In place of an answer: nobody listens to the subject asked. Only subscriptions of one thread
  /// get it.
  bool isNoResponders = false;

  /// The first header of that name; empty if there is none.
  std::string_view header(std::string_view name) const noexcept {
    for (auto const& [key, value] : headers) {
      if (key == name) return value;
    }
    return {};
  }
};

/// What befalls a connection.
struct KXBusEvent {
  enum class Kind {
    Lost,     ///< no server any more; the bus tries again by itself, without end
    Back,     ///< connected again, subscriptions are back; what was published meanwhile is lost
    Refused,  ///< the server forbids what was sent or subscribed
    Dropped,  ///< messages of a subscription were thrown away for want of room
  };
  Kind kind;
  std::string subject{};      ///< Refused: of the message or subscription; may be unknown (empty)
  bool isPublishing = true;   ///< Refused: sending was; otherwise subscribing
  std::string text{};         ///< for people: why; without secrets
  bool isSubjectCut = false;  ///< its end is not known: servers' texts are bounded

  /// Is it of this subject, as far as one can tell?
  bool concerns(std::string_view whole) const noexcept {
    return isSubjectCut ? whole.starts_with(subject) : whole == subject;
  }
};

/// Ends a subscription, or the observation of a connection, when it is destroyed. When that
/// returns, the handler is not running and will not run, unless it was destroyed by the handler.
class KX_API KXBusSubscription {
 public:
  virtual ~KXBusSubscription();
};

/// One process's connection to a bus.
/// Ownership: outlives its subscriptions. Threads: every operation may be called from any thread,
/// handlers included. What a handler throws is logged.
class KX_API KXBus {
 public:
  using Handler = std::function<void(KXBusMessage const&)>;
  using EventHandler = std::function<void(KXBusEvent const&)>;

  virtual ~KXBus();

  /// Hands a message to the network, at once; nobody says whether it arrived. KXError: Disconnected
  /// while there is no connection (nothing is kept for later), Failed if it is larger than
  /// maxPayload() or the subject is not legal.
  virtual void publish(KXBusMessage const& message) = 0;

  /// Has the handler called for each message under the subject, which may end in wildcards ("*" for
  /// a token, ">" for one or more). Of those with the same `queue`, if it is not empty, one gets
  /// each message. `threads` is how many handlers may run at once: with 1 messages come in order;
  /// with more, a handler that takes long keeps no other message waiting. Subscriptions outlive
  /// lost connections. Nothing is dropped for want of room below 256 MB.
  [[nodiscard]] virtual std::unique_ptr<KXBusSubscription> subscribe(std::string const& subject,
                                                                     std::string const& queue,
                                                                     int threads,
                                                                     Handler handler) = 0;

  /// Returns when the server has seen all that was published and subscribed before. KXError:
  /// TimedOut or Disconnected.
  virtual void flush(int timeoutMs) = 0;

  /// Has the handler called at what befalls the connection, on a thread of the bus: not to block.
  [[nodiscard]] virtual std::unique_ptr<KXBusSubscription> observe(EventHandler handler) = 0;

  virtual bool isConnected() const = 0;
  /// In bytes, headers included; of the server it is connected to.
  virtual std::size_t maxPayload() const = 0;
  /// Subjects that only this user may listen to begin so, as "_INBOX_viewer".
  virtual std::string const& inboxPrefix() const = 0;
  /// What users are known by in subjects: one token of letters, digits, "_" and "-".
  virtual std::string const& user() const = 0;
  /// Where it is connected, for people: without secrets.
  virtual std::string const& address() const = 0;
};

}  // namespace KX
