// Arguments that are recognised, and those that only look alike.
#include <host/bus/kxargumentcache.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace KX {
namespace {

KXValue names(int count) {
  return KXValue::arrayFrom(static_cast<std::size_t>(count),
                            [](std::size_t i) { return KXValue("name" + std::to_string(i)); });
}

std::shared_ptr<std::string const> bytes(std::size_t size) {
  return std::make_shared<std::string const>(size, 'x');
}

void keep(KXEncodedArguments& cache, KXValue arguments,
          std::shared_ptr<std::string const> encoded) {
  cache.keep(arguments, std::move(encoded));
}

TEST(KXEncodedArguments, KnowsTheSameBlockInANewArray) {
  KXValue const list = names(500);
  auto const encoded = bytes(5000);
  KXEncodedArguments cache;

  keep(cache, KXValue::arrayOf(list, 5, "short"), encoded);

  EXPECT_EQ(cache.find(KXValue::arrayOf(list, 5, "short")), encoded);
}

TEST(KXEncodedArguments, KnowsNothingElse) {
  KXValue const list = names(500);
  KXValue changed = list;
  changed[0] = KXValue("other");
  KXEncodedArguments cache;
  EXPECT_EQ(cache.find(KXValue::arrayOf(list)), nullptr);
  keep(cache, KXValue::arrayOf(list, 5), bytes(5000));

  for (KXValue const& other :
       {KXValue::arrayOf(list), KXValue::arrayOf(list, 6), KXValue::arrayOf(list, 5.0),
        KXValue::arrayOf(changed, 5), KXValue::arrayOf(names(500), 5), KXValue::arrayOf(5, list),
        KXValue(), list}) {
    EXPECT_EQ(cache.find(other), nullptr) << other.toString(1).substr(0, 80);
  }
}

TEST(KXEncodedArguments, WhoChangesTheListChangesACopy) {
  KXValue list = names(500);
  KXEncodedArguments cache;
  keep(cache, KXValue::arrayOf(list), bytes(5000));

  list[3] = KXValue("new");

  EXPECT_EQ(cache.find(KXValue::arrayOf(list)), nullptr);
}

TEST(KXEncodedArguments, KeepsNeitherSmallNorHugeOnes) {
  KXValue const list = names(5);
  KXEncodedArguments cache;

  keep(cache, KXValue::arrayOf(list), bytes(kLeastCachedBytes - 1));
  EXPECT_EQ(cache.find(KXValue::arrayOf(list)), nullptr);
  keep(cache, KXValue::arrayOf(list), bytes(kMostCachedBytes + 1));
  EXPECT_EQ(cache.find(KXValue::arrayOf(list)), nullptr);
}

TEST(KXDecodedArguments, GivesTheSameBlockForTheSameBytes) {
  KXValue const list = names(500);
  KXDecodedArguments cache;

  cache.keep("subject", std::string(2000, 'x'), list);

  KXValue const* const found = cache.find("subject", std::string(2000, 'x'));
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(found->sharesBlockWith(list));
  EXPECT_EQ(cache.find("subject", std::string(2000, 'y')), nullptr);
  EXPECT_EQ(cache.find("subject", std::string(2001, 'x')), nullptr);
  EXPECT_EQ(cache.find("other", std::string(2000, 'x')), nullptr);
}

TEST(KXDecodedArguments, ReplacesWhatCameBefore) {
  KXDecodedArguments cache;
  cache.keep("subject", std::string(2000, 'x'), KXValue("x"));

  cache.keep("subject", std::string(2000, 'y'), KXValue("y"));

  EXPECT_EQ(cache.find("subject", std::string(2000, 'x')), nullptr);
  ASSERT_NE(cache.find("subject", std::string(2000, 'y')), nullptr);
}

TEST(KXDecodedArguments, IsBounded) {
  KXDecodedArguments cache;
  auto const countKnown = [&](std::string const& content) {
    int count = 0;
    for (int i = 0; i < 200; ++i) count += cache.find(std::to_string(i), content) != nullptr;
    return count;
  };
  std::string const small(2000, 'x');
  for (int i = 0; i < 200; ++i) cache.keep(std::to_string(i), small, KXValue(i));
  EXPECT_EQ(countKnown(small), 64);

  std::string const large(kMostCachedBytes, 'x');
  for (int i = 0; i < 10; ++i) cache.keep(std::to_string(i), large, KXValue(i));
  EXPECT_EQ(countKnown(large), 4);
  EXPECT_EQ(countKnown(small), 0);
  ASSERT_NE(cache.find("9", large), nullptr) << "the youngest stays";
}

}  // namespace
}  // namespace KX
