// What depends on the way a typed call takes: its steps, and its errors word for word.
#include <binding/kxproxycall.hpp>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <kxcommon/kxbroker.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/binding/calledmodule.hpp>
#include <tests/support/faketransport.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;
using testing::FakeTransport;
using testing::TestHost;

struct ExpectedError {
  char const* method;
  int line;
  std::string text;
};

void expectProxyError(ExpectedError const& expected, std::function<void()> const& call) {
  try {
    call();
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getModuleName(), "KXProxy");
    EXPECT_EQ(error.getMethodName(), expected.method);
    EXPECT_EQ(error.getDescription(), expected.text);
    EXPECT_EQ(error.getFileName(), "kxcommon/kxproxy");
    EXPECT_EQ(error.getLine(), expected.line);
  }
}

// Ids are given out one after another, so two in a row leave no room for a call between them.
int nextTaskId() {
  return KXTaskInfo("test", "test").getID();
}

class LocalCall : public ::testing::Test {
 protected:
  LocalCall()
      : mModule(boost::make_shared<CalledModule>(mHost.getBroker(), CalledModule::Kind::Bound)) {
    mHost.publish(mModule);
    mProxy = mHost.getProxy("Called");
  }
  ~LocalCall() override { mModule->gate.open(); }

  TestHost mHost;
  boost::shared_ptr<CalledModule> const mModule;
  boost::shared_ptr<KXProxy> mProxy;
};

TEST_F(LocalCall, WithAnotherReturnTypeIsRefusedBeforeItRuns) {
  expectProxyError(
      {"call", 92, "wrong return type for function 'getLength' type is 'int' instead of 'bool"},
      [this] { mProxy->call<bool>("getLength", std::string("VSM")); });
  expectProxyError(
      {"call", 92, "wrong return type for function 'takeText' type is 'void' instead of 'bool"},
      [this] { mProxy->call<bool>("takeText", std::string("VSM")); });
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_F(LocalCall, WithAnotherParameterTypeIsRefusedBeforeItRuns) {
  expectProxyError({"call/pCall", 93,
                    "When trying to call module 'Called' function 'takeInt' parameter #1 is of "
                    "type string instead of type int"},
                   [this] { mProxy->call<bool>("takeInt", std::string("VSM")); });
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_F(LocalCall, NamesATextInQuotesAsAString) {
  expectProxyError({"call/pCall", 93,
                    "When trying to call module 'Called' function 'takeInt' parameter #1 is of "
                    "type string instead of type int"},
                   [this] { mProxy->call<bool>("takeInt", "VSM"); });
}

TEST_F(LocalCall, NamesTheParameterThatDiffers) {
  expectProxyError({"call/pCall", 93,
                    "When trying to call module 'Called' function 'greet' parameter #2 is of type "
                    "bool instead of type int"},
                   [this] { mProxy->call<std::string>("greet", std::string("hi"), true); });
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_F(LocalCall, ChecksTheReturnTypeFirst) {
  expectProxyError(
      {"call", 92, "wrong return type for function 'negate' type is 'int' instead of 'bool"},
      [this] { mProxy->call<bool>("negate", std::string("VSM")); });
}

TEST_F(LocalCall, OfAnUnknownMethodNamesWhatIsPublished) {
  try {
    mProxy->call<bool>("isknown", std::string("VSM"));
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(),
              "unknown method 'isknown' of module 'Called', published: 'isKnown', 'getLength', "
              "'negate', 'halve', 'greet', 'split', 'echo', 'nothing', 'takeText', 'takeInt', "
              "'fail', 'park'");
  }
}

TEST_F(LocalCall, RunsOnTheCallersThread) {
  struct WhoAmI : KXModule {
    explicit WhoAmI(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "WhoAmI") {
      publish(*this, {"keepThread"}, &WhoAmI::keepThread);
    }
    void keepThread() { thread = std::this_thread::get_id(); }
    std::thread::id thread;
  };
  auto const module = mHost.publish<WhoAmI>();
  auto const proxy = mHost.getProxy("WhoAmI");

  proxy->call<void>("keepThread");
  EXPECT_EQ(module->thread, std::this_thread::get_id());

  EXPECT_TRUE(proxy->wait(proxy->pCall("keepThread"), 0));
  EXPECT_NE(module->thread, std::this_thread::get_id());
  EXPECT_NE(module->thread, std::thread::id());
}

TEST_F(LocalCall, TakesAFloatForADouble) {
  EXPECT_EQ(mProxy->call<float>("halve", 5.0F), 2.5F);
  EXPECT_EQ(mProxy->call<double>("halve", 5.0F), 2.5);
}

TEST_F(LocalCall, KeepsTheModuleButNotTheBroker) {
  boost::weak_ptr<KXBroker> broker;
  boost::shared_ptr<KXProxy> proxy;
  {
    TestHost host;
    broker = host.getBroker();
    host.publish(boost::make_shared<CalledModule>(host.getBroker(), CalledModule::Kind::Bound));
    proxy = host.getProxy("Called");
  }

  EXPECT_TRUE(broker.expired());
  EXPECT_EQ(proxy->call<int>("negate", 5), -5);
  expectProxyError({"pCall", 0, "the broker of the proxy to 'Called' is gone"},
                   [&] { proxy->pCall("nothing"); });
  expectProxyError({"isRunning", 0, "the broker of the proxy to 'Called' is gone"},
                   [&] { proxy->isRunning(1); });
  expectProxyError({"wait", 0, "the broker of the proxy to 'Called' is gone"},
                   [&] { proxy->wait(1, 0); });
}

TEST_F(LocalCall, ParallelCallOfWhatIsNotPublishedThrowsAndQueuesNothing) {
  int const before = nextTaskId();

  expectProxyError({"getMethodInfo", 625, "Function missing does not exist in module Called"},
                   [this] { mProxy->pCall("missing"); });

  EXPECT_EQ(nextTaskId(), before + 1);
  mHost.getBroker()->shutdown();
  EXPECT_EQ(mModule->enteredCount, 0);
}

TEST_F(LocalCall, ParallelCallOfWhatTakesArgumentsFailsInTheLog) {
  int const id = mProxy->pCall("takeInt");

  EXPECT_TRUE(mProxy->wait(id, 0));
  EXPECT_EQ(mModule->enteredCount, 0);
  auto const logged = mHost.getLogged();
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(
      logged[0].text.find("parallel call 'Called.takeInt#" + std::to_string(id) + "' failed: "), 0U)
      << logged[0].text;
}

// Methods of one name.
class OverloadedModule : public KXModule {
 public:
  explicit OverloadedModule(boost::shared_ptr<KXBroker> const& broker)
      : KXModule(broker, "Overloaded") {
    publish(*this, {"is"},
            static_cast<bool (OverloadedModule::*)(int const&)>(&OverloadedModule::is));
    publish(*this, {"is"},
            static_cast<bool (OverloadedModule::*)(std::string const&)>(&OverloadedModule::is));
    publish(*this, {"is"},
            static_cast<bool (OverloadedModule::*)(std::string const&, int const&)>(
                &OverloadedModule::is));
  }

  bool is(int const&) { return xEnter("int"); }
  bool is(std::string const&) { return xEnter("string"); }
  bool is(std::string const&, int const&) { return xEnter("string, int"); }

  std::string entered;

 private:
  bool xEnter(char const* what) {
    entered = what;
    return true;
  }
};

TEST(OverloadedCall, IsToldByTheTypesOfTheArguments) {
  TestHost host;
  auto const module = host.publish<OverloadedModule>();
  auto const proxy = host.getProxy("Overloaded");

  EXPECT_TRUE(proxy->call<bool>("is", std::string("VSM")));
  EXPECT_EQ(module->entered, "string");
  EXPECT_TRUE(proxy->call<bool>("is", 5));
  EXPECT_EQ(module->entered, "int");
  EXPECT_TRUE(proxy->call<bool>("is", std::string("VSM"), 5));
  EXPECT_EQ(module->entered, "string, int");
}

TEST(OverloadedCall, OfNoneOfTheTypesNamesTheParameterThatDiffers) {
  TestHost host;
  auto const module = host.publish<OverloadedModule>();
  auto const proxy = host.getProxy("Overloaded");

  expectProxyError({"call/pCall", 93,
                    "When trying to call module 'Overloaded' function 'is' parameter #1 is of "
                    "type bool instead of type int"},
                   [&] { proxy->call<bool>("is", true); });
  EXPECT_EQ(module->entered, "");
}

TEST(OverloadedCall, OfAnotherNumberOfArgumentsNamesThoseThereAre) {
  TestHost host;
  auto const module = host.publish<OverloadedModule>();
  auto const proxy = host.getProxy("Overloaded");

  try {
    proxy->call<bool>("is", 1, 2, 3);
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(),
              "method 'is' of module 'Overloaded' takes 1 or 2 arguments, 3 given");
  }
  EXPECT_EQ(module->entered, "");
}

class RemoteCall : public ::testing::Test {
 protected:
  RemoteCall()
      : mBroker(KXBroker::createBroker("caller")),
        mTransport(boost::make_shared<FakeTransport>(nullptr)),
        mProxy(boost::make_shared<KXProxy>(mBroker, "Far", mTransport)) {}

  void answer(KXValue const& value) {
    mTransport->setHook([value](FakeTransport::Call const&, KXValue& result) { result = value; });
  }

  boost::shared_ptr<KXBroker> const mBroker;
  boost::shared_ptr<FakeTransport> const mTransport;
  boost::shared_ptr<KXProxy> const mProxy;
};

TEST_F(RemoteCall, SendsTheMethodAndAnArrayOfTheArguments) {
  answer(KXValue(true));

  EXPECT_TRUE(mProxy->call<bool>("isModulePresent", std::string("VSM")));

  std::vector<FakeTransport::Call> const expected = {
      {"call", "Far", "isModulePresent", KXValue(Texts{"VSM"})}};
  EXPECT_EQ(mTransport->getCalls(), expected);
}

TEST_F(RemoteCall, WithoutAResultThrowsInsteadOfReturningFalse) {
  answer(KXValue());

  expectProxyError(
      {"call", 103, "Waiting for the result of a void function isModulePresent [\"VSM\"]   null"},
      [this] { mProxy->call<bool>("isModulePresent", std::string("VSM")); });
}

TEST_F(RemoteCall, ConvertsTheResult) {
  answer(KXValue(7));
  EXPECT_TRUE(mProxy->call<bool>("isModulePresent", std::string("VSM")));
  answer(KXValue(0));
  EXPECT_FALSE(mProxy->call<bool>("isModulePresent", std::string("VSM")));

  answer(KXValue("yes"));
  try {
    mProxy->call<bool>("isModulePresent", std::string("VSM"));
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "Parameter type is string instead of bool");
    EXPECT_EQ(error.getLine(), 137);
  }
}

TEST_F(RemoteCall, PassesTheTransportsErrorUnchanged) {
  mTransport->setHook([](FakeTransport::Call const&, KXValue&) {
    throw KXError("Transport", "send", "nobody there", "wire", 3);
  });
  for (bool const isParallel : {false, true}) {
    SCOPED_TRACE(isParallel);
    try {
      if (isParallel) {
        mProxy->pCall("run");
      } else {
        mProxy->call<bool>("isModulePresent", std::string("VSM"));
      }
      FAIL() << "did not throw";
    } catch (KXError const& error) {
      EXPECT_EQ(error.getModuleName(), "Transport");
      EXPECT_EQ(error.getMethodName(), "send");
      EXPECT_EQ(error.getDescription(), "nobody there");
      EXPECT_EQ(error.getFileName(), "wire");
      EXPECT_EQ(error.getLine(), 3);
    }
  }
}

TEST_F(RemoteCall, ParallelSendsAnEmptyValueAndReturnsTheIdThatCame) {
  answer(KXValue(4711));

  EXPECT_EQ(mProxy->pCall("_mainThread"), 4711);

  std::vector<FakeTransport::Call> const expected = {{"pCall", "Far", "_mainThread", KXValue()}};
  EXPECT_EQ(mTransport->getCalls(), expected);
}

TEST_F(RemoteCall, ParallelWithoutAnIdIsAnError) {
  answer(KXValue("no id"));

  EXPECT_THROW(mProxy->pCall("_mainThread"), KXError);
}

struct ScriptCalls {
  std::vector<std::pair<std::string, KXValue>> calls;
  KXValue answer;

  testing::Script script() {
    return [this](std::string const& method, KXValue const& params) {
      calls.emplace_back(method, params);
      return answer;
    };
  }
};

TEST(ScriptCall, ExecutesTheMethodWithAnArrayOfTheArguments) {
  ScriptCalls record;
  record.answer = KXValue(true);
  TestHost host;
  host.publishScript("Scripted", record.script());

  EXPECT_TRUE(host.getProxy("Scripted")->call<bool>("isModulePresent", std::string("VSM")));

  ASSERT_EQ(record.calls.size(), 1U);
  EXPECT_EQ(record.calls[0].first, "isModulePresent");
  EXPECT_EQ(record.calls[0].second, KXValue(Texts{"VSM"}));
}

TEST(ScriptCall, ConvertsTheResult) {
  ScriptCalls record;
  TestHost host;
  host.publishScript("Scripted", record.script());
  auto const proxy = host.getProxy("Scripted");

  record.answer = KXValue(7);
  EXPECT_TRUE(proxy->call<bool>("any", std::string("VSM")));
  record.answer = KXValue();
  try {
    proxy->call<bool>("any", std::string("VSM"));
    FAIL() << "was not refused";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "Parameter type is invalid instead of bool");
    EXPECT_EQ(error.getLine(), 137);
  }
}

TEST(ScriptCall, ParallelExecutesWithAnEmptyValue) {
  ScriptCalls record;
  TestHost host;
  host.publishScript("Scripted", record.script());
  auto const proxy = host.getProxy("Scripted");

  int const id = proxy->pCall("anything at all");

  EXPECT_GT(id, 0);
  EXPECT_TRUE(proxy->wait(id, 0));
  ASSERT_EQ(record.calls.size(), 1U);
  EXPECT_EQ(record.calls[0].first, "anything at all");
  EXPECT_EQ(record.calls[0].second, KXValue());
}

}  // namespace
}  // namespace KX
