// The module's published face: description, the 14 methods, their parameters, types and results.

#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tests/memorywatcher/watcherfixture.hpp>

namespace KX {
namespace {

struct Parameter {
  std::string name;
  std::string description;
  std::string type;

  bool operator==(Parameter const&) const = default;
};

struct Row {
  std::string name;
  std::string description;
  std::vector<Parameter> parameters;
  Parameter result;
};

std::string blanks(std::size_t count) {
  return std::string(count, ' ');
}

Parameter const kNothing{"", "", "void"};

std::vector<Row> const kRows = {
    {"listeners",
     "get the list of listened KXMemory keys",
     {},
     {"key list", "a list of KXMemory keys", "vector<string>"}},
    {"addListener",
     "add an KXMemory key to the list of keys to listen to",
     {{"name", "the complete name of the KXMemory key", "string"}},
     kNothing},
    {"addListeners",
     "add a list of KXMemory keys to the list of keys to listen",
     {{"listNames", "the vector of complete names of KXMemory keys", "vector<string>"}},
     kNothing},
    {"removeAllListeners", "remove all keys listened to", {}, kNothing},
    {"removeListener",
     "remove a key from the list to listen to",
     {{"name", "the name of the key to stop to listen", "string"}},
     kNothing},
    {"removeListeners",
     "remove a list of key from the list to listen",
     {{"listNames", "the vector of names of key to stop to listen", "vector<string>"}},
     kNothing},
    {"getData",
     "return an KXValue containing all buffered data" + blanks(39) +
         "since the last call of getData().",
     {},
     {"data", "The complete array of all buffered data", "value"}},
    {"clearBuffer",
     "remove all buffered data." + blanks(43) + "The list of keys listened to keeps unchanged.",
     {},
     kNothing},
    {"isWatching",
     "tells whether keys are watched and data being gathered.",
     {},
     {"watching", "true if keys are being watched.", "bool"}},
    {"startWatching",
     "start listening to selected keys from KXMemory",
     {{"period", "the time between two listen of KXMemory keys, in milliseconds.", "int"}},
     kNothing},
    {"stopWatching",
     "stop listening selected keys from KXMemory." + blanks(36) +
         "List of listened keys and associated buffers keep unchanged.",
     {},
     kNothing},
    {"_mainThread",
     "simple loop calling buffer update every \"period\" milliseconds",
     {},
     kNothing},
    {"setPeriodMs",
     "edit \"period\" value between two buffering.",
     {{"period", "the new period (in ms) to apply.", "int"}},
     kNothing},
    {"_onEventNotify",
     "Be notified when an event we have subscribe to has changed in KXMemory",
     {{"dataName", "name of the data", "string"},
      {"dataValue", "value of the data", "value"},
      {"message", "callback message", "value"}},
     kNothing},
};

Parameter toParameter(KXParameterInfo const& info) {
  return {info.name, info.description, info.type};
}

class MethodTable : public WatcherTest {};

TEST_F(MethodTable, DescribesTheModule) {
  EXPECT_EQ(client()->getModuleCore()->getModuleDescription(),
            "This is a module design to buffer and log values from KXMemory");
}

TEST_F(MethodTable, HasTheFourteenNamesInOrder) {
  std::vector<std::string> expected;
  for (Row const& row : kRows) expected.push_back(row.name);

  std::vector<std::string> published;
  for (KXMethodInfo const& method : client()->getModuleCore()->getMethods()) {
    published.push_back(method.name);
  }

  EXPECT_EQ(published, expected);
  EXPECT_EQ(published.size(), 14U);
}

TEST_F(MethodTable, GivesEveryRowItsTextsAndTypes) {
  auto const& methods = client()->getModuleCore()->getMethods();
  ASSERT_EQ(methods.size(), kRows.size());
  for (std::size_t i = 0; i < kRows.size(); ++i) {
    SCOPED_TRACE(kRows[i].name);
    EXPECT_EQ(methods[i].moduleName, "KXMemoryWatcher");
    EXPECT_EQ(methods[i].description, kRows[i].description);
    EXPECT_EQ(toParameter(methods[i].result), kRows[i].result);
    std::vector<Parameter> parameters;
    for (KXParameterInfo const& info : methods[i].parameters) {
      parameters.push_back(toParameter(info));
    }
    EXPECT_EQ(parameters, kRows[i].parameters);
    EXPECT_NE(methods[i].functor, nullptr);
  }
}

template <class Functor>
bool isBoundBy(KXMethodInfo const& method) {
  return dynamic_cast<Functor*>(method.functor.get()) != nullptr;
}

TEST_F(MethodTable, BindsEveryRowByItsFunctor) {
  using detail::KXFunctor_0;
  using detail::KXFunctor_1;
  using detail::KXFunctor_3;
  using M = KXMemoryWatcher;
  bool (*const expected[])(KXMethodInfo const&) = {
      &isBoundBy<KXFunctor_0<M, Names>>,
      &isBoundBy<KXFunctor_1<M, std::string, void>>,
      &isBoundBy<KXFunctor_1<M, Names, void>>,
      &isBoundBy<KXFunctor_0<M, void>>,
      &isBoundBy<KXFunctor_1<M, std::string, void>>,
      &isBoundBy<KXFunctor_1<M, Names, void>>,
      &isBoundBy<KXFunctor_0<M, KXValue>>,
      &isBoundBy<KXFunctor_0<M, void>>,
      &isBoundBy<KXFunctor_0<M, bool>>,
      &isBoundBy<KXFunctor_1<M, int, void>>,
      &isBoundBy<KXFunctor_0<M, void>>,
      &isBoundBy<KXFunctor_0<M, void>>,
      &isBoundBy<KXFunctor_1<M, int, void>>,
      &isBoundBy<KXFunctor_3<M, std::string, KXValue, KXValue, void>>};
  auto const& methods = client()->getModuleCore()->getMethods();
  ASSERT_EQ(methods.size(), std::size(expected));
  for (std::size_t i = 0; i < methods.size(); ++i) {
    EXPECT_TRUE(expected[i](methods[i])) << methods[i].name;
  }
}

// A call of each method by its published name reaches the member that the table names.
TEST_F(MethodTable, NamesReachTheirMembers) {
  mMemory->set("a", "Data", 1);
  mMemory->set("b", "Data", 2);

  call("addListener", std::string("a"));
  call("addListeners", Names{"b"});
  EXPECT_EQ(listeners(), (Names{"a", "b"}));
  call("setPeriodMs", 30);
  EXPECT_EQ(ForTest::periodMs(*mWatcher), 30);
  call("startWatching", 10);
  EXPECT_TRUE(client()->call<bool>("isWatching"));
  raise("event", 7);
  call("stopWatching");
  EXPECT_FALSE(client()->call<bool>("isWatching"));
  EXPECT_EQ(valuesOf(fetch()[2][1]), (std::vector<KXValue>{7}));
  raise("event", 8);
  call("clearBuffer");
  EXPECT_EQ(fetch()[2][1].getSize(), 0);
  call("removeListener", std::string("event"));
  call("removeListeners", Names{"a"});
  EXPECT_EQ(listeners(), (Names{"b"}));
  call("removeAllListeners");
  EXPECT_EQ(listeners(), Names{});
  call("_mainThread");  // not watching: returns at once
}

TEST_F(MethodTable, RefusesAnIntegerForAName) {
  try {
    client()->genericCall("addListener", KXValue::arrayOf(5));
    FAIL() << "an integer was taken for a name";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "Parameter type is int instead of string");
  }
  EXPECT_EQ(mMemory->getCalls().size(), 0U);
  EXPECT_EQ(listeners(), Names{});
}

TEST_F(MethodTable, RefusesATextForAPeriod) {
  try {
    client()->genericCall("startWatching", KXValue::arrayOf("50"));
    FAIL() << "a text was taken for a period";
  } catch (KXError const& error) {
    EXPECT_STREQ(error.what(), "Parameter type is string instead of int");
  }
  EXPECT_FALSE(client()->call<bool>("isWatching"));
}

TEST_F(MethodTable, RefusesTooFewArguments) {
  EXPECT_THROW(client()->genericCall("addListener", KXValue(std::vector<KXValue>())), KXError);
  EXPECT_EQ(mMemory->getCalls().size(), 0U);
}

}  // namespace
}  // namespace KX
