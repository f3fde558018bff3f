#include <kxvalue/kxrows.hpp>

namespace KX {

KXValue KXRows::xNewArray(std::size_t capacity) {
  KXValue array;
  array.xOwnArray(capacity);
  return array;
}

KXValue::Piece* KXRows::xNewPiece(std::size_t capacity, KXValue shared) {
  if (capacity == 0) return nullptr;
  void* const memory =
      ::operator new(sizeof(KXValue::Piece) + capacity * KXValue::Piece::kRowBytes);
  return new (memory) KXValue::Piece(capacity, std::move(shared));
}

void KXRows::xDropPiece(KXValue::Piece* piece) noexcept {
  piece->~Piece();
  ::operator delete(piece);
}

}  // namespace KX
