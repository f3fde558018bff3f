// Both ends of a stream of notifications that travel in packs: what is sent when, what is handled,
// what is acknowledged. No thread, clock or bus: whoever owns an end brings it the time and what
// arrived, and carries out what it says. Messages may be lost, late, doubled and out of order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <host/bus/kxwire.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// In bytes of what is encoded, without headers.
struct KXPackLimits {
  std::size_t pack = 64 << 10;       ///< of a pack of more than one notification
  std::size_t message = 1000 << 10;  ///< a notification beyond it cannot be sent: it is dropped
  std::size_t inFlight = 1 << 20;    ///< sent and not acknowledged; one pack may always be
  std::size_t waiting = 8 << 20;     ///< never sent; beyond it the oldest packs are dropped
};

/// A message that is to be sent now.
struct KXOutgoingPack {
  KXPackHeader header;
  std::shared_ptr<std::string const> bytes;
};

/// The sending end. Notifications have numbers, from 1 on, and are delivered in their order.
///
/// A pack goes when it is full or when nothing else is in flight: a single notification goes at
/// once, and under load the packs grow by themselves. Only what was never sent may be dropped, and
/// the next pack's header names the hole: so both ends count the same. When acknowledgements fail
/// to appear, the receiver is asked by an empty pack, and says how far it got; what lies in flight
/// is sent anew only when it reports a gap. A receiver that is merely slow costs no traffic thus.
/// Threads: not synchronised. Times are milliseconds that do not go back.
class KX_API KXPackSender {
 public:
  /// The receiver is asked so long after the last progress, then after twice the time, and so on.
  static constexpr std::int64_t kFirstAskMs = 100;
  static constexpr std::int64_t kLastAskMs = 1000;

  /// `epoch`: 16 hexadecimal digits that no other sender has.
  explicit KXPackSender(std::string epoch, KXPackLimits const& limits = {});

  /// Queues them all, or throws std::bad_alloc and queues none. What cannot be encoded or is too
  /// large for a message is dropped.
  void post(std::vector<KXNotification> const& notifications);

  /// What is to be sent now, in this order, call by call; none if nothing is.
  std::optional<KXOutgoingPack> take(std::int64_t nowMs);
  /// True if take() would give something.
  bool hasToSend(std::int64_t nowMs) const;
  /// The message that was taken can never be sent, for it is too large: its content is dropped.
  void onRejected(KXPackHeader const& header);

  void onAck(KXPackAck const& ack, std::int64_t nowMs);
  /// Nobody listens. Whoever comes later says hello.
  void onNoResponders(std::int64_t nowMs);
  /// The connection is back, or a receiver said hello: something may have been lost. The receiver
  /// is asked now, but once in kFirstAskMs.
  void onBack(std::int64_t nowMs);

  KXNotificationCounts const& getCounts() const noexcept { return mCounts; }
  /// True if all is acknowledged, the holes too.
  bool isDone() const noexcept { return mPacks.empty(); }

 private:
  struct Pack {
    std::uint64_t holeFrom;  ///< the numbers from here to `first` were dropped; = first: none
    std::uint64_t first;
    std::uint32_t count;
    std::shared_ptr<std::string> bytes;

    std::uint64_t end() const noexcept { return first + count; }
  };
  struct Mark;

  void xAppend(KXNotification const& notification);
  bool xEncode(std::string& bytes, KXNotification const& notification) const;
  void xOpen(std::uint64_t holeFrom, std::uint64_t first);
  void xDropNumber();
  Mark xMark() const;
  void xRollBack(Mark const& mark);
  void xKeepBound();
  bool xMayGo() const;
  bool xIsToAsk(std::int64_t nowMs) const;
  KXOutgoingPack xSend(std::int64_t nowMs);
  KXOutgoingPack xAsk(std::int64_t nowMs);
  KXPackHeader xHeader(Pack const& pack) const;
  std::uint64_t xForget(std::uint64_t next);
  void xTakeUnhandled(KXUnhandled const& unhandled, std::uint64_t most);
  void xGoBackTo(std::size_t cursor);
  void xWaitAnew(std::int64_t nowMs);

  std::string const mEpoch;
  KXPackLimits const mLimits;
  std::deque<Pack> mPacks;     ///< not acknowledged, oldest first; the newest is being filled
  std::size_t mSentCount = 0;  ///< so many of them were sent before
  std::size_t mCursor = 0;     ///< so many are in flight; the next one goes next
  std::size_t mInFlightBytes = 0;
  std::uint64_t mNext = 1;      ///< number of the next notification
  std::uint64_t mAcked = 1;     ///< all before this one
  std::uint64_t mRoundEnd = 0;  ///< gaps are not heeded until so much is acknowledged
  KXUnhandled mUnhandled;       ///< what the receiver said last
  std::int64_t mAskMs = 0;
  std::int64_t mAskAtMs = 0;
  std::int64_t mAskedMs = -kFirstAskMs;
  KXNotificationCounts mCounts;
};

/// The receiving end of one sender's numbering. Each number is handled once and in order.
/// Threads: not synchronised.
class KX_API KXPackReceiver {
 public:
  explicit KXPackReceiver(std::string epoch) : mEpoch(std::move(epoch)) {}

  std::string const& getEpoch() const noexcept { return mEpoch; }

  /// What a pack that arrived means.
  struct Arrival {
    std::uint32_t from = 0;     ///< index of the first that is to be handled; = count: none is
    std::uint32_t repeats = 0;  ///< so many of it were handled before
    std::uint64_t dropped = 0;  ///< so many the sender dropped before it
  };
  /// Then the notifications are handled, each followed by onHandled(), or given up, followed by
  /// onUnhandled(), and the sender gets ack().
  Arrival onPack(KXPackHeader const& header);
  void onHandled(std::uint32_t count = 1) noexcept { mNext += count; }
  void onUnhandled(std::uint32_t count = 1) noexcept {
    mNext += count;
    mUnhandled += count;
  }
  KXPackAck ack() const {
    // On purpose: what a pack held is counted when it is over. Its sender counts whole packs too.
    bool const isPackOver = mNext >= mPackEnd;
    return {mEpoch, mNext, mIsGap, {mFrom, isPackOver ? mUnhandled : mUnhandledBefore}};
  }

 private:
  std::string mEpoch;
  std::uint64_t mNext = 0;  ///< all before this one were handled, or never come
  bool mIsGap = false;      ///< what came last began later than that
  std::uint64_t mFrom = 0;  ///< the first that it waited for
  std::uint64_t mPackEnd = 0;
  std::uint64_t mUnhandled = 0;
  std::uint64_t mUnhandledBefore = 0;  ///< without those of the pack that ends there
};

/// The receiving ends of all senders to one module. Bounded: the one that was silent for longest is
/// forgotten first, and begins anew if it is heard again.
/// Threads: not synchronised.
class KX_API KXPackReceivers {
 public:
  static constexpr std::size_t kMaxCount = 16;

  /// The reference is good until the next call.
  KXPackReceiver& of(std::string_view epoch);
  std::size_t getCount() const noexcept { return mReceivers.size(); }

 private:
  std::vector<KXPackReceiver> mReceivers;  ///< heard last, last
};

}  // namespace KX
