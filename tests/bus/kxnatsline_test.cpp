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

// A line that has used one connection, and one that takes no subscriptions.
struct Line {
  explicit Line(int threads)
      : subscribed(line.subscribe(retired, "s", "", threads, inbox.handler(), status)) {
    EXPECT_EQ(status, NATS_OK);
    drain(draining.get(), waiting);
  }
  ~Line() { natsSubscription_Destroy(waiting); }
  Line(Line const&) = delete;
  Line& operator=(Line const&) = delete;

  NatsServer const server{};
  KXBusRetired retired{};
  KXNatsLine line{};
  Inbox inbox{};
  KXNatsConnection const first = connect(server);
  bool const isUsed = line.use(first);
  int status = NATS_OK;
  std::unique_ptr<KXBusSubscription> const subscribed;
  KXNatsConnection const draining = connect(server);
  natsSubscription* waiting = nullptr;
};

TEST(KXNatsLine, RefusesAConnectionThatDoesNotTakeAllThatIsSubscribed) {
  for (int const threads : {1, 2}) {
    SCOPED_TRACE(threads);
    Line on(threads);
    ASSERT_TRUE(on.isUsed);
    natsConnection_Close(on.first.get());
    LogCapture const log("KXBus");

    EXPECT_FALSE(on.line.use(on.draining));
    EXPECT_EQ(on.line.connection(), on.first);
    EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("trying another")));
    KXNatsConnection const next = connect(on.server);
    EXPECT_TRUE(on.line.use(next));
    EXPECT_EQ(on.line.connection(), next);
    natsConnection_PublishString(next.get(), "s", "text");
    EXPECT_EQ(on.inbox.payloads(1), std::vector<std::string>{"text"});
  }
}

TEST(KXNatsLine, IsFreeToWhoeverReadsItsLog) {
  Line on(1);
  std::unique_ptr<KXBusSubscription> own;
  ka::log::addHandler("reader", [&](ka::log::Record const&) {
    own = on.line.subscribe(on.retired, "t", "", 1, on.inbox.handler(), on.status);
  });

  EXPECT_FALSE(on.line.use(on.draining));

  ka::log::removeHandler("reader");
  EXPECT_NE(own, nullptr);
}

}  // namespace
}  // namespace KX
