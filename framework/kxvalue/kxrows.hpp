// Builds arrays of rows [first, second], the shape of samples, in one allocation whatever the
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

// What a piece begins with. The array's block follows with room for all its elements, then the
// rows' blocks. How pieces live: see KXValue's private part.
struct KXValue::Piece {
  static constexpr std::size_t kRowBytes = sizeof(ArrayBlock) + 2 * sizeof(KXValue);

  static Piece* of(std::uint64_t head, Block* block) noexcept {
    return reinterpret_cast<Piece*>(reinterpret_cast<char*>(block) - (head >> kPlaceShift));
  }
  KXValue valueOf(ArrayBlock* block) noexcept {
    auto const place = reinterpret_cast<char*>(block) - reinterpret_cast<char*>(this);
    Payload payload{0};
    payload.asBlock = block;
    return KXValue(
        TypeArray | kHoldsShare | kInPiece | static_cast<std::uint64_t>(place) << kPlaceShift,
        payload);
  }
  ArrayBlock* array() noexcept { return reinterpret_cast<ArrayBlock*>(this + 1); }

  std::atomic<std::size_t> blocks{0};  // that are not gone yet
  std::size_t bytes = 0;               // of the allocation
  Piece* next = nullptr;               // of those that a walk still has to free
  std::atomic<bool> isCopied{false};   // some row was, since it was built
  bool holdsShares = false;            // some row did when it was built
  KXValue shared;                      // what elements of the rows borrow from
};

/// Builds an array of rows [first, second] whose blocks lie in one piece of memory.
/// Ownership: movable; what was pushed and not taken is freed with it. What it built is a value
/// like any other, and each row too; the piece lasts as long as any of its rows. Who keeps few of
/// many rows for long should keep their elements in an array of its own.
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
  /// that was taken before must not be written through any more. std::bad_alloc also for more rows
  /// than an array can hold.
  explicit KXRows(std::size_t capacity, KXValue shared = KXValue())
      : mPiece(xNewPiece(capacity, std::move(shared))),
        mElement(mPiece->array()->elements()),
        mRow(reinterpret_cast<char*>(mElement + capacity)) {
    if (mPiece->shared.getType() == KXValue::TypeArray) {
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
    std::swap(mPiece, other.mPiece);
    std::swap(mElement, other.mElement);
    std::swap(mRow, other.mRow);
    std::swap(mShared, other.mShared);
    std::swap(mHeads, other.mHeads);
  }

  /// Appends the row [first, second]. There is room for it.
  void push(KXValue first, KXValue second) noexcept {
    mHeads |= first.mHead;
    new (xAddRow(std::move(second))) KXValue(std::move(first));
  }
  /// Appends the row [shared[place], second]. There is room for it, and `shared` has that place.
  void pushShared(std::size_t place, KXValue second) noexcept {
    KXValue const& lent = mShared[place];
    std::uint64_t const borrowed =
        (lent.mHead & KXValue::kHoldsShare) << 1 | (lent.mHead & KXValue::kBorrowed);
    new (xAddRow(std::move(second)))
        KXValue((lent.mHead & ~KXValue::kHasBlock) | borrowed, lent.mPayload);
  }
  /// Rows so far.
  std::size_t getSize() const noexcept {
    return mPiece == nullptr ? 0 : static_cast<std::size_t>(mElement - mPiece->array()->elements());
  }
  /// The array of the rows so far; the builder has no room any more.
  KXValue take() noexcept {
    if (mPiece == nullptr) return KXValue();
    std::size_t const size = getSize();
    KXValue::ArrayBlock* const block = mPiece->array();
    block->size = static_cast<std::uint32_t>(size);
    mPiece->blocks.store(size + 1, std::memory_order_relaxed);
    mPiece->holdsShares = (mHeads & KXValue::kHoldsShare) != 0;
    KXValue array = mPiece->valueOf(block);
    array.mHead |= KXValue::kAsBuilt;
    mPiece = nullptr;
    mHeads = 0;
    return array;
  }

 private:
  static_assert(KXValue::kBorrowed == KXValue::kHoldsShare << 1);

  // Static, so that a builder's address stays unknown and its members can live in registers.
  static KXValue::Piece* xNewPiece(std::size_t capacity, KXValue shared);

  // Appends a row of which the first element is still to be constructed, and gives its place.
  KXValue* xAddRow(KXValue&& second) noexcept {
    mHeads |= second.mHead;
    auto* const block = new (mRow) KXValue::ArrayBlock;
    block->size = 2;
    new (block->elements() + 1) KXValue(std::move(second));
    new (mElement) KXValue(mPiece->valueOf(block));
    ++mElement;
    mRow += KXValue::Piece::kRowBytes;
    return block->elements();
  }

  KXValue::Piece* mPiece = nullptr;  // null: no room
  KXValue* mElement = nullptr;       // where the array's next element comes
  char* mRow = nullptr;              // and that row's block
  KXValue const* mShared = nullptr;
  std::uint64_t mHeads = 0;  // of all elements of rows, to know whether any holds a share
};

}  // namespace KX
