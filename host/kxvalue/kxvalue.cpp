#include <kxvalue/kxvalue.hpp>

#include <algorithm>
#include <limits>
#include <new>

#include <kxerror/kxerror.hpp>

#include "host/kxvalue/kxlevels.hpp"

namespace KX {

namespace {

[[noreturn]] void fail(char const* method, std::string const& text) {
  throw KXError("KXValue", method, text, "kxvalue/kxvalue", 0);
}

std::size_t checkedSize(char const* method, int size) {
  if (size < 0) fail(method, "expected a size of 0 or more, got " + std::to_string(size));
  return static_cast<std::size_t>(size);
}

// Room for `wanted` elements in place of the `kept` ones. An array that grows at least doubles, so
// that growing it one by one costs linear time.
std::size_t grownCapacity(std::size_t kept, std::size_t wanted) {
  constexpr std::size_t kMost = std::numeric_limits<int>::max();
  if (wanted > kMost) {
    fail("arrayReserve",
         "an array holds at most 2147483647 elements, asked for " + std::to_string(wanted));
  }
  return wanted > kept ? std::max(wanted, std::min(2 * kept, kMost)) : kept;
}

}  // namespace

KXValue::KXValue(char const* text) : KXValue(std::string(text == nullptr ? "" : text)) {}

KXValue::KXValue(std::string text) : KXValue(TypeString, new TextBlock(std::move(text))) {}

KXValue KXValue::binary(std::string bytes) {
  return KXValue(TypeBinary, new TextBlock(std::move(bytes)));
}

KXValue::KXValue(std::vector<std::string> const& texts) : KXValue() {
  KXValue array;
  array.xOwnArray(texts.size());
  for (std::string const& text : texts) array.arrayPush(KXValue(text));
  swap(array);
}

KXValue::KXValue(std::vector<KXValue> elements) : KXValue() {
  xOwnArray(elements.size());
  ArrayBlock* const block = xArray();
  for (KXValue& element : elements)
    new (block->elements() + block->size++) KXValue(std::move(element));
}

// Makes this an array whose block nobody shares, with room for `capacity` elements: its elements
// are kept, a value that was no array becomes an empty one.
void KXValue::xOwnArray(std::size_t capacity) {
  mHead &= ~kAsBuilt;  // only arrays have it, and what follows lets elements be written
  bool const isAlone = xIsAloneArray();
  if (isAlone && capacity <= xCapacity()) return;

  std::size_t const kept = getType() == TypeArray ? xArray()->size : 0;
  std::size_t const room = grownCapacity(kept, capacity);
  KXValue grown;
  grown.xSetArray(xNewBlock(room), room);
  ArrayBlock* const block = grown.xArray();
  for (; block->size < kept; ++block->size) {
    KXValue& old = xArray()->elements()[block->size];
    KXValue* const target = block->elements() + block->size;
    if (isAlone) {
      new (target) KXValue(std::move(old));
    } else {
      new (target) KXValue(old);
    }
  }
  swap(grown);
}

void KXValue::xMakeRoom() {
  if (isValid() && getType() != TypeArray) xFailType("arrayPush", TypeArray);
  xOwnArray(std::max<std::size_t>(4, static_cast<std::size_t>(getSize()) + 1));
}

void KXValue::xFailType(char const* method, Type expected) const {
  fail(method,
       "expected a value of type " + TypeToString(expected) + ", got " + TypeToString(getType()));
}

void KXValue::xFailIndex(int index) const {
  if (getType() != TypeArray) xFailType("operator[]", TypeArray);
  fail("operator[]", "index " + std::to_string(index) + " is out of range, the array has " +
                         std::to_string(xArray()->size) + " elements");
}

void KXValue::arraySetSize(int size) {
  std::size_t const wanted = checkedSize("arraySetSize", size);
  xOwnArray(wanted);
  ArrayBlock* const block = xArray();
  if (block->size > wanted) {
    std::destroy(block->elements() + wanted, block->elements() + block->size);
  } else {
    std::uninitialized_default_construct(block->elements() + block->size,
                                         block->elements() + wanted);
  }
  block->size = static_cast<std::uint32_t>(wanted);
}

void KXValue::arrayReserve(int capacity) {
  if (isValid() && getType() != TypeArray) xFailType("arrayReserve", TypeArray);
  xOwnArray(checkedSize("arrayReserve", capacity));
}

KXValue* KXValue::arrayData() {
  if (getType() != TypeArray) xFailType("arrayData", TypeArray);
  xOwnArray(0);
  return xArray()->elements();
}

KXValue const* KXValue::arrayData() const {
  if (getType() != TypeArray) xFailType("arrayData", TypeArray);
  return xArray()->elements();
}

void KXValue::ToStringArray(std::vector<std::string>& texts, bool convertElements) const {
  if (getType() != TypeArray) xFailType("ToStringArray", TypeArray);
  KXValue const* const elements = xArray()->elements();
  texts.reserve(texts.size() + xArray()->size);
  for (std::uint32_t i = 0; i < xArray()->size; ++i) {
    if (elements[i].getType() == TypeString) {
      texts.push_back(static_cast<std::string const&>(elements[i]));
    } else if (convertElements) {
      texts.push_back(elements[i].toString(0));
    } else {
      fail("ToStringArray", "expected element " + std::to_string(i) + " to be a string, got " +
                                TypeToString(elements[i].getType()));
    }
  }
}

bool KXValue::xEqualsInItself(KXValue const& other) const {
  if (getType() != other.getType()) return false;
  switch (getType()) {
    case TypeInvalid:
      return true;
    case TypeBool:
      return mPayload.asBool == other.mPayload.asBool;
    case TypeInt:
      return mPayload.asInt == other.mPayload.asInt;
    case TypeFloat:
      return mPayload.asDouble == other.mPayload.asDouble;
    case TypeString:
    case TypeBinary:
      return xText()->text == other.xText()->text;
    case TypeArray:
      return xArray()->size == other.xArray()->size;
  }
  return false;
}

bool KXValue::operator==(KXValue const& other) const {
  if (!xEqualsInItself(other)) return false;
  if (getType() != TypeArray) return true;

  struct Level {
    KXValue const* left;
    KXValue const* end;
    KXValue const* right;
  };
  Levels<Level> levels;
  KXValue const* left = this;
  KXValue const* right = &other;
  for (;;) {
    if (left->getType() == TypeArray) {
      KXValue const* const elements = left->arrayData();
      levels.push({elements, elements + left->xArray()->size, right->arrayData()});
    }
    while (!levels.isEmpty() && levels.last().left == levels.last().end) levels.pop();
    if (levels.isEmpty()) return true;
    left = levels.last().left++;
    right = levels.last().right++;
    if (!left->xEqualsInItself(*right)) return false;
  }
}

}  // namespace KX
