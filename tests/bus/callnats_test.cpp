// Calls over a real server: what a network in memory cannot show.
#include <filesystem>
#include <fstream>
#include <stop_token>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxnatsbus.hpp>
#include <host/bus/kxwire.hpp>
#include <tests/bus/callfixture.hpp>

#include "cutproxy.hpp"
#include "natsserver.hpp"

namespace KX {
namespace {

using Kind = KXError::Kind;
using testing::Callee;
using testing::Clock;
using testing::CutProxy;
using testing::expectNoWait;
using testing::msSince;
using testing::NatsServer;
using testing::Outcome;
using testing::outcomeOf;
using ::testing::StartsWith;
using testing::waitUntil;

class CallNatsTest : public ::testing::Test {
 protected:
  // The callee's connection can be cut.
  explicit CallNatsTest(std::string const& configuration = "")
      : server(configuration), proxy(server.port()) {}

  void connect(KXBusOptions calleeOptions = {}, KXBusOptions callerOptions = {}) {
    calleeOptions.url = proxy.url();
    callerOptions.url = server.url();
    calleeBus = connectNats(calleeOptions);
    callerBus = connectNats(callerOptions);
    callee = std::make_unique<Callee>(*calleeBus);
    calleeBus->flush(5000);
    caller = std::make_unique<KXCaller>(*callerBus, KXSubjects("r"), "r", 40'000);
  }
  template <class... P>
  Outcome call(std::string const& method, P const&... arguments) {
    return callModule("Module", method, KXValue::arrayOf(KXValue(arguments)...));
  }
  Outcome callModule(std::string const& module, std::string const& method, KXValue const& params) {
    return outcomeOf([&] {
      KXValue result;
      caller->call(module, method, params, result, 0);
      return result;
    });
  }

  NatsServer server;
  CutProxy proxy;
  std::unique_ptr<KXBus> calleeBus;
  std::unique_ptr<KXBus> callerBus;
  std::unique_ptr<Callee> callee;
  std::unique_ptr<KXCaller> caller;
};

TEST_F(CallNatsTest, CallsAndGetsTheResult) {
  connect();

  KXValue const arguments = KXValue::arrayOf(1, 2.5, "text", KXValue::binary(std::string(1, '\0')));
  EXPECT_EQ(callModule("Module", "echo", arguments).result, arguments);
  EXPECT_EQ(call("fail", "not there").kind(), Kind::NotFound);
  EXPECT_EQ(call("fail", "line\nline").text(), "line\nline");
}

TEST_F(CallNatsTest, KnowsAtOnceThatNobodyIsThere) {
  connect();

  Outcome const outcome = callModule("Other", "method", KXValue::arrayOf());

  EXPECT_EQ(outcome.kind(), Kind::NotFound);
  EXPECT_EQ(outcome.text(), "nobody has module 'Other' on robot 'r'");
  expectNoWait([this] { return callModule("Other", "method", KXValue::arrayOf()); });
}

TEST_F(CallNatsTest, SendsTwentyMegabytesWithTheServersOwnLimits) {
  connect();

  Outcome const outcome = call("fill", 20'000'000);

  ASSERT_FALSE(outcome.error) << outcome.text();
  EXPECT_EQ(outcome.result.getBinary().size(), 20'000'000U);
  EXPECT_EQ(callee->runs(0), 1);
  EXPECT_TRUE(waitUntil([this] { return callee->server->counts().bytes < 1000; }));
}

TEST_F(CallNatsTest, GetsTheResultAlthoughTheServerDiesMeanwhile) {
  connect();
  call("echo");
  // The server lives and dies with this thread.
  Outcome outcome;
  std::jthread parked([&] { outcome = call("park"); });
  ASSERT_TRUE(callee->gate.waitUntilParked(1));

  server.kill();
  callee->gate.open();
  server.start();

  parked.join();
  EXPECT_EQ(outcome.result, KXValue(true)) << outcome.text();
  EXPECT_EQ(callee->server->counts().admitted, 2U);
}

TEST_F(CallNatsTest, NoCallIsLostOrRunsTwiceWhileServersDie) {
  connect();
  call("echo");
  std::atomic<int> goodCount = 0;
  std::jthread client([&](std::stop_token const& stop) {
    for (int key = 1; !stop.stop_requested(); ++key) {
      Outcome const outcome = call("count", key);
      if (!outcome.error) {
        EXPECT_EQ(outcome.result, KXValue(1));
        EXPECT_EQ(callee->runs(key), 1);
        ++goodCount;
      } else {
        EXPECT_THAT(outcome.text(), StartsWith("no connection")) << "only what was not sent";
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  });
  for (int i = 0; i < 4; ++i) {
    int const before = goodCount;
    EXPECT_TRUE(waitUntil([&] { return goodCount > before + 20; }));
    server.kill();
    server.start();
  }
  int const before = goodCount;
  EXPECT_TRUE(waitUntil([&] { return goodCount > before + 20; }));
  client.request_stop();
  client.join();
  EXPECT_EQ(callee->mostRuns(), 1);
}

TEST_F(CallNatsTest, KnowsAtOnceThatThereIsNoServer) {
  connect();
  call("echo");
  server.kill();
  ASSERT_TRUE(waitUntil([this] { return !callerBus->isConnected(); }));

  Outcome const outcome = call("echo");

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_THAT(outcome.text(), StartsWith("no connection to nats://127.0.0.1:"));
  expectNoWait([this] { return call("echo"); });
}

TEST_F(CallNatsTest, NoticesACalleeThatDiesInTheMiddle) {
  connect();
  call("echo");
  std::jthread const killer([this] {
    EXPECT_TRUE(callee->gate.waitUntilParked(1));
    proxy.cut();
  });

  Outcome const outcome = call("park");

  EXPECT_EQ(outcome.kind(), Kind::Disconnected);
  EXPECT_EQ(outcome.text(), "module 'Module' went away while it was called; the call may have run");
  EXPECT_LT(outcome.tookMs, 5000);
}

class CallNatsRightsTest : public CallNatsTest {
 protected:
  CallNatsRightsTest()
      : CallNatsTest(R"(authorization { users = [
    { user: op, password: secret }
    { user: viewer, password: secret, permissions {
        publish: ["kx.r.Module.echo", "kx.r.Module.@find", "kx.r.@from.viewer.>"],
        subscribe: ["_INBOX_viewer.>"] } } ] })") {
    std::string const file = server.directory() / "password";
    std::ofstream(file) << "secret\n";
    std::filesystem::permissions(file, std::filesystem::perms::owner_read);
    connect({.user = "op", .passwordFile = file}, {.user = "viewer", .passwordFile = file});
  }
};

TEST_F(CallNatsRightsTest, WhatIsForbiddenIsRefusedAtOnce) {
  EXPECT_EQ(call("echo", 1).result, KXValue::arrayOf(1));

  Outcome const outcome = call("count", 1);

  EXPECT_EQ(outcome.kind(), Kind::Refused);
  EXPECT_THAT(outcome.text(), StartsWith("the server forbids to call 'Module.count': "));
  expectNoWait([this] { return call("count", 1); });
  EXPECT_EQ(callee->runs(1), 0);
}

TEST_F(CallNatsRightsTest, AUserSubscribesForItself) {
  callee->host.publishScript("KXMemory", [](auto const&, auto const&) { return KXValue(7); });
  callee->server->serve("KXMemory");
  calleeBus->flush(5000);
  auto const subscribe = [&](std::string const& module) {
    return callModule("KXMemory", "subscribeToEvent", KXValue::arrayOf("key", module, "method"));
  };

  EXPECT_EQ(subscribe("Watcher@viewer.abcdef12").text(), "7");
  EXPECT_EQ(subscribe("Watcher@op.abcdef12").kind(), Kind::Refused);
}

}  // namespace
}  // namespace KX
