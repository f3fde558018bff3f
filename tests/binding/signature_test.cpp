#include <binding/kxsignature.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kxcommon/kxmethodinfo.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

struct Subject {
  void nothing() {}
  bool one(std::string const&) { return true; }
  Texts constant() const { return {}; }
  KXValue three(int const&, Texts const&, KXValue const&) { return {}; }
  double byValue(float, double) { return 0; }
  void nine(int, int, int, int, int, int, int, int, int) {}
};

// The record that addParam() leaves.
KXParameterInfo declared(std::string const& name, std::string const& description) {
  KXParameterInfo info;
  info.name = name;
  info.description = description;
  return info;
}

TEST(TypeString, OfEachCode) {
  EXPECT_EQ(getTypeString(1), "void");
  EXPECT_EQ(getTypeString(2), "bool");
  EXPECT_EQ(getTypeString(3), "int");
  EXPECT_EQ(getTypeString(4), "float");
  EXPECT_EQ(getTypeString(5), "string");
  EXPECT_EQ(getTypeString(6), "value");
  EXPECT_EQ(getTypeString(25), "vector<string>");
}

TEST(TypeString, OfUnknownCodeIsAnError) {
  for (int const code : {-1, 0, 7, 24, 26}) {
    SCOPED_TRACE(code);
    try {
      getTypeString(code);
      FAIL() << "was not refused";
    } catch (KXError const& error) {
      EXPECT_EQ(error.getDescription(),
                "unknown signature type code " + std::to_string(code) + ", expected 1 to 6 or 25");
    }
  }
}

TEST(ParamStrType, IsTheStringOfTheTypesCode) {
  EXPECT_EQ(getParamStrType<void>(), getTypeString(1));
  EXPECT_EQ(getParamStrType<bool>(), getTypeString(2));
  EXPECT_EQ(getParamStrType<int>(), getTypeString(3));
  EXPECT_EQ(getParamStrType<float>(), getTypeString(4));
  EXPECT_EQ(getParamStrType<double>(), getTypeString(4));
  EXPECT_EQ(getParamStrType<std::string>(), getTypeString(5));
  EXPECT_EQ(getParamStrType<KXValue>(), getTypeString(6));
  EXPECT_EQ(getParamStrType<Texts>(), getTypeString(25));
}

TEST(ParamStrType, IgnoresConstAndReference) {
  EXPECT_EQ(getParamStrType<int const&>(), "int");
  EXPECT_EQ(getParamStrType<std::string&>(), "string");
  EXPECT_EQ(getParamStrType<KXValue const>(), "value");
  EXPECT_EQ(getParamStrType<Texts&&>(), "vector<string>");
}

TEST(CompleteAndCheck, WritesTheReturnType) {
  KXMethodInfo nothing, one, constant, three;

  completeAndCheck(&Subject::nothing, nothing);
  completeAndCheck(&Subject::one, one);
  completeAndCheck(&Subject::constant, constant);
  completeAndCheck(&Subject::three, three);

  EXPECT_EQ(nothing.result.type, "void");
  EXPECT_EQ(one.result.type, "bool");
  EXPECT_EQ(constant.result.type, "vector<string>");
  EXPECT_EQ(three.result.type, "value");
  EXPECT_TRUE(nothing.parameters.empty());
  EXPECT_TRUE(constant.parameters.empty());
}

TEST(CompleteAndCheck, OverwritesTheReturnTypeAndKeepsItsTexts) {
  KXMethodInfo info;
  info.result = declared("watching", "true if keys are being watched.");
  info.result.type = "something else";

  completeAndCheck(&Subject::one, info);

  EXPECT_EQ(info.result.name, "watching");
  EXPECT_EQ(info.result.description, "true if keys are being watched.");
  EXPECT_EQ(info.result.type, "bool");
}

TEST(CompleteAndCheck, AddsArgRecordsForAllThatAreMissing) {
  KXMethodInfo info;

  completeAndCheck(&Subject::three, info);

  ASSERT_EQ(info.parameters.size(), 3U);
  char const* const names[] = {"arg1", "arg2", "arg3"};
  char const* const types[] = {"int", "vector<string>", "value"};
  for (std::size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(info.parameters[i].name, names[i]);
    EXPECT_EQ(info.parameters[i].description, "arg");
    EXPECT_EQ(info.parameters[i].type, types[i]);
    EXPECT_EQ(info.parameters[i].defaultText, "");
    EXPECT_FALSE(info.parameters[i].isOptional);
  }
}

TEST(CompleteAndCheck, NumbersArgRecordsFromTheFirstMissingPosition) {
  KXMethodInfo info;
  info.parameters = {declared("first", "what came first")};

  completeAndCheck(&Subject::three, info);

  ASSERT_EQ(info.parameters.size(), 3U);
  EXPECT_EQ(info.parameters[0].name, "first");
  EXPECT_EQ(info.parameters[0].description, "what came first");
  EXPECT_EQ(info.parameters[1].name, "arg2");
  EXPECT_EQ(info.parameters[2].name, "arg3");
}

TEST(CompleteAndCheck, KeepsDeclaredRecordsAndWritesTheirTypes) {
  KXMethodInfo info;
  info.parameters = {declared("a", "A"), declared("b", "B"), declared("c", "C")};
  info.parameters[1].defaultText = "[]";
  info.parameters[1].isOptional = true;

  completeAndCheck(&Subject::three, info);

  ASSERT_EQ(info.parameters.size(), 3U);
  EXPECT_EQ(info.parameters[0].type, "int");
  EXPECT_EQ(info.parameters[1].name, "b");
  EXPECT_EQ(info.parameters[1].description, "B");
  EXPECT_EQ(info.parameters[1].type, "vector<string>");
  EXPECT_EQ(info.parameters[1].defaultText, "[]");
  EXPECT_TRUE(info.parameters[1].isOptional);
  EXPECT_EQ(info.parameters[2].type, "value");
}

TEST(CompleteAndCheck, LeavesSurplusRecordsAlone) {
  KXMethodInfo info;
  info.parameters = {declared("name", "wanted"), declared("more", "surplus")};
  info.parameters[1].type = "as it was";

  completeAndCheck(&Subject::one, info);

  ASSERT_EQ(info.parameters.size(), 2U);
  EXPECT_EQ(info.parameters[0].type, "string");
  EXPECT_EQ(info.parameters[1].name, "more");
  EXPECT_EQ(info.parameters[1].type, "as it was");
}

TEST(CompleteAndCheck, TakesParametersByValue) {
  KXMethodInfo info;

  completeAndCheck(&Subject::byValue, info);

  ASSERT_EQ(info.parameters.size(), 2U);
  EXPECT_EQ(info.parameters[0].type, "float");
  EXPECT_EQ(info.parameters[1].type, "float");
  EXPECT_EQ(info.result.type, "float");
}

TEST(CompleteAndCheck, NamesUpToNineParameters) {
  KXMethodInfo info;

  completeAndCheck(&Subject::nine, info);

  ASSERT_EQ(info.parameters.size(), 9U);
  EXPECT_EQ(info.parameters[8].name, "arg9");
}

}  // namespace
}  // namespace KX
