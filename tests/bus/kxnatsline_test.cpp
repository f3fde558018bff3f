// What is subscribed on one connection to NATS after the other.
#include <host/bus/kxnatsline.hpp>

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nats/nats.h>

#include <ka/log.hpp>
#include <tests/bus/busworld.hpp>
#include <tests/support/logcapture.hpp>

namespace KX {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::Inbox;
using testing::NatsServer;

KXNatsConnection connect(NatsServer const& server) {
  natsConnection* made = nullptr;
  EXPECT_EQ(natsConnection_ConnectTo(&made, server.url().c_str()), NATS_OK);
  return ownedConnection(made);
}

// Takes no new subscriptions, and is not closed as long as its message is not taken.
void drain(natsConnection* connection, natsSubscription*& subscription) {
  EXPECT_EQ(natsConnection_SubscribeSync(&subscription, connection, "waits"), NATS_OK);
  EXPECT_EQ(natsConnection_PublishString(connection, "waits", "text"), NATS_OK);
  EXPECT_EQ(natsConnection_Flush(connection), NATS_OK);
  EXPECT_EQ(natsConnection_DrainTimeout(connection, 60'000), NATS_OK);
}

TEST(KXNatsLine, RefusesAConnectionThatDoesNotTakeAllThatIsSubscribed) {
  for (int const threads : {1, 2}) {
    SCOPED_TRACE(threads);
    NatsServer const server;
    KXBusRetired retired;
    KXNatsLine line;
    Inbox inbox;
    KXNatsConnection const first = connect(server);
    ASSERT_TRUE(line.use(first));
    int status = NATS_OK;
    auto const subscribed = line.subscribe(retired, "s", "", threads, inbox.handler(), status);
    ASSERT_EQ(status, NATS_OK);
    natsConnection_Close(first.get());
    KXNatsConnection const draining = connect(server);
    natsSubscription* waiting = nullptr;
    drain(draining.get(), waiting);
    LogCapture const log("KXBus");

    EXPECT_FALSE(line.use(draining));
    EXPECT_EQ(line.connection(), first);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("trying another")));
    natsSubscription_Destroy(waiting);
    KXNatsConnection const next = connect(server);
    EXPECT_TRUE(line.use(next));
    EXPECT_EQ(line.connection(), next);
    natsConnection_PublishString(next.get(), "s", "text");
    EXPECT_EQ(inbox.payloads(1), std::vector<std::string>{"text"});
  }
}

TEST(KXNatsLine, IsFreeToWhoeverReadsItsLog) {
  NatsServer const server;
  KXBusRetired retired;
  KXNatsLine line;
  Inbox inbox;
  KXNatsConnection const first = connect(server);
  ASSERT_TRUE(line.use(first));
  int status = NATS_OK;
  auto const subscribed = line.subscribe(retired, "s", "", 1, inbox.handler(), status);
  KXNatsConnection const draining = connect(server);
  natsSubscription* waiting = nullptr;
  drain(draining.get(), waiting);
  std::unique_ptr<KXBusSubscription> own;
  ka::log::addHandler("reader", [&](ka::log::Record const&) {
    own = line.subscribe(retired, "t", "", 1, inbox.handler(), status);
  });

  EXPECT_FALSE(line.use(draining));

  ka::log::removeHandler("reader");
  EXPECT_NE(own, nullptr);
  natsSubscription_Destroy(waiting);
}

}  // namespace
}  // namespace KX
