#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

TEST(ValueCopy, IsUnaffectedByEveryChangeOfTheOriginal) {
  struct {
    char const* name;
    void (*change)(KXValue&);
  } const cases[] = {
      {"assign an element",
       [](KXValue& v) {
         v[0] = 9;
       }},
      {"assign a nested element",
       [](KXValue& v) {
         v[1][0] = 9;
       }},
      {"assign a deeply nested element",
       [](KXValue& v) {
         v[1][1][0] = 9;
       }},
      {"push",
       [](KXValue& v) {
         v.arrayPush(9);
       }},
      {"push onto a nested array",
       [](KXValue& v) {
         v[1][1].arrayPush(9);
       }},
      {"cut",
       [](KXValue& v) {
         v.arraySetSize(1);
       }},
      {"cut a nested array",
       [](KXValue& v) {
         v[1].arraySetSize(0);
       }},
      {"grow",
       [](KXValue& v) {
         v.arraySetSize(5);
       }},
      {"write by pointer",
       [](KXValue& v) {
         v.arrayData()[2] = 9;
       }},
      {"move an element out",
       [](KXValue& v) {
         KXValue const taken = std::move(v[1]);
       }},
      {"replace",
       [](KXValue& v) {
         v = 9;
       }},
  };
  std::string const text = R"([1,[2,[3,"deep"]],"flat"])";

  for (auto const& each : cases) {
    SCOPED_TRACE(each.name);
    KXValue original =
        KXValue::arrayOf(1, KXValue::arrayOf(2, KXValue::arrayOf(3, "deep")), "flat");
    KXValue const copy = original;
    KXValue const copyOfNested = std::as_const(original)[1];

    each.change(original);

    EXPECT_NE(original.toString(1), text);
    EXPECT_EQ(copy.toString(1), text);
    EXPECT_EQ(copyOfNested.toString(1), R"([2,[3,"deep"]])");
  }
}

TEST(ValueCopy, ChangesDoNotReachTheOriginal) {
  KXValue const original = KXValue::arrayOf(1, KXValue::arrayOf(2));
  KXValue copy = original;

  copy[1][0] = "changed";

  EXPECT_EQ(original, KXValue::arrayOf(1, KXValue::arrayOf(2)));
  EXPECT_EQ(copy, KXValue::arrayOf(1, KXValue::arrayOf("changed")));
}

TEST(ValueCopy, SharesNestedArraysThatDidNotChange) {
  KXValue const original = KXValue::arrayOf(KXValue::arrayOf(1), KXValue::arrayOf(2));
  KXValue copy = original;

  copy[0] = 5;

  EXPECT_TRUE(std::as_const(copy)[1].sharesBlockWith(original[1]));
}

TEST(ValueCopy, OneArrayHeldTwiceChangesInOnePlaceOnly) {
  KXValue const pair = KXValue::arrayOf(1, 2);
  KXValue both = KXValue::arrayOf(pair, pair);

  both[0][0] = 9;

  EXPECT_EQ(both.toString(1), "[[9,2],[1,2]]");
  EXPECT_EQ(pair.toString(1), "[1,2]");
}

TEST(ValueSharing, IsOfBlocksNotOfContent) {
  KXValue const text("text");
  KXValue const sameText("text");
  KXValue const copy = text;

  EXPECT_TRUE(text.sharesBlockWith(copy));
  EXPECT_TRUE(text.sharesBlockWith(text));
  EXPECT_FALSE(text.sharesBlockWith(sameText));
  EXPECT_FALSE(KXValue(1).sharesBlockWith(KXValue(1)));
  EXPECT_FALSE(KXValue().sharesBlockWith(KXValue()));
}

TEST(ValueMove, LeavesAnInvalidValueThatCanBeUsedAgain) {
  for (KXValue const& value : oneOfEachType()) {
    SCOPED_TRACE(value.toString(2));
    KXValue source = value;

    KXValue const target = std::move(source);

    EXPECT_EQ(target, value);
    EXPECT_FALSE(source.isValid());  // NOLINT(bugprone-use-after-move): the state is promised
    EXPECT_EQ(source.getSize(), 0);
    source.arrayPush(1);
    EXPECT_EQ(source, KXValue::arrayOf(1));
  }
}

TEST(ValueAssignment, ReplacesEveryTypeByEveryType) {
  for (KXValue const& from : oneOfEachType()) {
    for (KXValue const& to : oneOfEachType()) {
      SCOPED_TRACE(from.toString(2) + " = " + to.toString(2));
      KXValue copied = from;
      KXValue moved = from;
      KXValue source = to;

      copied = to;
      moved = std::move(source);

      EXPECT_EQ(copied, to);
      EXPECT_EQ(moved, to);
    }
  }
}

TEST(ValueAssignment, ToItselfChangesNothing) {
  for (KXValue const& value : oneOfEachType()) {
    SCOPED_TRACE(value.toString(2));
    KXValue copied = value;
    KXValue moved = value;
    KXValue& alias = copied;
    KXValue& movedAlias = moved;

    copied = alias;
    moved = std::move(movedAlias);

    EXPECT_EQ(copied, value);
    EXPECT_EQ(moved, value);
  }
}

TEST(ValueAssignment, OfAnElementReplacesItsArray) {
  KXValue copied = KXValue::arrayOf(KXValue::arrayOf("inner"), 2);
  KXValue moved = KXValue::arrayOf(KXValue::arrayOf("inner"), 2);

  copied = copied[0];
  moved = std::move(moved[0]);

  EXPECT_EQ(copied, KXValue::arrayOf("inner"));
  EXPECT_EQ(moved, KXValue::arrayOf("inner"));
}

TEST(ValueAssignment, OfAnArrayToItsOwnElementTakesTheArrayAsItWas) {
  KXValue array = KXValue::arrayOf(1, 2);
  KXValue nested = KXValue::arrayOf(KXValue::arrayOf(1), 2);

  array[0] = array;
  nested[0][0] = nested;

  EXPECT_EQ(array.toString(1), "[[1,2],2]");
  EXPECT_EQ(nested.toString(1), "[[[[1],2]],2]");
}

TEST(ValueAssignment, OfOneElementToAnother) {
  KXValue array = KXValue::arrayOf(1, KXValue::arrayOf("x"));
  KXValue const copy = array;

  array[0] = array[1];

  EXPECT_EQ(array.toString(1), R"([["x"],["x"]])");
  EXPECT_EQ(copy.toString(1), R"([1,["x"]])");
}

KXValue nestedIn(KXValue innermost, int levels) {
  for (int i = 0; i < levels; ++i) innermost = KXValue::arrayOf("left", std::move(innermost), i);
  return innermost;
}

TEST(ValueDestruction, OfAVeryDeepNestingNeedsNoStack) {
  for (int const levels : {1, 2, 100'000, 1'000'000}) {
    SCOPED_TRACE(levels);
    KXValue const kept = KXValue::arrayOf("kept");
    {
      KXValue const deep = nestedIn(kept, levels);
      EXPECT_EQ(deep.getSize(), 3);
    }
    EXPECT_EQ(kept.toString(1), R"(["kept"])");
  }
}

TEST(ValueDestruction, StopsAtWhatSomebodyStillHolds) {
  KXValue const shared = nestedIn("end", 3);
  {
    KXValue const outer = KXValue::arrayOf(shared, nestedIn(shared, 5), shared);
    EXPECT_TRUE(outer[0].sharesBlockWith(shared));
  }

  EXPECT_EQ(shared.toString(1), R"(["left",["left",["left","end",0],1],2])");
}

}  // namespace
}  // namespace KX
