// Builds arrays of rows [first, second], the shape of samples, in two allocations whatever the
// number of rows. No threads: a builder belongs to who fills it; what it built is a value as any.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

#include <kxerror/kxapi.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

// The head of a piece; its blocks follow, each a row. How pieces live: see KXValue's private part.
struct KXValue::Piece {
  static constexpr std::size_t kRowBytes = sizeof(ArrayBlock) + kRowSize * sizeof(KXValue);

  Piece(std::size_t room, KXValue lent) noexcept : capacity(room), shared(std::move(lent)) {}
  ArrayBlock* blockAt(std::size_t place) noexcept {
    return reinterpret_cast<ArrayBlock*>(reinterpret_cast<char*>(this + 1) + place * kRowBytes);
  }
  // The piece in which the block of a value with this head lies.
  static Piece* of(std::uint64_t head, Block* block) noexcept {
    char* const first = reinterpret_cast<char*>(block) - (head >> kCapacityShift) * kRowBytes;
    return reinterpret_cast<Piece*>(first) - 1;
  }

  std::atomic<std::size_t> blocks{0};  // that are not gone yet
  std::size_t capacity;
  Piece* next = nullptr;  // of the pieces that a walk still has to free
  KXValue shared;         // what elements of the rows borrow from
};

/// Builds an array of rows [first, second] whose blocks lie in one piece of memory.
/// Ownership: movable; what was pushed and not taken is freed with it. What it built is a value
/// like any other, and each row too; the piece lasts as long as any of its rows.
/// Threads: not synchronised.
/// Errors: only construction throws.
/// A builder that has no room, made so, moved from or taken, takes no rows and gives an invalid
/// value.
///
///     KXRows rows(samples.size(), times);
///     for (Sample& each : samples) rows.pushShared(each.cycle, std::move(each.value));
///     KXValue const result = rows.take();
class KX_API KXRows {
 public:
  /// No room at all.
  KXRows() noexcept = default;
  /// Room for `capacity` rows; all memory that filling needs is allocated here. `shared` is an
  /// array whose elements rows may refer to by place, at no cost for each row; a reference into it
  /// that was taken before must not be written through any more. KXError for more rows than an
  /// array can hold.
  explicit KXRows(std::size_t capacity, KXValue shared = KXValue())
      : mArray(xNewArray(capacity)), mPiece(xNewPiece(capacity, std::move(shared))) {
    if (mPiece != nullptr && mPiece->shared.getType() == KXValue::TypeArray) {
      mShared = mPiece->shared.xArray()->elements();
    }
  }
  KXRows(KXRows&& other) noexcept { swap(other); }
  KXRows& operator=(KXRows other) noexcept {
    swap(other);
    return *this;
  }
  ~KXRows() { take(); }
  void swap(KXRows& other) noexcept {
    mArray.swap(other.mArray);
    std::swap(mPiece, other.mPiece);
    std::swap(mShared, other.mShared);
    std::swap(mSize, other.mSize);
  }

  /// Appends the row [first, second]. There is room for it.
  void push(KXValue first, KXValue second) noexcept {
    KXValue* const row = xNextRow();
    new (row) KXValue(std::move(first));
    new (row + 1) KXValue(std::move(second));
  }
  /// Appends the row [shared[place], second]. There is room for it, and `shared` has that place.
  void pushShared(std::size_t place, KXValue second) noexcept {
    KXValue* const row = xNextRow();
    KXValue const& lent = mShared[place];
    std::uint64_t const isBlock =
        (lent.mHead & KXValue::kHoldsShare) << 1 | (lent.mHead & KXValue::kBorrowed);
    new (row) KXValue((lent.mHead & ~KXValue::kHasBlock) | isBlock, lent.mPayload);
    new (row + 1) KXValue(std::move(second));
  }
  /// Rows so far.
  std::size_t getSize() const noexcept { return mSize; }
  /// The array of the rows so far; the builder has no room any more.
  KXValue take() noexcept {
    if (mSize > 0) {
      mPiece->blocks.store(mSize, std::memory_order_relaxed);
      mArray.xArray()->size = static_cast<std::uint32_t>(mSize);
    } else if (mPiece != nullptr) {
      xDropPiece(mPiece);
    }
    mPiece = nullptr;
    mShared = nullptr;
    mSize = 0;
    return std::move(mArray);
  }

 private:
  static_assert(KXValue::kBorrowed == KXValue::kHoldsShare << 1);

  // Static, so that a builder's address stays unknown and its members can live in registers.
  static KXValue xNewArray(std::size_t capacity);
  static KXValue::Piece* xNewPiece(std::size_t capacity, KXValue shared);
  static void xDropPiece(KXValue::Piece* piece) noexcept;

  KXValue* xNextRow() noexcept {
    auto* const block = new (mPiece->blockAt(mSize)) KXValue::ArrayBlock;
    block->size = KXValue::kRowSize;
    KXValue::Payload payload{0};
    payload.asBlock = block;
    new (mArray.xArray()->elements() + mSize)
        KXValue(KXValue::TypeArray | KXValue::kHoldsShare | KXValue::kInPiece |
                    static_cast<std::uint64_t>(mSize) << KXValue::kCapacityShift,
                payload);
    ++mSize;
    return block->elements();
  }

  KXValue mArray;  // of size 0 until it is taken
  KXValue::Piece* mPiece = nullptr;
  KXValue const* mShared = nullptr;
  std::size_t mSize = 0;
};

}  // namespace KX
