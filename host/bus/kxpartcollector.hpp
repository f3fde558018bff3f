// Puts a reply together from its messages. No threads, no clock, no bus; not synchronised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include <kxerror/kxapi.hpp>

namespace KX {

/// So many parts of a reply are sent before the caller has to ask for more.
inline constexpr std::uint32_t kPartsInWindow = 8;

/// The reply to one call. Parts come in order; what comes early is asked for again, so nothing is
/// allocated for what a header merely announces.
class KX_API KXPartCollector {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 30;
  static constexpr std::uint32_t kMaxParts = 1 << 20;

  enum class State {
    Waiting,
    Asking,    ///< nothing more comes unless it is asked for, from nextPart() on
    Complete,  ///< takePayload() gives the reply
    Broken,    ///< what came is no reply: fault() says why
  };

  /// A message of the reply: its part header, empty if it has none, and its payload.
  void take(std::string_view partHeader, std::string_view payload);
  /// A request for what is missing is being sent.
  void asked() noexcept;

  State state() const noexcept { return mState; }
  std::uint32_t nextPart() const noexcept { return mNext; }
  bool hasParts() const noexcept { return mCount > 0; }
  std::string takePayload() noexcept { return std::move(mPayload); }
  std::string const& fault() const noexcept { return mFault; }

 private:
  void xBreak(std::string fault);

  State mState = State::Waiting;
  std::uint32_t mCount = 0;  // 0: no part came yet
  std::uint32_t mNext = 0;
  std::uint32_t mWindowEnd = kPartsInWindow;
  bool mHasAskedForGap = false;  // at mNext
  std::string mPayload;
  std::string mFault;
};

}  // namespace KX
