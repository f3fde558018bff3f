// The stack of a walk through nested arrays, which nest as deep as memory allows.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace KX {

/// Levels of a walk, the innermost last. The first few take no allocation, which is all that values
/// commonly have.
template <class Level>
class Levels {
 public:
  bool isEmpty() const { return mSize == 0; }
  Level& last() { return mSize <= kNear ? mNear[mSize - 1] : mFar.back(); }
  void push(Level const& level) {
    if (mSize < kNear) {
      mNear[mSize] = level;
    } else {
      mFar.push_back(level);
    }
    ++mSize;
  }
  void pop() {
    if (mSize > kNear) mFar.pop_back();
    --mSize;
  }

 private:
  static constexpr std::size_t kNear = 8;

  std::size_t mSize = 0;
  std::array<Level, kNear> mNear;
  std::vector<Level> mFar;
};

}  // namespace KX
