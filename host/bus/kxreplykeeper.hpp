// Which calls a server has run, and their replies until the callers have them: so that a method
// runs once for one call, however often its request arrives. No threads, no clock, no bus: time is
// an argument, in milliseconds that do not go back. Not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// A reply as it is sent, and sent again.
struct KXReply {
  KXBusHeaders headers{};  ///< of every part
  std::string payload{};
  std::size_t partBytes = 0;  ///< of every part but the last; 0: the reply is one message

  std::uint32_t partCount() const noexcept {
    if (partBytes == 0 || payload.empty()) return 1;
    return static_cast<std::uint32_t>((payload.size() + partBytes - 1) / partBytes);
  }
};

/// The memory of one server, or of one of its modules, of all its callers' calls.
class KX_API KXReplyKeeper {
 public:
  struct Limits {
    std::size_t maxBytes =
        64 << 20;                  ///< of all kept replies but the newest, and the largest in parts
    std::int64_t keepMs = 60'000;  ///< how long a reply that nobody acknowledges is kept
    std::size_t maxCallers = 10'000;
    std::size_t maxEnded = 100'000;  ///< calls without a reply that are remembered one by one
  };
  enum class Verdict {
    Run,        ///< for the first time: finish() must follow
    Ignore,     ///< it is running, its reply will come
    Resend,     ///< it has run, here is the reply
    Forgotten,  ///< it may have run, the reply is gone; or its caller has given it up
    Moved,      ///< a first request, for another server
    Restarted,  ///< a repeat, for another server, where it may have run
    Refused,    ///< somebody else's call: the reply is to go elsewhere than at first
  };
  struct Admission {
    Verdict verdict;
    std::shared_ptr<KXReply const> reply{};  ///< Resend
  };
  /// Why a reply was given up.
  enum class Cause {
    Age,
    Room,  ///< because of maxBytes or maxCallers
    Lost   ///< its caller said that it waits no longer
  };
  /// A reply that was given up although nobody said that it has arrived. One that is only old is
  /// reported if there is a sign that it was missed: its caller had asked again, or it has parts,
  /// which are acknowledged at once. All other callers say so only with their next call.
  struct Thrown {
    std::string method;  ///< as admit() was told
    std::size_t bytes;
    Cause cause;

    bool operator==(Thrown const&) const = default;
  };
  /// admitted = running + kept + acknowledged + expired.
  struct Counts {
    std::uint64_t admitted = 0;
    std::uint64_t running = 0;
    std::uint64_t kept = 0;
    std::uint64_t acknowledged = 0;
    std::uint64_t expired = 0;  ///< given up unacknowledged
    std::size_t bytes = 0;      ///< of the kept replies
    std::size_t callers = 0;

    bool operator==(Counts const&) const = default;
    Counts& operator+=(Counts const& other) noexcept;
  };

  /// `instance` tells this server from its predecessors.
  explicit KXReplyKeeper(std::string instance);
  KXReplyKeeper(std::string instance, Limits limits);
  ~KXReplyKeeper();
  KXReplyKeeper(KXReplyKeeper const&) = delete;
  KXReplyKeeper& operator=(KXReplyKeeper const&) = delete;

  std::string const& instance() const noexcept { return mInstance; }

  /// What to do with a request. `fromPart` is there if it was sent before: the first part of the
  /// reply that its caller lacks. `replySubject` is where the reply goes, `method` is for reports.
  /// All operations add what they give up to `thrown`.
  Admission admit(KXCallId const& id, std::optional<std::uint32_t> fromPart,
                  std::string_view replySubject, std::string_view method, std::int64_t nowMs,
                  std::vector<Thrown>& thrown);
  /// The end of a call that was to be run. False if its caller has given it up meanwhile. Takes no
  /// memory, but for `thrown`, which has less in it where there is none.
  bool finish(KXCallId const& id, std::shared_ptr<KXReply const> reply, std::int64_t nowMs,
              std::vector<Thrown>& thrown) noexcept;
  /// The caller has the reply of this very call.
  void acknowledge(std::string const& caller, std::uint64_t number, std::int64_t nowMs,
                   std::vector<Thrown>& thrown);
  /// Gives up what is too old.
  void expire(std::int64_t nowMs, std::vector<Thrown>& thrown) noexcept;

  Counts counts() const;

 private:
  struct Caller;
  struct Place {  // of a call, in the order of age
    Caller* caller;
    std::uint64_t number;
    std::int64_t sinceMs;
  };
  struct Parted {  // a kept reply in parts
    std::size_t cost;
    std::list<Place>::iterator place;  // in mKept
  };
  struct Entry {
    enum class State { Running, Kept, Ended };  // Ended: over, and its reply is not here any more
    State state = State::Running;
    bool isAskedAgain = false;
    bool isLost = false;  // running, and its caller waits no longer
    std::string method{};
    std::string replySubject{};
    std::shared_ptr<KXReply const> reply{};
    std::list<Place>::iterator place{};  // in mRunning, mKept or mEnded
  };
  struct Caller {
    std::string id;
    std::uint64_t done = 0;  // the caller waits for none up to this one
    std::uint64_t forgotten =
        0;  // of those up to this one, that are not in `entries`, any may have run
    std::int64_t lastMs = 0;
    std::int64_t doubtUntilMs = 0;  // until then this may be one whose memory was given up
    std::size_t runningCount = 0;
    std::map<std::uint64_t, Entry> entries{};
    std::list<Caller*>::iterator place{};  // in mByUse
  };
  using Entries = std::map<std::uint64_t, Entry>;

  static std::size_t xCostOf(Entry const& entry);  // a kept one

  Admission xAdmitUnknown(Caller* caller, KXCallId const& id, std::optional<std::uint32_t> fromPart,
                          std::int64_t nowMs, std::vector<Thrown>& thrown);
  void xGiveUp(Caller& caller, std::vector<std::uint64_t> const& lost, std::vector<Thrown>& thrown);
  void xMakeRoom(std::int64_t nowMs, std::vector<Thrown>& thrown) noexcept;
  void xForgetCost(Entry const& entry);
  Caller& xAddCaller(std::string const& id, std::int64_t nowMs, std::vector<Thrown>& thrown);
  void xEvictCaller(std::vector<Thrown>& thrown);
  void xRaiseDone(Caller& caller, std::uint64_t done);
  Entries::iterator xErase(Caller& caller, Entries::iterator entry);
  void xEnd(Entries::iterator entry, std::int64_t nowMs);
  void xThrow(Entry const& entry, Cause cause, std::vector<Thrown>& thrown) noexcept;
  void xForgetOldestEnded();

  std::string const mInstance;
  Limits const mLimits;
  std::unordered_map<std::string, std::unique_ptr<Caller>> mCallers;
  std::list<Caller*> mByUse;  // the longest unused first
  std::list<Place> mRunning;  // so that the end of a call needs no memory
  std::list<Place> mKept;     // the oldest first, as mEnded
  std::list<Place> mEnded;
  std::size_t mBytes = 0;
  std::vector<Parted> mParted;  // with room for all that run
  std::uint64_t mAdmittedCount = 0;
  std::uint64_t mAcknowledgedCount = 0;
  std::uint64_t mExpiredCount = 0;
  std::int64_t mDoubtUntilMs = 0;  // an unknown caller may be one whose memory was given up
};

}  // namespace KX
