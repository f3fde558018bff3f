// Values as MessagePack bytes and back: what kxwire.hpp's messages are made of. No threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Arrays in arrays, those of the message around a value included.
inline constexpr int kMostLevels = 32;
/// Of a reply. More, because what could be written has to be readable: a key's value comes back
/// from a fetch with five arrays around it, and one that could not would take all others with it.
inline constexpr int kMostReplyLevels = 40;

/// Appends values to a string. What it appends is there when finish() returned, and nothing of it
/// otherwise. KXError: more than `mostLevels` levels, or a text too long for its 32-bit length.
class KXPacker {
 public:
  explicit KXPacker(std::string& bytes, int mostLevels = kMostLevels)
      : mMostLevels(mostLevels),
        mBytes(bytes),
        mStart(bytes.size()),
        mNext(bytes.data() + mStart),
        mEnd(mNext) {}
  KXPacker(KXPacker const&) = delete;
  KXPacker& operator=(KXPacker const&) = delete;
  ~KXPacker();

  /// `level` is the number of arrays around the value.
  void addValue(KXValue const& value, int level);
  void addArray(std::size_t size);  ///< its elements are added next
  void addInt(std::int32_t value);
  void addString(std::string_view text);
  void finish() noexcept;

 private:
  void xAddFloat(double value);
  void xAddBinary(std::string_view bytes);
  void xAddElements(KXValue const& array, int level);
  void xAddText(std::string_view text);
  void xMakeRoom(std::size_t size) {
    if (static_cast<std::size_t>(mEnd - mNext) < size) xGrow(size);
  }
  void xGrow(std::size_t size);
  void xExpect(std::size_t size);
  std::size_t xUsed() const noexcept { return static_cast<std::size_t>(mNext - mBytes.data()); }
  // Without looking for room.
  template <class T>
  void xPut(std::uint8_t head, T number) noexcept;

  int const mMostLevels;
  std::string& mBytes;
  std::size_t mStart;
  char* mNext;  // where the next byte goes
  char* mEnd;   // of what the string has room for
};

/// Takes values from bytes that may be hostile. KXError, which says at which byte, if they are no
/// value. Memory is bounded by the number of bytes: lengths beyond those left are refused, and so
/// are values that take more than 8 bytes for each byte and 64 MB, all together.
class KXUnpacker {
 public:
  /// `mostLevels` is at most kMostReplyLevels.
  explicit KXUnpacker(std::string_view bytes, int mostLevels = kMostLevels)
      : mMostLevels(mostLevels), mBytes(bytes) {}

  KXValue takeValue();
  /// The elements of an array. A string that is equal to that at the same place of `former`, or of
  /// an array in it, shares its block.
  std::vector<KXValue> takeElements(std::vector<KXValue> const& former);
  /// KXError if there are bytes left.
  void expectEnd() const;

 private:
  std::vector<KXValue> xTake(std::vector<KXValue> const* former);

  int const mMostLevels;
  std::string_view const mBytes;
  std::size_t mOffset = 0;
  std::size_t mValueBytes = 0;  // of all that was taken
};

}  // namespace KX
