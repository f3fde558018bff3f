// The dynamic value that every argument, result and sample is. 16 bytes: a tag and a payload;
// strings, arrays and binary data live in reference-counted blocks that are copied on write.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <kxerror/kxapi.hpp>

namespace KX {

class KXRows;

/// A value of one of seven types, or an array of such values.
/// Ownership: a value type. Copying never allocates; moving touches no counter, but for the first
/// element of a row that KXRows filled from its shared array.
/// Threads: values that share a block may be used from different threads at once; one value object
/// may not be changed while another thread reads it.
/// Errors: a wrong type or index is a KXError that names both types, or the index and the size.
/// Integers are 32-bit signed, floats are 64-bit. A reference obtained from the non-const index
/// operator is good until the value is next copied, resized or destroyed: an assignment through it
/// after that also changes the copies.
class KX_API KXValue {
 public:
  enum Type {
    TypeInvalid = 0,
    TypeArray = 1,
    TypeBool = 2,
    TypeInt = 3,
    TypeFloat = 4,
    TypeString = 5,
    TypeBinary = 6
  };

  /// Invalid: no value.
  KXValue() noexcept : mHead(TypeInvalid), mPayload{0} {}
  KXValue(bool value) noexcept : mHead(TypeBool), mPayload{0} { mPayload.asBool = value; }
  KXValue(int value) noexcept : mHead(TypeInt), mPayload{0} { mPayload.asInt = value; }
  KXValue(float value) noexcept : KXValue(static_cast<double>(value)) {}
  KXValue(double value) noexcept : mHead(TypeFloat), mPayload{0} { mPayload.asDouble = value; }
  /// A null pointer gives the empty string.
  KXValue(char const* text);
  KXValue(std::string text);
  KXValue(std::vector<std::string> const& texts);
  KXValue(std::vector<KXValue> elements);
  /// A stray pointer would otherwise become a bool.
  template <class T>
  requires(!std::same_as<std::remove_const_t<T>, char>) KXValue(T*)
  = delete;

  /// A value of type binary; any bytes.
  static KXValue binary(std::string bytes);
  /// An array of exactly these elements, in one allocation.
  template <class... T>
  static KXValue arrayOf(T&&... elements);
  /// An array of what `element(0)` to `element(size - 1)` give, in one allocation; called in order.
  /// What `element` throws passes. `size` is not negative.
  template <class F>
  requires std::invocable<F&, std::size_t>
  static KXValue arrayFrom(std::size_t size, F element);

  KXValue(KXValue const& other) noexcept : mHead(other.mHead), mPayload(other.mPayload) {
    if (hasBlock()) xTakeShare();
  }
  KXValue(KXValue&& other) noexcept : mHead(other.mHead), mPayload(other.mPayload) {
    if ((mHead & kBorrowed) != 0) xTakeShare();
    other.mHead = TypeInvalid;
  }
  /// By value, on purpose: in `array[0] = array` the right side is then copied before the left side
  /// is indexed, so the index finds a shared block and an array never comes to hold itself.
  KXValue& operator=(KXValue other) noexcept {
    swap(other);
    return *this;
  }
  ~KXValue() {
    if (xHoldsShare() && xDropShare(mPayload.asBlock)) xFree(mHead, mPayload.asBlock);
  }
  void swap(KXValue& other) noexcept {
    if ((mHead & kBorrowed) != 0) xTakeShare();
    if ((other.mHead & kBorrowed) != 0) other.xTakeShare();
    std::swap(mHead, other.mHead);
    std::swap(mPayload, other.mPayload);
  }

  Type getType() const noexcept { return static_cast<Type>(mHead & kTypeMask); }
  bool isValid() const noexcept { return getType() != TypeInvalid; }
  /// Elements of an array, bytes of a string or of binary data, otherwise 0.
  int getSize() const noexcept {
    if (!hasBlock()) return 0;
    return static_cast<int>(getType() == TypeArray ? xArray()->size : xText()->text.size());
  }

  /// Makes this an array of `size` elements: an array keeps what it has and gets invalid elements
  /// added or its tail cut, any other value is replaced. A negative size is a KXError.
  void arraySetSize(int size);
  /// Makes room for `capacity` elements, so that pushing up to there allocates no more.
  void arrayReserve(int capacity);
  /// Appends; an invalid value first becomes an empty array, any other type is a KXError.
  void arrayPush(KXValue element) {
    if (!xIsAloneArray() || xArray()->size == xCapacity()) xMakeRoom();
    new (xArray()->elements() + xArray()->size) KXValue(std::move(element));
    ++xArray()->size;
  }
  KXValue& operator[](int index) {
    if (!xHasIndex(index)) xFailIndex(index);
    if (!xIsAloneArray()) xOwnArray(0);
    return xArray()->elements()[index];
  }
  KXValue const& operator[](int index) const {
    if (!xHasIndex(index)) xFailIndex(index);
    return xArray()->elements()[index];
  }
  /// The elements, contiguous: getSize() of them. KXError if this is no array. The non-const form
  /// makes the block this value's own first.
  KXValue* arrayData();
  KXValue const* arrayData() const;
  /// True if both are arrays, strings or binary data in one shared block: the same content without
  /// comparing it.
  bool sharesBlockWith(KXValue const& other) const noexcept {
    return hasBlock() && other.hasBlock() && mPayload.asBlock == other.mPayload.asBlock;
  }

  explicit operator bool() const {
    if (getType() != TypeBool) xFailType("operator bool", TypeBool);
    return mPayload.asBool;
  }
  explicit operator int() const {
    if (getType() != TypeInt) xFailType("operator int", TypeInt);
    return mPayload.asInt;
  }
  /// From a float or an int.
  explicit operator double() const {
    if (getType() == TypeInt) return mPayload.asInt;
    if (getType() != TypeFloat) xFailType("operator double", TypeFloat);
    return mPayload.asDouble;
  }
  /// The text of a string. The reference lives as long as this value is unchanged.
  explicit operator std::string const&() const {
    if (getType() != TypeString) xFailType("operator std::string", TypeString);
    return xText()->text;
  }
  /// The bytes of binary data. The reference lives as long as this value is unchanged.
  std::string const& getBinary() const {
    if (getType() != TypeBinary) xFailType("getBinary", TypeBinary);
    return xText()->text;
  }
  /// Appends every element of an array to `texts`. An element that is no string is a KXError, or,
  /// with `convertElements`, its text at verbosity 0. KXError if this is no array.
  void ToStringArray(std::vector<std::string>& texts, bool convertElements) const;

  /// The value as text. 0: bare. 1: JSON on one line, UTF-8 (invalid is null, a float that is not
  /// finite is null, binary is base64 text, bytes that are not UTF-8 become U+FFFD). 2: as 1, each
  /// value behind its type name, `int(5)`.
  std::string toString(int verbosity = 0) const;
  /// The name of a type: invalid, array, bool, int, float, string, binary.
  static std::string TypeToString(Type type);

  /// Same type and same content; an int never equals a float.
  bool operator==(KXValue const& other) const;

 private:
  friend class KXRows;

  // Heads. A value is a head and a payload; the head holds, from its lowest bit on:
  //   0-7    the type
  //   8      kHoldsShare: the payload is a block, and one of its shares is this value's
  //   9      kBorrowed: the payload is a block, and this value has no share of it
  //   10     kInPiece: the block lies in a piece
  //   11     kAsBuilt: the block is that of an array from KXRows; nothing was written through it
  //   12-63  of a block in a piece: its distance in bytes from the piece's start
  //   32-63  of another array: the number of elements for which its block has room. It never
  //          changes during the block's life, so it stands here and not in the block.
  //
  // Blocks. A block counts its shares and goes with the last one.
  //
  // Pieces. An array of rows [first, second] that KXRows builds is one allocation, the piece: in it
  // lie the array's own block and that of each row. They count their shares and are changed in
  // place like other blocks; only growing moves an array's elements to a block elsewhere. The piece
  // counts its blocks that are not gone yet and goes with the last one.
  //
  // As built. Where nobody wrote to an array of rows and no row of it was copied, which the piece
  // remembers, the rows need not be looked at to know that they go with the array.
  //
  // Borrowing. The first elements of the rows may be values of another array, which all arrays of a
  // fetch have in common. One count up and down for each would cost more than the row itself, so
  // the piece holds one share of that array, and thereby of all that is in it, and the elements
  // borrow from it. A borrowed value is only ever an element of a row in a piece. A copy of it
  // takes a share; moving or swapping it takes one first; destroying it drops none. Its array is
  // never alone, whatever the count says, so it is copied before it is changed.
  static constexpr std::uint64_t kTypeMask = 0xff;
  static constexpr std::uint64_t kHoldsShare = 0x100;
  static constexpr std::uint64_t kBorrowed = 0x200;
  static constexpr std::uint64_t kHasBlock = kHoldsShare | kBorrowed;
  static constexpr std::uint64_t kInPiece = 0x400;
  static constexpr std::uint64_t kAsBuilt = 0x800;
  static constexpr unsigned kPlaceShift = 12;
  static constexpr unsigned kCapacityShift = 32;

  // A block starts with its counter; an array's size and elements, or a text, follow.
  struct Block {
    std::atomic<std::int32_t> references{1};
  };
  struct ArrayBlock : Block {
    std::uint32_t size = 0;
    KXValue* elements() noexcept { return reinterpret_cast<KXValue*>(this + 1); }
  };
  struct TextBlock : Block {
    explicit TextBlock(std::string content) noexcept : text(std::move(content)) {}
    std::string text;
  };
  struct Piece;
  class Freeing;
  union Payload {
    std::uint64_t bits;
    bool asBool;
    std::int32_t asInt;
    double asDouble;
    Block* asBlock;
  };

  KXValue(Type type, TextBlock* block) noexcept : mHead(type | kHoldsShare), mPayload{0} {
    mPayload.asBlock = block;
  }
  KXValue(std::uint64_t head, Payload payload) noexcept : mHead(head), mPayload(payload) {}

  bool hasBlock() const noexcept { return (mHead & kHasBlock) != 0; }
  bool xIsInPiece() const noexcept { return (mHead & kInPiece) != 0; }
  bool xHoldsShare() const noexcept { return (mHead & kHoldsShare) != 0; }
  ArrayBlock* xArray() const noexcept { return static_cast<ArrayBlock*>(mPayload.asBlock); }
  TextBlock* xText() const noexcept { return static_cast<TextBlock*>(mPayload.asBlock); }
  std::size_t xCapacity() const noexcept {
    return xIsInPiece() ? xArray()->size : mHead >> kCapacityShift;
  }
  bool xHasIndex(int index) const noexcept {
    return getType() == TypeArray && static_cast<std::uint32_t>(index) < xArray()->size;
  }
  bool xIsAloneArray() const noexcept {
    return (mHead & (kTypeMask | kBorrowed | kAsBuilt)) == TypeArray &&
           mPayload.asBlock->references.load(std::memory_order_acquire) == 1;
  }
  static ArrayBlock* xNewBlock(std::size_t capacity) {
    return new (::operator new(sizeof(ArrayBlock) + capacity * sizeof(KXValue))) ArrayBlock;
  }
  void xSetArray(ArrayBlock* block, std::size_t capacity) noexcept {
    mHead = TypeArray | kHoldsShare | (static_cast<std::uint64_t>(capacity) << kCapacityShift);
    mPayload.asBlock = block;
  }
  void xTakeShare() noexcept {
    mPayload.asBlock->references.fetch_add(1, std::memory_order_relaxed);
    mHead = (mHead & ~kBorrowed) | kHoldsShare;
    if ((mHead & (kInPiece | kAsBuilt)) == kInPiece) xMarkCopied();
  }
  // The last owner needs no atomic write: nobody else can take a share any more.
  static bool xDropShare(Block* block) noexcept {
    return block->references.load(std::memory_order_acquire) == 1 ||
           block->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
  }
  // By value, so that a value whose address is not taken elsewhere can live in registers.
  void xMarkCopied() const noexcept;
  static void xFree(std::uint64_t head, Block* block) noexcept;
  void xOwnArray(std::size_t capacity);
  void xMakeRoom();
  [[noreturn]] void xFailType(char const* method, Type expected) const;
  [[noreturn]] void xFailIndex(int index) const;
  // Same type and same content, of arrays only the size.
  bool xEqualsInItself(KXValue const& other) const;
  void xAppendText(std::string& out, bool isJson, bool isTyped) const;

  std::uint64_t mHead;
  Payload mPayload;
};

static_assert(sizeof(KXValue) == 16);

template <class... T>
KXValue KXValue::arrayOf(T&&... elements) {
  KXValue array;
  ArrayBlock* const block = xNewBlock(sizeof...(elements));
  array.xSetArray(block, sizeof...(elements));
  // The size follows each element, so that a constructor that throws leaves a sound array behind.
  ((new (block->elements() + block->size) KXValue(std::forward<T>(elements)), ++block->size), ...);
  return array;
}

template <class F>
requires std::invocable<F&, std::size_t> KXValue KXValue::arrayFrom(std::size_t size, F element) {
  KXValue array;
  ArrayBlock* const block = xNewBlock(size);
  array.xSetArray(block, size);
  // Counted element by element only where one may throw, which costs a store each.
  if constexpr (std::is_nothrow_invocable_v<F&, std::size_t>) {
    KXValue* target = block->elements();
    for (std::size_t i = 0; i < size; ++i) new (target++) KXValue(element(i));
    block->size = static_cast<std::uint32_t>(size);
  } else {
    for (std::size_t i = 0; i < size; ++i, ++block->size) {
      new (block->elements() + i) KXValue(element(i));
    }
  }
  return array;
}

}  // namespace KX
