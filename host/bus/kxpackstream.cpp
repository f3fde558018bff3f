#include <host/bus/kxpackstream.hpp>

#include <algorithm>
#include <new>
#include <utility>

#include <kxerror/kxerror.hpp>

namespace KX {

// ---- the sending end

/// How far the queue was filled.
struct KXPackSender::Mark {
  std::size_t packCount;
  std::optional<Pack> newest;
  std::size_t newestBytes;
  std::uint64_t next;
  KXNotificationCounts counts;
};

KXPackSender::KXPackSender(std::string epoch, KXPackLimits const& limits)
    : mEpoch(std::move(epoch)), mLimits(limits), mAskMs(kFirstAskMs) {}

void KXPackSender::post(std::vector<KXNotification> const& notifications) {
  Mark const mark = xMark();
  try {
    for (KXNotification const& notification : notifications) xAppend(notification);
  } catch (...) {
    xRollBack(mark);
    throw;
  }
  xKeepBound();
}

void KXPackSender::xAppend(KXNotification const& notification) {
  if (mPacks.size() == mSentCount) xOpen(mNext, mNext);
  std::string& bytes = *mPacks.back().bytes;
  std::size_t const before = bytes.size();
  ++mCounts.posted;
  if (!xEncode(bytes, notification)) return xDropNumber();
  std::size_t const size = bytes.size() - before;
  if (before > 0 && bytes.size() > mLimits.pack) {
    xOpen(mNext, mNext);
    std::string& fresh = *mPacks.back().bytes;
    fresh.reserve(std::max(mLimits.pack, size));
    fresh.append(bytes, before);
    bytes.resize(before);
  }
  ++mPacks.back().count;
  ++mNext;
  ++mCounts.waiting;
  mCounts.waitingBytes += size;
}

// False, with nothing appended, if it cannot be sent.
bool KXPackSender::xEncode(std::string& bytes, KXNotification const& notification) const {
  std::size_t const before = bytes.size();
  try {
    appendNotification(bytes, notification.method, notification.arguments);
    if (bytes.size() - before <= mLimits.message) return true;
  } catch (KXError const&) {
    // A value that has no form on the wire: it is dropped as if it were too large.
  }
  bytes.resize(before);
  bytes.shrink_to_fit();
  return false;
}

void KXPackSender::xOpen(std::uint64_t holeFrom, std::uint64_t first) {
  mPacks.push_back({holeFrom, first, 0, std::make_shared<std::string>()});
}

// The next number goes to nobody. An empty pack names the hole, unless more is to follow in it.
void KXPackSender::xDropNumber() {
  if (mPacks.back().count > 0) xOpen(mNext, mNext);
  mPacks.back().first = ++mNext;
  ++mCounts.dropped;
}

KXPackSender::Mark KXPackSender::xMark() const {
  if (mPacks.size() == mSentCount) return {mPacks.size(), {}, 0, mNext, mCounts};
  return {mPacks.size(), mPacks.back(), mPacks.back().bytes->size(), mNext, mCounts};
}

void KXPackSender::xRollBack(Mark const& mark) {
  while (mPacks.size() > mark.packCount) mPacks.pop_back();
  if (mark.newest) {
    mPacks.back() = *mark.newest;
    mPacks.back().bytes->resize(mark.newestBytes);
  }
  mNext = mark.next;
  mCounts = mark.counts;
}

void KXPackSender::xKeepBound() {
  // The newest stays whatever its size: there has to be one that names the hole.
  while (mCounts.waitingBytes > mLimits.waiting && mPacks.size() > mSentCount + 1) {
    auto const oldest = mPacks.begin() + static_cast<std::ptrdiff_t>(mSentCount);
    (oldest + 1)->holeFrom = oldest->holeFrom;
    mCounts.dropped += oldest->count;
    mCounts.waiting -= oldest->count;
    mCounts.waitingBytes -= oldest->bytes->size();
    mPacks.erase(oldest);
  }
}

std::optional<KXOutgoingPack> KXPackSender::take(std::int64_t nowMs) {
  if (xMayGo()) return xSend(nowMs);
  if (xIsToAsk(nowMs)) return xAsk(nowMs);
  return {};
}

bool KXPackSender::hasToSend(std::int64_t nowMs) const {
  return xMayGo() || xIsToAsk(nowMs);
}

bool KXPackSender::xMayGo() const {
  if (mCursor == mPacks.size()) return false;
  if (mCursor == 0) return true;
  Pack const& pack = mPacks[mCursor];
  bool const isBeingFilled =
      mCursor + 1 == mPacks.size() && mCursor >= mSentCount && pack.bytes->size() < mLimits.pack;
  return !isBeingFilled && mInFlightBytes + pack.bytes->size() <= mLimits.inFlight;
}

bool KXPackSender::xIsToAsk(std::int64_t nowMs) const {
  return mCursor > 0 && nowMs >= mAskAtMs;
}

KXOutgoingPack KXPackSender::xSend(std::int64_t nowMs) {
  if (mCursor == 0) mAskAtMs = nowMs + mAskMs;
  Pack const& pack = mPacks[mCursor++];
  mInFlightBytes += pack.bytes->size();
  if (mCursor > mSentCount) {
    mSentCount = mCursor;
    mCounts.waitingBytes -= pack.bytes->size();
  }
  return {xHeader(pack), pack.bytes};
}

// An empty pack behind those in flight: whoever has not got them reports a gap, which is heeded.
KXOutgoingPack KXPackSender::xAsk(std::int64_t nowMs) {
  mRoundEnd = 0;
  mAskMs = std::min(2 * mAskMs, kLastAskMs);
  mAskAtMs = nowMs + mAskMs;
  mAskedMs = nowMs;
  std::uint64_t const end = mPacks[mCursor - 1].end();
  return {xHeader({end, end, 0, nullptr}), std::make_shared<std::string const>()};
}

KXPackHeader KXPackSender::xHeader(Pack const& pack) const {
  return {mEpoch, pack.first, pack.count, pack.holeFrom, mPacks.front().holeFrom};
}

void KXPackSender::onRejected(KXPackHeader const& header) {
  auto const pack = std::find_if(mPacks.begin(), mPacks.end(), [&](Pack const& one) {
    return one.first == header.first && one.count == header.count;
  });
  if (pack == mPacks.end() || pack->count == 0) return;
  mCounts.dropped += pack->count;
  mCounts.waiting -= pack->count;
  *pack = {pack->holeFrom, pack->end(), 0, std::make_shared<std::string>()};
  xGoBackTo(static_cast<std::size_t>(pack - mPacks.begin()));
}

void KXPackSender::onAck(KXPackAck const& ack, std::int64_t nowMs) {
  std::uint64_t const sentEnd = mSentCount == 0 ? mAcked : mPacks[mSentCount - 1].end();
  if (ack.epoch != mEpoch || ack.next > sentEnd) return;
  if (ack.next > mAcked) {
    mAcked = ack.next;
    xTakeUnhandled(ack.unhandled, xForget(ack.next));
    xWaitAnew(nowMs);
  }
  // What the receiver says of one gap again and again is heeded once.
  if (!ack.isGap || mCursor == 0 || mAcked < mRoundEnd) return;
  mRoundEnd = mPacks[mCursor - 1].end();
  xGoBackTo(0);
}

void KXPackSender::xGoBackTo(std::size_t cursor) {
  mCursor = std::min(mCursor, cursor);
  mInFlightBytes = 0;
  for (std::size_t i = 0; i < mCursor; ++i) mInFlightBytes += mPacks[i].bytes->size();
}

// Drops the packs before that number, and gives how many notifications they held.
std::uint64_t KXPackSender::xForget(std::uint64_t next) {
  std::uint64_t count = 0;
  while (mSentCount > 0 && mPacks.front().end() <= next) {
    Pack const& pack = mPacks.front();
    count += pack.count;
    mCounts.delivered += pack.count;
    mCounts.waiting -= pack.count;
    --mSentCount;
    if (mCursor > 0) {
      --mCursor;
      mInFlightBytes -= pack.bytes->size();
    }
    mPacks.pop_front();
  }
  return count;
}

// Of those acknowledged just now, which are `most`, some may have been given up.
void KXPackSender::xTakeUnhandled(KXUnhandled const& unhandled, std::uint64_t most) {
  if (unhandled.count == 0) return;
  if (unhandled.from != mUnhandled.from) mUnhandled = {unhandled.from, 0};
  if (unhandled.count <= mUnhandled.count) return;
  std::uint64_t const count = std::min(unhandled.count - mUnhandled.count, most);
  mUnhandled.count = unhandled.count;
  mCounts.delivered -= count;
  mCounts.unhandled += count;
}

void KXPackSender::xWaitAnew(std::int64_t nowMs) {
  mAskMs = kFirstAskMs;
  mAskAtMs = nowMs + mAskMs;
}

void KXPackSender::onNoResponders(std::int64_t nowMs) {
  mAskMs = kLastAskMs;
  mAskAtMs = nowMs + mAskMs;
}

void KXPackSender::onBack(std::int64_t nowMs) {
  xWaitAnew(nowMs);
  // Anybody may say hello, as often as he likes, and each question may have all sent again.
  mAskAtMs = std::max(nowMs, mAskedMs + kFirstAskMs);
}

// ---- the receiving end

KXPackReceiver::Arrival KXPackReceiver::onPack(KXPackHeader const& header) {
  // So begins a new receiver. What lies before the oldest never comes: a former one had it.
  if (mFrom == 0) mFrom = header.oldest;
  mNext = std::max(mNext, header.oldest);
  mIsGap = header.holeFrom > mNext;
  if (mIsGap) return {header.count, 0, 0};
  mPackEnd = header.first + header.count;
  mUnhandledBefore = mUnhandled;
  Arrival arrival;
  if (mNext < header.first) {
    arrival.dropped = header.first - mNext;
    mNext = header.first;
  }
  arrival.from =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(mNext - header.first, header.count));
  arrival.repeats = arrival.from;
  return arrival;
}

KXPackReceiver& KXPackReceivers::of(std::string_view epoch) {
  auto const found =
      std::find_if(mReceivers.begin(), mReceivers.end(),
                   [&](KXPackReceiver const& one) { return one.getEpoch() == epoch; });
  if (found != mReceivers.end()) {
    std::rotate(found, found + 1, mReceivers.end());
  } else {
    if (mReceivers.size() == kMaxCount) mReceivers.erase(mReceivers.begin());
    mReceivers.emplace_back(std::string(epoch));
  }
  return mReceivers.back();
}

}  // namespace KX
