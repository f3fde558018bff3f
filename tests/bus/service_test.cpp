// What the service protocol prescribes, field by field.
#include <host/bus/kxservice.hpp>

#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <host/bus/kxannounced.hpp>
#include <host/bus/kxmemorybus.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/bus/natsserver.hpp>
#include <tests/support/logcapture.hpp>

namespace KX {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr char kName[] = "[A-Za-z0-9_-]+";

KXMethodInfo method(std::string const& name, std::string const& description = "") {
  KXMethodInfo info;
  info.name = name;
  info.description = description;
  return info;
}

KXModuleInfo arm() {
  return {.name = "Arm",
          .description = "moves",
          .version = "ours",
          .methods = {method("move", "moves it"), method("stop"), method("move")}};
}

auto const kStarted = std::chrono::system_clock::time_point(1'767'323'045'678'901us);

KXServiceIdentity identity() {
  return {.robot = "r1", .broker = "any.1f", .instance = "0123abcd", .started = kStarted};
}

/// What one service answers to a question of somebody else's.
Json ask(std::unique_ptr<KXBus> const& bus, std::string const& subject) {
  std::promise<Json> answer;
  std::future<Json> answered = answer.get_future();
  bool isAnswered = false;
  auto const inbox = bus->subscribe("_INBOX.ask", "", 1, [&](KXBusMessage const& message) {
    if (!std::exchange(isAnswered, true)) {
      answer.set_value(message.isNoResponders ? Json() : Json::parse(message.payload));
    }
  });
  bus->publish({.subject = subject, .reply = "_INBOX.ask", .payload = "ignored"});
  if (answered.wait_for(10s) != std::future_status::ready) {
    ADD_FAILURE() << "no answer to " << subject;
    return Json();
  }
  return answered.get();
}

class Service : public ::testing::Test {
 protected:
  void SetUp() override {
    mServices.push_back(
        std::make_unique<KXService>(*mBus, identity(), arm(), [this] { return mStatistics; }));
  }
  Json answerTo(std::string const& subject) { return ask(mNetwork.connect(), subject); }

  KXBusNetwork mNetwork{KXBusNetwork::Pacing::Threaded};
  std::unique_ptr<KXBus> mBus = mNetwork.connect();
  std::vector<KXMethodStatistics> mStatistics;
  std::vector<std::unique_ptr<KXService>> mServices;
};

void expectHead(Json const& answer, std::string const& type) {
  EXPECT_EQ(answer.at("type"), "io.nats.micro.v1." + type);
  EXPECT_EQ(answer.at("name"), "Arm");
  EXPECT_EQ(answer.at("id"), "0123abcd");
  EXPECT_THAT(answer.at("version").get<std::string>(),
              MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+([-+][0-9A-Za-z.+-]+)?"));
  for (auto const& [key, value] : answer.at("metadata").items()) {
    EXPECT_TRUE(value.is_string()) << key;
  }
  EXPECT_EQ(answer.at("metadata").at("robot"), "r1");
  EXPECT_EQ(answer.at("metadata").at("broker"), "any.1f");
  EXPECT_EQ(answer.at("metadata").at("instance"), "0123abcd");
  EXPECT_EQ(answer.at("metadata").at("module"), "Arm");
  EXPECT_EQ(answer.at("metadata").at("moduleVersion"), "ours");
}

TEST_F(Service, AnswersToAllByItsNameAndByItsInstance) {
  for (std::string const verb : {"PING", "INFO", "STATS"}) {
    for (std::string const whom : {"", ".Arm", ".Arm.0123abcd"}) {
      SCOPED_TRACE(verb + whom);
      EXPECT_EQ(answerTo("$SRV." + verb + whom).at("name"), "Arm");
    }
  }
}

TEST_F(Service, PingHasTheHeadAlone) {
  Json const ping = answerTo("$SRV.PING");

  expectHead(ping, "ping_response");
  EXPECT_EQ(ping.size(), 5U);
}

TEST_F(Service, InfoHasAnEndpointForEachMethod) {
  Json const info = answerTo("$SRV.INFO");

  expectHead(info, "info_response");
  EXPECT_EQ(info.size(), 7U);
  EXPECT_EQ(info.at("description"), "moves");
  ASSERT_EQ(info.at("endpoints").size(), 2U);
  EXPECT_EQ(info.at("endpoints")[0],
            (Json{{"name", "move"},
                  {"subject", "kx.r1.Arm.move"},
                  {"queue_group", "q"},
                  {"metadata", {{"method", "move"}, {"description", "moves it"}}}}));
  EXPECT_EQ(info.at("endpoints")[1].at("subject"), "kx.r1.Arm.stop");
}

TEST_F(Service, StatsHaveNumbersForEachMethod) {
  mStatistics = {{.method = "stop",
                  .requests = 3,
                  .errors = 1,
                  .lastError = "no arm",
                  .processingNs = 3'000'000'002},
                 {.method = "@find", .requests = 9}};

  Json const stats = answerTo("$SRV.STATS");

  expectHead(stats, "stats_response");
  EXPECT_EQ(stats.size(), 7U);
  EXPECT_EQ(stats.at("started"), "2026-01-02T03:04:05.678901Z");
  ASSERT_EQ(stats.at("endpoints").size(), 2U);
  EXPECT_EQ(stats.at("endpoints")[0], (Json{{"name", "move"},
                                            {"subject", "kx.r1.Arm.move"},
                                            {"queue_group", "q"},
                                            {"num_requests", 0},
                                            {"num_errors", 0},
                                            {"last_error", ""},
                                            {"processing_time", 0},
                                            {"average_processing_time", 0}}));
  EXPECT_EQ(stats.at("endpoints")[1], (Json{{"name", "stop"},
                                            {"subject", "kx.r1.Arm.stop"},
                                            {"queue_group", "q"},
                                            {"num_requests", 3},
                                            {"num_errors", 1},
                                            {"last_error", "no arm"},
                                            {"processing_time", 3'000'000'002},
                                            {"average_processing_time", 1'000'000'000}}));
}

TEST_F(Service, WithOddNamesStaysWithinTheAlphabetAndKeepsMethodsApart) {
  std::string const odd = "a.b c\xff";
  mServices.push_back(std::make_unique<KXService>(
      *mBus, identity(),
      KXModuleInfo{
          .name = odd,
          .description = "not UTF-8: \xff",
          .version = "",
          .methods = {method("x.y"), method("x_y"), method("x y"), method("x_y-2"), method("")}},
      [] { return std::vector<KXMethodStatistics>{}; }));

  Json const info = answerTo("$SRV.INFO.a_b_c_");

  std::set<std::string> names;
  std::set<std::string> subjects;
  for (Json const& endpoint : info.at("endpoints")) {
    EXPECT_THAT(endpoint.at("name").get<std::string>(), MatchesRegex(kName));
    EXPECT_THAT(endpoint.at("subject").get<std::string>(),
                MatchesRegex("kx\\.r1\\.a%2Eb%20c%FF\\.[A-Za-z0-9_%-]+"));
    names.insert(endpoint.at("name").get<std::string>());
    subjects.insert(endpoint.at("subject").get<std::string>());
  }
  EXPECT_EQ(names.size(), 5U);
  EXPECT_EQ(subjects.size(), 5U);
  EXPECT_EQ(info.at("endpoints")[1].at("name"), "x_y");
  EXPECT_EQ(info.at("endpoints")[3].at("name"), "x_y-2");
  EXPECT_EQ(info.at("description"), "not UTF-8: \xef\xbf\xbd");
}

TEST(ServiceOverARealServer, Answers) {
  testing::NatsServer const server;
  auto const bus = connectNats({.url = server.url()});
  KXService const service(*bus, identity(), arm(),
                          [] { return std::vector<KXMethodStatistics>{}; });
  bus->flush(5000);
  auto const other = connectNats({.url = server.url()});

  expectHead(ask(other, "$SRV.PING.Arm.0123abcd"), "ping_response");
  EXPECT_EQ(ask(other, "$SRV.INFO.Arm").at("endpoints").size(), 2U);
  EXPECT_EQ(ask(other, "$SRV.STATS").at("started"), "2026-01-02T03:04:05.678901Z");
  EXPECT_TRUE(ask(other, "$SRV.PING.Leg").is_null());
  EXPECT_EQ(findAnnounced(*other, 1s).size(), 1U);
}

TEST_F(Service, SaysNothingToWhoeverWantsNoAnswer) {
  LogCapture const log("KXBus");  // an answer to nowhere would fail

  mBus->publish({.subject = "$SRV.PING"});

  expectHead(answerTo("$SRV.PING"), "ping_response");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Service, IsGoneAtItsEnd) {
  mServices.clear();

  EXPECT_THAT(findAnnounced(*mBus, 10min), IsEmpty());
}

TEST_F(Service, IsFoundAmongStrangersByWhoeverLooksForRobots) {
  auto const stranger = mNetwork.connect();
  std::vector<std::unique_ptr<KXBusSubscription>> answers;
  for (char const* text :
       {"", "{", "[]", "{}", R"({"metadata":5})", R"({"metadata":{"robot":"r2"}})",
        R"({"metadata":{"robot":5,"module":"m","moduleVersion":"","broker":"b","instance":"i",)"
        R"("version":"","started":""}})"}) {
    answers.push_back(stranger->subscribe("$SRV.INFO", "", 1, [&, text](KXBusMessage const& m) {
      stranger->publish({.subject = m.reply, .payload = text});
    }));
  }

  std::vector<KXAnnouncedModule> const found = findAnnounced(*mBus, 1s);

  ASSERT_EQ(found.size(), 1U);
  EXPECT_NE(found[0].version, "");
  EXPECT_EQ(found[0], (KXAnnouncedModule{.robot = "r1",
                                         .module = "Arm",
                                         .moduleVersion = "ours",
                                         .broker = "any.1f",
                                         .instance = "0123abcd",
                                         .version = found[0].version,
                                         .started = "2026-01-02T03:04:05.678901Z"}));
}

TEST(Announced, IsNothingAtOnceWhereThereIsNoService) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  auto const bus = network.connect();

  EXPECT_THAT(findAnnounced(*bus, 10min), IsEmpty());
}

/// A bus where as many answers of one kind as wanted come before publish() returns: however slow
/// the machine is, they are there in time.
class Answering : public KXBus {
 public:
  Answering(std::size_t count, std::size_t size) : mCount(count), mPayload(size, '{') {}

  void publish(KXBusMessage const& message) override {
    KXBusMessage const answer{.subject = message.reply, .payload = mPayload};
    for (std::size_t i = 0; i < mCount; ++i) mHandler(answer);
  }
  std::unique_ptr<KXBusSubscription> subscribe(std::string const& /*subject*/,
                                               std::string const& /*queue*/, int /*threads*/,
                                               Handler handler) override {
    mHandler = std::move(handler);
    return nullptr;
  }
  void flush(int /*timeoutMs*/) override {}
  std::unique_ptr<KXBusSubscription> observe(EventHandler /*handler*/) override { return nullptr; }
  bool isConnected() const override { return true; }
  std::size_t maxPayload() const override { return std::size_t{1} << 20; }
  std::string const& inboxPrefix() const override { return mName; }
  std::string const& user() const override { return mName; }
  std::string const& address() const override { return mName; }

 private:
  std::size_t const mCount;
  std::string const mPayload;
  std::string const mName{"name"};
  Handler mHandler;
};

TEST(Announced, AreNotTakenWithoutBound) {
  constexpr std::size_t kLarge = std::size_t{512} * 1024;
  struct Case {
    char const* name;
    std::size_t count;
    std::size_t size;
    std::string refusal;
  };
  for (Case const& each :
       {Case{"number", kMostAnnounced, 2, "none"},
        Case{"greater number", kMostAnnounced + 1, 2,
             "expected at most 10000 services to answer, got more of them"},
        Case{"bytes", kMostAnnouncedBytes / kLarge, kLarge, "none"},
        Case{"more bytes", kMostAnnouncedBytes / kLarge + 1, kLarge,
             "expected answers of at most 67108864 bytes from services, got more of them"}}) {
    SCOPED_TRACE(each.name);
    Answering bus(each.count, each.size);
    std::string refusal = "none";

    try {
      findAnnounced(bus, 1ms);
    } catch (KXError const& error) {
      refusal = error.getDescription();
      EXPECT_EQ(error.getKind(), KXError::Kind::Failed);
    }

    EXPECT_EQ(refusal, each.refusal);
  }
}

TEST(Announced, CannotBeAskedForWhereTheServerForbidsIt) {
  KXBusNetwork network(KXBusNetwork::Pacing::Threaded);
  network.setPermissions(
      "viewer", [](std::string const& subject) { return !subject.starts_with("$SRV"); },
      [](std::string const&) { return true; });
  auto const bus = network.connect("viewer");

  try {
    findAnnounced(*bus, 1s);
    FAIL();
  } catch (KXError const& error) {
    EXPECT_EQ(error.getKind(), KXError::Kind::Refused);
  }
}

}  // namespace
}  // namespace KX
