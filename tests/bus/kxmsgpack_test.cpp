// Values as MessagePack: the bytes, the way there and back, and what is refused.
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <host/bus/kxwire.hpp>
#include <kxvalue/kxrows.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/bus/hex.hpp"

namespace KX {
namespace {

using testing::HasSubstr;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

KXValue nested(int levels) {
  KXValue value = 7;
  for (int i = 0; i < levels; ++i) value = KXValue::arrayOf(value);
  return value;
}

KXValue array(std::size_t size, KXValue const& element) {
  return KXValue::arrayFrom(size, [&](std::size_t) { return element; });
}

struct Known {
  char const* name;
  KXValue value;
  std::string bytes;  // as python3-msgpack packs the same
};

std::vector<Known> known() {
  auto const x = [](int size) {
    return std::string(static_cast<std::size_t>(size), 'x');
  };
  auto const xx = [](int size) {
    return repeated("78", size);
  };
  return {
      {"invalid", KXValue(), "c0"},
      {"false", false, "c2"},
      {"true", true, "c3"},
      {"0", 0, "00"},
      {"127", 127, "7f"},
      {"128", 128, "cc80"},
      {"255", 255, "ccff"},
      {"256", 256, "cd0100"},
      {"65535", 65535, "cdffff"},
      {"65536", 65536, "ce00010000"},
      {"greatest", 2147483647, "ce7fffffff"},
      {"-1", -1, "ff"},
      {"-32", -32, "e0"},
      {"-33", -33, "d0df"},
      {"-128", -128, "d080"},
      {"-129", -129, "d1ff7f"},
      {"-32768", -32768, "d18000"},
      {"-32769", -32769, "d2ffff7fff"},
      {"least", std::numeric_limits<int>::min(), "d280000000"},
      {"0.0", 0.0, "cb0000000000000000"},
      {"-0.0", -0.0, "cb8000000000000000"},
      {"1.5", 1.5, "cb3ff8000000000000"},
      {"3.0", 3.0, "cb4008000000000000"},
      {"infinity", kInfinity, "cb7ff0000000000000"},
      {"-infinity", -kInfinity, "cbfff0000000000000"},
      {"empty string", "", "a0"},
      {"string", "Grüße", "a74772c3bcc39f65"},
      {"bytes in a string", std::string("\0\xff", 2), "a200ff"},
      {"string of 31", x(31), "bf" + xx(31)},
      {"string of 32", x(32), "d920" + xx(32)},
      {"string of 255", x(255), "d9ff" + xx(255)},
      {"string of 256", x(256), "da0100" + xx(256)},
      {"string of 65535", x(65535), "daffff" + xx(65535)},
      {"string of 65536", x(65536), "db00010000" + xx(65536)},
      {"empty binary", KXValue::binary(""), "c400"},
      {"binary", KXValue::binary(std::string("\0\xff", 2)), "c40200ff"},
      {"binary of 255", KXValue::binary(x(255)), "c4ff" + xx(255)},
      {"binary of 256", KXValue::binary(x(256)), "c50100" + xx(256)},
      {"binary of 65535", KXValue::binary(x(65535)), "c5ffff" + xx(65535)},
      {"binary of 65536", KXValue::binary(x(65536)), "c600010000" + xx(65536)},
      {"empty array", KXValue::arrayOf(), "90"},
      {"array of 15", array(15, 1), "9f" + repeated("01", 15)},
      {"array of 16", array(16, 1), "dc0010" + repeated("01", 16)},
      {"array of 65535", array(65535, KXValue()), "dcffff" + repeated("c0", 65535)},
      {"array of 65536", array(65536, KXValue()), "dd00010000" + repeated("c0", 65536)},
      {"sample", KXValue::arrayOf(KXValue::arrayOf(1763740800, 250000), 36.5),
       "9292ce69208c80ce0003d090cb4042400000000000"},
      {"mixed", KXValue::arrayOf("KXMemory", KXValue::arrayOf(KXValue::arrayOf(), KXValue(), true)),
       "92a84b584d656d6f72799390c0c3"},
      {"32 levels", nested(32), repeated("91", 32) + "07"},
  };
}

TEST(Value, IsTheBytesThatOthersPack) {
  for (auto const& [name, value, bytes] : known()) {
    SCOPED_TRACE(name);
    EXPECT_EQ(toHex(encodeValue(value)), bytes);
  }
}

TEST(Value, ComesBackAsItWas) {
  for (auto const& [name, value, bytes] : known()) {
    SCOPED_TRACE(name);
    KXValue const decoded = decodeValue(fromHex(bytes));
    EXPECT_EQ(decoded, value);
    EXPECT_EQ(toHex(encodeValue(decoded)), bytes);  // as -0.0 equals 0.0
  }
}

TEST(Value, KeepsANaN) {
  double const nan = std::nan("12345");

  std::string const bytes = encodeValue(nan);

  EXPECT_TRUE(std::isnan(static_cast<double>(decodeValue(bytes))));
  EXPECT_EQ(encodeValue(decodeValue(bytes)), bytes);
}

TEST(Value, IsReadFromEachFormThatOthersMayWrite) {
  std::pair<char const*, KXValue> const cases[] = {
      {"cc07", 7},
      {"cd0007", 7},
      {"ce00000007", 7},
      {"cf0000000000000007", 7},
      {"cf000000007fffffff", 2147483647},
      {"d007", 7},
      {"d1fff9", -7},
      {"d2fffffff9", -7},
      {"d3fffffffffffffff9", -7},
      {"d3ffffffff80000000", std::numeric_limits<int>::min()},
      {"d3000000007fffffff", 2147483647},
      {"ca3fc00000", 1.5},
      {"caff800000", -kInfinity},
      {"d90161", "a"},
      {"da000161", "a"},
      {"db0000000161", "a"},
      {"db00000000", ""},
      {"c500017a", KXValue::binary("z")},
      {"c6000000017a", KXValue::binary("z")},
      {"dc000101", KXValue::arrayOf(1)},
      {"dc0000", KXValue::arrayOf()},
      {"dd0000000101", KXValue::arrayOf(1)},
      {"dd00000000", KXValue::arrayOf()},
  };
  for (auto const& [bytes, value] : cases) {
    SCOPED_TRACE(bytes);
    EXPECT_EQ(decodeValue(fromHex(bytes)), value);
  }
}

TEST(Value, IsRefusedFromBytesThatAreNone) {
  struct Case {
    char const* name;
    std::string bytes;
    char const* refusal;
  };
  Case const cases[] = {
      {"nothing", "", "expected more bytes, at byte 0"},
      {"two values", "c0c0", "expected the end, got 1 bytes more, at byte 1"},
      {"bytes behind an array", "9101ff", "expected the end, got 1 bytes more, at byte 2"},
      {"reserved byte", "c1", "expected a type, got the byte 0xc1, at byte 0"},
      {"reserved byte in an array", "9201c1", "got the byte 0xc1, at byte 2"},
      {"uint8 cut", "cc", "expected more bytes"},
      {"uint16 cut", "cd01", "expected more bytes"},
      {"uint32 cut", "ce010203", "expected more bytes"},
      {"uint64 cut", "cf01020304050607", "expected more bytes"},
      {"int8 cut", "d0", "expected more bytes"},
      {"int16 cut", "d101", "expected more bytes"},
      {"int32 cut", "d2010203", "expected more bytes"},
      {"int64 cut", "d301020304050607", "expected more bytes"},
      {"float32 cut", "ca010203", "expected more bytes"},
      {"float64 cut", "cb01020304050607", "expected more bytes"},
      {"string cut", "a36162", "expected more bytes"},
      {"string without length", "d9", "expected more bytes"},
      {"string of 4 GB", "dbffffffff61", "expected more bytes"},
      {"binary cut", "c4036162", "expected more bytes"},
      {"binary of 4 GB", "c6ffffffff61", "expected more bytes"},
      {"array cut", "9301", "expected at most 1 elements or bytes, that is what is left, got 3"},
      {"array cut within an element", "92cd0102a2", "expected more bytes"},
      {"array without length", "dc00", "expected more bytes"},
      {"array of 4G", "ddffffffff", "expected at most 4 elements"},
      {"array of 2G", "dd7fffffff", "expected at most 4 elements"},
      {"arrays that claim the same bytes", "dd0000000cdd0000000c" + repeated("00", 11),
       "expected at most 8 elements"},
      {"too large for int", "ce80000000", "expected an integer of 32 bits, got 2147483648"},
      {"too large, 64 bits", "cf0000000080000000", "integer of 32 bits, got 2147483648"},
      {"largest", "cfffffffffffffffff", "integer of 32 bits, got 18446744073709551615"},
      {"too small", "d3ffffffff7fffffff", "integer of 32 bits, got -2147483649"},
      {"smallest", "d38000000000000000", "integer of 32 bits, got -9223372036854775808"},
      {"positive int64 too large", "d30000000080000000", "integer of 32 bits, got 2147483648"},
      {"map", "81a16101", "expected a type that a value can have, got a map"},
      {"empty map", "80", "got a map"},
      {"map16", "de0001a16101", "got a map"},
      {"map32", "dfffffffff", "got a map"},
      {"map in an array", "92c081a16101", "got a map, at byte 2"},
      {"fixext1", "d40100", "got an extension"},
      {"fixext16", "d801" + repeated("00", 16), "got an extension"},
      {"ext8", "c70101ff", "got an extension"},
      {"empty ext8", "c70001", "got an extension"},
      {"ext32 of 4 GB", "c9ffffffff01", "expected more bytes"},
      {"33 levels", repeated("91", 33) + "c0", "expected at most 32 levels of arrays"},
      {"33 levels, empty", repeated("91", 32) + "90", "expected at most 32 levels of arrays"},
      {"a million levels", repeated("91", 1000000), "expected at most 32 levels of arrays"},
      {"arrays of 10 million in each other", repeated("dd00989680", 20), "expected at most"},
  };
  for (auto const& [name, bytes, refusal] : cases) {
    SCOPED_TRACE(name);
    EXPECT_THAT(refusalOf(fromHex(bytes)), HasSubstr(refusal));
  }
}

TEST(Value, IsRefusedWhereverItsBytesEnd) {
  for (auto const& [name, value, hex] : known()) {
    std::string const bytes = fromHex(hex);
    if (bytes.size() > 300) continue;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      SCOPED_TRACE(std::string(name) + " cut to " + std::to_string(size));
      EXPECT_THAT(refusalOf(std::string_view(bytes).substr(0, size)), HasSubstr("expected"));
    }
  }
}

TEST(Value, IsNotPackedWithMoreLevelsThanAreRead) {
  EXPECT_THROW(encodeValue(nested(33)), KXError);
  EXPECT_THROW(encodeResult(nested(40)), KXError);
  EXPECT_EQ(decodeReply(encodeResult(nested(39)), ""), nested(39));
}

TEST(Value, LeavesTheStringAsItWasWhenItCannotBeAppended) {
  std::string bytes = "before";

  EXPECT_THROW(appendValue(bytes, KXValue::arrayOf(std::string(100000, 'x'), nested(33))), KXError);

  EXPECT_EQ(bytes, "before");
}

TEST(Value, IsAppendedBehindWhatIsThere) {
  std::string bytes = "before";

  appendValue(bytes, 1);
  appendValue(bytes, "a");

  EXPECT_EQ(bytes,
            "before\x01\xa1"
            "a");
}

// Arrays of samples as a fetch gives them: rows in one piece, times shared between keys.
KXValue fetched(std::size_t keys, std::size_t samples) {
  KXRows times(samples);
  for (std::size_t i = 0; i < samples; ++i) times.push(1763740800, static_cast<int>(i) * 1000);
  KXValue const shared = times.take();
  KXRows entries(keys);
  for (std::size_t key = 0; key < keys; ++key) {
    KXRows rows(samples, shared);
    for (std::size_t i = 0; i < samples; ++i) {
      rows.pushShared(i, 0.5 * static_cast<double>(i + key));
    }
    entries.push("Key" + std::to_string(key), rows.take());
  }
  return entries.take();
}

TEST(Value, OfRowsComesBackAsItWas) {
  for (auto const& [keys, samples] : std::vector<std::pair<std::size_t, std::size_t>>{
           {0, 0}, {1, 0}, {1, 1}, {1, 2}, {3, 2}, {2, 500}, {100, 20}}) {
    SCOPED_TRACE(std::to_string(keys) + " keys of " + std::to_string(samples));
    KXValue const value = fetched(keys, samples);
    std::string const bytes = encodeValue(value);

    KXValue const decoded = decodeValue(bytes);

    EXPECT_EQ(decoded, value);
    EXPECT_EQ(encodeValue(decoded), bytes);
  }
}

TEST(Value, OfRowsAndOthersComesBackAsItWas) {
  KXValue const row = KXValue::arrayOf(1, "a");
  KXValue const pair = KXValue::arrayOf(1, 2);
  KXValue const rows = KXValue::arrayOf(row, row, row);
  for (KXValue const& value :
       {KXValue::arrayOf(row), KXValue::arrayOf(row, 1), KXValue::arrayOf(1, row),
        KXValue::arrayOf(row, row), KXValue::arrayOf(pair, pair), KXValue::arrayOf(row, row, 1),
        KXValue::arrayOf(row, 1, row), KXValue::arrayOf(row, KXValue::arrayOf(), row),
        KXValue::arrayOf(row, KXValue::arrayOf(1), row), KXValue::arrayOf(rows, rows),
        KXValue::arrayOf(rows, rows, rows), KXValue::arrayOf(KXValue::arrayOf(rows, pair), rows),
        KXValue::arrayOf(KXValue::arrayOf(pair, row), KXValue::arrayOf(rows, row), pair),
        KXValue::arrayOf(row, row, row, rows)}) {
    SCOPED_TRACE(value.toString(1));
    EXPECT_EQ(decodeValue(encodeValue(value)), value);
  }
}

TEST(Value, ChangedInOnePlaceKeepsTheOthers) {
  KXValue const original = fetched(3, 100);
  KXValue decoded = decodeValue(encodeValue(original));

  decoded[1][1][7][0][1] = 42;
  decoded[1][1][8][1] = "other";

  KXValue expected = original;
  expected[1][1][7][0][1] = 42;
  expected[1][1][8][1] = "other";
  EXPECT_EQ(decoded, expected);
  EXPECT_EQ(decoded[0], original[0]);
  EXPECT_EQ(decoded[2], original[2]);
}

}  // namespace
}  // namespace KX
