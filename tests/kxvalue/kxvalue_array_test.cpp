#include <climits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

KXValue numbers(int count) {
  KXValue array;
  for (int i = 0; i < count; ++i) array.arrayPush(i);
  return array;
}

TEST(ValueIndex, RefusesAnIndexOutOfRangeNamingIndexAndSize) {
  struct {
    int size;
    int index;
    char const* error;
  } const cases[] = {
      {0, 0, "operator[]: index 0 is out of range, the array has 0 elements"},
      {3, 3, "operator[]: index 3 is out of range, the array has 3 elements"},
      {3, -1, "operator[]: index -1 is out of range, the array has 3 elements"},
      {3, INT_MAX, "operator[]: index 2147483647 is out of range, the array has 3 elements"},
      {3, INT_MIN, "operator[]: index -2147483648 is out of range, the array has 3 elements"},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.error);
    KXValue array;
    array.arraySetSize(each.size);
    EXPECT_EQ(errorOf([&] { array[each.index]; }), each.error);
    EXPECT_EQ(errorOf([&] { std::as_const(array)[each.index]; }), each.error);
  }
}

TEST(ValueIndex, LeavesASharedArraySharedWhenItRefuses) {
  KXValue array = numbers(3);
  KXValue const copy = array;

  EXPECT_NE(errorOf([&] { array[3]; }), "none");

  EXPECT_TRUE(array.sharesBlockWith(copy));
}

TEST(ValueIndex, ReadsWithoutEndingTheSharing) {
  KXValue const array = numbers(3);
  KXValue const copy = array;

  EXPECT_EQ(copy[2], KXValue(2));
  EXPECT_EQ(copy.arrayData()[1], KXValue(1));
  EXPECT_TRUE(array.sharesBlockWith(copy));
}

TEST(ValueIndex, WritesThroughTheReference) {
  KXValue array = numbers(3);

  array[1] = "one";
  array.arrayData()[2] = KXValue();

  EXPECT_EQ(array, KXValue::arrayOf(0, "one", KXValue()));
}

TEST(ValueSetSize, MakesAnArrayOfInvalidElements) {
  KXValue array;

  array.arraySetSize(3);

  EXPECT_EQ(array, KXValue::arrayOf(KXValue(), KXValue(), KXValue()));
}

TEST(ValueSetSize, KeepsWhatFitsAndFillsUpWithInvalid) {
  struct {
    int size;
    char const* text;
  } const cases[] = {
      {0, "[]"}, {1, R"(["a"])"}, {2, R"(["a",[1]])"}, {4, R"(["a",[1],null,null])"}};

  for (auto const& each : cases) {
    for (bool const isShared : {false, true}) {
      SCOPED_TRACE(std::to_string(each.size) + (isShared ? " shared" : ""));
      KXValue array = KXValue::arrayOf("a", KXValue::arrayOf(1));
      KXValue const copy = isShared ? array : KXValue();

      array.arraySetSize(each.size);

      EXPECT_EQ(array.toString(1), each.text);
      if (isShared) {
        EXPECT_EQ(copy.toString(1), R"(["a",[1]])");
      }
    }
  }
}

TEST(ValueSetSize, FillsUpWithInvalidWhereElementsWereCutOff) {
  KXValue array = numbers(4);

  array.arraySetSize(1);
  array.arraySetSize(3);

  EXPECT_EQ(array, KXValue::arrayOf(0, KXValue(), KXValue()));
}

TEST(ValueSetSize, ReplacesWhatIsNoArray) {
  for (KXValue value : oneOfEachType()) {
    if (value.getType() == KXValue::TypeArray) continue;
    SCOPED_TRACE(value.toString(2));

    value.arraySetSize(1);

    EXPECT_EQ(value, KXValue::arrayOf(KXValue()));
  }
}

TEST(ValueSetSize, RefusesANegativeSizeAndChangesNothing) {
  KXValue text("text");

  EXPECT_EQ(errorOf([&] { text.arraySetSize(-1); }),
            "arraySetSize: expected a size of 0 or more, got -1");

  EXPECT_EQ(text, KXValue("text"));
}

TEST(ValueReserve, ChangesNoElement) {
  KXValue array = numbers(3);
  KXValue const copy = array;

  array.arrayReserve(100);
  array.arrayReserve(0);

  EXPECT_EQ(array, copy);
}

TEST(ValueReserve, MakesAnInvalidValueAnEmptyArray) {
  KXValue array;

  array.arrayReserve(0);

  EXPECT_EQ(array, KXValue::arrayOf());
}

TEST(ValueReserve, RefusesOtherTypesAndNegativeSizes) {
  EXPECT_EQ(errorOf([] { KXValue("text").arrayReserve(1); }),
            "arrayReserve: expected a value of type array, got string");
  EXPECT_EQ(errorOf([] { KXValue().arrayReserve(-5); }),
            "arrayReserve: expected a size of 0 or more, got -5");
}

TEST(ValuePush, AppendsInOrder) {
  KXValue const array = numbers(1000);

  ASSERT_EQ(array.getSize(), 1000);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(array[i], KXValue(i));
}

TEST(ValuePush, RefusesEveryOtherTypeAndChangesNothing) {
  for (KXValue value : oneOfEachType()) {
    if (value.getType() == KXValue::TypeArray || !value.isValid()) continue;
    std::string const given = KXValue::TypeToString(value.getType());
    KXValue const before = value;

    EXPECT_EQ(errorOf([&] { value.arrayPush(1); }),
              "arrayPush: expected a value of type array, got " + given);

    EXPECT_EQ(value, before);
  }
}

TEST(ValuePush, OfItselfAppendsTheArrayAsItWas) {
  for (int const size : {1, 3, 4, 5}) {
    SCOPED_TRACE(size);
    KXValue array = numbers(size);
    KXValue const before = numbers(size);

    array.arrayPush(array);

    ASSERT_EQ(array.getSize(), size + 1);
    EXPECT_EQ(array[size], before);
    array.arraySetSize(size);
    EXPECT_EQ(array, before);
  }
}

TEST(ValuePush, OfAnOwnElementSurvivesTheGrowth) {
  KXValue array = KXValue::arrayOf(KXValue::arrayOf("x"));

  for (int i = 0; i < 20; ++i) array.arrayPush(array[0]);

  ASSERT_EQ(array.getSize(), 21);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(array[i], KXValue::arrayOf("x"));
}

TEST(ValuePush, OfTheMovedArrayWrapsIt) {
  KXValue array = KXValue::arrayOf(1);

  array.arrayPush(std::move(array));

  EXPECT_EQ(array.toString(1), "[[1]]");
}

}  // namespace
}  // namespace KX
