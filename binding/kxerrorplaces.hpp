// The places that the errors of calls name. Clients match on them: they are fixed, and name no line
// of this source.
#pragma once

namespace KX {
namespace detail {

inline constexpr char const* kConvertFile = "kxvalue/detail/kxfunctorconvert";
inline constexpr int kNoIntLine = 45;
inline constexpr int kNoStringLine = 88;
inline constexpr int kNoBoolLine = 137;
inline constexpr int kNoVectorLine = 184;

inline constexpr char const* kProxyFile = "kxcommon/kxproxy";
inline constexpr int kWrongReturnTypeLine = 92;
inline constexpr int kWrongParameterTypeLine = 93;
inline constexpr int kVoidResultLine = 103;
inline constexpr int kNoMethodLine = 625;

/// For the errors that came without a line of their own.
inline constexpr int kNoLine = 0;

}  // namespace detail
}  // namespace KX
