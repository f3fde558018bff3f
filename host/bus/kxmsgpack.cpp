#include "host/bus/kxmsgpack.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstring>
#include <limits>
#include <utility>

#include <kxerror/kxerror.hpp>
#include <kxvalue/kxrows.hpp>
#include <msgpack.hpp>

namespace KX {

namespace {

[[noreturn]] void fail(char const* method, std::string const& text) {
  throw KXError("KXBus", method, text, "bus/kxmsgpack", 0);
}

template <std::unsigned_integral T>
T bigEndian(T number) noexcept {
  static_assert(std::endian::native == std::endian::little);
  if constexpr (sizeof(T) == 2) return __builtin_bswap16(number);
  if constexpr (sizeof(T) == 4) return __builtin_bswap32(number);
  if constexpr (sizeof(T) == 8) return __builtin_bswap64(number);
  return number;
}

std::string levelsText(int mostLevels) {
  return "expected at most " + std::to_string(mostLevels) + " levels of arrays, got more of them";
}

}  // namespace

// ---- packing

KXPacker::~KXPacker() {
  mBytes.resize(mStart);
}

void KXPacker::finish() noexcept {
  mStart = xUsed();
  mBytes.resize(mStart);
  mEnd = mNext;
}

// The string moves to twice its room by itself; what it is filled with on the way is kept small.
void KXPacker::xGrow(std::size_t size) {
  constexpr std::size_t kLeast = 128;
  constexpr std::size_t kMost = 65536;
  std::size_t const used = xUsed();
  mBytes.resize(used + std::max(size, std::clamp(used - mStart, kLeast, kMost)));
  mNext = mBytes.data() + used;
  mEnd = mBytes.data() + mBytes.size();
}

void KXPacker::xExpect(std::size_t size) {
  constexpr std::size_t kMost = 64 << 20;  // of room that a guess may ask for
  std::size_t const used = xUsed();
  mBytes.reserve(used + std::min(size, kMost));
  mNext = mBytes.data() + used;
  mEnd = mBytes.data() + mBytes.size();
}

template <class T>
void KXPacker::xPut(std::uint8_t head, T number) noexcept {
  T const ordered = bigEndian(number);
  *mNext = static_cast<char>(head);
  std::memcpy(mNext + 1, &ordered, sizeof(T));
  mNext += 1 + sizeof(T);
}

void KXPacker::addInt(std::int32_t value) {
  xMakeRoom(5);
  if (value >= -32 && value <= 0x7f) {
    *mNext++ = static_cast<char>(value);
  } else if (value >= 0) {
    if (value <= 0xff) {
      xPut(0xcc, static_cast<std::uint8_t>(value));
    } else if (value <= 0xffff) {
      xPut(0xcd, static_cast<std::uint16_t>(value));
    } else {
      xPut(0xce, static_cast<std::uint32_t>(value));
    }
  } else if (value >= std::numeric_limits<std::int8_t>::min()) {
    xPut(0xd0, static_cast<std::uint8_t>(value));
  } else if (value >= std::numeric_limits<std::int16_t>::min()) {
    xPut(0xd1, static_cast<std::uint16_t>(value));
  } else {
    xPut(0xd2, static_cast<std::uint32_t>(value));
  }
}

void KXPacker::xAddFloat(double value) {
  xMakeRoom(9);
  xPut(0xcb, std::bit_cast<std::uint64_t>(value));
}

void KXPacker::addArray(std::size_t size) {
  xMakeRoom(5);
  if (size <= 0xf) {
    *mNext++ = static_cast<char>(0x90 | size);
  } else if (size <= 0xffff) {
    xPut(0xdc, static_cast<std::uint16_t>(size));
  } else {
    xPut(0xdd, static_cast<std::uint32_t>(size));
  }
}

void KXPacker::addString(std::string_view text) {
  xMakeRoom(5);
  if (text.size() <= 0x1f) {
    *mNext++ = static_cast<char>(0xa0 | text.size());
  } else if (text.size() <= 0xff) {
    xPut(0xd9, static_cast<std::uint8_t>(text.size()));
  } else if (text.size() <= 0xffff) {
    xPut(0xda, static_cast<std::uint16_t>(text.size()));
  } else {
    xPut(0xdb, static_cast<std::uint32_t>(text.size()));
  }
  xAddText(text);
}

void KXPacker::xAddBinary(std::string_view bytes) {
  xMakeRoom(5);
  if (bytes.size() <= 0xff) {
    xPut(0xc4, static_cast<std::uint8_t>(bytes.size()));
  } else if (bytes.size() <= 0xffff) {
    xPut(0xc5, static_cast<std::uint16_t>(bytes.size()));
  } else {
    xPut(0xc6, static_cast<std::uint32_t>(bytes.size()));
  }
  xAddText(bytes);
}

void KXPacker::xAddText(std::string_view text) {
  constexpr std::size_t kMost = std::numeric_limits<std::uint32_t>::max();
  if (text.size() > kMost) {
    fail("encodeValue", "expected a text of at most " + std::to_string(kMost) + " bytes, got " +
                            std::to_string(text.size()));
  }
  if (text.empty()) return;
  xMakeRoom(text.size());
  std::memcpy(mNext, text.data(), text.size());
  mNext += text.size();
}

void KXPacker::addValue(KXValue const& value, int level) {
  switch (value.getType()) {
    case KXValue::TypeInvalid:
      xMakeRoom(1);
      *mNext++ = static_cast<char>(0xc0);
      break;
    case KXValue::TypeBool:
      xMakeRoom(1);
      *mNext++ = static_cast<char>(static_cast<bool>(value) ? 0xc3 : 0xc2);
      break;
    case KXValue::TypeInt:
      addInt(static_cast<int>(value));
      break;
    case KXValue::TypeFloat:
      xAddFloat(static_cast<double>(value));
      break;
    case KXValue::TypeString:
      addString(static_cast<std::string const&>(value));
      break;
    case KXValue::TypeBinary:
      xAddBinary(value.getBinary());
      break;
    case KXValue::TypeArray:
      if (level == mMostLevels) fail("encodeValue", levelsText(mMostLevels));
      xAddElements(value, level + 1);
      break;
  }
}

void KXPacker::xAddElements(KXValue const& array, int level) {
  auto const size = static_cast<std::size_t>(array.getSize());
  KXValue const* const elements = array.arrayData();
  addArray(size);
  // Moving a long text from room to room costs as much as writing it: once a part of the elements
  // is there, the rest is taken to be alike.
  constexpr std::size_t kParts = 16;
  std::size_t const part = size / kParts;
  std::size_t const before = xUsed();
  for (std::size_t i = 0; i < part; ++i) addValue(elements[i], level);
  if (part > 0) xExpect((xUsed() - before) * kParts);
  for (std::size_t i = part; i < size; ++i) addValue(elements[i], level);
}

// ---- unpacking

namespace {

// Pairs of integers that came before. Samples carry the time of their cycle, so the same pairs come
// again with each key: one block for all of them costs less than one for each.
class Pairs {
 public:
  // For a message of that many bytes.
  explicit Pairs(std::size_t bytes) {
    constexpr std::size_t kLeast = 1024;
    constexpr std::size_t kMost = 1 << 14;  // of known pairs
    if (bytes >= kLeast) mBits = std::bit_width(std::min(bytes / sizeof(Known), kMost)) - 1;
  }

  bool isWorthwhile() const noexcept { return mBits > 0; }
  KXValue get(int first, int second) {
    if (mKnown.empty()) mKnown.resize(std::size_t{1} << mBits);
    std::uint64_t const key =
        std::uint64_t{static_cast<std::uint32_t>(first)} << 32 | static_cast<std::uint32_t>(second);
    Known& known = mKnown[key * 0x9e3779b97f4a7c15U >> (64 - mBits)];
    if (!known.pair.isValid()) {
      known = {key, KXValue::arrayOf(first, second)};
    } else if (known.key != key) {
      // Whoever came first stays: what never comes again would else cost more than it saves.
      return KXValue::arrayOf(first, second);
    }
    return known.pair;
  }

 private:
  struct Known {
    std::uint64_t key = 0;
    KXValue pair;
  };

  std::vector<Known> mKnown;  // each at the place that its numbers give
  int mBits = 0;
};

// What all values of a message may take together: one that is a byte on the wire takes up to 56.
// Samples of a fetch take less than 8 for each byte, so any number of them is taken; what is denser
// has the rest, some 8 million values.
std::size_t mostValueBytes(std::size_t messageBytes) noexcept {
  return 8 * messageBytes + (std::size_t{64} << 20);
}

// What msgpack::parse() tells its findings to: false stops it. Values are collected on a stack, and
// an array is made of those on top when its last element is there, so nothing is ever allocated for
// what has not arrived. Rows, which are arrays of two, stay on the stack until it is known whether
// the array around them has rows only: then it is made by KXRows, in one allocation.
class Visitor : public msgpack::null_visitor {
 public:
  // With `former`, the outermost array is not made: its elements stay on the stack.
  Visitor(int mostLevels, std::size_t bytes, std::size_t& valueBytes, std::size_t mostValueBytes,
          std::vector<KXValue> const* former)
      : mMostLevels(mostLevels),
        mRoom(bytes - 1),
        mValueBytes(valueBytes),
        mMostValueBytes(mostValueBytes),
        mFormer(former),
        mPairs(former == nullptr ? bytes : 0) {
    if (former != nullptr) mValues.reserve(4);
  }

  std::vector<KXValue>& values() noexcept { return mValues; }
  std::string const& fault() const noexcept { return mFault; }
  bool isArray() const noexcept { return mIsArray; }

  bool visit_nil() { return xAdd(KXValue()); }
  bool visit_boolean(bool value) { return xAdd(KXValue(value)); }
  bool visit_positive_integer(std::uint64_t value) {
    if (value > std::uint64_t{kGreatest}) return xFailInteger(std::to_string(value));
    return xAdd(KXValue(static_cast<int>(value)));
  }
  // Of a signed form, whatever the number is.
  bool visit_negative_integer(std::int64_t value) {
    if (value < kLeast || value > kGreatest) return xFailInteger(std::to_string(value));
    return xAdd(KXValue(static_cast<int>(value)));
  }
  bool visit_float32(float value) { return xAdd(KXValue(value)); }
  bool visit_float64(double value) { return xAdd(KXValue(value)); }
  bool visit_str(char const* text, std::uint32_t size) {
    if (!xTakeRoom(size) || !xTakeMemory(kTextBytes + size)) return false;
    std::string_view const string(text, size);
    if (KXValue const* const former = xFormer()) {
      if (former->getType() == KXValue::TypeString &&
          static_cast<std::string const&>(*former) == string) {
        return xAdd(KXValue(*former));
      }
    }
    return xAdd(KXValue(std::string(string)));
  }
  bool visit_bin(char const* bytes, std::uint32_t size) {
    if (!xTakeRoom(size) || !xTakeMemory(kTextBytes + size)) return false;
    return xAdd(KXValue::binary(std::string(std::string_view(bytes, size))));
  }
  bool visit_ext(char const*, std::uint32_t) {
    return xFail("expected a type that a value can have, got an extension");
  }
  bool start_map(std::uint32_t) {
    return xFail("expected a type that a value can have, got a map");
  }
  bool start_array(std::uint32_t size) {
    if (mDepth == mMostLevels) return xFail(levelsText(mMostLevels));
    if (!xTakeRoom(size) || !xTakeMemory(kArrayBytes + size * sizeof(KXValue))) return false;
    if (mDepth == 0) mIsArray = true;
    mLevels[mDepth++] = {mValues.size(), size, 0};
    return true;
  }
  bool end_array() {
    Level& level = mLevels[--mDepth];
    if (mDepth == 0 && mFormer != nullptr) {
      xSettleRows(level);
      return true;
    }
    if (level.size == 2 && level.rows == 0 && mDepth > 0 && xKeepsRow(mLevels[mDepth - 1], level)) {
      ++mLevels[mDepth - 1].rows;
      return true;
    }
    KXValue* const elements = mValues.data() + level.start;
    KXValue array = level.rows > 0    ? xMakeRows(elements, level.rows)
                    : level.size == 2 ? xMakePair(elements)
                                      : KXValue::arrayFrom(level.size, [&](std::size_t i) noexcept {
                                          return std::move(elements[i]);
                                        });
    mValues.resize(level.start);
    return xAdd(std::move(array));
  }
  void parse_error(std::size_t, std::size_t) { xFail("expected a type, got the byte 0xc1"); }
  void insufficient_bytes(std::size_t, std::size_t) { xFail("expected more bytes"); }

 private:
  static constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
  static constexpr std::int32_t kGreatest = std::numeric_limits<std::int32_t>::max();
  // Of a block, without the elements or the text.
  static constexpr std::size_t kArrayBytes = 8;
  static constexpr std::size_t kTextBytes = 8 + sizeof(std::string);

  struct Level {
    std::size_t start;   // of its elements on the stack
    std::uint32_t size;  // how many there will be
    std::uint32_t rows;  // so many rows stand there and nothing else; 0: elements
  };

  bool xAdd(KXValue value) {
    if (mDepth > 0) xSettleRows(mLevels[mDepth - 1]);
    mValues.push_back(std::move(value));
    return true;
  }
  // Where there are two, or one that is the time of a sample, there is nothing to be gained.
  static bool xKeepsRow(Level const& outer, Level const& row) noexcept {
    return outer.size > 2 && row.start == outer.start + std::size_t{2} * outer.rows;
  }
  // Makes the rows that stand on the stack elements.
  void xSettleRows(Level& level) {
    if (level.rows == 0) return;
    KXValue* const values = mValues.data() + level.start;
    for (std::size_t i = 0; i < level.rows; ++i) values[i] = xMakePair(values + 2 * i);
    mValues.resize(level.start + level.rows);
    level.rows = 0;
  }
  static KXValue xMakeRows(KXValue* values, std::size_t size) {
    KXRows rows(size);
    for (std::size_t i = 0; i < size; ++i) {
      rows.push(std::move(values[2 * i]), std::move(values[2 * i + 1]));
    }
    return rows.take();
  }
  KXValue xMakePair(KXValue* elements) {
    if (mPairs.isWorthwhile() && elements[0].getType() == KXValue::TypeInt &&
        elements[1].getType() == KXValue::TypeInt) {
      return mPairs.get(static_cast<int>(elements[0]), static_cast<int>(elements[1]));
    }
    return KXValue::arrayOf(std::move(elements[0]), std::move(elements[1]));
  }
  // Each element of an array takes a byte or more, and so does each byte of a text.
  bool xTakeRoom(std::uint32_t size) {
    if (size > mRoom) {
      return xFail("expected at most " + std::to_string(mRoom) +
                   " elements or bytes, that is what is left, got " + std::to_string(size));
    }
    mRoom -= size;
    return true;
  }
  bool xTakeMemory(std::size_t bytes) {
    mValueBytes += bytes;
    if (mValueBytes <= mMostValueBytes) return true;
    return xFail("expected values of at most " + std::to_string(mMostValueBytes) +
                 " bytes of memory, got " + std::to_string(mValueBytes) + " or more");
  }
  bool xFailInteger(std::string const& number) {
    return xFail("expected an integer of 32 bits, got " + number);
  }
  bool xFail(std::string text) {
    if (mFault.empty()) mFault = std::move(text);
    return false;
  }
  // What the former array had where the next value comes; null: nothing, or nothing to look at.
  KXValue const* xFormer() const noexcept {
    if (mFormer == nullptr || mDepth == 0 || mDepth > 2) return nullptr;
    std::size_t place = mValues.size();
    KXValue const* elements = mFormer->data();
    std::size_t size = mFormer->size();
    if (mDepth == 2) {
      std::size_t const outer = mLevels[1].start;
      if (outer >= size || elements[outer].getType() != KXValue::TypeArray) return nullptr;
      size = static_cast<std::size_t>(elements[outer].getSize());
      elements = elements[outer].arrayData();
      place -= outer;
    }
    return place < size ? elements + place : nullptr;
  }

  int const mMostLevels;
  std::size_t mRoom;  // bytes left, less the one of each element that has not come
  std::size_t& mValueBytes;
  std::size_t const mMostValueBytes;
  std::vector<KXValue> const* const mFormer;
  std::vector<KXValue> mValues;
  std::array<Level, kMostReplyLevels> mLevels;  // of the arrays that are not complete
  int mDepth = 0;
  bool mIsArray = false;
  Pairs mPairs;
  std::string mFault;
};

}  // namespace

std::vector<KXValue> KXUnpacker::xTake(std::vector<KXValue> const* former) {
  if (mOffset == mBytes.size())
    fail("decodeValue", "expected more bytes, at byte " + std::to_string(mOffset));
  Visitor visitor(mMostLevels, mBytes.size() - mOffset, mValueBytes, mostValueBytes(mBytes.size()),
                  former);
  std::size_t offset = mOffset;
  bool const isWhole = msgpack::parse(mBytes.data(), mBytes.size(), offset, visitor);
  if (!isWhole) fail("decodeValue", visitor.fault() + ", at byte " + std::to_string(offset));
  if (former != nullptr && !visitor.isArray()) {
    fail("decodeValue", "expected an array, got " +
                            KXValue::TypeToString(visitor.values().front().getType()) +
                            ", at byte " + std::to_string(mOffset));
  }
  mOffset = offset;
  return std::move(visitor.values());
}

KXValue KXUnpacker::takeValue() {
  return std::move(xTake(nullptr).front());
}

std::vector<KXValue> KXUnpacker::takeElements(std::vector<KXValue> const& former) {
  return xTake(&former);
}

void KXUnpacker::expectEnd() const {
  if (mOffset == mBytes.size()) return;
  fail("decodeValue", "expected the end, got " + std::to_string(mBytes.size() - mOffset) +
                          " bytes more, at byte " + std::to_string(mOffset));
}

}  // namespace KX
