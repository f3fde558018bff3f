// The store as its clients see it, over every kind of module that may stand in for it.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <binding/kxpublish.hpp>
#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/bus/joinedbrokers.hpp>
#include <tests/support/fakememory.hpp>
#include <tests/support/parkinggate.hpp>

namespace KX {
namespace {

using testing::OneBroker;
using testing::OverTheBus;
using testing::ParkingGate;
using testing::Placed;
using Texts = std::vector<std::string>;

// A store that somebody else wrote: other C++ types behind the same names.
class ForeignStore : public KXModule {
 public:
  explicit ForeignStore(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "KXMemory") {
    publish(*this, {"getData"}, &ForeignStore::getData);
    publish(*this, {"getListData"}, &ForeignStore::getListData);
    publish(*this, {"getType"}, &ForeignStore::getType);
    publish(*this, {"subscribeToEvent"}, &ForeignStore::subscribeToEvent);
    publish(*this, {"subscribeToMicroEvent"}, &ForeignStore::subscribeToMicroEvent);
    publish(*this, {"unsubscribeToEvent"}, &ForeignStore::unsubscribe);
    publish(*this, {"unsubscribeToMicroEvent"}, &ForeignStore::unsubscribe);
  }
  static Texts subscribed(ForeignStore& store) { return store.mSubscribed; }
  std::string getData(KXValue const& name) { return "value of " + name.toString(); }
  Texts getListData(Texts const& names) {
    Texts values;
    for (std::string const& name : names) values.push_back("value of " + name);
    return values;
  }
  KXValue getType(std::string const& name) { return "type of " + name; }
  bool subscribeToEvent(KXValue const& name, std::string const& module, std::string const& method) {
    mSubscribed = {name.toString(), module, method};
    return true;
  }
  int subscribeToMicroEvent(KXValue const& name, std::string const& module,
                            std::string const& message, std::string const& method) {
    mSubscribed = {name.toString(), module, message, method};
    return 1;
  }
  KXValue unsubscribe(std::string const& name, std::string const& module) {
    mSubscribed = {name, module};
    return {};
  }
  Texts mSubscribed;
};

// The same as a script, which has no methods to look up.
class ScriptStore : public KXModule {
 public:
  explicit ScriptStore(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "KXMemory") {
    setScript();
  }
  void execute(std::string const& method, KXValue const& params, KXValue& result) override {
    if (method == "getData") {
      result = "value of " + params[0].toString();
    } else if (method == "getType") {
      result = "type of " + params[0].toString();
    } else if (method == "getListData") {
      result = KXValue(std::vector<KXValue>());
      for (int i = 0; i < params[0].getSize(); ++i) {
        result.arrayPush("value of " + params[0][i].toString());
      }
    } else {
      mSubscribed.clear();
      params.ToStringArray(mSubscribed, false);
    }
  }
  static Texts subscribed(ScriptStore& store) { return store.mSubscribed; }

 private:
  Texts mSubscribed;
};

// One with the declared types, which is called directly.
class DirectStore : public FakeMemory {
 public:
  explicit DirectStore(boost::shared_ptr<KXBroker> const& broker) : FakeMemory(broker) {
    for (char const* name : {"a", "b"}) {
      set(name, std::string("type of ") + name, std::string("value of ") + name);
    }
  }
  static Texts subscribed(DirectStore& store) {
    Texts texts;
    KXValue(store.getCalls().back().arguments).ToStringArray(texts, false);
    return texts;
  }
};

template <class Way>
struct MemoryProxyContract : ::testing::Test {
  MemoryProxyContract() { place.announce("KXMemory"); }

  typename Way::Place place;
  boost::shared_ptr<typename Way::Module> const store =
      KXModule::createModule<typename Way::Module>(place.modules());
  KXMemoryProxy proxy{place.clients()};
};
using Ways = ::testing::Types<Placed<OneBroker, DirectStore>, Placed<OneBroker, ForeignStore>,
                              Placed<OneBroker, ScriptStore>, Placed<OverTheBus, DirectStore>,
                              Placed<OverTheBus, ForeignStore>, Placed<OverTheBus, ScriptStore>>;
TYPED_TEST_SUITE(MemoryProxyContract, Ways);

TYPED_TEST(MemoryProxyContract, Reads) {
  EXPECT_EQ(this->proxy.getData("a"), KXValue("value of a"));
  EXPECT_EQ(this->proxy.getType("b"), "type of b");
  EXPECT_EQ(this->proxy.getListData(KXValue(Texts{"b", "a"})),
            KXValue(Texts{"value of b", "value of a"}));
}

TYPED_TEST(MemoryProxyContract, PassesTheArgumentsOfSubscriptionsInOrder) {
  using Store = typename TypeParam::Module;
  std::string const module = this->place.addressOf("module");

  this->proxy.subscribeToEvent("key", "module", "method");
  EXPECT_EQ(Store::subscribed(*this->store), (Texts{"key", module, "method"}));
  this->proxy.subscribeToMicroEvent("key", "module", "message", "method");
  EXPECT_EQ(Store::subscribed(*this->store), (Texts{"key", module, "message", "method"}));
  this->proxy.unsubscribeToEvent("key", "module");
  EXPECT_EQ(Store::subscribed(*this->store), (Texts{"key", module}));
  this->proxy.unsubscribeToMicroEvent("key2", "module");
  EXPECT_EQ(Store::subscribed(*this->store), (Texts{"key2", module}));
}

struct MemoryProxy : ::testing::Test {
  ~MemoryProxy() override { broker->shutdown(); }

  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("test");
  KXMemoryProxy proxy{broker};
};

TEST_F(MemoryProxy, WithoutAStoreIsAnErrorThatNamesIt) {
  try {
    proxy.getData("a");
    FAIL() << "no error";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "unknown module 'KXMemory', loaded: none");
  }
}

TEST_F(MemoryProxy, FindsAStoreThatComesLater) {
  EXPECT_THROW(proxy.getType("a"), KXError);

  auto const store = KXModule::createModule<KXMemory>(broker);
  store->insertData("a", 1);

  EXPECT_EQ(proxy.getData("a"), KXValue(1));
}

TEST_F(MemoryProxy, FindsTheStoreThatReplacedTheFormerOne) {
  auto const first = KXModule::createModule<KXMemory>(broker);
  first->insertData("a", 1);
  EXPECT_EQ(proxy.getData("a"), KXValue(1));

  first->exit();
  EXPECT_THROW(proxy.getData("a"), KXError);
  auto const second = KXModule::createModule<KXMemory>(broker);
  second->insertData("a", 2);

  EXPECT_EQ(proxy.getData("a"), KXValue(2));
}

TEST_F(MemoryProxy, LeavesWhatTheStoreThrowsAsItIs) {
  auto const store = KXModule::createModule<FakeMemory>(broker);
  store->setHook("getData", FakeMemory::throwing("the store's reason"));
  store->setHook("getType", FakeMemory::throwingValue(5));

  try {
    proxy.getData("a");
    FAIL() << "no error";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getDescription(), "the store's reason");
  }
  EXPECT_THROW(proxy.getType("a"), int);
}

TEST_F(MemoryProxy, CallsOverlap) {
  auto const store = KXModule::createModule<FakeMemory>(broker);
  store->set("a", "Data", 1);
  store->block("getData");
  std::thread slow([&] { EXPECT_EQ(proxy.getData("a"), KXValue(1)); });
  ASSERT_TRUE(store->waitUntilParked());

  EXPECT_EQ(proxy.getType("a"), "Data");

  store->release("getData");
  slow.join();
}

TEST_F(MemoryProxy, OfABrokerThatIsGoneIsAnError) {
  auto shortLived = KXBroker::createBroker("short");
  KXMemoryProxy orphan(shortLived);
  shortLived.reset();

  EXPECT_THROW(orphan.getData("a"), KXError);
  EXPECT_FALSE(orphan.isRunning(1));
  EXPECT_TRUE(orphan.wait(1, 0));
}

// A module with a parallel call that lasts until the gate opens.
class Worker : public KXModule {
 public:
  explicit Worker(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Worker") {
    publish(*this, {"work"}, &Worker::work);
  }
  void work() { gate.pass(); }
  ParkingGate gate;
};

TEST_F(MemoryProxy, AsksTheBrokerForTasksAndNeedsNoStore) {
  auto const worker = KXModule::createModule<Worker>(broker);
  int const task = broker->getProxy("Worker", 0)->pCall("work");
  ASSERT_TRUE(worker->gate.waitUntilParked(1));

  EXPECT_TRUE(proxy.isRunning(task));
  EXPECT_FALSE(proxy.wait(task, 1));
  worker->gate.open();
  EXPECT_TRUE(proxy.wait(task, 0));
  EXPECT_FALSE(proxy.isRunning(task));
  EXPECT_TRUE(proxy.wait(task, 0));
}

TEST_F(MemoryProxy, AsksItsOwnBrokerForTasksAndNoOther) {
  auto const other = KXBroker::createBroker("other");
  KXMemoryProxy othersProxy(other);
  auto const worker = KXModule::createModule<Worker>(other);
  int const task = other->getProxy("Worker", 0)->pCall("work");
  ASSERT_TRUE(worker->gate.waitUntilParked(1));

  EXPECT_TRUE(othersProxy.isRunning(task));
  EXPECT_FALSE(proxy.isRunning(task));
  EXPECT_FALSE(othersProxy.wait(task, 1));
  EXPECT_TRUE(proxy.wait(task, 0));

  worker->gate.open();
  EXPECT_TRUE(othersProxy.wait(task, 0));
}

using StressMemoryProxy = MemoryProxy;

TEST_F(StressMemoryProxy, AnswersOrSaysThatThereIsNoStoreWhileStoresAreReplaced) {
  std::atomic<bool> isDone{false};
  std::atomic<int> answered{0};
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 3; ++caller) {
    callers.emplace_back([&] {
      while (!isDone) {
        try {
          EXPECT_EQ(proxy.getListData(KXValue(Texts{"a"})).getSize(), 1);
          ++answered;
        } catch (KXError const& error) {
          EXPECT_TRUE(error.getDescription().starts_with("unknown module 'KXMemory'"))
              << error.getDescription();
        }
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    auto const store = KXModule::createModule<KXMemory>(broker);
    int const before = answered;
    while (answered == before) std::this_thread::yield();
    store->exit();
  }
  isDone = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_GE(answered, 50);
}

}  // namespace
}  // namespace KX
