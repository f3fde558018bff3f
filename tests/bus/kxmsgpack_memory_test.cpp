// How much memory the values of one message may take.
#include <cstddef>
#include <string>
#include <string_view>

#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/bus/hex.hpp"

namespace KX {
namespace {

using ::testing::HasSubstr;

// The greatest number of each that one array may have: 8 bytes of memory for each byte received,
// and 64 MB more. A value takes 16 bytes, a text 40 more, an array 8 more.
constexpr std::size_t kMostNils = 8'388'612;
constexpr std::size_t kMostTexts = 1'398'102;
constexpr std::size_t kMostArrays = 4'194'306;

std::string header(std::size_t size) {
  std::string bytes = "\xdd";
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift & 0xff);
  return bytes;
}

std::string arrayOf(std::size_t size, char element) {
  return header(size) + std::string(size, element);
}

TEST(ValuesMemory, IsBoundedByTheBytesReceived) {
  struct Case {
    char const* name;
    char element;
    std::size_t most;
  };
  for (auto const& [name, element, most] : {Case{"nil", '\xc0', kMostNils},
                                            {"empty text", '\xa0', kMostTexts},
                                            {"empty array", '\x90', kMostArrays}}) {
    SCOPED_TRACE(name);

    EXPECT_EQ(refusalOf(arrayOf(100'000, element)), "none");
    EXPECT_EQ(refusalOf(arrayOf(most, element)), "none");
    EXPECT_THAT(refusalOf(arrayOf(most + 1, element)),
                HasSubstr("expected values of at most " +
                          std::to_string(8 * (most + 6) + (64 << 20)) + " bytes of memory, got"));
  }
}

TEST(ValuesMemory, IsRefusedBeforeItIsTaken) {
  EXPECT_THAT(refusalOf(arrayOf(100'000'000, '\xc0')),
              HasSubstr("expected values of at most 867108904 bytes of memory, got 1600000008"));
}

TEST(ValuesMemory, IsThatOfAllArraysTogether) {
  constexpr std::size_t kParts = 16;
  auto const nested = [](std::size_t size) {
    std::string bytes = header(kParts);
    for (std::size_t i = 0; i < kParts; ++i) bytes += '\x91' + arrayOf(size, '\xa0');
    return bytes;
  };

  EXPECT_EQ(refusalOf(nested(kMostTexts / kParts - 8)), "none");
  EXPECT_THAT(refusalOf(nested(kMostTexts / kParts + 8)), HasSubstr("bytes of memory, got"));
}

TEST(ValuesMemory, GrowsWithLongTexts) {
  constexpr std::size_t kSize = 1 << 20;
  std::string const binary = "\xc6" + std::string("\x00\x10\x00\x00", 4) + std::string(kSize, 'x');
  std::string const texts = arrayOf(kMostTexts + 1, '\xa0');

  EXPECT_EQ(refusalOf('\x92' + binary + texts), "none");
}

TEST(ValuesMemory, OfAPackIsThatOfAllNotifications) {
  std::string const half =
      "\x92\xa1m\x91" + arrayOf(kMostTexts / 2 + 8, '\xa0');  // half of what a message may have

  EXPECT_EQ(decodePack(half, 1).size(), 1U);
  EXPECT_THROW(decodePack(half + half, 2), KXError);
}

TEST(ValuesMemory, SufficesForALargeFetch) {
  constexpr std::size_t kSamples = 1'500'000;
  // The least that samples of a cycle of 10 ms take: a time of two numbers, and true or false.
  std::string const sample = fromHex("9292ce69208c80ce000186a0c3");
  std::string bytes = header(kSamples);
  for (std::size_t i = 0; i < kSamples; ++i) bytes += sample;

  KXValue const value = decodeValue(bytes);

  ASSERT_EQ(value.getSize(), static_cast<int>(kSamples));
  EXPECT_EQ(value[kSamples - 1], KXValue::arrayOf(KXValue::arrayOf(1763740800, 100000), true));
}

}  // namespace
}  // namespace KX
