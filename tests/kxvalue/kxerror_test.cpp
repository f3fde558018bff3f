#include <exception>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

static_assert(std::is_base_of_v<std::exception, KXError>);
static_assert(std::is_nothrow_destructible_v<KXError>);

TEST(Error, GivesBackWhatItWasMadeOf) {
  KXError const error("KXFoo", "bar", "no such thing", "foo/bar", 42);

  EXPECT_EQ(error.getModuleName(), "KXFoo");
  EXPECT_EQ(error.getMethodName(), "bar");
  EXPECT_EQ(error.getDescription(), "no such thing");
  EXPECT_EQ(error.getFileName(), "foo/bar");
  EXPECT_EQ(error.getLine(), 42);
}

TEST(Error, WhatIsTheDescriptionAlone) {
  KXError const error("KXFoo", "bar", "no such thing", "foo/bar", 42);

  EXPECT_STREQ(error.what(), "no such thing");
}

TEST(Error, KeepsAnEmptyDescriptionAsEmptyText) {
  KXError const error("", "", "", "", 0);

  EXPECT_STREQ(error.what(), "");
  EXPECT_EQ(error.getLine(), 0);
}

TEST(Error, CopyOutlivesTheOriginal) {
  KXError copy("a", "b", "c", "d", 1);
  {
    KXError const original("KXFoo", "bar", std::string(1000, 'x'), "foo/bar", 42);
    copy = original;
  }

  EXPECT_EQ(copy.getModuleName(), "KXFoo");
  EXPECT_EQ(copy.what(), std::string(1000, 'x'));
  EXPECT_EQ(copy.getLine(), 42);
}

TEST(Error, IsCaughtAsAStandardException) {
  try {
    throw KXError("KXFoo", "bar", "no such thing", "foo/bar", 42);
  } catch (std::exception const& error) {
    EXPECT_STREQ(error.what(), "no such thing");
    return;
  }
  FAIL() << "not caught";
}

TEST(Error, IsNoneOfTheStandardErrors) {
  KXError const error("KXFoo", "bar", "no such thing", "foo/bar", 42);
  std::exception const& base = error;

  EXPECT_EQ(dynamic_cast<std::runtime_error const*>(&base), nullptr);
  EXPECT_EQ(dynamic_cast<std::logic_error const*>(&base), nullptr);
}

TEST(DescribeCurrentException, TellsWhatAStandardExceptionSays) {
  class Silent : public std::exception {
    char const* what() const noexcept override { return nullptr; }
  };
  auto const describe = [](auto const& thrown) {
    try {
      throw thrown;
    } catch (...) {
      return describeCurrentException();
    }
  };

  EXPECT_EQ(describe(KXError("KXFoo", "bar", "no such thing", "foo/bar", 42)), "no such thing");
  EXPECT_EQ(describe(std::runtime_error("other")), "other");
  EXPECT_EQ(describe(Silent()), "");
  EXPECT_EQ(describe(5), "an exception of unknown type");
}

}  // namespace
}  // namespace KX
