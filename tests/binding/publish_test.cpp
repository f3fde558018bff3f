#include <binding/kxpublish.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

class PublishingModule : public KXModule {
 public:
  explicit PublishingModule(boost::shared_ptr<KXBroker> const& broker)
      : KXModule(broker, "Publishing") {
    publish(*this,
            {"count",
             "counts  texts",
             {{"texts", "what to count"}, {"limit", "where to end"}},
             {"number", "how many there are"}},
            &PublishingModule::count);
    publish(*this, {"partly", "", {{"first", "the only one described"}}}, &PublishingModule::count);
    publish(*this, {"list", "lists", {}, {"all", "the list"}}, &PublishingModule::list);
    publish(*this, {"clear"}, &PublishingModule::clear);
    publish(*this, {"size"}, &PublishingModule::size);
  }

  int count(Texts const& texts, int const& limit) {
    return limit < static_cast<int>(texts.size()) ? limit : static_cast<int>(texts.size());
  }
  Texts list() { return {"a", "b"}; }
  void clear() {}
  int size() const { return 7; }
};

// Registers what a module that derives from it has, as well as its own.
class HelpingModule : public KXModule {
 public:
  using KXModule::KXModule;
  std::string inherited() { return "of " + getName(); }

 protected:
  template <class T, class Member>
  static void xPublish(T& module, char const* name, Member member) {
    publish(module, {name}, member);
  }
};

class HelpedModule : public HelpingModule {
 public:
  explicit HelpedModule(boost::shared_ptr<KXBroker> const& broker)
      : HelpingModule(broker, "Helped") {
    xPublish(*this, "inherited", &HelpedModule::inherited);
    xPublish(*this, "ownText", &HelpedModule::ownText);
  }
  std::string ownText() { return mText; }

 private:
  std::string const mText = "own";
};

class Publish : public ::testing::Test {
 protected:
  template <class Module>
  KXValue call(Module& module, char const* name, KXValue const& arguments) {
    KXValue result;
    module.findMethod(name)->functor->call(arguments, result);
    return result;
  }

  boost::shared_ptr<KXBroker> const mBroker = KXBroker::createBroker("test");
  PublishingModule mModule{mBroker};
};

TEST_F(Publish, WritesEachTextAndEachType) {
  KXMethodInfo const& info = *mModule.findMethod("count");

  EXPECT_EQ(info.name, "count");
  EXPECT_EQ(info.moduleName, "Publishing");
  EXPECT_EQ(info.description, "counts  texts");
  ASSERT_EQ(info.parameters.size(), 2U);
  EXPECT_EQ(info.parameters[0].name, "texts");
  EXPECT_EQ(info.parameters[0].description, "what to count");
  EXPECT_EQ(info.parameters[0].type, "vector<string>");
  EXPECT_EQ(info.parameters[1].name, "limit");
  EXPECT_EQ(info.parameters[1].type, "int");
  EXPECT_EQ(info.result.name, "number");
  EXPECT_EQ(info.result.description, "how many there are");
  EXPECT_EQ(info.result.type, "int");
}

TEST_F(Publish, NamesTheParametersThatAreNotDescribed) {
  KXMethodInfo const& info = *mModule.findMethod("partly");

  ASSERT_EQ(info.parameters.size(), 2U);
  EXPECT_EQ(info.parameters[0].name, "first");
  EXPECT_EQ(info.parameters[1].name, "arg2");
  EXPECT_EQ(info.parameters[1].description, "arg");
}

TEST_F(Publish, OfAMethodWithoutParametersOrResultNeedsItsNameOnly) {
  KXMethodInfo const& info = *mModule.findMethod("clear");

  EXPECT_TRUE(info.parameters.empty());
  EXPECT_EQ(info.result.name, "");
  EXPECT_EQ(info.result.type, "void");
}

TEST_F(Publish, BindsTheMembersInTheirOrder) {
  Texts names;
  for (KXMethodInfo const& info : mModule.getMethods()) names.push_back(info.name);
  EXPECT_EQ(names, (Texts{"count", "partly", "list", "clear", "size"}));

  EXPECT_EQ(call(mModule, "count", KXValue::arrayOf(KXValue(Texts{"a", "b"}), 5)), KXValue(2));
  EXPECT_EQ(call(mModule, "list", KXValue()), KXValue(Texts{"a", "b"}));
  EXPECT_EQ(call(mModule, "size", KXValue()), KXValue(7));
}

TEST_F(Publish, BindsMembersWithoutParametersAsFunctorsOfNone) {
  auto const* const list = mModule.findMethod("list")->functor.get();
  auto const* const clear = mModule.findMethod("clear")->functor.get();

  EXPECT_NE((dynamic_cast<detail::KXFunctor_0<PublishingModule, Texts> const*>(list)), nullptr);
  EXPECT_NE((dynamic_cast<detail::KXFunctor_0<PublishingModule, void> const*>(clear)), nullptr);
}

TEST_F(Publish, FromABaseClassReachesMembersOfBothClasses) {
  HelpedModule module(mBroker);

  EXPECT_EQ(call(module, "inherited", KXValue()), KXValue("of Helped"));
  EXPECT_EQ(call(module, "ownText", KXValue()), KXValue("own"));
}

}  // namespace
}  // namespace KX
