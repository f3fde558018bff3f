// What a client can rely on whichever way its call takes.
#include <binding/kxproxycall.hpp>

#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/binding/calledmodule.hpp>
#include <tests/bus/joinedbrokers.hpp>
#include <tests/support/faketransport.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

enum class Way { Local, Script, Remote, Bus, BusScript };
void PrintTo(Way way, std::ostream* out) {
  constexpr char const* kNames[] = {"Local", "Script", "Remote", "Bus", "BusScript"};
  *out << kNames[static_cast<int>(way)];
}

class ProxyContract : public ::testing::TestWithParam<Way> {
 protected:
  ProxyContract() {
    if (isOverTheBus()) {
      mJoined = std::make_unique<testing::JoinedBrokers>();
      mBroker = mJoined->there.getBroker();
      mCallersBroker = mJoined->here.getBroker();
    } else {
      mBroker = KXBroker::createBroker("test");
      mCallersBroker = GetParam() == Way::Remote ? KXBroker::createBroker("caller") : mBroker;
    }
    mModule = boost::make_shared<CalledModule>(
        mBroker, isOfAScript() ? CalledModule::Kind::Script : CalledModule::Kind::Bound);
    mModule->initModule();
    mModule->init();
    if (mJoined) mJoined->there.announce("Called");
    if (GetParam() == Way::Remote) {
      mProxy = boost::make_shared<KXProxy>(mCallersBroker, "Called",
                                           boost::make_shared<testing::FakeTransport>(mBroker));
    } else {
      mProxy = mCallersBroker->getProxy("Called", 0);
    }
  }
  ~ProxyContract() override {
    mModule->gate.open();
    if (!mJoined) mBroker->shutdown();
  }

  static bool isOverTheBus() { return GetParam() == Way::Bus || GetParam() == Way::BusScript; }
  static bool isOfAScript() { return GetParam() == Way::Script || GetParam() == Way::BusScript; }

  std::unique_ptr<testing::JoinedBrokers> mJoined;
  boost::shared_ptr<KXBroker> mBroker;
  boost::shared_ptr<CalledModule> mModule;
  boost::shared_ptr<KXBroker> mCallersBroker;
  boost::shared_ptr<KXProxy> mProxy;
};

INSTANTIATE_TEST_SUITE_P(Over, ProxyContract,
                         ::testing::Values(Way::Local, Way::Script, Way::Remote, Way::Bus,
                                           Way::BusScript),
                         ::testing::PrintToStringParamName());

TEST_P(ProxyContract, TellsWhichWayItTakes) {
  bool const isLocal = GetParam() == Way::Local || GetParam() == Way::Script;

  EXPECT_EQ(mProxy->isLocal(), isLocal);
  EXPECT_EQ(mProxy->isScript(), GetParam() == Way::Script);
  EXPECT_EQ(mProxy->getModule().get(), isLocal ? mModule.get() : nullptr);
  EXPECT_EQ(mProxy->getModuleCore().get(), isLocal ? mModule.get() : nullptr);
}

TEST_P(ProxyContract, CallsWithAStringAndReturnsABool) {
  EXPECT_TRUE((mProxy->call<bool, std::string>("isKnown", "VSM")));
  EXPECT_FALSE((mProxy->call<bool, std::string>("isKnown", "vsm")));
  EXPECT_EQ(mModule->enteredCount, 2);
}

TEST_P(ProxyContract, TakesATextInQuotesAsAString) {
  char const* const text = "VSM";

  EXPECT_TRUE(mProxy->call<bool>("isKnown", "VSM"));
  EXPECT_TRUE(mProxy->call<bool>("isKnown", text));
  EXPECT_EQ(mProxy->call<std::string>("greet", "you", 2), "you*2");
}

TEST_P(ProxyContract, ReturnsEachType) {
  KXValue const nested = KXValue::arrayOf(KXValue(1), KXValue("x"), KXValue::arrayOf());

  EXPECT_EQ(mProxy->call<int>("getLength", std::string("four")), 4);
  EXPECT_EQ(mProxy->call<int>("negate", 5), -5);
  EXPECT_EQ(mProxy->call<double>("halve", 5.0), 2.5);
  EXPECT_EQ(mProxy->call<std::string>("greet", std::string("hi"), 3), "hi*3");
  EXPECT_EQ(mProxy->call<Texts>("split"), (Texts{"a", "b"}));
  EXPECT_EQ(mProxy->call<KXValue>("echo", nested), nested);
}

TEST_P(ProxyContract, CallsWhatReturnsNothing) {
  mProxy->call<void>("nothing");
  mProxy->call<void>("takeText", std::string("text"));

  EXPECT_EQ(mModule->enteredCount, 2);
}

TEST_P(ProxyContract, IgnoresAResultThatIsNotWanted) {
  mProxy->call<void>("negate", 5);

  EXPECT_EQ(mModule->enteredCount, 1);
}

TEST_P(ProxyContract, PassesTheModulesErrorUnchanged) {
  try {
    mProxy->call<void>("fail");
    FAIL() << "did not throw";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getModuleName(), "Called");
    EXPECT_EQ(error.getMethodName(), "fail");
    EXPECT_EQ(error.getDescription(), "as told");
    EXPECT_EQ(error.getFileName(), "somewhere");
    EXPECT_EQ(error.getLine(), 7);
  }
}

TEST_P(ProxyContract, RefusesAnUnknownMethod) {
  KXValue const none = KXValue::arrayOf();

  EXPECT_THROW(mProxy->call<bool>("missing", std::string("VSM")), KXError);
  EXPECT_THROW(mProxy->genericCall("missing", none), KXError);
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_P(ProxyContract, RefusesAWrongParameterBeforeTheMemberRuns) {
  EXPECT_THROW(mProxy->call<bool>("takeInt", std::string("5")), KXError);
  EXPECT_THROW(mProxy->genericCall("takeInt", KXValue::arrayOf(KXValue("5"))), KXError);
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_P(ProxyContract, RefusesAWrongNumberOfArgumentsBeforeTheMemberRuns) {
  KXValue const none = KXValue::arrayOf();

  EXPECT_THROW(mProxy->genericCall("takeInt", none), KXError);
  EXPECT_THROW(mProxy->genericCall("takeInt", KXValue()), KXError);
  EXPECT_THROW(mProxy->genericCall("takeInt", KXValue::arrayOf(KXValue(1), KXValue(2))), KXError);
  EXPECT_THROW(mProxy->call<bool>("takeInt"), KXError);
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_P(ProxyContract, GenericCallConvertsArgumentsAndReturnsTheResult) {
  KXValue const greeting = KXValue::arrayOf(KXValue("hi"), KXValue(3));

  EXPECT_EQ(mProxy->genericCall("greet", greeting), KXValue("hi*3"));
  EXPECT_EQ(mProxy->genericCall("split", KXValue::arrayOf()), KXValue(Texts{"a", "b"}));
  EXPECT_EQ(mProxy->genericCall("split", KXValue()), KXValue(Texts{"a", "b"}));
}

TEST_P(ProxyContract, GenericCallOfWhatReturnsNothingIsInvalid) {
  EXPECT_FALSE(mProxy->genericCall("nothing", KXValue::arrayOf()).isValid());
  EXPECT_EQ(mModule->enteredCount, 1);
}

TEST_P(ProxyContract, GenericCallRefusesParamsThatAreNoArray) {
  EXPECT_THROW(mProxy->genericCall("takeInt", KXValue(5)), KXError);
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_P(ProxyContract, ParallelCallReturnsBeforeItEndsAndIsWaitedFor) {
  int const id = mProxy->pCall("park");

  EXPECT_GT(id, 0);
  EXPECT_TRUE(mProxy->isRunning(id));
  ASSERT_TRUE(mModule->gate.waitUntilParked(1));
  EXPECT_TRUE(mProxy->isRunning(id));
  EXPECT_FALSE(mProxy->wait(id, 1));
  mModule->gate.open();
  EXPECT_TRUE(mProxy->wait(id, 0));
  EXPECT_FALSE(mProxy->isRunning(id));
  EXPECT_TRUE(mProxy->wait(id, 0));
}

TEST_P(ProxyContract, ParallelCallsRunAtTheSameTimeUnderIdsOfTheirOwn) {
  int const one = mProxy->pCall("park");
  int const two = mProxy->pCall("park");

  EXPECT_NE(one, two);
  EXPECT_TRUE(mModule->gate.waitUntilParked(2));
}

TEST_P(ProxyContract, WaitOnAnUnknownTaskReturnsAtOnce) {
  EXPECT_TRUE(mProxy->wait(987654321, 0));
  EXPECT_TRUE(mProxy->wait(0, 0));
  EXPECT_FALSE(mProxy->isRunning(987654321));
}

TEST_P(ProxyContract, CallsOverlap) {
  std::thread parked([this] { mProxy->call<void>("park"); });
  ASSERT_TRUE(mModule->gate.waitUntilParked(1));

  EXPECT_EQ(mProxy->call<int>("negate", 5), -5);

  mModule->gate.open();
  parked.join();
}

}  // namespace
}  // namespace KX
