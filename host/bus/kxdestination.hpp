// What a caller knows of the modules that it calls. No thread, no bus and no lock in it: all of it
// is guarded by the caller's mutex, but for what says otherwise.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include <host/bus/kxargumentcache.hpp>
#include <host/bus/kxpartcollector.hpp>
#include <host/bus/kxrandomid.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// One call that waits for its reply, on the stack of its thread.
struct KXPendingCall {
  using Clock = std::chrono::steady_clock;

  std::condition_variable changed;
  Clock::time_point startedAt{};
  Clock::time_point heardAt{};
  Clock::time_point deadline{};
  bool mayTakeLonger = false;  // as long as parts of the reply come
  KXPartCollector reply{};
  std::string errorCode{};
  bool hasNoResponders = false;
  int noRespondersCount = 0;
  bool isBack = false;
  std::string movedTo{};  // the server that has got the first request, and is not the one it is for
  std::optional<std::string> refusal{};
  std::string const* subject = nullptr;
};

struct KX_API KXCalledMethod {
  std::string subject;
  std::mutex mutex{};
  KXEncodedArguments lastArguments{};  // guarded by mutex

  /// The bytes of the arguments. KXError if they are no array. Takes the method's own mutex.
  std::shared_ptr<std::string const> encode(KXValue const& params);
};

/// A module that is called.
struct KX_API KXDestination {
  using Clock = std::chrono::steady_clock;

  /// Beyond these, what was given up first is forgotten.
  static constexpr std::size_t kMaxLost = 1000;

  explicit KXDestination(std::string name) : module(std::move(name)) {}

  std::string const module;
  /// Only the module knows it, and with it where the replies to this destination's calls arrive.
  std::string const callerId{makeRandomId()};
  std::string instance{};        // of the server that has it; empty: not known
  std::string formerInstance{};  // of the one that had it before
  std::uint64_t lastNumber = 0;
  std::map<std::uint64_t, KXPendingCall*> pending{};
  std::set<std::uint64_t> lost{};  // given up, and the server has not been told
  std::map<std::string, std::shared_ptr<KXCalledMethod>, std::less<>> methods{};
  Clock::time_point usedAt{};
  bool isSilent = false;  // a call timed out, and nothing has come since
  Clock::time_point silentSince{};
  Clock::time_point triedAt{};

  /// The next call, which is pending from now on.
  KXCallId begin(KXPendingCall& call);
  /// A call that ended without its reply, and may have run.
  void giveUp(std::uint64_t number) noexcept;
  /// The server knows what this request said of others.
  void hasRead(KXCallId const& id);
  /// A message has come from this server. Once one has been replaced, what still comes from it does
  /// not make it the server again.
  void learn(std::string_view foundInstance);
  /// Nobody has the module.
  void forgetInstance();
  /// It is this server's, whatever was known before.
  void moveTo(std::string_view foundInstance);
};

/// Those of one caller: the last thousand, and those that are in use.
class KX_API KXDestinations {
 public:
  using Table = std::map<std::string, std::shared_ptr<KXDestination>, std::less<>>;

  /// A call holds the share from its beginning to its end.
  std::shared_ptr<KXDestination> find(std::string const& module);
  /// Null if there is none.
  KXDestination* findCaller(std::string_view callerId) const;
  Table const& all() const noexcept { return mByModule; }

 private:
  void xForgetOldest(KXDestination const& spared);

  Table mByModule;
  Table mByCaller;
};

}  // namespace KX
