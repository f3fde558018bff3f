// How blocks go: the last share of a value drops a whole tree, of any depth and size, on the thread
// that happened to hold it. So nothing here recurses and nothing allocates.
#include <algorithm>
#include <atomic>
#include <chrono>

#include <ka/os.hpp>
#include <kxvalue/kxrows.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

/// Frees a block that has lost its last owner, and what it was the last to own.
class KXValue::Freeing {
 public:
  // From here on a freed tree counts as a peak: a fetch of some hundred thousand samples.
  static constexpr std::size_t kPeakBytes = std::size_t{32} << 20;

  void free(std::uint64_t head, Block* block) noexcept {
    freeTree(head, block);
    giveBack();
    while (mDead != nullptr) {
      Piece* const piece = mDead;
      mDead = piece->next;
      std::uint64_t const sharedHead = piece->shared.mHead;
      Block* const shared = piece->shared.mPayload.asBlock;
      freePiece(piece);
      freeTree(sharedHead, shared);
      giveBack();
    }
    if (mBytes > kPeakBytes && isLonePeak(mBytes)) ka::os::releaseFreeMemory();
  }

 private:
  // Peaks of one size that follow each other closely are a client that fetches much each time: its
  // memory is wanted again at once, and pages that were given back are dear to get.
  static bool isLonePeak(std::size_t bytes) noexcept {
    using Clock = std::chrono::steady_clock;
    static std::atomic<Clock::rep> lastTime{Clock::duration::min().count() / 2};
    static std::atomic<std::size_t> lastBytes{0};
    Clock::duration const now = Clock::now().time_since_epoch();
    Clock::duration const since = now - Clock::duration(lastTime.exchange(now.count()));
    std::size_t const before = lastBytes.exchange(bytes);
    return since > std::chrono::seconds(10) || bytes > 2 * before || bytes < before / 2;
  }

  // The way back up stands in the elements that have been dropped.
  void freeTree(std::uint64_t rootHead, Block* root) noexcept {
    if ((rootHead & kTypeMask) != TypeArray) {
      freeText(static_cast<TextBlock*>(root));
      return;
    }
    auto* array = static_cast<ArrayBlock*>(root);
    if (giveBackWhole(rootHead, array)) return;
    ArrayBlock* parent = nullptr;
    std::int32_t next = 0;
    for (;;) {
      if (ArrayBlock* const child = dropElements(array, next); child != nullptr) {
        // Where to go on: the index in the dead counter, the way up in the dead element.
        array->references.store(next, std::memory_order_relaxed);
        array->elements()[next - 1].mPayload.asBlock = parent;
        parent = array;
        array = child;
        next = 0;
        continue;
      }
      if (parent == nullptr) {
        freeBlock(rootHead, array);
        return;
      }
      next = parent->references.load(std::memory_order_relaxed);
      KXValue const& element = parent->elements()[next - 1];
      freeBlock(element.mHead, array);
      array = parent;
      parent = element.xArray();
    }
  }

  // Drops elements from `next` on up to the first array that loses its last owner by it and that
  // owns something in turn, and gives that array's block; null when no element is left.
  ArrayBlock* dropElements(ArrayBlock* array, std::int32_t& next) noexcept {
    auto const size = static_cast<std::int32_t>(array->size);
    while (next < size) {
      KXValue const& element = array->elements()[next++];
      if (!element.xHoldsShare() || !xDropShare(element.mPayload.asBlock)) continue;
      if (element.getType() != TypeArray) {
        freeText(element.xText());
      } else if (!giveBackWhole(element.mHead, element.xArray())) {
        return element.xArray();
      }
    }
    return nullptr;
  }

  // Gives back an array in a piece if that needs no look at what its elements own: a row with
  // nothing of its own, or an array as it was built, with all its rows.
  bool giveBackWhole(std::uint64_t head, ArrayBlock* array) noexcept {
    if ((head & kInPiece) == 0) return false;
    std::size_t blocks = 1;
    if ((head & kAsBuilt) != 0) {
      Piece* const piece = Piece::of(head, array);
      if (piece->holdsShares || piece->isCopied.load(std::memory_order_relaxed)) return false;
      blocks += array->size;
    } else if (ownsSomething(array)) {
      return false;
    }
    giveBack(Piece::of(head, array), blocks);
    return true;
  }

  static bool ownsSomething(ArrayBlock* array) noexcept {
    KXValue const* const elements = array->elements();
    return std::any_of(elements, elements + array->size,
                       [](KXValue const& each) { return each.xHoldsShare(); });
  }

  void freeText(TextBlock* text) noexcept {
    mBytes += sizeof(TextBlock) + text->text.capacity();
    delete text;
  }

  void freeBlock(std::uint64_t head, ArrayBlock* array) noexcept {
    if ((head & kInPiece) != 0) {
      giveBack(Piece::of(head, array), 1);
    } else {
      mBytes += sizeof(ArrayBlock) + (head >> kCapacityShift) * sizeof(KXValue);
      ::operator delete(array);
    }
  }

  void freePiece(Piece* piece) noexcept {
    mBytes += piece->bytes;
    ::operator delete(piece);
  }

  // The rows of an array mostly lie in one piece, so they are counted and given back at once.
  void giveBack(Piece* piece, std::size_t blocks) noexcept {
    if (piece != mPiece) {
      giveBack();
      mPiece = piece;
    }
    mGiven += blocks;
  }

  void giveBack() noexcept {
    Piece* const piece = mPiece;
    std::size_t const given = mGiven;
    mPiece = nullptr;
    mGiven = 0;
    if (piece == nullptr) return;
    // As with shares, who gives back all that is left needs no atomic write.
    if (piece->blocks.load(std::memory_order_acquire) != given &&
        piece->blocks.fetch_sub(given, std::memory_order_acq_rel) != given) {
      return;
    }
    if (piece->shared.xHoldsShare() && xDropShare(piece->shared.mPayload.asBlock)) {
      piece->next = mDead;
      mDead = piece;
    } else {
      freePiece(piece);
    }
  }

  Piece* mPiece = nullptr;  // in which the blocks counted last lay
  std::size_t mGiven = 0;   // of them
  Piece* mDead = nullptr;   // pieces without blocks, the last owners of what they shared
  std::size_t mBytes = 0;   // freed so far
};

void KXValue::xFree(std::uint64_t head, Block* block) noexcept {
  Freeing().free(head, block);
}

}  // namespace KX
