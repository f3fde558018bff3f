#include <climits>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <kxvalue/kxrows.hpp>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

/// [[0, 0], [1, 10], ...]
KXValue pairs(int count) {
  KXRows rows(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) rows.push(i, 10 * i);
  return rows.take();
}

/// [[[0, 0], 0.5], [[1, 10], 1.5], ...], the pairs those of `times`.
KXValue samples(KXValue const& times) {
  auto const count = static_cast<std::size_t>(times.getSize());
  KXRows rows(count, times);
  for (std::size_t i = 0; i < count; ++i) rows.pushShared(i, static_cast<double>(i) + 0.5);
  return rows.take();
}

std::string textOfSamples(int count) {
  std::string text = "[";
  for (int i = 0; i < count; ++i) {
    std::string const number = std::to_string(i);
    text += (i > 0 ? ",[[" : "[[") + number + "," + std::to_string(10 * i) + "]," + number + ".5]";
  }
  return text + "]";
}

TEST(Rows, GiveAnArrayOfRowsInOrder) {
  for (int const count : {0, 1, 2, 3, 1000}) {
    SCOPED_TRACE(count);
    KXValue const array = samples(pairs(count));

    EXPECT_EQ(array.getType(), KXValue::TypeArray);
    EXPECT_EQ(array.getSize(), count);
    EXPECT_EQ(array.toString(1), textOfSamples(count));
  }
}

TEST(Rows, TakeAnyValueAsFirstAndAsSecond) {
  for (KXValue const& value : oneOfEachType()) {
    SCOPED_TRACE(value.toString(2));
    KXValue const shared = KXValue::arrayOf("other", value);
    KXRows rows(3, shared);
    rows.push(value, 1);
    rows.push(2, value);
    rows.pushShared(1, value);

    EXPECT_EQ(rows.take(), KXValue::arrayOf(KXValue::arrayOf(value, 1), KXValue::arrayOf(2, value),
                                            KXValue::arrayOf(value, value)));
  }
}

TEST(Rows, MayStayBelowTheirCapacity) {
  KXRows rows(1000, pairs(1000));
  EXPECT_EQ(rows.getSize(), 0U);

  rows.pushShared(7, "only");

  EXPECT_EQ(rows.getSize(), 1U);
  EXPECT_EQ(rows.take().toString(1), R"([[[7,70],"only"]])");
  EXPECT_EQ(KXRows(1000, pairs(1000)).take(), KXValue::arrayOf());
}

TEST(Rows, OfNoCapacityGiveAnEmptyArray) {
  EXPECT_EQ(KXRows(0).take(), KXValue::arrayOf());
  EXPECT_EQ(KXRows(0, pairs(3)).take(), KXValue::arrayOf());
}

TEST(Rows, WithoutRoomGiveAnInvalidValue) {
  KXRows made;
  KXRows taken(3);
  static_cast<void>(taken.take());
  KXRows moved(3);
  KXRows const target(std::move(moved));

  for (KXRows* const rows : {&made, &taken, &moved}) {
    EXPECT_EQ(rows->getSize(), 0U);
    EXPECT_EQ(rows->take(), KXValue());
  }
}

TEST(Rows, RefuseMoreThanAnArrayCanHold) {
  EXPECT_THROW(KXRows(std::size_t{INT_MAX} + 1), std::bad_alloc);
  EXPECT_THROW(KXRows(SIZE_MAX), std::bad_alloc);
}

TEST(Rows, GoOnInTheBuilderTheyAreMovedTo) {
  KXRows source(4, pairs(4));
  source.pushShared(1, "a");

  KXRows target(std::move(source));
  target.pushShared(2, "b");
  KXRows assigned(9);
  assigned.push(0, 0);
  assigned = std::move(target);
  assigned.push(3, "c");

  EXPECT_EQ(assigned.take().toString(1), R"([[[1,10],"a"],[[2,20],"b"],[3,"c"]])");
}

TEST(Row, ShareThePlacesOfTheSharedArray) {
  KXValue const times = pairs(3);
  KXValue const one = samples(times);
  KXValue const other = samples(times);

  EXPECT_TRUE(one[1][0].sharesBlockWith(times[1]));
  EXPECT_TRUE(one[1][0].sharesBlockWith(other[1][0]));
  EXPECT_FALSE(one[1][0].sharesBlockWith(other[2][0]));
  KXValue const copy = one[1][0];
  EXPECT_TRUE(copy.sharesBlockWith(other[1][0]));
}

TEST(Row, ChangesAloneWhereverItIsWritten) {
  struct {
    char const* name;
    void (*change)(KXValue&);
    char const* text;
  } const cases[] = {
      {"assign a row", [](KXValue& v) { v[1] = 9; }, "9"},
      {"assign the shared element", [](KXValue& v) { v[1][0] = 9; }, "[9,1.5]"},
      {"assign in the shared element", [](KXValue& v) { v[1][0][0] = 9; }, "[[9,10],1.5]"},
      {"assign the second", [](KXValue& v) { v[1][1] = "text"; }, R"([[1,10],"text"])"},
      {"push", [](KXValue& v) { v[1].arrayPush(9); }, "[[1,10],1.5,9]"},
      {"push onto the shared element", [](KXValue& v) { v[1][0].arrayPush(9); }, "[[1,10,9],1.5]"},
      {"cut", [](KXValue& v) { v[1].arraySetSize(1); }, "[[1,10]]"},
      {"cut and push",
       [](KXValue& v) {
         v[1].arraySetSize(1);
         v[1].arrayPush(9);
       },
       "[[1,10],9]"},
      {"cut all and fill up",
       [](KXValue& v) {
         v[1].arraySetSize(0);
         v[1].arraySetSize(2);
       },
       "[null,null]"},
      {"grow", [](KXValue& v) { v[1].arraySetSize(4); }, "[[1,10],1.5,null,null]"},
      {"reserve", [](KXValue& v) { v[1].arrayReserve(4); }, "[[1,10],1.5]"},
      {"write by pointer", [](KXValue& v) { v[1].arrayData()[0].arrayData()[1] = 9; },
       "[[1,9],1.5]"},
      {"move the row out", [](KXValue& v) { KXValue const out = std::move(v[1]); }, "null"},
      {"move the shared element out", [](KXValue& v) { KXValue const out = std::move(v[1][0]); },
       "[null,1.5]"},
      {"swap the elements", [](KXValue& v) { v[1][0].swap(v[1][1]); }, "[1.5,[1,10]]"},
      {"swap with another row's", [](KXValue& v) { v[1][0].swap(v[2][0]); }, "[[2,20],1.5]"},
      {"assign to itself", [](KXValue& v) { v[1][0] = std::move(v[1][0]); }, "[[1,10],1.5]"},
      {"assign its own element", [](KXValue& v) { v[1] = std::move(v[1][0]); }, "[1,10]"},
  };

  for (auto const& each : cases) {
    for (bool const isCopied : {false, true}) {
      SCOPED_TRACE(std::string(each.name) + (isCopied ? ", copied" : ""));
      KXValue const times = pairs(3);
      KXValue const other = samples(times);
      KXValue array = samples(times);
      KXValue const copy = isCopied ? array : KXValue();

      each.change(array);

      EXPECT_EQ(std::as_const(array)[1].toString(1), each.text);
      EXPECT_EQ(array.getSize(), 3);
      EXPECT_EQ(std::as_const(array)[0].toString(1), "[[0,0],0.5]");
      EXPECT_EQ(times.toString(1), "[[0,0],[1,10],[2,20]]");
      EXPECT_EQ(other.toString(1), textOfSamples(3));
      if (isCopied) {
        EXPECT_EQ(copy.toString(1), textOfSamples(3));
      }
    }
  }
}

TEST(Row, AndItsSharedElementOutliveAllElse) {
  KXValue row;
  KXValue pair;
  KXValue moved;
  KXValue movedPair;
  KXValue swapped;
  KXValue swappedOut;
  {
    KXValue times = pairs(5);
    KXValue array = samples(times);
    row = std::as_const(array)[1];
    pair = std::as_const(array)[2][0];
    moved = std::move(array[3]);
    movedPair = std::move(times.arrayData()[4]);
    swapped.swap(array[0][0]);
    array[4][0].swap(swappedOut);
  }

  EXPECT_EQ(pair.toString(1), "[2,20]");
  EXPECT_EQ(movedPair.toString(1), "[4,40]");
  EXPECT_EQ(swapped.toString(1), "[0,0]");
  EXPECT_EQ(swappedOut.toString(1), "[4,40]");
  EXPECT_EQ(moved.toString(1), "[[3,30],3.5]");
  EXPECT_EQ(row.toString(1), "[[1,10],1.5]");
  pair[0] = 9;
  row[0][0] = 9;
  EXPECT_EQ(pair.toString(1), "[9,20]");
  EXPECT_EQ(row.toString(1), "[[9,10],1.5]");
}

TEST(Row, LetsGoOfItsValueWhenItGoes) {
  KXValue kept;
  KXValue text = KXValue::arrayOf("value");
  {
    KXRows rows(2);
    rows.push(0, text);
    rows.push(1, 2.5);
    kept = std::as_const(static_cast<KXValue const&>(rows.take()))[1];
  }

  // Nobody shares the value of the row that went, though its piece lasts.
  KXValue const* const elements = std::as_const(text).arrayData();
  text[0] = "changed";
  EXPECT_EQ(text.arrayData(), elements);
  EXPECT_EQ(kept.toString(1), "[1,2.5]");
}

TEST(RowsDestruction, OfPiecesThatShareOnAndOnNeedsNoStack) {
  for (int const levels : {1, 2, 300'000}) {
    SCOPED_TRACE(levels);
    KXValue array = KXValue::arrayOf("end");
    for (int i = 0; i < levels; ++i) {
      KXRows rows(1, std::move(array));
      rows.pushShared(0, i);
      array = rows.take();
    }

    EXPECT_EQ(array.getSize(), 1);
  }
}

TEST(RowsDestruction, OfRowsInRowsNeedsNoStack) {
  KXValue inFirst = "end";
  KXValue inSecond = "end";
  for (int i = 0; i < 300'000; ++i) {
    KXRows first(2);
    first.push(std::move(inFirst), i);
    first.push(i, "text");
    inFirst = first.take();
    KXRows second(2);
    second.push(i, std::move(inSecond));
    second.push(i, KXValue::arrayOf(i));
    inSecond = second.take();
  }

  EXPECT_EQ(inFirst.getSize(), 2);
  EXPECT_EQ(inSecond.getSize(), 2);
}

}  // namespace
}  // namespace KX
