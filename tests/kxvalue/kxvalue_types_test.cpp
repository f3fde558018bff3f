#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

static_assert(sizeof(KXValue) == 16);
static_assert(std::is_nothrow_default_constructible_v<KXValue>);
static_assert(std::is_nothrow_copy_constructible_v<KXValue>);
static_assert(std::is_nothrow_move_constructible_v<KXValue>);
static_assert(std::is_nothrow_copy_assignable_v<KXValue>);
static_assert(std::is_nothrow_move_assignable_v<KXValue>);
static_assert(!std::is_convertible_v<KXValue, bool>, "conversions are explicit");
static_assert(!std::is_convertible_v<KXValue, int>);
static_assert(!std::is_convertible_v<KXValue, double>);
static_assert(!std::is_convertible_v<KXValue, std::string>);
static_assert(!std::is_constructible_v<KXValue, int*>, "a pointer is no bool");
static_assert(!std::is_constructible_v<KXValue, void const*>);
static_assert(std::is_constructible_v<KXValue, char*>);

static_assert(KXValue::TypeInvalid == 0 && KXValue::TypeArray == 1 && KXValue::TypeBool == 2);
static_assert(KXValue::TypeInt == 3 && KXValue::TypeFloat == 4 && KXValue::TypeString == 5);
static_assert(KXValue::TypeBinary == 6);

TEST(ValueConstruction, GivesTheTypeOfItsArgument) {
  struct {
    KXValue value;
    KXValue::Type type;
    int size;
  } const cases[] = {
      {KXValue(), KXValue::TypeInvalid, 0},
      {KXValue(true), KXValue::TypeBool, 0},
      {KXValue(3), KXValue::TypeInt, 0},
      {KXValue('a'), KXValue::TypeInt, 0},
      {KXValue(2.5f), KXValue::TypeFloat, 0},
      {KXValue(2.5), KXValue::TypeFloat, 0},
      {KXValue("text"), KXValue::TypeString, 4},
      {KXValue(std::string("a\0b", 3)), KXValue::TypeString, 3},
      {KXValue(std::vector<std::string>{"a", "b"}), KXValue::TypeArray, 2},
      {KXValue(std::vector<KXValue>{1, 2.5, "c"}), KXValue::TypeArray, 3},
      {KXValue::binary(std::string("\0\1\2", 3)), KXValue::TypeBinary, 3},
      {KXValue::arrayOf(), KXValue::TypeArray, 0},
      {KXValue::arrayOf(1, "b"), KXValue::TypeArray, 2},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.value.toString(2));
    EXPECT_EQ(each.value.getType(), each.type);
    EXPECT_EQ(each.value.isValid(), each.type != KXValue::TypeInvalid);
    EXPECT_EQ(each.value.getSize(), each.size);
  }
}

TEST(ValueConstruction, KeepsNumbersWhole) {
  for (int const number : {0, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
    EXPECT_EQ(static_cast<int>(KXValue(number)), number);
  for (double const number : {0.0, 1e300, 5e-324, std::numeric_limits<double>::infinity()})
    EXPECT_EQ(static_cast<double>(KXValue(number)), number);
  EXPECT_EQ(static_cast<double>(KXValue(0.1f)), static_cast<double>(0.1f));
  EXPECT_FALSE(static_cast<bool>(KXValue(false)));
}

TEST(ValueConstruction, TakesANullPointerAsEmptyText) {
  char const* const none = nullptr;
  KXValue const value(none);

  EXPECT_EQ(value.getType(), KXValue::TypeString);
  EXPECT_EQ(value.getSize(), 0);
}

TEST(ValueConstruction, TakesACharacterArrayAsText) {
  char buffer[] = "text";

  EXPECT_EQ(KXValue(buffer), KXValue("text"));
}

TEST(ValueConstruction, CopiesAVectorOfTexts) {
  std::vector<std::string> const texts{"a", "", std::string(100, 'x')};
  KXValue const value(texts);

  ASSERT_EQ(value.getSize(), 3);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(static_cast<std::string const&>(value[i]), texts[static_cast<std::size_t>(i)]);
}

TEST(ValueConstruction, TakesEmptyVectorsAsEmptyArrays) {
  for (KXValue const& value :
       {KXValue(std::vector<std::string>{}), KXValue(std::vector<KXValue>{})}) {
    EXPECT_EQ(value.getType(), KXValue::TypeArray);
    EXPECT_EQ(value.getSize(), 0);
  }
}

TEST(ValueConstruction, ArrayFromAsksForEachElementInOrder) {
  std::vector<std::size_t> asked;

  KXValue const array = KXValue::arrayFrom(3, [&](std::size_t i) {
    asked.push_back(i);
    return KXValue("element " + std::to_string(i));
  });

  EXPECT_EQ(asked, (std::vector<std::size_t>{0, 1, 2}));
  EXPECT_EQ(array, KXValue::arrayOf("element 0", "element 1", "element 2"));
}

TEST(ValueConstruction, ArrayFromCopiesWhatCannotThrow) {
  KXValue const text("text");

  KXValue const array =
      KXValue::arrayFrom(2, [&](std::size_t) noexcept -> KXValue const& { return text; });

  EXPECT_EQ(array, KXValue::arrayOf("text", "text"));
  EXPECT_TRUE(array[0].sharesBlockWith(text));
}

TEST(ValueConstruction, ArrayFromNothingIsTheEmptyArray) {
  KXValue const array = KXValue::arrayFrom(0, [](std::size_t) { return KXValue(1); });

  EXPECT_EQ(array.getType(), KXValue::TypeArray);
  EXPECT_EQ(array.getSize(), 0);
}

TEST(ValueConstruction, ArrayFromPassesOnWhatAnElementThrows) {
  EXPECT_THROW(static_cast<void>(KXValue::arrayFrom(3,
                                                    [](std::size_t i) {
                                                      if (i == 2) throw std::runtime_error("two");
                                                      return KXValue("text");
                                                    })),
               std::runtime_error);
}

TEST(ValueConstruction, ArrayOfTakesReferencesAndTemporaries) {
  KXValue const inner = KXValue::arrayOf(1, 2);
  std::string const text = "text";
  KXValue const value = KXValue::arrayOf(inner, text, KXValue("moved"), 4.5, true);

  EXPECT_EQ(value.toString(1), R"([[1,2],"text","moved",4.5,true])");
  EXPECT_TRUE(value[0].sharesBlockWith(inner));
}

// The types a value converts to, each by a function that converts and gives the result as a value.
struct Target {
  char const* method;
  char const* type;
  std::function<KXValue(KXValue const&)> convert;
};

std::vector<Target> targets() {
  return {
      {"operator bool", "bool",
       [](KXValue const& v) {
         return KXValue(static_cast<bool>(v));
       }},
      {"operator int", "int",
       [](KXValue const& v) {
         return KXValue(static_cast<int>(v));
       }},
      {"operator double", "float",
       [](KXValue const& v) {
         return KXValue(static_cast<double>(v));
       }},
      {"operator std::string", "string",
       [](KXValue const& v) {
         return KXValue(static_cast<std::string const&>(v));
       }},
      {"getBinary", "binary",
       [](KXValue const& v) {
         return KXValue::binary(v.getBinary());
       }},
      {"operator[]", "array",
       [](KXValue const& v) {
         return KXValue::arrayOf(v[0], v[1]);
       }},
      {"operator[]", "array",
       [](KXValue v) {
         return KXValue::arrayOf(std::as_const(v[0]), std::as_const(v[1]));
       }},
      {"arrayData", "array",
       [](KXValue const& v) {
         return KXValue::arrayOf(v.arrayData()[0], v.arrayData()[1]);
       }},
      {"arrayData", "array",
       [](KXValue v) {
         return KXValue::arrayOf(v.arrayData()[0], v.arrayData()[1]);
       }},
  };
}

TEST(ValueConversion, TakesItsOwnTypeAndRefusesOthersNamingBoth) {
  for (KXValue const& value : oneOfEachType()) {
    std::string const given = KXValue::TypeToString(value.getType());
    for (Target const& target : targets()) {
      SCOPED_TRACE(given + " to " + target.type + " by " + target.method);
      std::string const refusal = std::string(target.method) + ": expected a value of type " +
                                  target.type + ", got " + given;
      if (given == target.type) {
        EXPECT_EQ(target.convert(value), value);
      } else if (given == "int" && target.type == std::string("float")) {
        EXPECT_EQ(target.convert(value), KXValue(-7.0));
      } else {
        EXPECT_EQ(errorOf([&] { target.convert(value); }), refusal);
      }
    }
  }
}

TEST(ValueConversion, ErrorNamesTheValueAsItsSource) {
  try {
    static_cast<void>(static_cast<int>(KXValue("text")));
  } catch (KXError const& error) {
    EXPECT_EQ(error.getModuleName(), "KXValue");
    EXPECT_EQ(error.getMethodName(), "operator int");
    EXPECT_EQ(error.getFileName(), "kxvalue/kxvalue");
    EXPECT_EQ(error.getLine(), 0);
    return;
  }
  FAIL() << "a text became an int";
}

TEST(ValueConversion, EveryIntIsExactAsADouble) {
  for (int const number : {std::numeric_limits<int>::min(), -1, std::numeric_limits<int>::max()})
    EXPECT_EQ(static_cast<double>(KXValue(number)), static_cast<double>(number));
}

TEST(ValueConversion, TextIsGivenByReferenceWithoutACopy) {
  KXValue const value("text");
  KXValue const copy = value;

  EXPECT_EQ(&static_cast<std::string const&>(value), &static_cast<std::string const&>(copy));
}

TEST(ValueToStringArray, AppendsEveryText) {
  std::vector<std::string> texts{"first"};

  KXValue(std::vector<std::string>{"a", "b"}).ToStringArray(texts, false);

  EXPECT_EQ(texts, (std::vector<std::string>{"first", "a", "b"}));
}

TEST(ValueToStringArray, RefusesOtherElementsNamingTheFirst) {
  std::vector<std::string> texts;

  EXPECT_EQ(errorOf([&] { KXValue::arrayOf("a", 2, "c").ToStringArray(texts, false); }),
            "ToStringArray: expected element 1 to be a string, got int");
}

TEST(ValueToStringArray, ConvertsOtherElementsIfAsked) {
  std::vector<std::string> texts;

  KXValue::arrayOf("a", 2, 2.5, true, KXValue(), KXValue::arrayOf(1, "x"), KXValue::binary("\xff"))
      .ToStringArray(texts, true);

  EXPECT_EQ(texts, (std::vector<std::string>{"a", "2", "2.5", "true", "", "[1, x]", "\xff"}));
}

TEST(ValueToStringArray, RefusesWhatIsNoArray) {
  for (KXValue const& value : oneOfEachType()) {
    if (value.getType() == KXValue::TypeArray) continue;
    std::string const given = KXValue::TypeToString(value.getType());
    SCOPED_TRACE(given);
    for (bool const convertElements : {false, true}) {
      std::vector<std::string> texts;
      EXPECT_EQ(errorOf([&] { value.ToStringArray(texts, convertElements); }),
                "ToStringArray: expected a value of type array, got " + given);
    }
  }
}

TEST(ValueType, HasAName) {
  char const* const names[] = {"invalid", "array", "bool", "int", "float", "string", "binary"};

  for (int i = 0; i < 7; ++i)
    EXPECT_EQ(KXValue::TypeToString(static_cast<KXValue::Type>(i)), names[i]);
  EXPECT_EQ(KXValue::TypeToString(static_cast<KXValue::Type>(7)), "type 7");
}

TEST(ValueEquality, HoldsForEveryTypeWithItselfOnly) {
  std::vector<KXValue> const values = oneOfEachType();
  std::vector<KXValue> const others = oneOfEachType();

  for (std::size_t i = 0; i < values.size(); ++i) {
    for (std::size_t k = 0; k < others.size(); ++k) {
      SCOPED_TRACE(std::to_string(i) + " and " + std::to_string(k));
      EXPECT_EQ(values[i] == others[k], i == k);
      EXPECT_EQ(values[i] != others[k], i != k);
    }
  }
}

TEST(ValueEquality, ComparesContent) {
  struct {
    KXValue left;
    KXValue right;
    bool isEqual;
  } const cases[] = {
      {1, 1, true},
      {1, 2, false},
      {1, 1.0, false},
      {1, true, false},
      {true, false, false},
      {0.0, -0.0, true},
      {2.5, 2.5f, true},
      {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::quiet_NaN(), false},
      {"a", "a", true},
      {"a", "b", false},
      {std::string("a\0b", 3), std::string("a\0c", 3), false},
      {"a", KXValue::binary("a"), false},
      {KXValue::binary("a"), KXValue::binary("a"), true},
      {KXValue::binary("a"), KXValue::binary("b"), false},
      {KXValue::arrayOf(), KXValue::arrayOf(), true},
      {KXValue::arrayOf(1), KXValue::arrayOf(1, 2), false},
      {KXValue::arrayOf(1, 2), KXValue::arrayOf(1, 3), false},
      {KXValue::arrayOf(1, KXValue::arrayOf("x")), KXValue::arrayOf(1, KXValue::arrayOf("x")),
       true},
      {KXValue::arrayOf(1, KXValue::arrayOf("x")), KXValue::arrayOf(1, KXValue::arrayOf("y")),
       false},
      {KXValue::arrayOf(), KXValue(), false},
      {KXValue::arrayOf(KXValue::arrayOf(), 1), KXValue::arrayOf(KXValue::arrayOf(), 1), true},
      {KXValue::arrayOf(KXValue::arrayOf(), 1), KXValue::arrayOf(KXValue::arrayOf(), 2), false},
      {KXValue::arrayOf(KXValue::arrayOf(1, 2), 3), KXValue::arrayOf(KXValue::arrayOf(1), 3),
       false},
      {KXValue::arrayOf(KXValue::arrayOf(1), 2), KXValue::arrayOf(1, KXValue::arrayOf(2)), false},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.left.toString(2) + " and " + each.right.toString(2));
    EXPECT_EQ(each.left == each.right, each.isEqual);
    EXPECT_EQ(each.right == each.left, each.isEqual);
  }
}

TEST(ValueEquality, OfAVeryDeepNestingNeedsNoStack) {
  auto const nested = [](KXValue innermost) {
    for (int i = 0; i < 200'000; ++i) innermost = KXValue::arrayOf("x", std::move(innermost), i);
    return innermost;
  };
  KXValue const deep = nested("end");

  EXPECT_TRUE(deep == deep);
  EXPECT_TRUE(deep == nested("end"));
  EXPECT_FALSE(deep == nested("other end"));
  EXPECT_FALSE(deep == nested(KXValue::arrayOf()));
}

}  // namespace
}  // namespace KX
