#include <host/bus/kxreplykeeper.hpp>

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace KX {
namespace {

// What a kept reply costs beside its bytes, and without its names, which whoever calls may choose
// long.
constexpr std::size_t kEntryBytes = 256;
constexpr std::size_t kShortNames = 128;
// A caller asks again for as long as its time-out lasts; of none is a longer one expected.
constexpr std::int64_t kDoubtMs = 600'000;

}  // namespace

std::size_t KXReplyKeeper::xCostOf(Entry const& entry) {
  std::size_t const names = entry.method.size() + entry.replySubject.size();
  return entry.reply->payload.size() + kEntryBytes + (names > kShortNames ? names : 0);
}

KXReplyKeeper::KXReplyKeeper(std::string instance) : KXReplyKeeper(std::move(instance), Limits()) {}

KXReplyKeeper::KXReplyKeeper(std::string instance, Limits limits)
    : mInstance(std::move(instance)), mLimits(limits) {}

KXReplyKeeper::~KXReplyKeeper() = default;

KXReplyKeeper::Admission KXReplyKeeper::admit(KXCallId const& id,
                                              std::optional<std::uint32_t> fromPart,
                                              std::string_view replySubject,
                                              std::string_view method, std::int64_t nowMs,
                                              std::vector<Thrown>& thrown) {
  expire(nowMs, thrown);
  auto const known = mCallers.find(id.caller);
  Caller* caller = known == mCallers.end() ? nullptr : known->second.get();
  if (caller != nullptr) {
    caller->lastMs = nowMs;
    mByUse.splice(mByUse.end(), mByUse, caller->place);
    // Of calls to another server, which may have the same numbers' replies, it says nothing here.
    if (id.to.empty() || id.to == mInstance) {
      xGiveUp(*caller, id.lost, thrown);
      xRaiseDone(*caller, id.done);
    }
    auto const found = caller->entries.find(id.number);
    if (found != caller->entries.end()) {
      Entry& entry = found->second;
      if (entry.state == Entry::State::Ended) return {.verdict = Verdict::Forgotten};
      if (entry.replySubject != replySubject) return {.verdict = Verdict::Refused};
      if (entry.state == Entry::State::Running) return {.verdict = Verdict::Ignore};
      entry.isAskedAgain = true;
      // Its caller takes it, part by part: on a slow way that may last.
      if (fromPart.value_or(0) > 0) {
        entry.place->sinceMs = nowMs;
        mKept.splice(mKept.end(), mKept, entry.place);
      }
      return {.verdict = Verdict::Resend, .reply = entry.reply};
    }
  }
  Admission const admission = xAdmitUnknown(caller, id, fromPart, nowMs, thrown);
  if (admission.verdict != Verdict::Run) return admission;
  Caller& owner = *mCallers.find(id.caller)->second;
  Entry entry;
  entry.method = method;
  entry.replySubject = replySubject;
  mParted.reserve(mParted.size() + mRunning.size() + 1);
  std::list<Place> place{{&owner, id.number, nowMs}};
  entry.place = place.begin();
  owner.entries.emplace(id.number, std::move(entry));  // the last that may throw
  mRunning.splice(mRunning.end(), place);
  ++owner.runningCount;
  ++mAdmittedCount;
  return admission;
}

// A call that nothing is known of: it is new, unless something speaks against it.
KXReplyKeeper::Admission KXReplyKeeper::xAdmitUnknown(Caller* caller, KXCallId const& id,
                                                      std::optional<std::uint32_t> fromPart,
                                                      std::int64_t nowMs,
                                                      std::vector<Thrown>& thrown) {
  // A caller that does not know whom it has asked may have asked another.
  if (fromPart && id.to != mInstance) return {.verdict = Verdict::Restarted};
  if (!id.to.empty() && id.to != mInstance) return {.verdict = Verdict::Moved};
  // Who has a part of the reply has asked here before.
  if (fromPart.value_or(0) > 0) return {.verdict = Verdict::Forgotten};
  if (id.number <= id.done) return {.verdict = Verdict::Forgotten};
  if (fromPart && nowMs < (caller == nullptr ? mDoubtUntilMs : caller->doubtUntilMs)) {
    return {.verdict = Verdict::Forgotten};
  }
  if (caller != nullptr) {
    bool const isForgotten = id.number <= std::max(caller->done, caller->forgotten);
    return {.verdict = isForgotten ? Verdict::Forgotten : Verdict::Run};
  }
  xAddCaller(id.caller, nowMs, thrown).done = id.done;
  return {.verdict = Verdict::Run};
}

bool KXReplyKeeper::finish(KXCallId const& id, std::shared_ptr<KXReply const> reply,
                           std::int64_t nowMs, std::vector<Thrown>& thrown) noexcept {
  expire(nowMs, thrown);
  auto const known = mCallers.find(id.caller);
  if (known == mCallers.end()) return false;
  Caller& caller = *known->second;
  auto const found = caller.entries.find(id.number);
  if (found == caller.entries.end() || found->second.state != Entry::State::Running) return false;
  --caller.runningCount;
  Entry& entry = found->second;
  entry.reply = std::move(reply);
  if (id.number <= caller.done) {
    if (entry.isLost) xThrow(entry, Cause::Lost, thrown);
    ++(entry.isLost ? mExpiredCount : mAcknowledgedCount);
    mRunning.erase(entry.place);
    caller.entries.erase(found);
    return false;
  }
  entry.state = Entry::State::Kept;
  entry.place->sinceMs = nowMs;
  mKept.splice(mKept.end(), mRunning, entry.place);
  mBytes += xCostOf(entry);
  if (entry.reply->partCount() > 1) mParted.push_back({xCostOf(entry), entry.place});
  xMakeRoom(nowMs, thrown);
  return true;
}

// Gives up the oldest, but neither the newest nor the largest of those in parts: that one is on its
// way for as long as many others come and go.
void KXReplyKeeper::xMakeRoom(std::int64_t nowMs, std::vector<Thrown>& thrown) noexcept {
  if (mBytes <= mLimits.maxBytes) return;
  auto const entryOf = [](Place const& place) {
    return place.caller->entries.find(place.number);
  };
  auto const largestParted = std::ranges::max_element(mParted, {}, &Parted::cost);
  bool const isAnyParted = largestParted != mParted.end();
  auto const largest = isAnyParted ? largestParted->place : mKept.end();
  std::size_t const largestCost = isAnyParted ? largestParted->cost : 0;
  for (auto place = mKept.begin(); mBytes - largestCost > mLimits.maxBytes;) {
    if (place == largest) ++place;
    if (place == mKept.end() || std::next(place) == mKept.end()) return;
    auto const given = entryOf(*place++);
    xThrow(given->second, Cause::Room, thrown);
    ++mExpiredCount;
    xEnd(given, nowMs);
  }
}

void KXReplyKeeper::acknowledge(std::string const& caller, std::uint64_t number, std::int64_t nowMs,
                                std::vector<Thrown>& thrown) {
  expire(nowMs, thrown);
  auto const known = mCallers.find(caller);
  if (known == mCallers.end()) return;
  known->second->lastMs = nowMs;
  mByUse.splice(mByUse.end(), mByUse, known->second->place);
  auto const found = known->second->entries.find(number);
  if (found == known->second->entries.end() || found->second.state != Entry::State::Kept) return;
  ++mAcknowledgedCount;
  xEnd(found, nowMs);
}

void KXReplyKeeper::expire(std::int64_t nowMs, std::vector<Thrown>& thrown) noexcept {
  while (!mKept.empty() && mKept.front().sinceMs + mLimits.keepMs <= nowMs) {
    Place const oldest = mKept.front();
    auto const found = oldest.caller->entries.find(oldest.number);
    Entry const& entry = found->second;
    if (entry.isAskedAgain || entry.reply->partCount() > 1) xThrow(entry, Cause::Age, thrown);
    ++mExpiredCount;
    oldest.caller->forgotten = std::max(oldest.caller->forgotten, oldest.number);
    xErase(*oldest.caller, found);
  }
  while (!mEnded.empty() && mEnded.front().sinceMs + mLimits.keepMs <= nowMs) xForgetOldestEnded();
}

KXReplyKeeper::Counts KXReplyKeeper::counts() const {
  return {.admitted = mAdmittedCount,
          .running = mRunning.size(),
          .kept = mKept.size(),
          .acknowledged = mAcknowledgedCount,
          .expired = mExpiredCount,
          .bytes = mBytes,
          .callers = mCallers.size()};
}

KXReplyKeeper::Counts& KXReplyKeeper::Counts::operator+=(Counts const& other) noexcept {
  admitted += other.admitted;
  running += other.running;
  kept += other.kept;
  acknowledged += other.acknowledged;
  expired += other.expired;
  bytes += other.bytes;
  callers += other.callers;
  return *this;
}

KXReplyKeeper::Caller& KXReplyKeeper::xAddCaller(std::string const& id, std::int64_t nowMs,
                                                 std::vector<Thrown>& thrown) {
  std::int64_t const doubtUntilMs = mDoubtUntilMs;
  if (mCallers.size() >= mLimits.maxCallers) xEvictCaller(thrown);
  auto made = std::make_unique<Caller>();
  Caller& caller = *made;
  caller.id = id;
  caller.lastMs = nowMs;
  caller.doubtUntilMs = doubtUntilMs;
  std::list<Caller*> place{&caller};
  mCallers.emplace(id, std::move(made));  // the last that may throw
  caller.place = place.begin();
  mByUse.splice(mByUse.end(), place);
  return caller;
}

// The one that was silent for longest, but never one whose call is running: those are no more than
// the server has threads.
void KXReplyKeeper::xEvictCaller(std::vector<Thrown>& thrown) {
  auto const chosen = std::find_if(mByUse.begin(), mByUse.end(),
                                   [](Caller const* caller) { return caller->runningCount == 0; });
  if (chosen == mByUse.end()) return;
  Caller& caller = **chosen;
  for (auto entry = caller.entries.begin(); entry != caller.entries.end();) {
    if (entry->second.state == Entry::State::Kept) {
      xThrow(entry->second, Cause::Room, thrown);
      ++mExpiredCount;
    }
    entry = xErase(caller, entry);
  }
  mDoubtUntilMs = std::max(mDoubtUntilMs, caller.lastMs + kDoubtMs);
  mByUse.erase(chosen);
  mCallers.erase(std::string(caller.id));
}

// What the caller has not got although it counts as done: nobody will ever have it.
void KXReplyKeeper::xGiveUp(Caller& caller, std::vector<std::uint64_t> const& lost,
                            std::vector<Thrown>& thrown) {
  for (std::uint64_t const number : lost) {
    auto const found = caller.entries.find(number);
    if (found == caller.entries.end()) continue;
    found->second.isLost = true;
    if (found->second.state != Entry::State::Kept) continue;
    xThrow(found->second, Cause::Lost, thrown);
    ++mExpiredCount;
    xErase(caller, found);
  }
}

void KXReplyKeeper::xRaiseDone(Caller& caller, std::uint64_t done) {
  if (done <= caller.done) return;
  caller.done = done;
  auto const end = caller.entries.upper_bound(done);
  for (auto entry = caller.entries.begin(); entry != end;) {
    if (entry->second.state == Entry::State::Running) {
      ++entry;
      continue;
    }
    if (entry->second.state == Entry::State::Kept) ++mAcknowledgedCount;
    entry = xErase(caller, entry);
  }
}

void KXReplyKeeper::xForgetCost(Entry const& entry) {
  mBytes -= xCostOf(entry);
  if (entry.reply->partCount() == 1) return;
  std::erase_if(mParted, [&](Parted const& parted) { return parted.place == entry.place; });
}

// Takes out a call that is over.
KXReplyKeeper::Entries::iterator KXReplyKeeper::xErase(Caller& caller, Entries::iterator entry) {
  if (entry->second.state == Entry::State::Kept) {
    xForgetCost(entry->second);
    mKept.erase(entry->second.place);
  } else {
    mEnded.erase(entry->second.place);
  }
  return caller.entries.erase(entry);
}

// Lets go of the reply, but not of the knowledge that the call has run.
void KXReplyKeeper::xEnd(Entries::iterator entry, std::int64_t nowMs) {
  Entry& ended = entry->second;
  xForgetCost(ended);
  ended.reply.reset();
  ended.method = {};
  ended.replySubject = {};
  ended.state = Entry::State::Ended;
  ended.place->sinceMs = nowMs;
  mEnded.splice(mEnded.end(), mKept, ended.place);
  if (mEnded.size() > mLimits.maxEnded) xForgetOldestEnded();
}

void KXReplyKeeper::xThrow(Entry const& entry, Cause cause, std::vector<Thrown>& thrown) noexcept {
  try {
    thrown.push_back({entry.method, entry.reply->payload.size(), cause});
  } catch (std::bad_alloc const&) {
    // It is counted all the same.
  }
}

void KXReplyKeeper::xForgetOldestEnded() {
  Place const oldest = mEnded.front();
  oldest.caller->forgotten = std::max(oldest.caller->forgotten, oldest.number);
  xErase(*oldest.caller, oldest.caller->entries.find(oldest.number));
}

}  // namespace KX
