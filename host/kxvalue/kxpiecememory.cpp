// A fresh page of 4 KB costs the kernel as much time as building fifty rows, so a large fetch would
// spend most of its time there, again with each fetch since its memory is given back in between.
// Huge pages make that a tenth, but the allocator uses none. So while much lives in pieces, further
// ones are cut one behind the other from regions of huge pages, and a huge page goes back to the
// system when the last piece that touches it is gone. The price is that one piece that stays, stays
// with its huge page, so a process with little in pieces does not use them.
#include "host/kxvalue/kxpiecememory.hpp"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include <sys/mman.h>

namespace KX {

namespace {

constexpr std::size_t kPageBytes = std::size_t{2} << 20;
constexpr std::size_t kRegionBytes = 32 * kPageBytes;
// As much must live in pieces before regions are worth it, and smaller pieces never are: a mere
// few rows are what clients pick out and keep.
constexpr std::size_t kLeastLiveBytes = 2 * kPageBytes;
constexpr std::size_t kLeastPieceBytes = 1024;

constexpr std::size_t kHeaderBytes = 4096;

constexpr std::size_t roundedUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

}  // namespace

/// Stands in the mapping itself, in front of the first huge page, so that nothing of it is the
/// allocator's.
struct PieceRegion {
  std::size_t bytes;
  std::size_t used;  // all before it is or was a piece
  std::size_t live;  // pieces

  char* start() noexcept { return reinterpret_cast<char*>(this) + kHeaderBytes; }
  /// How many pieces touch each huge page.
  std::uint32_t* touching() noexcept { return reinterpret_cast<std::uint32_t*>(this + 1); }
};

namespace {

constexpr std::size_t kMostPages = (kHeaderBytes - sizeof(PieceRegion)) / sizeof(std::uint32_t);

std::atomic<std::size_t> gLiveBytes{0};
std::mutex gMutex;
PieceRegion* gRegion = nullptr;  // from which the next piece is cut

// A region of `bytes`, a multiple of huge pages; null if the system gives none.
PieceRegion* map(std::size_t bytes) noexcept {
  if (bytes > kMostPages * kPageBytes) return nullptr;
  // Asked for larger and cut, since huge pages begin at multiples of their size.
  std::size_t const mapped = kHeaderBytes + kPageBytes + bytes;
  void* const memory = ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  auto const address = reinterpret_cast<std::uintptr_t>(memory);
  std::size_t const before = roundedUp(address + kHeaderBytes, kPageBytes) - kHeaderBytes - address;
  std::size_t const after = mapped - before - kHeaderBytes - bytes;
  char* const begin = static_cast<char*>(memory) + before;
  if (before > 0) ::munmap(memory, before);
  if (after > 0) ::munmap(begin + kHeaderBytes + bytes, after);
  ::madvise(begin + kHeaderBytes, bytes, MADV_HUGEPAGE);
  return new (begin) PieceRegion{bytes, 0, 0};
}

void unmap(PieceRegion* region) noexcept {
  ::munmap(region, kHeaderBytes + region->bytes);
}

void giveBackPages(PieceRegion& region, std::size_t begin, std::size_t end) noexcept {
  if (begin >= end) return;
  ::madvise(region.start() + begin * kPageBytes, (end - begin) * kPageBytes, MADV_DONTNEED);
}

// Makes room in gRegion; false if the system gives none.
bool makeRoom(std::size_t bytes) noexcept {
  if (gRegion != nullptr && gRegion->used + bytes <= gRegion->bytes) return true;
  PieceRegion* const region = map(roundedUp(std::max(bytes, kRegionBytes), kPageBytes));
  if (region == nullptr) return false;
  PieceRegion* const former = std::exchange(gRegion, region);
  if (former == nullptr) return true;
  std::size_t const last = former->used / kPageBytes;
  if (former->live == 0) {
    unmap(former);
  } else if (former->used < former->bytes && former->touching()[last] == 0) {
    giveBackPages(*former, last, last + 1);
  }
  return true;
}

void* cut(PieceRegion& region, std::size_t bytes) noexcept {
  char* const memory = region.start() + region.used;
  std::size_t const first = region.used / kPageBytes;
  region.used += bytes;
  ++region.live;
  for (std::size_t i = first; i * kPageBytes < region.used; ++i) ++region.touching()[i];
  return memory;
}

// Gives back the pages that nothing but the piece at `offset` touched.
void giveBack(PieceRegion& region, std::size_t offset, std::size_t bytes) noexcept {
  std::size_t begin = offset / kPageBytes;
  std::size_t end = roundedUp(offset + bytes, kPageBytes) / kPageBytes;
  for (std::size_t i = begin; i < end; ++i) --region.touching()[i];
  if (--region.live == 0) {
    if (&region != gRegion) {
      unmap(&region);
      return;
    }
    // The first page is kept, for else few pieces that come and go would map one at each turn.
    begin = 1;
    end = roundedUp(region.used, kPageBytes) / kPageBytes;
    region.used = 0;
  } else {
    // The page from which the next piece is cut would only have to be got anew.
    if (&region == gRegion) end = std::min(end, region.used / kPageBytes);
    if (begin < end && region.touching()[begin] > 0) ++begin;
    if (begin < end && region.touching()[end - 1] > 0) --end;
  }
  giveBackPages(region, begin, end);
}

}  // namespace

PieceMemory allocatePiece(std::size_t bytes) {
  bool const isMuch = gLiveBytes.load(std::memory_order_relaxed) >= kLeastLiveBytes;
  PieceMemory piece{nullptr, nullptr};
  if (isMuch && bytes >= kLeastPieceBytes) {
    std::lock_guard const lock(gMutex);
    std::size_t const rounded = roundedUp(bytes, alignof(std::max_align_t));
    if (makeRoom(rounded)) piece = {cut(*gRegion, rounded), gRegion};
  }
  if (piece.memory == nullptr) piece.memory = ::operator new(bytes);
  gLiveBytes.fetch_add(bytes, std::memory_order_relaxed);
  return piece;
}

void freePiece(PieceMemory const& piece, std::size_t bytes) noexcept {
  gLiveBytes.fetch_sub(bytes, std::memory_order_relaxed);
  if (piece.region == nullptr) {
    ::operator delete(piece.memory);
    return;
  }
  std::lock_guard const lock(gMutex);
  auto const offset = static_cast<char*>(piece.memory) - piece.region->start();
  giveBack(*piece.region, static_cast<std::size_t>(offset), bytes);
}

void releaseFreePieces() noexcept {
  std::lock_guard const lock(gMutex);
  if (gRegion == nullptr || gRegion->live > 0) return;
  unmap(std::exchange(gRegion, nullptr));
}

}  // namespace KX
