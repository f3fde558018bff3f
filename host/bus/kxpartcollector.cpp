#include <host/bus/kxpartcollector.hpp>

#include <utility>

#include <host/bus/kxwire.hpp>

namespace KX {

void KXPartCollector::take(std::string_view partHeader, std::string_view payload) {
  if (mState == State::Complete || mState == State::Broken) return;
  if (partHeader.empty()) {
    // In place of the parts that are missing comes why they do not.
    mPayload.assign(payload);
    mState = State::Complete;
    return;
  }
  auto const part = parsePart(partHeader);
  if (!part) {
    return xBreak("it has the part header '" + std::string(partHeader.substr(0, 64)) +
                  "', expected INDEX.COUNT");
  }
  if (part->count > kMaxParts) {
    return xBreak("it is said to have " + std::to_string(part->count) + " parts, at most " +
                  std::to_string(kMaxParts) + " are taken");
  }
  if (mCount != 0 && part->count != mCount) {
    return xBreak("its parts contradict each other: one is of " + std::to_string(mCount) +
                  " parts, another of " + std::to_string(part->count));
  }
  mCount = part->count;
  if (part->index < mNext) return;
  if (part->index > mNext) {
    if (!std::exchange(mHasAskedForGap, true)) mState = State::Asking;
    return;
  }
  if (payload.empty()) return xBreak("its part " + std::to_string(part->index) + " is empty");
  if (payload.size() > kMaxBytes - mPayload.size()) {
    return xBreak("it is larger than " + std::to_string(kMaxBytes) + " bytes");
  }
  mPayload.append(payload);
  ++mNext;
  mHasAskedForGap = false;
  if (mNext == mCount) {
    mState = State::Complete;
  } else if (mNext == mWindowEnd) {
    mState = State::Asking;
  }
}

void KXPartCollector::asked() noexcept {
  if (mState == State::Asking) mState = State::Waiting;
  mWindowEnd = mNext + kPartsInWindow;
}

void KXPartCollector::xBreak(std::string fault) {
  mState = State::Broken;
  mFault = std::move(fault);
  mPayload.clear();
  mPayload.shrink_to_fit();
}

}  // namespace KX
