#include <binding/kxfunctorconvert.hpp>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

struct Given {
  char const* typeName;
  KXValue value;
};

// One value of each type there is.
std::vector<Given> const& oneOfEachType() {
  static std::vector<Given> const all = {
      {"invalid", KXValue()},
      {"array", KXValue(Texts{"a", "b"})},
      {"bool", KXValue(true)},
      {"int", KXValue(7)},
      {"float", KXValue(1.5)},
      {"string", KXValue("text")},
      {"binary", KXValue::binary("bytes")},
  };
  return all;
}

// What the conversion of each of those gives; nothing where it is refused.
template <class T>
struct Expectation {
  std::optional<T> ofType[7];
  std::string suffix;
  int line;
};

template <class T>
void expectConversions(Expectation<T> const& expected) {
  for (std::size_t i = 0; i < 7; ++i) {
    Given const& given = oneOfEachType()[i];
    SCOPED_TRACE(given.typeName);
    ASSERT_EQ(KXValue::TypeToString(given.value.getType()), given.typeName);
    try {
      T const converted = converter<T>::convertFromKXValue(given.value);
      ASSERT_TRUE(expected.ofType[i].has_value()) << "was not refused";
      EXPECT_EQ(converted, *expected.ofType[i]);
    } catch (KXError const& error) {
      EXPECT_FALSE(expected.ofType[i].has_value());
      EXPECT_EQ(error.getModuleName(), "convertFromKXValue");
      EXPECT_EQ(error.getMethodName(), "convertFromKXValue");
      EXPECT_EQ(error.getDescription(),
                std::string("Parameter type is ") + given.typeName + expected.suffix);
      EXPECT_EQ(error.getFileName(), "kxvalue/detail/kxfunctorconvert");
      EXPECT_EQ(error.getLine(), expected.line);
    }
  }
}

TEST(Converter, IntTakesIntOnly) {
  expectConversions<int>({{{}, {}, {}, 7, {}, {}, {}}, " instead of int", 45});
}

TEST(Converter, StringTakesStringOnly) {
  expectConversions<std::string>({{{}, {}, {}, {}, {}, "text", {}}, " instead of string", 88});
}

TEST(Converter, BoolTakesBoolAndInt) {
  expectConversions<bool>({{{}, {}, true, true, {}, {}, {}}, " instead of bool", 137});
}

TEST(Converter, VectorOfStringsTakesArrayOnly) {
  expectConversions<Texts>({{{}, Texts{"a", "b"}, {}, {}, {}, {}, {}}, " instead of vector", 184});
}

TEST(Converter, DoubleTakesFloatAndInt) {
  expectConversions<double>({{{}, {}, {}, 7.0, 1.5, {}, {}}, " instead of float", 0});
}

TEST(Converter, FloatTakesFloatAndInt) {
  expectConversions<float>({{{}, {}, {}, 7.0F, 1.5F, {}, {}}, " instead of float", 0});
}

TEST(Converter, ValueTakesEveryTypeAsItIs) {
  for (Given const& given : oneOfEachType()) {
    SCOPED_TRACE(given.typeName);

    KXValue const converted = converter<KXValue>::convertFromKXValue(given.value);

    EXPECT_EQ(converted, given.value);
    EXPECT_EQ(converted.sharesBlockWith(given.value), given.value.sharesBlockWith(given.value));
  }
}

TEST(Converter, BoolFromIntIsFalseForZeroAndTrueForSeven) {
  EXPECT_FALSE(converter<bool>::convertFromKXValue(KXValue(0)));
  EXPECT_TRUE(converter<bool>::convertFromKXValue(KXValue(7)));
  EXPECT_TRUE(converter<bool>::convertFromKXValue(KXValue(-1)));
  EXPECT_FALSE(converter<bool>::convertFromKXValue(KXValue(false)));
}

TEST(Converter, BoolFromFloatIsRefused) {
  try {
    converter<bool>::convertFromKXValue(KXValue(1.0));
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "Parameter type is float instead of bool");
  }
}

TEST(Converter, VectorFromSingleStringIsRefused) {
  try {
    converter<Texts>::convertFromKXValue(KXValue("alone"));
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "Parameter type is string instead of vector");
  }
}

TEST(Converter, VectorOfNothingIsEmpty) {
  EXPECT_EQ(converter<Texts>::convertFromKXValue(KXValue(Texts())), Texts());
}

TEST(Converter, VectorFromArrayWithOtherThanStringsIsRefused) {
  KXValue const mixed(std::vector<KXValue>{KXValue("text"), KXValue(1)});

  EXPECT_THROW(converter<Texts>::convertFromKXValue(mixed), KXError);
}

TEST(Converter, ExtremesKeepTheirValue) {
  int const smallest = std::numeric_limits<int>::min();
  std::string const anyBytes("\0\xff\n", 3);

  EXPECT_EQ(converter<int>::convertFromKXValue(KXValue(smallest)), smallest);
  EXPECT_EQ(converter<std::string>::convertFromKXValue(KXValue(anyBytes)), anyBytes);
}

}  // namespace
}  // namespace KX
