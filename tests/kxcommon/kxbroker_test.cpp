#include <kxcommon/kxbroker.hpp>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gtest/gtest.h>

#include <kxcommon/kxbrokermanager.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

// Does in exit() and in its destructor what the test wants.
class HookedModule : public KXModule {
 public:
  using Hook = std::function<void()>;

  HookedModule(boost::shared_ptr<KXBroker> const& broker, std::string const& name, Hook onExit,
               Hook onDestroy)
      : KXModule(broker, name), mOnExit(std::move(onExit)), mOnDestroy(std::move(onDestroy)) {}
  ~HookedModule() override {
    if (mOnDestroy) mOnDestroy();
  }
  // On purpose without the base's.
  void exit() override {
    if (mOnExit) {
      mOnExit();
    } else {
      KXModule::exit();
    }
  }

 private:
  Hook const mOnExit;
  Hook const mOnDestroy;
};

class Broker : public ::testing::Test {
 protected:
  using Hook = HookedModule::Hook;

  boost::shared_ptr<HookedModule> publish(std::string const& name, Hook onExit = {},
                                          Hook onDestroy = {}) {
    auto const module =
        boost::make_shared<HookedModule>(mHost.getBroker(), name, onExit, onDestroy);
    mHost.publish(module);
    return module;
  }
  KXBroker& broker() { return *mHost.getBroker(); }

  testing::TestHost mHost;
};

std::string errorOf(std::function<void()> const& call) {
  try {
    call();
  } catch (KXError const& error) {
    return error.getDescription();
  }
  return "no error";
}

TEST(BareBroker, HasItsNameAndNoModules) {
  auto const broker = KXBroker::createBroker("bare");

  EXPECT_EQ(broker->getName(), "bare");
  EXPECT_EQ(broker->getModuleNames(), Texts());
  EXPECT_FALSE(broker->isModulePresent("KXLauncher"));
  EXPECT_EQ(errorOf([&] { broker->getProxy("KXFoo", 0); }), "unknown module 'KXFoo', loaded: none");
}

TEST_F(Broker, NamesWhatIsLoadedForAnUnknownModule) {
  publish("KXMemory");

  EXPECT_EQ(errorOf([this] { broker().getProxy("KXFoo", 0); }),
            "unknown module 'KXFoo', loaded: 'KXLauncher', 'KXMemory'");
}

TEST_F(Broker, ListsModulesInTheOrderOfPublishing) {
  publish("Zebra");
  publish("Ant");

  EXPECT_EQ(broker().getModuleNames(), (Texts{"KXLauncher", "Zebra", "Ant"}));
}

TEST_F(Broker, RefusesANameThatIsTaken) {
  auto const first = publish("Same");

  EXPECT_EQ(errorOf([this] { publish("Same"); }), "a module named 'Same' is already published");
  EXPECT_EQ(broker().getProxy("Same", 0)->getModule(), first);
}

TEST_F(Broker, RefusesWhatIsNoModule) {
  auto const core = boost::make_shared<KXModuleCore>(mHost.getBroker(), "Core");

  EXPECT_EQ(errorOf([&] { core->initModule(); }), "'Core' is no KXModule");
  EXPECT_FALSE(broker().isModulePresent("Core"));
}

TEST_F(Broker, ProxyKeepsItsModule) {
  bool isDestroyed = false;
  publish("Kept", {}, [&] { isDestroyed = true; });
  auto proxy = broker().getProxy("Kept", 0);

  broker().removeModule("Kept");
  EXPECT_FALSE(isDestroyed);
  EXPECT_TRUE(proxy->getModule()->isClosing());
  proxy.reset();

  EXPECT_TRUE(isDestroyed);
}

TEST_F(Broker, RemovesAModuleWhichDiesAtOnce) {
  bool isDestroyed = false;
  publish("Gone", {}, [&] { isDestroyed = true; });

  broker().removeModule("Gone");

  EXPECT_TRUE(isDestroyed);
  EXPECT_FALSE(broker().isModulePresent("Gone"));
}

TEST_F(Broker, IgnoresTheRemovalOfAnUnknownModule) {
  broker().removeModule("KXFoo");

  EXPECT_EQ(broker().getModuleNames(), Texts{"KXLauncher"});
}

TEST_F(Broker, TakesANameAgainThatHasBecomeFree) {
  publish("Same");
  broker().removeModule("Same");

  auto const second = publish("Same");

  EXPECT_EQ(broker().getProxy("Same", 0)->getModule(), second);
}

TEST_F(Broker, DestroysModulesWithoutHoldingItsLock) {
  Texts seen;
  Hook const lookFromAnotherThread = [&] {
    std::thread([&] { seen = broker().getModuleNames(); }).join();
  };
  publish("Removed", {}, lookFromAnotherThread);
  broker().removeModule("Removed");
  EXPECT_EQ(seen, Texts{"KXLauncher"});

  seen.clear();
  publish("Left", {}, lookFromAnotherThread);
  broker().shutdown();
  EXPECT_EQ(seen, Texts{"KXLauncher"});
}

TEST_F(Broker, ShutdownLetsModulesExitInReverseOrder) {
  Texts events;
  auto const recorded = [&](std::string const& name) {
    publish(
        name, [&events, name] { events.push_back("exit " + name); },
        [&events, name] { events.push_back("destroy " + name); });
  };
  recorded("one");
  recorded("two");
  recorded("three");

  broker().shutdown();

  EXPECT_EQ(events, (Texts{"exit three", "destroy three", "exit two", "destroy two", "exit one",
                           "destroy one"}));
  EXPECT_EQ(broker().getModuleNames(), Texts());
}

TEST_F(Broker, ShutdownLetsALeavingModuleCallThosePublishedBeforeIt) {
  std::vector<KXValue> answers;
  Hook const ask = [&] {
    answers.push_back(mHost.call("KXLauncher", "isModulePresent", "Early"));
  };
  publish("Early");
  publish("Late", ask, ask);

  broker().shutdown();

  EXPECT_EQ(answers, (std::vector<KXValue>{KXValue(true), KXValue(true)}));
}

TEST_F(Broker, ShutdownMarksModulesAsClosingAndDropsThemWhateverTheirExitDoes) {
  auto const usual = publish("usual");
  auto const silent = publish("silent", [] {});
  auto const throwing = publish("throwing", [] { throw KXError("m", "exit", "stuck", "f", 1); });
  auto const odd = publish("odd", [] { throw 5; });

  broker().shutdown();

  for (auto const& module : {usual, silent, throwing, odd}) {
    SCOPED_TRACE(module->getName());
    EXPECT_TRUE(module->isClosing());
    EXPECT_EQ(module.use_count(), 2) << "besides the list and the variable somebody holds it";
  }
  EXPECT_EQ(broker().getModuleNames(), Texts());
}

TEST_F(Broker, ShutdownLogsWhatAnExitThrows) {
  publish("first", [] { throw 5; });
  publish("second", [] { throw std::runtime_error("stuck"); });

  broker().shutdown();

  auto const logged = mHost.getLogged();
  ASSERT_EQ(logged.size(), 2U);
  EXPECT_EQ(logged[0].level, ka::log::Warning);
  EXPECT_EQ(logged[0].category, "KXBroker");
  EXPECT_EQ(logged[0].function, "shutdown");
  EXPECT_EQ(logged[0].text, "exit of module 'second' failed: stuck");
  EXPECT_EQ(logged[1].text, "exit of module 'first' failed: an exception of unknown type");
}

TEST_F(Broker, ShutdownDoesNothingTheSecondTime) {
  int exits = 0;
  auto const module = publish("once", [&] {
    ++exits;
    broker().shutdown();
  });

  broker().shutdown();
  broker().shutdown();

  EXPECT_EQ(exits, 1);
}

TEST_F(Broker, TakesNoModuleAfterShutdown) {
  broker().shutdown();

  EXPECT_EQ(errorOf([this] { publish("Late"); }),
            "cannot publish module 'Late', broker 'testhost' is shut down");
}

TEST(BareBroker, ShutsDownWhenItIsDestroyed) {
  bool hasExited = false;
  bool isDestroyed = false;
  auto broker = KXBroker::createBroker("bare");
  boost::make_shared<HookedModule>(
      broker, "Module", [&] { hasExited = true; }, [&] { isDestroyed = true; })
      ->initModule();

  broker.reset();

  EXPECT_TRUE(hasExited);
  EXPECT_TRUE(isDestroyed);
}

// Takes the process's manager out and puts it back.
class BrokerManager : public ::testing::Test {
 protected:
  BrokerManager() { KXBrokerManager::setInstance(nullptr); }
  ~BrokerManager() override { KXBrokerManager::setInstance(mFormer); }

  boost::shared_ptr<KXBrokerManager> const mFormer = KXBrokerManager::getInstance();
};

TEST_F(BrokerManager, IsMadeWhenItIsFirstAskedFor) {
  auto const manager = KXBrokerManager::getInstance();

  ASSERT_NE(manager, nullptr);
  EXPECT_NE(manager, mFormer);
  EXPECT_EQ(KXBrokerManager::getInstance(), manager);
}

TEST_F(BrokerManager, IsTheInstalledOne) {
  auto const manager = boost::make_shared<KXBrokerManager>();

  KXBrokerManager::setInstance(manager);

  EXPECT_EQ(KXBrokerManager::getInstance(), manager);
}

TEST_F(BrokerManager, IsKnownToBrokersMadeAfterItsInstallation) {
  auto const manager = KXBrokerManager::getInstance();
  auto const broker = KXBroker::createBroker("one");
  KXBrokerManager::setInstance(boost::make_shared<KXBrokerManager>());

  EXPECT_EQ(broker->getBrokerManager().lock(), manager);
  EXPECT_EQ(KXBroker::createBroker("two")->getBrokerManager().lock(),
            KXBrokerManager::getInstance());
}

TEST_F(BrokerManager, IsNotKeptByItsBrokers) {
  auto const broker = KXBroker::createBroker("one");

  KXBrokerManager::setInstance(nullptr);

  EXPECT_EQ(broker->getBrokerManager().lock(), nullptr);
}

TEST_F(BrokerManager, ListsLivingBrokersOnceInTheOrderOfAdding) {
  auto const manager = KXBrokerManager::getInstance();
  auto const one = KXBroker::createBroker("one");
  auto two = KXBroker::createBroker("two");
  auto const three = KXBroker::createBroker("three");
  for (auto const& broker : {three, two, one, three}) manager->addBroker(broker);
  EXPECT_EQ(manager->getBrokers(), (std::vector<boost::shared_ptr<KXBroker>>{three, two, one}));

  two.reset();

  EXPECT_EQ(manager->getBrokers(), (std::vector<boost::shared_ptr<KXBroker>>{three, one}));
}

}  // namespace
}  // namespace KX
