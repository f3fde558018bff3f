// Where the memory of pieces comes from. All operations are thread-safe.
#pragma once

#include <cstddef>

namespace KX {

/// A mapping from which pieces are cut.
struct PieceRegion;

/// Memory for a piece, and the region it was cut from: null if it is the allocator's.
struct PieceMemory {
  void* memory;
  PieceRegion* region;
};

/// Throws std::bad_alloc.
PieceMemory allocatePiece(std::size_t bytes);
void freePiece(PieceMemory const& piece, std::size_t bytes) noexcept;

/// Gives back what is kept for the next pieces.
void releaseFreePieces() noexcept;

}  // namespace KX
