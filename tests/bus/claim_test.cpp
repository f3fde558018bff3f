// Who has a name meant for everybody.
#include <host/bus/kxclaim.hpp>

#include <atomic>
#include <barrier>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/sanitized.hpp>
#include <tests/support/waituntil.hpp>

namespace KX {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

/// A process: its connection, and its claim to the name "M" on the robot "r1".
struct Process {
  Process(KXBusNetwork& network, std::string instance, std::string const& user = "any")
      : Process(network.connect(user), std::move(instance)) {}
  Process(testing::NatsServer const& server, std::string instance)
      : Process(connectNats({.url = server.url()}), std::move(instance)) {}
  Process(std::unique_ptr<KXBus> itsBus, std::string instance)
      : bus(std::move(itsBus)),
        claim(std::make_unique<KXClaim>(*bus, "r1", "M", std::move(instance),
                                        [this] { withdrawals.fetch_add(1); })) {}

  /// The error, or "" once the name is acquired.
  std::string tryToAcquire() {
    try {
      claim->acquire();
      return "";
    } catch (KXError const& error) {
      kind = error.getKind();
      return error.getDescription();
    }
  }

  std::unique_ptr<KXBus> bus;
  std::atomic<int> withdrawals{0};
  KXError::Kind kind{};
  std::unique_ptr<KXClaim> claim;
};

TEST(Claim, IsGrantedWhereNobodyHasTheName) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "a");

  EXPECT_EQ(first.tryToAcquire(), "");

  EXPECT_TRUE(first.claim->isHeld());
  EXPECT_EQ(first.withdrawals, 0);
}

TEST(Claim, IsRefusedWhileSomebodyHasTheName) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "b");
  ASSERT_EQ(first.tryToAcquire(), "");

  for (char const* instance : {"a", "c"}) {
    Process second(network, instance);
    EXPECT_THAT(second.tryToAcquire(),
                MatchesRegex("module 'M' is already on robot 'r1' \\(process " +
                             std::to_string(::getpid()) +
                             " on host [^ ,]+, since 20[0-9-]+T[0-9:]+\\.[0-9]+Z\\), expected its "
                             "name to be free"));
    EXPECT_EQ(second.kind, KXError::Kind::Failed);
    EXPECT_FALSE(second.claim->isHeld());
  }
  EXPECT_TRUE(first.claim->isHeld());
}

TEST(Claim, IsOfOneRobotAndOneModule) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");
  auto const bus = network.connect();
  std::vector<std::unique_ptr<KXClaim>> others;
  others.push_back(std::make_unique<KXClaim>(*bus, "r2", "M", "b", [] {}));
  others.push_back(std::make_unique<KXClaim>(*bus, "r1", "M2", "b", [] {}));

  KXClaim::acquireAll(others);

  EXPECT_TRUE(others[0]->isHeld());
  EXPECT_TRUE(others[1]->isHeld());
  EXPECT_TRUE(first.claim->isHeld());
}

TEST(Claim, OfSeveralNamesTakesTheTimeOfOne) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  auto const bus = network.connect();
  std::vector<std::unique_ptr<KXClaim>> claims;
  for (int i = 0; i < 20; ++i) {
    std::string const name = std::to_string(i);
    claims.push_back(std::make_unique<KXClaim>(*bus, "r1", name, "a", [] {}));
  }
  auto const start = steady_clock::now();

  KXClaim::acquireAll(claims);

  EXPECT_LT(steady_clock::now() - start, 5s);  // one after the other it were 20 times 300 ms
  for (auto const& claim : claims) EXPECT_TRUE(claim->isHeld());
}

TEST(Claim, IsFreeAgainWhenItsHolderEnds) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "a");
  Process second(network, "b");
  ASSERT_EQ(first.tryToAcquire(), "");

  first.claim.reset();

  EXPECT_EQ(second.tryToAcquire(), "");
  EXPECT_EQ(first.withdrawals, 0);
}

TEST(Claim, OfAKilledHolderIsTakenOverWithinThreeSeconds) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");
  network.cut(*first.bus);
  auto const start = steady_clock::now();

  Process second(network, "b");
  EXPECT_EQ(second.tryToAcquire(), "");

  EXPECT_LT(steady_clock::now() - start, 3s);
}

TEST(Claim, OfOneWhoDoesNotAnswerIsTakenOverAndHeWithdrawsOnHisReturn) {
  // What he answers in the end may arrive or not.
  for (auto const& [laterInstance, isHeard] : {std::pair("a", true), std::pair("c", false)}) {
    SCOPED_TRACE(laterInstance);
    KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
    LogCapture const log("KXClaim");
    Process first(network, "b");
    ASSERT_EQ(first.tryToAcquire(), "");
    network.setFaults([heard = isHeard](KXBusTransfer const& transfer) {
      if (transfer.from == 0 && !heard) return KXBusFate{.delaysUs = {}};
      return KXBusFate{.delaysUs = {transfer.to == 0 ? 2'500'000 : 0}};
    });
    auto const start = steady_clock::now();

    Process second(network, laterInstance);
    EXPECT_EQ(second.tryToAcquire(), "");

    EXPECT_LT(steady_clock::now() - start, 3s);
    EXPECT_TRUE(first.claim->isHeld());
    EXPECT_TRUE(testing::waitUntil([&] { return first.withdrawals == 1; }));
    EXPECT_FALSE(first.claim->isHeld());
    EXPECT_TRUE(second.claim->isHeld());
    EXPECT_EQ(second.withdrawals, 0);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].level, ka::log::Error);
    EXPECT_THAT(log.lines()[0].text,
                AllOf(HasSubstr("module 'M' is withdrawn from robot 'r1': process "),
                      HasSubstr(" has had the name since 20")));
  }
}

TEST(Claim, OfSeveralNamesOfOneWhoDoesNotAnswerTakesTheTimeOfOne) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  auto const claimsOf = [](KXBus& bus, std::string const& instance) {
    std::vector<std::unique_ptr<KXClaim>> claims;
    for (int i = 0; i < 8; ++i) {
      claims.push_back(std::make_unique<KXClaim>(bus, "r1", std::to_string(i), instance, [] {}));
    }
    return claims;
  };
  auto const first = network.connect();
  auto const held = claimsOf(*first, "b");
  KXClaim::acquireAll(held);
  network.setFaults([](KXBusTransfer const& transfer) {
    return transfer.to == 0 ? KXBusFate{.delaysUs = {}} : KXBusFate();
  });
  auto const second = network.connect();
  auto const claims = claimsOf(*second, "a");
  auto const start = steady_clock::now();

  KXClaim::acquireAll(claims);

  EXPECT_LT(steady_clock::now() - start, 5s);  // one by one it would be more than 8
  for (auto const& claim : claims) EXPECT_TRUE(claim->isHeld());
}

TEST(Claim, StaysWithAHolderWhoIsSlowOnlyNowAndThen) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process first(network, "b");
  ASSERT_EQ(first.tryToAcquire(), "");
  network.setFaults([](KXBusTransfer const& transfer) {
    return KXBusFate{.delaysUs = {transfer.to == 0 ? 300'000 : 0}};
  });

  Process second(network, "a");

  EXPECT_THAT(second.tryToAcquire(), HasSubstr("already on robot"));
  EXPECT_TRUE(first.claim->isHeld());
}

TEST(Claim, OfOneWhoWasAwayIsLostToWhoeverTookItMeanwhile) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  LogCapture const log("KXClaim");
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");
  network.cut(*first.bus);
  Process second(network, "b");
  ASSERT_EQ(second.tryToAcquire(), "");

  network.mend(*first.bus);

  EXPECT_TRUE(testing::waitUntil([&] { return first.withdrawals == 1; }));
  EXPECT_TRUE(second.claim->isHeld());
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Claim, OfOneWhoWasAwayStaysIfNobodyWantedIt) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  LogCapture const log("KXClaim");
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");

  network.stopServer();
  network.startServer();

  Process second(network, "b");
  EXPECT_THAT(second.tryToAcquire(), HasSubstr("already on robot"));
  EXPECT_TRUE(first.claim->isHeld());
  EXPECT_TRUE(log.lines().empty());
}

TEST(Claim, OfTwoWhoHoldItAfterACutTheLaterOneKeepsIt) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  LogCapture const log("KXClaim");
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");
  network.cut(*first.bus);
  Process second(network, "b");
  ASSERT_EQ(second.tryToAcquire(), "");
  network.cut(*second.bus);

  network.mend(*first.bus);
  ASSERT_TRUE(first.claim->isHeld());
  network.mend(*second.bus);

  EXPECT_TRUE(testing::waitUntil([&] { return first.withdrawals == 1; }));
  EXPECT_TRUE(second.claim->isHeld());
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Claim, OfSeveralAtOnceIsGrantedToExactlyOne) {
  // A sanitizer makes threads so slow that of too many one may sleep through another's claim.
  constexpr int kSeeds = testing::kIsSanitized ? 5 : 40;
  constexpr int kProcesses = 3;
  LogCapture const log("KXClaim");
  std::vector<std::unique_ptr<KXBusNetwork>> networks;
  std::vector<std::unique_ptr<Process>> processes;
  for (int seed = 0; seed < kSeeds; ++seed) {
    networks.push_back(std::make_unique<KXBusNetwork>(KXBusNetwork::Pacing::Threaded));
    for (int i = 0; i < kProcesses; ++i) {
      processes.push_back(std::make_unique<Process>(*networks.back(), std::to_string(i)));
    }
    networks.back()->setFaults(KXBusNetwork::randomFaults(
        static_cast<std::uint32_t>(seed), {.duplicate = 0.1, .maxDelayUs = 30'000}));
  }
  std::vector<std::jthread> threads;
  for (auto const& process : processes) {
    threads.emplace_back([&process] { process->tryToAcquire(); });
  }
  threads.clear();

  for (int seed = 0; seed < kSeeds; ++seed) {
    SCOPED_TRACE(seed);
    auto const count = [&] {
      int held = 0;
      for (int i = 0; i < kProcesses; ++i) {
        held += processes[static_cast<std::size_t>(seed * kProcesses + i)]->claim->isHeld() ? 1 : 0;
      }
      return held;
    };
    EXPECT_EQ(count(), 1);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(Claim, FailsWithoutAConnection) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  Process process(network, "a");
  network.stopServer();

  EXPECT_NE(process.tryToAcquire(), "");

  EXPECT_EQ(process.kind, KXError::Kind::Disconnected);
}

TEST(Claim, FailsWhereTheServerForbidsIt) {
  for (bool const isPublishing : {true, false}) {
    KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
    auto const all = [](std::string const&) {
      return true;
    };
    auto const noClaims = [](std::string const& subject) {
      return subject != "kx.r1.@claim.M";
    };
    isPublishing ? network.setPermissions("viewer", noClaims, all)
                 : network.setPermissions("viewer", all, noClaims);
    Process process(network, "a", "viewer");

    EXPECT_THAT(process.tryToAcquire(), HasSubstr("not allowed to have module 'M' on robot 'r1'"));

    EXPECT_EQ(process.kind, KXError::Kind::Refused);
  }
}

TEST(Claim, OverARealServerIsRefusedTakenOverAndKept) {
  testing::NatsServer server;
  LogCapture const log("KXClaim");
  Process first(server, "b");
  ASSERT_EQ(first.tryToAcquire(), "");
  Process second(server, "a");
  EXPECT_THAT(second.tryToAcquire(), HasSubstr("already on robot"));

  server.kill();
  server.start();
  ASSERT_TRUE(testing::waitUntil([&] { return first.bus->isConnected(); }));
  Process third(server, "a");
  EXPECT_THAT(third.tryToAcquire(), HasSubstr("already on robot"));
  EXPECT_TRUE(first.claim->isHeld());

  first.claim.reset();
  first.bus.reset();
  Process fourth(server, "c");
  auto const start = steady_clock::now();
  EXPECT_EQ(fourth.tryToAcquire(), "");
  EXPECT_LT(steady_clock::now() - start, 3s);
  EXPECT_EQ(first.withdrawals, 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Claim, SurvivesWhatIsNoClaim) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  LogCapture const log;
  Process first(network, "a");
  ASSERT_EQ(first.tryToAcquire(), "");
  auto const stranger = network.connect();
  for (KXValue const& said :
       {KXValue(), KXValue("holds"), KXValue::arrayOf("holds", "z"),
        KXValue::arrayOf("holds", "z", 5, 1, "host"), KXValue(std::vector<KXValue>{})}) {
    std::string const payload = encodeValue(said);
    stranger->publish({.subject = "kx.r1.@claim.M", .payload = payload});
  }
  stranger->publish({.subject = "kx.r1.@claim.M", .payload = "\xc1"});

  Process second(network, "b");

  EXPECT_THAT(second.tryToAcquire(), HasSubstr("already on robot"));
  EXPECT_TRUE(first.claim->isHeld());
}

}  // namespace
}  // namespace KX
