// Subscribers in other processes.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/memory/kxmemory.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/support/faketransport.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/parkinggate.hpp>
#include <tests/support/waituntil.hpp>

namespace KX {
namespace {

// Keeps what is to go to another process, as far as it is let.
class KeepingTransport : public testing::FakeTransport {
 public:
  KeepingTransport() : FakeTransport(nullptr) {}

  void find(std::string const& module) override {
    throw KXError("Keeping", "find", module + " could not be asked for", "", 0, mFindKind);
  }
  void notify(std::string const& module, std::vector<KXNotification> notifications) override {
    std::unique_lock lock(mMutex);
    mWakeUp.wait(lock, [this] { return mIsOpen; });
    if (mIsGone) throw KXError("Keeping", "notify", "gone", "", 0, KXError::Kind::NotFound);
    for (KXNotification& notification : notifications) {
      mTexts.push_back(module + "." + notification.method + notification.arguments.toString(1));
    }
    ++mPackCount;
    mWakeUp.notify_all();
  }

  void setFindKind(KXError::Kind kind) { mFindKind = kind; }
  void setOpen(bool isOpen) {
    std::lock_guard const lock(mMutex);
    mIsOpen = isOpen;
    mWakeUp.notify_all();
  }
  void setGone(bool isGone = true) {
    std::lock_guard const lock(mMutex);
    mIsGone = isGone;
  }
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mWakeUp.wait_for(lock, std::chrono::seconds(30), [&] { return mTexts.size() >= count; });
    return mTexts;
  }
  int packCount() {
    std::lock_guard const lock(mMutex);
    return mPackCount;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWakeUp;
  bool mIsOpen = true;  // guarded by mMutex, as all below
  bool mIsGone = false;
  int mPackCount = 0;
  std::vector<std::string> mTexts;
  KXError::Kind mFindKind = KXError::Kind::Disconnected;  // set before use
};

struct DistantSubscriber : ::testing::Test {
  DistantSubscriber() { broker->setTransport(transport); }
  bool waitForLog(std::string const& text) const {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
      for (LogLine const& line : log.lines()) {
        if (line.text.find(text) != std::string::npos) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }

  LogCapture const log;
  boost::shared_ptr<KeepingTransport> const transport = boost::make_shared<KeepingTransport>();
  boost::shared_ptr<KXBroker> const broker = KXBroker::createBroker("here");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(broker);
};

TEST_F(DistantSubscriber, IsHandedEveryRaiseInOrder) {
  store->subscribeToEvent("e", "M@there", "onEvent");
  store->subscribeToMicroEvent("m", "M@there", "message", "onMicro");

  store->raiseEvent("e", 1);
  store->raiseMicroEvent("m", "x");

  EXPECT_EQ(transport->waitFor(2), (std::vector<std::string>{
                                       R"(M@there.onEvent["e",1,""])",
                                       R"(M@there.onMicro["m","x","message"])",
                                   }));
}

TEST_F(DistantSubscriber, IsHandedWhatWaitsInOnePack) {
  store->subscribeToEvent("e", "M@there", "onEvent");
  transport->setOpen(false);
  for (int i = 0; i < 1000; ++i) store->raiseEvent("e", i);

  transport->setOpen(true);

  EXPECT_EQ(transport->waitFor(1000).size(), 1000U);
  EXPECT_LE(transport->packCount(), 3);
}

TEST_F(DistantSubscriber, ThatCannotBeAskedForIsTakenForThere) {
  store->subscribeToEvent("e", "Announced", "onEvent");

  store->raiseEvent("e", 1);

  EXPECT_EQ(transport->waitFor(1).size(), 1U);
}

TEST_F(DistantSubscriber, ThatNobodyHasIsDropped) {
  transport->setFindKind(KXError::Kind::NotFound);
  store->subscribeToEvent("e", "Announced", "onEvent");

  store->raiseEvent("e", 1);

  EXPECT_TRUE(waitForLog("module 'Announced' is gone, its subscription to key 'e' is dropped"));
}

TEST_F(DistantSubscriber, ThatIsGoneForGoodIsDroppedAndSaidSoOnce) {
  store->subscribeToEvent("e", "M@there", "onEvent");
  transport->setGone();

  store->raiseEvent("e", 1);
  store->raiseEvent("e", 2);
  store->raiseEvent("e", 3);

  EXPECT_TRUE(waitForLog("module 'M@there' is gone, its subscriptions are dropped: gone"));
  store->exit();
  // Another one tells what the store had not yet tried to deliver.
  EXPECT_EQ(std::ranges::count_if(
                log.lines(),
                [](LogLine const& line) { return line.text.find("is gone") != std::string::npos; }),
            1);
  EXPECT_EQ(transport->packCount(), 0);
}

TEST_F(DistantSubscriber, ThatSubscribesAgainAfterItWasTakenForGoneIsTold) {
  store->subscribeToEvent("e", "M@there", "onEvent");
  store->subscribeToEvent("other", "M@there", "onEvent");
  transport->setGone(true);
  store->raiseEvent("e", 1);
  ASSERT_TRUE(waitForLog("module 'M@there' is gone, its subscriptions are dropped: gone"));
  transport->setGone(false);

  store->subscribeToEvent("e", "M@there", "onEvent");
  store->raiseEvent("e", 2);

  EXPECT_EQ(transport->waitFor(1), (std::vector<std::string>{R"(M@there.onEvent["e",2,""])"}));
}

TEST_F(DistantSubscriber, OfThisBrokersOwnNameIsLocal) {
  store->subscribeToEvent("e", "M@here", "onEvent");

  store->raiseEvent("e", 1);

  EXPECT_TRUE(waitForLog("module 'M@here' is gone"));
  EXPECT_EQ(transport->packCount(), 0);
}

// ---- the other side: the store is distant

struct DistantStore : ::testing::Test {
  DistantStore() {
    client->setTransport(transport);
    there->setTransport(boost::make_shared<testing::FakeTransport>(client));
  }
  ~DistantStore() override {
    // Each broker's transport holds the other.
    client->setTransport(nullptr);
    there->setTransport(nullptr);
  }

  boost::shared_ptr<KXBroker> const there = KXBroker::createBroker("there");
  boost::shared_ptr<KXMemory> const store = KXModule::createModule<KXMemory>(there);
  boost::shared_ptr<testing::FakeTransport> const transport =
      boost::make_shared<testing::FakeTransport>(there);
  boost::shared_ptr<KXBroker> const client = KXBroker::createBroker("client");
  KXMemoryProxy proxy{client};
};

TEST_F(DistantStore, IsToldTheBrokerOfTheModuleToCall) {
  proxy.subscribeToEvent("e", "M", "onEvent");
  proxy.subscribeToMicroEvent("m", "M", "message", "onMicro");
  proxy.unsubscribeToEvent("e", "M");
  proxy.unsubscribeToMicroEvent("m", "M");

  std::vector<std::string> modules;
  for (auto const& call : transport->getCalls()) modules.push_back(call.params[1].toString());
  EXPECT_EQ(modules, std::vector<std::string>(4, "M@client"));
}

// What the store was told since then, without the message and the method.
std::vector<std::string> namesOf(std::vector<testing::FakeTransport::Call> const& calls,
                                 std::size_t since) {
  std::vector<std::string> names;
  for (std::size_t i = since; i < calls.size(); ++i) {
    names.push_back(calls[i].method + " " + calls[i].params[0].toString());
  }
  return names;
}

TEST_F(DistantStore, IsToldItsSubscriptionsAgainWhenItComesBack) {
  proxy.subscribeToEvent("e", "M", "onEvent");
  proxy.subscribeToEvent("ended", "M", "onEvent");
  proxy.subscribeToMicroEvent("m", "M", "message", "onMicro");
  proxy.unsubscribeToEvent("ended", "M");
  auto const before = transport->getCalls().size();

  transport->returnModule();

  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (transport->getCalls().size() < before + 2 && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  client->shutdown();  // waits for the renewal
  EXPECT_EQ(namesOf(transport->getCalls(), before),
            (std::vector<std::string>{"subscribeToEvent e", "subscribeToMicroEvent m"}));
  EXPECT_EQ(transport->getCalls().back().params,
            KXValue::arrayOf("m", "M@client", "message", "onMicro"));
}

TEST_F(DistantStore, IsNotToldAgainWhatEndsWhileItIsRenewed) {
  testing::ParkingGate gate;
  proxy.subscribeToEvent("e", "M", "onEvent");
  std::atomic<bool> isRenewed = false;
  transport->setHook([&](testing::FakeTransport::Call const& call, KXValue& result) {
    bool const isRenewal = call.method == "subscribeToEvent";
    if (isRenewal) gate.pass();
    if (call.method == "unsubscribeToEvent") {
      EXPECT_TRUE(isRenewed);
    }
    result = there->getProxy("KXMemory", 0)->genericCall(call.method, call.params);
    if (isRenewal) isRenewed = true;
  });
  transport->returnModule();
  ASSERT_TRUE(gate.waitUntilParked(1));

  auto const ending =
      std::async(std::launch::async, [this] { proxy.unsubscribeToEvent("e", "M"); });
  // The renewal is under way: the end of the subscription must not get there before it.
  EXPECT_EQ(ending.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  gate.open();
  ending.wait();
  client->shutdown();

  EXPECT_THROW(store->unsubscribeToEvent("e", "M@client"), KXError) << "it has none left";
}

TEST_F(DistantStore, IsToldTheRestAgainIfItDoesNotWantOne) {
  for (char const* key : {"a", "b", "c"}) proxy.subscribeToEvent(key, "M", "onEvent");
  std::atomic<int> told = 0;
  transport->setHook([&](testing::FakeTransport::Call const& call, KXValue&) {
    if (call.params[0].toString() == "a") throw KXError("KXMemory", "s", "no", "", 0);
    ++told;
  });

  transport->returnModule();

  client->shutdown();
  EXPECT_EQ(told, 2);
}

TEST_F(DistantStore, IsToldOnceHoweverManyReturnsWait) {
  testing::ParkingGate gate;
  proxy.subscribeToEvent("e", "M", "onEvent");
  auto const before = transport->getCalls().size();
  transport->setHook([&](testing::FakeTransport::Call const&, KXValue&) { gate.pass(); });
  transport->returnModule();
  ASSERT_TRUE(gate.waitUntilParked(1));

  for (int i = 0; i < 100; ++i) transport->returnModule();
  gate.open();

  client->shutdown();
  EXPECT_EQ(transport->getCalls().size() - before, 2U);
}

TEST_F(DistantStore, IsToldThemWhenItIsHeardOfNextWhereItDidNotAnswerInTime) {
  proxy.subscribeToEvent("e", "M", "onEvent");
  std::atomic<int> unanswered{2};
  transport->setHook([&](testing::FakeTransport::Call const& call, KXValue& result) {
    if (unanswered-- > 0) throw KXError("Slow", "call", "late", "", 0, KXError::Kind::TimedOut);
    result = there->getProxy(call.module, 0)->genericCall(call.method, call.params);
  });
  auto const before = transport->getCalls().size();

  for (std::size_t sign = 1; sign <= 3; ++sign) {
    transport->returnModule();
    ASSERT_TRUE(testing::waitUntil([&] { return transport->getCalls().size() >= before + sign; }));
  }

  client->shutdown();  // waits for the renewal
  // A sign that came just then may have had it told once more.
  auto const names = namesOf(transport->getCalls(), before);
  EXPECT_GE(names.size(), 3U);
  EXPECT_THAT(names, ::testing::Each("subscribeToEvent e"));
}

TEST_F(DistantStore, IsToldNothingByAProxyThatIsGone) {
  {
    KXMemoryProxy other(client);
    other.subscribeToEvent("e", "M", "onEvent");
  }
  auto const before = transport->getCalls().size();

  transport->returnModule();

  client->shutdown();
  EXPECT_EQ(transport->getCalls().size(), before);
}

TEST_F(DistantStore, IsNotWaitedForLongWhenASubscriptionEnds) {
  proxy.subscribeToEvent("e", "M", "onEvent");
  EXPECT_EQ(transport->getCalls().back().timeoutMs, 0);

  proxy.unsubscribeToEvent("e", "M");

  EXPECT_EQ(transport->getCalls().back().timeoutMs, 1000);
}

TEST_F(DistantStore, GivesAnEventThatWasNeverRaisedAsInvalid) {
  store->declareEvent("e");

  EXPECT_FALSE(proxy.getData("e").isValid());
  EXPECT_EQ(proxy.getType("e"), "Event");
}

TEST_F(DistantStore, IsGivenTheTimeOfABatchRead) {
  store->insertData("k", 1);

  EXPECT_EQ(proxy.getListData(KXValue(std::vector<std::string>{"k"}), 100), KXValue::arrayOf(1));
  EXPECT_EQ(transport->getCalls().back().timeoutMs, 100);
}

}  // namespace
}  // namespace KX
