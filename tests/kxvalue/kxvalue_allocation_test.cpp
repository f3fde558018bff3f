// Counts what the value allocates, by standing in for the global operator new of this program and
// of the libraries it has loaded.
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kxvalue/valuetexts.hpp"

namespace {
// Per thread, so that nothing but the test's own work is counted.
thread_local long tAllocations = 0;
thread_local long tLive = 0;
}  // namespace

// Never inlined: g++ takes the pair for mismatched where it sees into one of the two only.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++tAllocations;
  ++tLive;
  if (void* const memory = std::malloc(size); memory != nullptr) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) --tLive;
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  ::operator delete(memory);
}

namespace KX {
namespace {

template <class Action>
long allocationsOf(Action&& action) {
  long const before = tAllocations;
  action();
  return tAllocations - before;
}

KXValue longText() {
  return KXValue(std::string(1000, 'x'));
}

TEST(ValueAllocation, IsCountedInTheLibraryToo) {
  EXPECT_EQ(allocationsOf([] { KXValue().arraySetSize(1); }), 1);
}

TEST(ValueAllocation, NumbersTakeNone) {
  long const count = allocationsOf([] {
    KXValue value(1);
    value = 2.5;
    value = true;
    value = KXValue();
    KXValue const copy = value;
  });

  EXPECT_EQ(count, 0);
}

TEST(ValueAllocation, CopyingTakesNone) {
  std::vector<KXValue> values = oneOfEachType();
  values.push_back(longText());
  values.push_back(KXValue::arrayOf(longText(), KXValue::arrayOf(1, longText())));

  for (KXValue const& value : values) {
    SCOPED_TRACE(value.toString(2));
    KXValue assigned;
    EXPECT_EQ(allocationsOf([&] {
                KXValue const copy = value;
                assigned = copy;
                assigned = value;
              }),
              0);
  }
}

TEST(ValueAllocation, ReadingTakesNone) {
  KXValue const value = KXValue::arrayOf(1, longText(), KXValue::arrayOf(2.5));

  EXPECT_EQ(allocationsOf([&] {
              KXValue const element = value[2];
              static_cast<void>(static_cast<int>(value[0]));
              static_cast<void>(static_cast<std::string const&>(value[1]));
              static_cast<void>(static_cast<double>(element.arrayData()[0]));
              static_cast<void>(value == value);
            }),
            0);
}

TEST(ValueAllocation, MovingTakesNone) {
  KXValue value = KXValue::arrayOf(longText());

  EXPECT_EQ(allocationsOf([&] {
              KXValue taken = std::move(value);
              value = std::move(taken);
            }),
            0);
}

TEST(ValueAllocation, MovingKeepsTheBlockUnshared) {
  KXValue array = KXValue::arrayOf(1, 2);

  KXValue moved = std::move(array);
  KXValue* const elements = moved.arrayData();
  KXValue again;
  again = std::move(moved);

  // Had moving taken a share, writing would need a block of its own.
  EXPECT_EQ(allocationsOf([&] { again[0] = 5; }), 0);
  EXPECT_EQ(again.arrayData(), elements);
}

TEST(ValueAllocation, AnArrayTakesOne) {
  EXPECT_EQ(allocationsOf([] { KXValue::arrayOf(1, 2, 3); }), 1);
  EXPECT_EQ(allocationsOf([] { KXValue::arrayOf(); }), 1);
  EXPECT_EQ(allocationsOf([] { KXValue().arraySetSize(1000); }), 1);
  EXPECT_EQ(allocationsOf([] { KXValue().arrayPush(1); }), 1);
  EXPECT_EQ(allocationsOf([] { KXValue().arrayReserve(1000); }), 1);
}

TEST(ValueAllocation, ASampleTakesTwo) {
  KXValue const value = longText();

  EXPECT_EQ(allocationsOf([&] { KXValue::arrayOf(KXValue::arrayOf(12, 5), value); }), 2);
}

TEST(ValueAllocation, AShortTextTakesOne) {
  EXPECT_EQ(allocationsOf([] { KXValue("short"); }), 1);
  EXPECT_EQ(allocationsOf([] { KXValue::binary("short"); }), 1);
}

TEST(ValueAllocation, ATextMovedInIsNotCopied) {
  std::string text(1000, 'x');
  char const* const bytes = text.data();

  KXValue const value(std::move(text));

  EXPECT_EQ(static_cast<std::string const&>(value).data(), bytes);
}

TEST(ValueAllocation, PushingWithinTheReserveTakesNone) {
  KXValue array;
  array.arrayReserve(1000);

  EXPECT_EQ(allocationsOf([&] {
              for (int i = 0; i < 1000; ++i) array.arrayPush(i);
            }),
            0);
}

TEST(ValueAllocation, GrowingOneByOneTakesALogarithmicNumber) {
  KXValue pushed;
  KXValue resized;

  EXPECT_LE(allocationsOf([&] {
              for (int i = 0; i < 100'000; ++i) pushed.arrayPush(i);
            }),
            20);
  EXPECT_LE(allocationsOf([&] {
              for (int i = 1; i <= 100'000; ++i) resized.arraySetSize(i);
            }),
            20);
}

TEST(ValueAllocation, CuttingAndFillingUpAgainTakesNone) {
  KXValue array;
  array.arraySetSize(100);

  EXPECT_EQ(allocationsOf([&] {
              array.arraySetSize(0);
              array.arraySetSize(100);
            }),
            0);
}

TEST(ValueAllocation, TheFirstChangeOfASharedArrayTakesOneAndTheNextNone) {
  KXValue array;
  array.arraySetSize(100);
  KXValue const copy = array;

  EXPECT_EQ(allocationsOf([&] { array[0] = 1; }), 1);
  EXPECT_EQ(allocationsOf([&] { array[1] = 1; }), 0);
}

TEST(ValueAllocation, TheLastOwnerOfAnArrayChangesItInPlace) {
  KXValue array = KXValue::arrayOf(1, 2);
  { KXValue const copy = array; }

  EXPECT_EQ(allocationsOf([&] { array[0] = 5; }), 0);
}

TEST(ValueAllocation, EverythingIsFreedOnceByTheLastOwner) {
  long const before = tLive;
  {
    KXValue const text = longText();
    KXValue array = KXValue::arrayOf(text, KXValue::arrayOf(text, KXValue::binary("bytes")), 5);
    KXValue const copy = array;
    array[1][0] = KXValue::arrayOf(array, copy);
    array.arrayPush(array);
    array.arraySetSize(3);
    array = copy[1];
  }

  EXPECT_EQ(tLive, before);
}

TEST(ValueAllocation, ARefusedChangeKeepsNothing) {
  KXValue text = longText();
  long const before = tLive;

  EXPECT_NE(errorOf([&] { text.arrayPush(KXValue::arrayOf(1)); }), "none");
  EXPECT_NE(errorOf([&] { KXValue::arrayOf(1, 2)[7]; }), "none");

  EXPECT_EQ(tLive, before);
}

}  // namespace
}  // namespace KX
