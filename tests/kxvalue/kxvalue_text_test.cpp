#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/kxvalue/valuetexts.hpp"

namespace KX {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(ValueText, OfEveryTypeAtEveryVerbosity) {
  struct {
    KXValue value;
    std::string bare;
    std::string json;
    std::string typed;
  } const cases[] = {
      {KXValue(), "", "null", "invalid(null)"},
      {true, "true", "true", "bool(true)"},
      {false, "false", "false", "bool(false)"},
      {0, "0", "0", "int(0)"},
      {-2147483647 - 1, "-2147483648", "-2147483648", "int(-2147483648)"},
      {2147483647, "2147483647", "2147483647", "int(2147483647)"},
      {1.0, "1.0", "1.0", "float(1.0)"},
      {-0.0, "-0.0", "-0.0", "float(-0.0)"},
      {0.1, "0.1", "0.1", "float(0.1)"},
      {1e300, "1e+300", "1e+300", "float(1e+300)"},
      {5e-324, "5e-324", "5e-324", "float(5e-324)"},
      {kInfinity, "inf", "null", "float(inf)"},
      {-kInfinity, "-inf", "null", "float(-inf)"},
      {kNaN, "nan", "null", "float(nan)"},
      {-kNaN, "nan", "null", "float(nan)"},
      {"", "", R"("")", R"(string(""))"},
      {"a b", "a b", R"("a b")", R"(string("a b"))"},
      {"\"\\/\b\f\n\r\t\x01", "\"\\/\b\f\n\r\t\x01", R"("\"\\/\b\f\n\r\t\u0001")",
       R"(string("\"\\/\b\f\n\r\t\u0001"))"},
      {"h\xc3\xa9", "h\xc3\xa9", "\"h\xc3\xa9\"", "string(\"h\xc3\xa9\")"},
      {KXValue::binary(std::string("\0\xff", 2)), std::string("\0\xff", 2), R"("AP8=")",
       R"(binary("AP8="))"},
      {KXValue::arrayOf(), "[]", "[]", "array([])"},
      {KXValue::arrayOf(1, "b", KXValue::arrayOf(KXValue(), 2.5)), "[1, b, [, 2.5]]",
       R"([1,"b",[null,2.5]])", R"(array([int(1),string("b"),array([invalid(null),float(2.5)])]))"},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.typed);
    EXPECT_EQ(each.value.toString(), each.bare);
    EXPECT_EQ(each.value.toString(0), each.bare);
    EXPECT_EQ(each.value.toString(1), each.json);
    EXPECT_EQ(each.value.toString(2), each.typed);
  }
}

TEST(ValueText, TakesOtherVerbositiesAsTheNearest) {
  KXValue const value = KXValue::arrayOf("a", 1);

  EXPECT_EQ(value.toString(-1), value.toString(0));
  EXPECT_EQ(value.toString(3), value.toString(2));
}

TEST(ValueText, OfAVeryDeepNestingNeedsNoStack) {
  constexpr int kLevels = 100'000;
  struct {
    int verbosity;
    std::string open;
    std::string innermost;
    std::string close;
  } const cases[] = {
      {0, "[x, ", "[]", ", 1]"},
      {1, R"(["x",)", "[]", ",1]"},
      {2, R"(array([string("x"),)", "array([])", ",int(1)])"},
  };
  KXValue deep = KXValue::arrayOf();
  for (int i = 0; i < kLevels; ++i) deep = KXValue::arrayOf("x", std::move(deep), 1);

  for (auto const& each : cases) {
    SCOPED_TRACE(each.verbosity);
    std::string expected;
    for (int i = 0; i < kLevels; ++i) expected += each.open;
    expected += each.innermost;
    for (int i = 0; i < kLevels; ++i) expected += each.close;

    std::string const text = deep.toString(each.verbosity);

    EXPECT_TRUE(text == expected);  // not printed: millions of characters
  }
  std::vector<std::string> texts;
  deep.ToStringArray(texts, true);
  ASSERT_EQ(texts.size(), 3U);
  EXPECT_EQ(texts[1].size(), deep.toString().size() - std::string("[x, , 1]").size());
}

TEST(ValueText, OfArraysInArraysOfEveryShape) {
  KXValue const empty = KXValue::arrayOf();
  struct {
    KXValue value;
    char const* json;
  } const cases[] = {
      {KXValue::arrayOf(empty), "[[]]"},
      {KXValue::arrayOf(empty, empty), "[[],[]]"},
      {KXValue::arrayOf(1, empty), "[1,[]]"},
      {KXValue::arrayOf(empty, 1), "[[],1]"},
      {KXValue::arrayOf(KXValue::arrayOf(empty, 1), KXValue::arrayOf(2, empty), 3),
       "[[[],1],[2,[]],3]"},
      {KXValue::arrayOf(KXValue::arrayOf(KXValue::arrayOf(1)), 2), "[[[1]],2]"},
  };

  for (auto const& each : cases) EXPECT_EQ(each.value.toString(1), each.json);
}

TEST(ValueJson, TextWithEveryByteParsesAgain) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    std::string const text{'a', static_cast<char>(byte), 'b'};

    auto const parsed = nlohmann::json::parse(KXValue(text).toString(1));

    // Bytes of 128 and more are no UTF-8 on their own.
    EXPECT_EQ(parsed.get<std::string>(), byte < 128 ? text
                                                    : "a\xef\xbf\xbd"
                                                      "b");
  }
}

TEST(ValueJson, ReplacesWhatIsNoUtf8AndKeepsTheRest) {
  std::string const replacement = "\xef\xbf\xbd";
  struct {
    char const* name;
    std::string text;
    std::string parsed;
  } const cases[] = {
      {"cut sequence", "x\xe2\x82", "x" + replacement},
      {"cut sequence before text", "\xe2\x82x", replacement + "x"},
      {"overlong slash", "\xc0\xafx", replacement + replacement + "x"},
      {"lone continuation bytes", "\x80\x81x", replacement + replacement + "x"},
      {"bytes that never occur", "\xfe\xffx", replacement + replacement + "x"},
      {"largest code point", "\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
      {"four byte emoji", "\xf0\x9f\xa4\x96", "\xf0\x9f\xa4\x96"},
      {"valid around invalid", "\xc3\xa9\xff\xc3\xa9", "\xc3\xa9" + replacement + "\xc3\xa9"},
  };

  for (auto const& each : cases) {
    SCOPED_TRACE(each.name);
    auto const parsed = nlohmann::json::parse(KXValue(each.text).toString(1));
    EXPECT_EQ(parsed.get<std::string>(), each.parsed);
  }
}

TEST(ValueJson, IsOneLineWhateverTheTextHolds) {
  std::string every;
  for (int byte = 0; byte < 256; ++byte) every += static_cast<char>(byte);

  std::string const json = KXValue::arrayOf(every, KXValue::binary(every)).toString(1);

  for (char const character : json) EXPECT_GE(static_cast<unsigned char>(character), 0x20);
  EXPECT_TRUE(nlohmann::json::accept(json));
}

TEST(ValueJson, FloatsReadBackAsTheSameFloat) {
  double const numbers[] = {0.0,
                            -0.0,
                            1.0,
                            -1.0,
                            0.1,
                            1.0 / 3,
                            1e15,
                            1e16,
                            123456789.125,
                            1e21,
                            1e22,
                            1e-7,
                            1e300,
                            5e-324,
                            2.2250738585072014e-308,
                            std::numeric_limits<double>::max(),
                            std::numeric_limits<double>::lowest(),
                            static_cast<double>(0.1f)};

  for (double const number : numbers) {
    std::string const text = KXValue(number).toString(1);
    SCOPED_TRACE(text);
    auto const parsed = nlohmann::json::parse(text);
    EXPECT_TRUE(parsed.is_number_float());
    EXPECT_EQ(parsed.get<double>(), number);
    EXPECT_EQ(std::signbit(parsed.get<double>()), std::signbit(number));
  }
}

TEST(ValueJson, FloatsTakeNoMoreDigitsThanTheyNeed) {
  EXPECT_EQ(KXValue(0.1).toString(1), "0.1");
  EXPECT_EQ(KXValue(0.30000000000000004).toString(1), "0.30000000000000004");
  EXPECT_EQ(KXValue(100.0).toString(1), "100.0");
}

TEST(ValueJson, IntsReadBackAsInts) {
  for (int const number :
       {0, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    auto const parsed = nlohmann::json::parse(KXValue(number).toString(1));
    EXPECT_TRUE(parsed.is_number_integer());
    EXPECT_EQ(parsed.get<int>(), number);
  }
}

TEST(ValueJson, BinaryIsBase64OfEveryLength) {
  struct {
    char const* bytes;
    char const* text;
  } const cases[] = {
      {"", R"("")"},
      {"f", R"("Zg==")"},
      {"fo", R"("Zm8=")"},
      {"foo", R"("Zm9v")"},
      {"foob", R"("Zm9vYg==")"},
      {"fooba", R"("Zm9vYmE=")"},
      {"foobar", R"("Zm9vYmFy")"},
      {"\xfb\xff\xbe", R"("+/++")"},
      {"\xff\xff\xff", R"("////")"},
  };

  for (auto const& each : cases) EXPECT_EQ(KXValue::binary(each.bytes).toString(1), each.text);
}

TEST(ValueJson, ASampleParsesIntoItsParts) {
  KXValue const sample = KXValue::arrayOf(KXValue::arrayOf(12, 5), KXValue::arrayOf("a\nb", kNaN));

  auto const parsed = nlohmann::json::parse(sample.toString(1));

  EXPECT_EQ(parsed, nlohmann::json::parse(R"([[12,5],["a\nb",null]])"));
}

}  // namespace
}  // namespace KX
