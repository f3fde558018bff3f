// Counts what the value allocates, by standing in for the global operator new of this program and
// of the libraries it has loaded.
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/allocationcount.hpp"
#include "tests/kxvalue/valuetexts.hpp"

namespace {
thread_local long tAllocations = 0;
thread_local std::size_t tBytes = 0;
std::atomic<long> gLive{0};
}  // namespace

// Never inlined: g++ takes the pair for mismatched where it sees into one of the two only.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++tAllocations;
  tBytes += size;
  gLive.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size); memory != nullptr) return memory;
  throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) gLive.fetch_sub(1, std::memory_order_relaxed);
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  ::operator delete(memory);
}

namespace KX {

long allocationsOfThisThread() {
  return tAllocations;
}

long liveAllocations() {
  return gLive.load(std::memory_order_relaxed);
}

namespace {

template <class Action>
long allocationsOf(Action&& action) {
  long const before = allocationsOfThisThread();
  action();
  return allocationsOfThisThread() - before;
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
  long const before = liveAllocations();
  {
    KXValue const text = longText();
    KXValue array = KXValue::arrayOf(text, KXValue::arrayOf(text, KXValue::binary("bytes")), 5);
    KXValue const copy = array;
    array[1][0] = KXValue::arrayOf(array, copy);
    array.arrayPush(array);
    array.arraySetSize(3);
    array = copy[1];
  }

  EXPECT_EQ(liveAllocations(), before);
}

TEST(ValueAllocation, ARefusedChangeKeepsNothing) {
  KXValue text = longText();
  long const before = liveAllocations();

  EXPECT_NE(errorOf([&] { text.arrayPush(KXValue::arrayOf(1)); }), "none");
  EXPECT_NE(errorOf([&] { KXValue::arrayOf(1, 2)[7]; }), "none");

  EXPECT_EQ(liveAllocations(), before);
}

/// [[0, 0], [1, 10], ...]
KXValue pairs(std::size_t count) {
  KXRows rows(count);
  for (std::size_t i = 0; i < count; ++i) rows.push(static_cast<int>(i), static_cast<int>(10 * i));
  return rows.take();
}

KXValue samples(KXValue const& times) {
  auto const count = static_cast<std::size_t>(times.getSize());
  KXRows rows(count, times);
  for (std::size_t i = 0; i < count; ++i) rows.pushShared(i, 2.5);
  return rows.take();
}

TEST(RowsAllocation, AnArrayOfAnyNumberOfRowsTakesOne) {
  for (std::size_t const count : {0U, 1U, 2U, 1000U}) {
    SCOPED_TRACE(count);
    KXValue times;
    EXPECT_EQ(allocationsOf([&] { times = pairs(count); }), 1);
    EXPECT_EQ(allocationsOf([&] { samples(times); }), 1);
  }
  EXPECT_EQ(allocationsOf([] { KXRows(); }), 0);
}

TEST(RowsAllocation, ARowTakes56Bytes) {
  constexpr std::size_t kRows = 1000;
  constexpr std::size_t kPerArray = 64;
  KXValue const times = pairs(kRows);
  std::size_t const before = tBytes;

  KXValue const array = samples(times);

  EXPECT_LE(tBytes - before, kRows * 56 + kPerArray);
}

TEST(RowsAllocation, FillingTakingReadingAndCopyingTakeNone) {
  KXValue const times = pairs(10);
  KXValue const text = longText();
  KXRows rows(10, times);

  EXPECT_EQ(allocationsOf([&] {
              for (std::size_t i = 0; i < 5; ++i) rows.pushShared(i, text);
              for (int i = 0; i < 5; ++i) rows.push(i, text);
              KXRows moved = std::move(rows);
              KXValue const array = moved.take();
              KXValue const row = array[1];
              KXValue const pair = row[0];
              static_cast<void>(array == array);
            }),
            0);
}

TEST(RowsAllocation, ARowThatNobodySharesIsChangedInItsPiece) {
  KXValue array = samples(pairs(10));

  EXPECT_EQ(allocationsOf([&] {
              array[3] = 1;
              array[4][0] = 2;
              array[5][1] = 3;
              array[6].arraySetSize(1);
              KXValue const row = std::move(array[7]);
              KXValue const pair = std::move(array[8][0]);
            }),
            0);
  EXPECT_EQ(allocationsOf([&] { array[9].arrayPush(1); }), 1);
  EXPECT_EQ(allocationsOf([&] { array.arrayPush(1); }), 1);
}

TEST(RowsAllocation, EverythingIsFreedWithTheLastRow) {
  long const before = liveAllocations();
  {
    KXValue times = pairs(20);
    KXValue array = samples(times);
    KXValue const untouched = samples(times);
    KXValue row = std::as_const(array)[1];
    KXValue const pair = std::as_const(array)[2][0];
    KXValue const moved = std::move(array[3]);
    KXValue const movedPair = std::move(times.arrayData()[4]);
    array[5] = longText();
    array[6][1] = array;
    array[7].arrayPush(KXValue::arrayOf(pair));
    array.arraySetSize(10);
    row[0][0] = KXValue::arrayOf(array);
    KXRows abandoned(10, array);
    abandoned.pushShared(3, longText());
    abandoned.push(longText(), array);
    KXRows const empty(10, array);
    KXRows none(0, array);
    KXValue const nothing = none.take();
  }

  EXPECT_EQ(liveAllocations(), before);
}

// What one row keeps of the others is its piece, not their values.
TEST(RowsAllocation, ARowThatStaysKeepsNoOthersValue) {
  KXValue row;
  long const before = liveAllocations();
  {
    KXRows rows(100);
    for (int i = 0; i < 100; ++i) rows.push(KXValue::arrayOf(i), longText());
    row = std::as_const(static_cast<KXValue const&>(rows.take()))[50];
  }

  // The piece, the row's array, its text and the characters.
  EXPECT_EQ(liveAllocations(), before + 4);
}

}  // namespace
}  // namespace KX
