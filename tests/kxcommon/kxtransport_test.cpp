// Modules of other processes, as a broker reaches them.
#include <kxcommon/kxtransport.hpp>

#include <string>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/binding/calledmodule.hpp>
#include <tests/support/faketransport.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

// Cannot ask anybody.
class CutTransport : public testing::FakeTransport {
 public:
  CutTransport() : FakeTransport(nullptr) {}
  void find(std::string const& /*module*/) override {
    throw KXError("Cut", "find", "the wire is cut", "", 0, KXError::Kind::Disconnected);
  }
};

KXError errorOfGetProxy(KXBroker& broker, std::string const& name) {
  try {
    broker.getProxy(name, 0);
  } catch (KXError const& error) {
    return error;
  }
  ADD_FAILURE() << "there is a proxy to " << name;
  return {"", "", "", "", 0};
}

class Transport : public ::testing::Test {
 protected:
  Transport()
      : mModule(boost::make_shared<CalledModule>(mOther.getBroker(), CalledModule::Kind::Bound)) {
    mOther.publish(mModule);
    mHere.getBroker()->setTransport(boost::make_shared<testing::FakeTransport>(mOther.getBroker()));
  }

  testing::TestHost mOther{"other"};
  testing::TestHost mHere{"here"};
  boost::shared_ptr<CalledModule> const mModule;
};

TEST_F(Transport, FindsAModuleThatThisProcessHasNot) {
  auto const proxy = mHere.getProxy("Called");

  EXPECT_FALSE(proxy->isLocal());
  EXPECT_EQ(proxy->call<int>("negate", 5), -5);
}

TEST_F(Transport, IsNotAskedForAModuleOfThisProcess) {
  EXPECT_TRUE(mHere.getProxy("KXLauncher")->isLocal());
}

TEST_F(Transport, IsNotAskedForAModuleOfThisProcessByItsFullAddress) {
  EXPECT_TRUE(mHere.getProxy("KXLauncher@here")->isLocal());
  EXPECT_FALSE(mHere.getProxy("KXLauncher@other")->isLocal());
}

TEST_F(Transport, SaysThatNobodyHasAModule) {
  KXError const error = errorOfGetProxy(*mHere.getBroker(), "Nobody");

  EXPECT_EQ(error.getKind(), KXError::Kind::NotFound);
  EXPECT_STREQ(error.what(),
               "unknown module 'Nobody', loaded: 'KXLauncher'; no module 'Nobody' in 'other'");
}

TEST_F(Transport, SaysThatItCouldNotAsk) {
  mHere.getBroker()->setTransport(boost::make_shared<CutTransport>());

  KXError const error = errorOfGetProxy(*mHere.getBroker(), "Called");

  EXPECT_EQ(error.getKind(), KXError::Kind::Disconnected);
  EXPECT_STREQ(error.what(), "the wire is cut");
}

TEST_F(Transport, WithoutOneAnUnknownModuleIsNotFound) {
  mHere.getBroker()->setTransport(nullptr);

  EXPECT_EQ(errorOfGetProxy(*mHere.getBroker(), "Called").getKind(), KXError::Kind::NotFound);
}

TEST_F(Transport, DescribesADistantModuleAsALocalOne) {
  KXModuleInfo const local = mOther.getProxy("Called")->describe();
  KXModuleInfo const distant = mHere.getProxy("Called")->describe();

  EXPECT_EQ(local.name, "Called");
  ASSERT_EQ(local.methods.size(), mModule->getMethods().size());
  EXPECT_EQ(local.methods[0].name, "isKnown");
  EXPECT_EQ(local.methods[0].functor, nullptr);
  EXPECT_EQ(distant.name, local.name);
  EXPECT_EQ(distant.methods.size(), local.methods.size());
}

TEST_F(Transport, IsToldHowLongACallMayTake) {
  auto const transport = boost::make_shared<testing::FakeTransport>(mOther.getBroker());
  KXProxy proxy(mHere.getBroker(), "Called", transport);

  proxy.genericCall("negate", KXValue::arrayOf(5), 120);
  proxy.genericCall("negate", KXValue::arrayOf(5));

  ASSERT_EQ(transport->getCalls().size(), 2U);
  EXPECT_EQ(transport->getCalls()[0].timeoutMs, 120);
  EXPECT_EQ(transport->getCalls()[1].timeoutMs, 0);
}

}  // namespace
}  // namespace KX
