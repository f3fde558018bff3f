#include <kxvalue/kxrows.hpp>

#include <limits>
#include <new>

#include "host/kxvalue/kxpiecememory.hpp"

namespace KX {

KXValue::Piece* KXRows::xNewPiece(std::size_t capacity, KXValue shared) {
  if (capacity > std::size_t{std::numeric_limits<int>::max()}) throw std::bad_array_new_length();
  std::size_t const bytes = sizeof(KXValue::Piece) + sizeof(KXValue::ArrayBlock) +
                            capacity * (sizeof(KXValue) + KXValue::Piece::kRowBytes);
  PieceMemory const allocated = allocatePiece(bytes);
  auto* const piece = new (allocated.memory) KXValue::Piece;
  piece->bytes = bytes;
  piece->region = allocated.region;
  new (piece->array()) KXValue::ArrayBlock;
  // Nothing will borrow from it where there is no row.
  if (capacity > 0) piece->shared = std::move(shared);
  return piece;
}

void KXValue::xMarkCopied() const noexcept {
  std::atomic<bool>& isCopied = Piece::of(mHead, mPayload.asBlock)->isCopied;
  // Looked at first: a write would take the piece away from all threads that read it. Relaxed: who
  // frees the array has the last share of it, and so sees what others did while they had one.
  if (!isCopied.load(std::memory_order_relaxed)) isCopied.store(true, std::memory_order_relaxed);
}

}  // namespace KX
