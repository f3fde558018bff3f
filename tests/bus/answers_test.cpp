// Whoever asks names the subject of the answer, and the answer goes out with the rights of whoever
// is asked: to an inbox, and nowhere else.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxclaim.hpp>
#include <host/bus/kxeventreceiver.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxserver.hpp>
#include <host/bus/kxservice.hpp>
#include <host/bus/kxsubject.hpp>
#include <host/bus/kxwire.hpp>
#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using namespace std::chrono_literals;

using testing::TestHost;

constexpr char kInbox[] = "_INBOX_viewer.1";
char const* const kNoInboxes[] = {"kx.r1.KXMemory.insertData",
                                  "kx.r1.@events.KXMemoryWatcher",
                                  "kx.r1.@claim.KXMemory",
                                  "$SRV.PING",
                                  "$SYS.REQ.SERVER.PING",
                                  "other.system",
                                  "_INBOXES.are.not.meant",
                                  "kx",
                                  "INBOX.1"};

/// All that is on the bus.
class Traffic {
 public:
  explicit Traffic(KXBusNetwork& network) : mBus(network.connect()) {
    mAll = mBus->subscribe(">", "", 1, [this](KXBusMessage const& message) {
      std::lock_guard const lock(mMutex);
      mSubjects.emplace_back(message.subject);
      mChanged.notify_all();
    });
    mBus->flush(10'000);
  }
  /// How many messages went there, once one went to the inbox.
  std::ptrdiff_t countUntilAnswer(std::string const& subject) {
    std::unique_lock lock(mMutex);
    bool const isAnswered =
        mChanged.wait_for(lock, 10s, [this] { return std::ranges::count(mSubjects, kInbox) > 0; });
    EXPECT_TRUE(isAnswered) << "no answer to an inbox";
    return std::ranges::count(mSubjects, subject);
  }

 private:
  std::unique_ptr<KXBus> const mBus;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::string> mSubjects;  // guarded by mMutex
  std::unique_ptr<KXBusSubscription> mAll;
};

/// Asks for an answer to the subject, then for one to the inbox; what is asked answers in order.
void expectNoAnswerTo(KXBusNetwork& network, KXBusMessage question, std::string const& subject) {
  SCOPED_TRACE(std::string(question.subject) + " with reply " + subject);
  Traffic traffic(network);
  auto const asker = network.connect();
  question.reply = subject;
  asker->publish(question);
  asker->flush(10'000);
  question.reply = kInbox;
  asker->publish(question);
  // The question itself may be what is listened for.
  EXPECT_EQ(traffic.countUntilAnswer(subject), subject == question.subject ? 2 : 0);
}

class Answers : public ::testing::Test {
 protected:
  KXBusNetwork mNetwork{KXBusNetwork::Pacing::Threaded};
  std::unique_ptr<KXBus> mBus = mNetwork.connect();
  KXSubjects const mSubjects{"r1"};
};

TEST_F(Answers, OfServicesGoToInboxesOnly) {
  KXServiceIdentity const identity{"r1", "any.1f", "0123abcd", {}};
  KXService const service(*mBus, identity,
                          {.name = "Arm", .description = "", .version = "", .methods = {}},
                          [] { return std::vector<KXMethodStatistics>(); });

  for (char const* const subject : kNoInboxes) {
    for (char const* const question : {"$SRV.PING", "$SRV.INFO.Arm", "$SRV.STATS.Arm.0123abcd"})
      expectNoAnswerTo(mNetwork, {.subject = question}, subject);
  }
}

TEST_F(Answers, OfThoseWhoHaveANameGoToInboxesOnly) {
  KXClaim claim(*mBus, "r1", "Arm", "0123abcd", [] {});
  claim.acquire();
  std::string const who = encodeValue(KXValue::arrayOf("claims", "ffff", "", 1, "host"));

  for (char const* const subject : kNoInboxes) {
    expectNoAnswerTo(mNetwork, {.subject = "kx.r1.@claim.Arm", .payload = who}, subject);
  }
}

TEST_F(Answers, ToEventsGoToInboxesOnly) {
  TestHost host;
  KXEventReceiver receiver(*mBus, mSubjects, host.getBroker());
  receiver.serve("Arm");
  std::string bytes;
  appendNotification(bytes, "onTouch", KXValue::arrayOf());
  std::string const header = formatPackHeader({"0123456789abcdef", 1, 1, 1, 1});

  for (char const* const subject : kNoInboxes) {
    expectNoAnswerTo(
        mNetwork,
        {.subject = "kx.r1.@events.Arm", .headers = {{kPackHeader, header}}, .payload = bytes},
        subject);
  }
}

TEST_F(Answers, OfMethodsGoToInboxesOnly) {
  TestHost host;
  int calls = 0;
  host.publishScript("Arm", [&](auto const&, auto const&) { return KXValue(++calls); });
  KXServer server(*mBus, host.getBroker(), mSubjects, {.threads = 1});
  server.serve("Arm");
  server.serveBroker("any", "1f");

  for (char const* const subject : kNoInboxes) {
    for (char const* const question :
         {"kx.r1.Arm.move", "kx.r1.Arm.@find", "kx.r1.Arm.@describe", "kx.r1.@at.any.1f.Arm.move"})
      expectNoAnswerTo(mNetwork, {.subject = question}, subject);
    expectNoAnswerTo(
        mNetwork,
        {.subject = "kx.r1.Arm.move", .headers = {{kCallHeader, "not.a.call"}}, .payload = "\x90"},
        subject);
  }
}

TEST(Inbox, BeginsAsTheServersRulesHaveIt) {
  EXPECT_TRUE(isInbox("_INBOX.abc"));
  EXPECT_TRUE(isInbox("_INBOX_viewer.abc"));
  for (char const* const subject :
       {"", "_INBOX", "_inbox.a", "_INBOXES.a", "a._INBOX.b", "kx.r1.A.b"})
    EXPECT_FALSE(isInbox(subject)) << subject;
}

}  // namespace
}  // namespace KX
