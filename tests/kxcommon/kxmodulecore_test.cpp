#include <kxcommon/kxmodulecore.hpp>

#include <functional>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <binding/kxfunctor.hpp>
#include <binding/kxsignature.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

// Opens registration to the test.
class OpenModule : public KXModule {
 public:
  explicit OpenModule(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Open") {}

  using KXModuleCore::addParam;
  using KXModuleCore::bindMethod;
  using KXModuleCore::functionName;
  using KXModuleCore::getCurrentMethodDescription;
  using KXModuleCore::setModuleDescription;
  using KXModuleCore::setReturn;
  using KXModuleCore::setScript;

  void none() {}
  int one(int const& number) { return number; }
  int two(int const&, std::string const&) { return 2; }

  template <class Member>
  void publish(char const* name, Member member) {
    functionName(name, getName(), "", 0);
    completeAndCheck(member, getCurrentMethodDescription());
    bindMethod(createFunctor(this, member));
  }
};

class ModuleCore : public ::testing::Test {
 protected:
  boost::shared_ptr<KXBroker> mBroker = KXBroker::createBroker("test");
  boost::shared_ptr<OpenModule> const mModule = boost::make_shared<OpenModule>(mBroker);
};

std::string errorOf(std::function<void()> const& call) {
  try {
    call();
  } catch (KXError const& error) {
    return error.getDescription();
  }
  return "no error";
}

TEST_F(ModuleCore, KeepsItsNameAndDescription) {
  mModule->setModuleDescription("what it is for");

  EXPECT_EQ(mModule->getName(), "Open");
  EXPECT_EQ(mModule->getModuleDescription(), "what it is for");
  EXPECT_FALSE(mModule->isClosing());
  EXPECT_FALSE(mModule->isScript());
  mModule->setScript();
  EXPECT_TRUE(mModule->isScript());
}

TEST_F(ModuleCore, KeepsEachTextOfAMethod) {
  mModule->functionName("one", mModule->getName(), "a  text with   blanks", 0);
  mModule->addParam("number", "the \"number\"");
  mModule->setReturn("result", "what comes");
  completeAndCheck(&OpenModule::one, mModule->getCurrentMethodDescription());
  auto const functor = createFunctor(mModule.get(), &OpenModule::one);
  mModule->bindMethod(functor);

  ASSERT_EQ(mModule->getMethods().size(), 1U);
  KXMethodInfo const& method = mModule->getMethods()[0];
  EXPECT_EQ(method.name, "one");
  EXPECT_EQ(method.moduleName, "Open");
  EXPECT_EQ(method.description, "a  text with   blanks");
  ASSERT_EQ(method.parameters.size(), 1U);
  EXPECT_EQ(method.parameters[0].name, "number");
  EXPECT_EQ(method.parameters[0].description, "the \"number\"");
  EXPECT_EQ(method.parameters[0].type, "int");
  EXPECT_EQ(method.parameters[0].defaultText, "");
  EXPECT_FALSE(method.parameters[0].isOptional);
  EXPECT_EQ(method.result.name, "result");
  EXPECT_EQ(method.result.description, "what comes");
  EXPECT_EQ(method.result.type, "int");
  EXPECT_EQ(method.functor, functor);
}

TEST_F(ModuleCore, KeepsMethodsInTheOrderOfRegistration) {
  mModule->publish("zebra", &OpenModule::none);
  mModule->publish("ant", &OpenModule::one);
  mModule->publish("monkey", &OpenModule::two);

  std::vector<std::string> names;
  for (KXMethodInfo const& method : mModule->getMethods()) names.push_back(method.name);
  EXPECT_EQ(names, (std::vector<std::string>{"zebra", "ant", "monkey"}));
}

TEST_F(ModuleCore, StartsEachDescriptionAnew) {
  mModule->functionName("two", "Open", "text", 0);
  mModule->addParam("first", "");
  mModule->setReturn("result", "");
  mModule->bindMethod(createFunctor(mModule.get(), &OpenModule::two));

  mModule->functionName("none", "Open", "", 0);

  EXPECT_TRUE(mModule->getCurrentMethodDescription().parameters.empty());
  EXPECT_EQ(mModule->getCurrentMethodDescription().result.name, "");
  EXPECT_EQ(mModule->getCurrentMethodDescription().result.type, "void");
}

TEST_F(ModuleCore, HasNoDescriptionBeforeTheFirstAndAfterBinding) {
  std::string const text =
      "module 'Open' has no open method description, call functionName() first";

  EXPECT_EQ(errorOf([this] { mModule->getCurrentMethodDescription(); }), text);
  EXPECT_EQ(errorOf([this] { mModule->addParam("a", ""); }), text);
  EXPECT_EQ(errorOf([this] { mModule->setReturn("a", ""); }), text);
  EXPECT_EQ(errorOf([this] { mModule->bindMethod(nullptr); }), text);
  mModule->publish("none", &OpenModule::none);
  EXPECT_EQ(errorOf([this] { mModule->addParam("a", ""); }), text);
  EXPECT_TRUE(mModule->getMethods()[0].parameters.empty());
}

TEST_F(ModuleCore, FindsTheOnlyMethodOfAName) {
  mModule->publish("one", &OpenModule::one);
  mModule->publish("two", &OpenModule::two);

  EXPECT_EQ(mModule->findMethod("one"), &mModule->getMethods()[0]);
  EXPECT_EQ(mModule->findMethod("two"), &mModule->getMethods()[1]);
  EXPECT_EQ(mModule->findMethod("One"), nullptr);
  EXPECT_EQ(mModule->findMethod(""), nullptr);
}

TEST_F(ModuleCore, FindsOverloadsByTheirTypesOnly) {
  mModule->publish("same", &OpenModule::one);
  mModule->publish("same", &OpenModule::two);

  EXPECT_EQ(mModule->findMethod("same"), nullptr);
  EXPECT_EQ(mModule->findMethod("same", {"int"}), &mModule->getMethods()[0]);
  EXPECT_EQ(mModule->findMethod("same", {"int", "string"}), &mModule->getMethods()[1]);
  EXPECT_EQ(mModule->findMethod("same", {"string"}), nullptr);
  EXPECT_EQ(mModule->findMethod("same", {}), nullptr);
  EXPECT_EQ(mModule->findMethod("other", {"int"}), nullptr);
}

TEST_F(ModuleCore, TellsOverloadsApartByTheirNumberOfParameters) {
  mModule->publish("same", &OpenModule::two);
  mModule->publish("same", &OpenModule::one);

  EXPECT_EQ(&mModule->getMethod("same", 2), &mModule->getMethods()[0]);
  EXPECT_EQ(&mModule->getMethod("same", 1), &mModule->getMethods()[1]);
  EXPECT_EQ(errorOf([this] { mModule->getMethod("same", 0); }),
            "method 'same' of module 'Open' takes 1 or 2 arguments, 0 given");
}

TEST_F(ModuleCore, NamesTheNumberOfArgumentsThatIsWanted) {
  mModule->publish("none", &OpenModule::none);
  mModule->publish("one", &OpenModule::one);

  EXPECT_EQ(errorOf([this] { mModule->getMethod("none", 1); }),
            "method 'none' of module 'Open' takes 0 arguments, 1 given");
  EXPECT_EQ(errorOf([this] { mModule->getMethod("one", 2); }),
            "method 'one' of module 'Open' takes 1 argument, 2 given");
}

TEST_F(ModuleCore, NamesWhatIsPublishedForAnUnknownMethod) {
  EXPECT_EQ(errorOf([this] { mModule->getMethod("missing", 0); }),
            "unknown method 'missing' of module 'Open', published: none");

  mModule->publish("one", &OpenModule::one);
  mModule->publish("same", &OpenModule::none);
  mModule->publish("same", &OpenModule::two);

  std::string const text = "unknown method 'missing' of module 'Open', published: 'one', 'same'";
  EXPECT_EQ(errorOf([this] { mModule->getMethod("missing", 0); }), text);
  EXPECT_EQ(errorOf([this] { mModule->throwUnknownMethod("missing"); }), text);
}

TEST_F(ModuleCore, KnowsItsBrokerWithoutKeepingIt) {
  EXPECT_EQ(mModule->getParentBroker(), mBroker);

  boost::weak_ptr<KXBroker> const weak = mBroker;
  mBroker.reset();

  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(errorOf([this] { mModule->getParentBroker(); }), "the broker of module 'Open' is gone");
  EXPECT_EQ(errorOf([this] { mModule->initModule(); }), "the broker of module 'Open' is gone");
}

TEST_F(ModuleCore, IsPublishedByInitModuleOnly) {
  EXPECT_FALSE(mBroker->isModulePresent("Open"));

  mModule->initModule();

  EXPECT_TRUE(mBroker->isModulePresent("Open"));
  EXPECT_EQ(mBroker->getProxy("Open", 0)->getModule(), mModule);
}

}  // namespace
}  // namespace KX
