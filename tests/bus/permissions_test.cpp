// Who may do what on the server of docs/examples/robot-server.conf: what a role is for works, and
// the rest is refused, at once and by name.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <binding/kx.hpp>
#include <host/bus/kxannounced.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <host/bus/kxwire.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxproxies/kxmemoryproxy.hpp>
#include <tests/support/logcapture.hpp>
#include <tests/support/sanitized.hpp>

#include "busworld.hpp"
#include "robotserver.hpp"

namespace KX {
namespace {

using namespace std::chrono_literals;
using testing::Events;
using ::testing::HasSubstr;
using testing::Inbox;
using ::testing::IsEmpty;
using testing::RobotServer;
using Clock = std::chrono::steady_clock;

constexpr auto kAtOnce = 3s;  // of calls whose time-out is five

// ---- by subjects

/// What users may do with a subject: publish to it, subscribe to it.
struct Rights {
  std::string subject;
  std::string host, module, viewer, operatr;
};

std::vector<Rights> const& allRights() {
  static std::vector<Rights> const rights{
      {"kx.r1.KXMemory.getData", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.getListData", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.getType", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.getKeys", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.insertData", "ps", "", "", "p"},
      {"kx.r1.KXMemory.insertListData", "ps", "", "", "p"},
      {"kx.r1.KXMemory.raiseEvent", "ps", "", "", "p"},
      {"kx.r1.KXMemory.raiseMicroEvent", "ps", "", "", "p"},
      {"kx.r1.KXMemory.declareEvent", "ps", "", "", "p"},
      {"kx.r1.KXMemory.removeData", "ps", "", "", "p"},
      // In no name: whoever may, subscribes anybody.
      {"kx.r1.KXMemory.subscribeToEvent", "ps", "", "", "p"},
      {"kx.r1.KXMemory.unsubscribeToEvent", "ps", "", "", "p"},
      // In somebody's name.
      {"kx.r1.@from.viewer.KXMemory.subscribeToEvent", "ps", "", "p", ""},
      {"kx.r1.@from.viewer.KXMemory.subscribeToMicroEvent", "ps", "", "p", ""},
      {"kx.r1.@from.viewer.KXMemory.unsubscribeToEvent", "ps", "", "p", ""},
      {"kx.r1.@from.viewer.KXMemory.unsubscribeToMicroEvent", "ps", "", "p", ""},
      {"kx.r1.@from.viewer.KXMemory.insertData", "ps", "", "", ""},
      {"kx.r1.@from.module.KXMemory.subscribeToEvent", "ps", "p", "", ""},
      {"kx.r1.@from.operator.KXMemory.unsubscribeToEvent", "ps", "", "", "p"},
      {"kx.r1.@from.host.KXMemory.subscribeToEvent", "ps", "", "", ""},
      // The watcher that is announced.
      {"kx.r1.KXMemoryWatcher.getData", "ps", "s", "", "p"},
      {"kx.r1.KXMemoryWatcher.clearBuffer", "ps", "s", "", "p"},
      {"kx.r1.KXMemoryWatcher.addListener", "ps", "s", "", "p"},
      {"kx.r1.KXMemoryWatcher._onEventNotify", "ps", "s", "", ""},
      {"kx.r1.KXMemoryWatcher.@find", "ps", "ps", "p", "p"},
      {"kx.r1.KXMemory.@find", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.@describe", "ps", "p", "p", "p"},
      {"kx.r1.KXMemory.@wait", "ps", "", "", "p"},
      {"kx.r1.KXHostSensors.setPeriodMs", "ps", "", "", "p"},
      // Events, and modules meant for one process.
      {"kx.r1.@events.KXMemoryWatcher", "ps", "s", "", ""},
      {"kx.r1.@events.KXMemory", "ps", "", "", ""},
      {"kx.r1.@events.module.1f.KXMemoryWatcher", "ps", "s", "", ""},
      {"kx.r1.@events.viewer.1f.KXMemoryWatcher", "ps", "", "s", ""},
      {"kx.r1.@events.operator.1f.KXMemoryWatcher", "ps", "", "", "s"},
      {"kx.r1.@at.viewer.1f.KXMemoryWatcher.getData", "ps", "", "s", ""},
      {"kx.r1.@at.operator.1f.KXMemoryWatcher.getData", "ps", "", "", "s"},
      {"kx.r1.@at.host.1f.KXMemory.insertData", "ps", "", "", ""},
      // Names.
      {"kx.r1.@claim.KXMemoryWatcher", "ps", "ps", "", ""},
      {"kx.r1.@claim.KXMemory", "ps", "", "", ""},
      {"kx.r1.@here", "ps", "ps", "s", "s"},
      {"kx.r1.@hello", "ps", "ps", "ps", "ps"},
      {"$SRV.PING", "s", "s", "p", "p"},
      {"$SRV.INFO.KXMemoryWatcher", "s", "s", "p", "p"},
      {"$SRV.STATS.KXMemory.0123", "s", "", "p", "p"},
      // Replies.
      {"_INBOX_host.1", "s", "", "", ""},
      {"_INBOX_module.1", "", "s", "", ""},
      {"_INBOX_viewer.1", "", "", "s", ""},
      {"_INBOX_operator.1", "", "", "", "s"},
      {"_INBOX.1", "", "", "", ""},
      // Other robots, other systems, the server's own.
      {"kx.r2.KXMemory.getData", "", "", "", ""},
      {"kx.r10.KXMemory.getData", "", "", "", ""},
      {"other.system", "", "", "", ""},
      {"$SYS.REQ.SERVER.PING", "", "", "", ""},
      {"$JS.API.INFO", "", "", "", ""},
  };
  return rights;
}

struct WildRights {
  std::string pattern;
  std::set<std::string> users;
};
std::vector<WildRights> const& wildRights() {
  static std::vector<WildRights> const rights{
      {">", {}},
      {"*.>", {}},
      {"kx.>", {}},
      {"kx.*.KXMemory.*", {}},
      {"kx.r1.>", {"host"}},
      {"kx.r1.*.*", {"host"}},
      {"kx.r1.@at.>", {"host"}},
      {"kx.r1.@events.>", {"host"}},
      {"kx.r1.@at.viewer.>", {"host", "viewer"}},
      {"kx.r1.@events.viewer.1f.*", {"host", "viewer"}},
      {"kx.r1.KXMemoryWatcher.*", {"host", "module"}},
      {"$SRV.>", {"host"}},
      {"$SRV.*", {"host"}},
      {"$SRV.PING.>", {"host"}},
      {"$SRV.*.*", {"host"}},
      {"_INBOX_host.>", {"host"}},
      {"_INBOX_viewer.>", {"viewer"}},
      {"_INBOX_viewer.*", {"viewer"}},
  };
  return rights;
}

/// All that the server refused, once it has seen everything that was sent before.
std::set<std::string> refusedUntilNow(KXBus& bus, Events& events) {
  std::string const last = "a.subject.that.nobody.may.use";
  bus.publish({.subject = last});
  std::set<std::string> refused;
  for (std::size_t i = 0;; ++i) {
    auto const all = events.waitFor(i + 1);
    if (all.size() <= i) {
      ADD_FAILURE() << "the server did not refuse '" << last << "'";
      return refused;
    }
    if (all[i].kind != KXBusEvent::Kind::Refused) continue;
    if (all[i].subject == last) return refused;
    refused.insert((all[i].isPublishing ? "publish " : "subscribe ") + all[i].subject);
  }
}

std::vector<std::string> without(std::set<std::string> const& all,
                                 std::set<std::string> const& some) {
  std::vector<std::string> rest;
  std::ranges::set_difference(all, some, std::back_inserter(rest));
  return rest;
}

class Role : public ::testing::TestWithParam<std::string> {};

TEST_P(Role, DoesWhatItIsAllowedAndNothingElse) {
  RobotServer server;
  auto const bus = connectNats(server.options(GetParam()));
  Events events(*bus);
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions;
  std::set<std::string> expected;
  auto const subscribe = [&](std::string const& subject, bool isAllowed) {
    subscriptions.push_back(bus->subscribe(subject, "", 1, [](KXBusMessage const&) {}));
    if (!isAllowed) expected.insert("subscribe " + subject);
  };

  for (Rights const& right : allRights()) {
    std::string const& mine = GetParam() == "host"     ? right.host
                              : GetParam() == "module" ? right.module
                              : GetParam() == "viewer" ? right.viewer
                                                       : right.operatr;
    // First, or a subscription would let it answer itself.
    bus->publish({.subject = right.subject});
    if (mine.find('p') == std::string::npos) expected.insert("publish " + right.subject);
    subscribe(right.subject, mine.find('s') != std::string::npos);
  }
  for (auto const& [pattern, users] : wildRights()) subscribe(pattern, users.contains(GetParam()));

  std::set<std::string> const refused = refusedUntilNow(*bus, events);
  EXPECT_THAT(without(refused, expected), IsEmpty()) << "refused, though it is for the role";
  EXPECT_THAT(without(expected, refused), IsEmpty()) << "allowed, though it is not for the role";
}

INSTANTIATE_TEST_SUITE_P(Users, Role, ::testing::Values("host", "module", "viewer", "operator"),
                         [](auto const& role) { return role.param; });

TEST(Responses, MayBeAsManyAsAReplyHasPartsAndNotMore) {
  RobotServer server;
  auto const host = connectNats(server.options("host"));
  auto const viewer = connectNats(server.options("viewer"));
  Events refused(*host);
  Inbox answers;
  auto const inbox = viewer->subscribe("_INBOX_viewer.1", "", 1, answers.handler());
  auto const calls =
      host->subscribe("kx.r1.KXMemory.getData", "", 1, [&](KXBusMessage const& message) {
        for (int i = 0; i < 9; ++i) host->publish({.subject = message.reply});
      });
  host->flush(10'000);

  // The same reply subject counts anew with each request.
  for (std::size_t request = 1; request <= 2; ++request) {
    viewer->publish({.subject = "kx.r1.KXMemory.getData", .reply = "_INBOX_viewer.1"});
    ASSERT_EQ(refused.waitFor(request).size(), request);
    EXPECT_EQ(refused.waitFor(request).back().subject, "_INBOX_viewer.1");
    EXPECT_EQ(answers.waitFor(8 * request).size(), 8 * request);
  }
}

TEST(Responses, GoWhereverTheQuestionSays) {
  RobotServer server;
  auto const host = connectNats(server.options("host"));
  auto const module = connectNats(server.options("module"));
  auto const viewer = connectNats(server.options("viewer"));
  Inbox calls;
  auto const store = host->subscribe("kx.r1.KXMemory.insertData", "", 1, calls.handler());
  auto const answers =
      module->subscribe("kx.r1.KXMemoryWatcher.@find", "", 1, [&](KXBusMessage const& question) {
        module->publish({.subject = question.reply, .payload = "x"});
      });
  host->flush(10'000);
  module->flush(10'000);

  viewer->publish({.subject = "kx.r1.KXMemoryWatcher.@find", .reply = "kx.r1.KXMemory.insertData"});

  // Neither may publish there. So whoever answers has to look at what is asked of him.
  EXPECT_EQ(calls.payloads(1), std::vector<std::string>{"x"});
}

// ---- by our own programs' ways

class Touched : public KXModule {
 public:
  explicit Touched(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Touched") {
    publish(*this, {"onTouch", "is told"}, &Touched::onTouch);
  }
  void onTouch(std::string const&, KXValue const& value, std::string const&) {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return !mIsHeld; });
    mValues.push_back(value);
    mChanged.notify_all();
  }
  /// It takes nothing, or takes everything again.
  void hold(bool isHeld) {
    std::lock_guard const lock(mMutex);
    mIsHeld = isHeld;
    mChanged.notify_all();
  }
  /// The values, once there are so many, or 30 s have passed.
  std::vector<KXValue> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    mChanged.wait_for(lock, 30s, [&] { return mValues.size() >= count; });
    return mValues;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mIsHeld = false;          // guarded by mMutex
  std::vector<KXValue> mValues;  // guarded by mMutex
};

class Robot : public ::testing::Test {
 protected:
  void SetUp() override {
    mHost.emplace(KXHost::Options{.bus = mServer.options("host"),
                                  .announced = KXHost::Announced::Everything});
    mHost->announce();
    call(*mHost, "KXMemory", "insertData", {"Arm/Angle", 1.5});
    call(*mHost, "KXMemory", "declareEvent", {"Arm/Touched"});
  }
  std::unique_ptr<KXHost> join(std::string const& user,
                               KXHost::Announced announced = KXHost::Announced::Nothing) const {
    return std::make_unique<KXHost>(
        KXHost::Options{.withStore = false, .bus = mServer.options(user), .announced = announced});
  }
  static KXValue call(KXHost const& host, std::string const& module, std::string const& method,
                      std::vector<KXValue> const& arguments = {}) {
    return host.getBroker()->getProxy(module, 0)->genericCall(method, KXValue(arguments));
  }
  /// How it is refused; an empty text if it is not, or not at once.
  template <class Step>
  static std::string refusal(Step const& step) {
    auto const begin = Clock::now();
    try {
      step();
      ADD_FAILURE() << "it was not refused";
    } catch (KXError const& error) {
      EXPECT_EQ(error.getKind(), KXError::Kind::Refused) << error.what();
      EXPECT_LT(Clock::now() - begin, kAtOnce) << error.what();
      return error.getKind() == KXError::Kind::Refused ? error.what() : "";
    }
    return "";
  }

  RobotServer mServer;
  std::optional<KXHost> mHost;
};

TEST_F(Robot, ViewerReadsTheStore) {
  auto const viewer = join("viewer");

  EXPECT_EQ(call(*viewer, "KXMemory", "getData", {"Arm/Angle"}), KXValue(1.5));
  EXPECT_EQ(call(*viewer, "KXMemory", "getType", {"Arm/Touched"}), KXValue("Event"));
  EXPECT_EQ(call(*viewer, "KXMemory", "getKeys", {"Arm/*"}).getSize(), 2);
  EXPECT_EQ(call(*viewer, "KXMemory", "getListData", {KXValue::arrayOf("Arm/Angle")})[0],
            KXValue(1.5));
  EXPECT_FALSE(viewer->getBroker()->getProxy("KXMemory", 0)->describe().methods.empty());
}

TEST_F(Robot, ViewerFindsWhoIsThere) {
  std::vector<std::string> names;
  for (auto const& each : findAnnounced(*connectNats(mServer.options("viewer")), 1s))
    names.push_back(each.module);

  EXPECT_THAT(names, ::testing::ElementsAre("KXLauncher", "KXMemory"));
}

TEST_F(Robot, ViewerIsToldOfEvents) {
  auto const viewer = join("viewer");
  auto const touched = KXModule::createModule<Touched>(viewer->getBroker());
  KXMemoryProxy store(viewer->getBroker());
  store.subscribeToEvent("Arm/Touched", "Touched", "onTouch");

  // While the receiver hangs, as many packs get there as may be under way. Then it acknowledges
  // them one after the other, though none has come that would let it answer again.
  std::string const filling(400, 'x');
  touched->hold(true);
  for (int i = 1; i <= 3000; ++i)
    call(*mHost, "KXMemory", "raiseEvent", {"Arm/Touched", filling + std::to_string(i)});
  touched->hold(false);

  auto const values = touched->waitFor(3000);
  ASSERT_EQ(values.size(), 3000U);
  EXPECT_EQ(values.back(), KXValue(filling + "3000"));
  store.unsubscribeToEvent("Arm/Touched", "Touched");
  EXPECT_EQ(mServer.server().logText().find(" Violation - "), std::string::npos)
      << mServer.server().logText();
}

TEST_F(Robot, ViewerChangesNothing) {
  auto const viewer = join("viewer");

  for (auto const& [method, arguments] : std::vector<std::pair<std::string, std::vector<KXValue>>>{
           {"insertData", {"Arm/Angle", 9}},
           {"insertListData", {KXValue::arrayOf(KXValue::arrayOf("Arm/Angle", 9))}},
           {"raiseEvent", {"Arm/Touched", 9}},
           {"raiseMicroEvent", {"Arm/Touched", 9}},
           {"declareEvent", {"New"}},
           {"declareMicroEvent", {"New"}},
           {"removeData", {"Arm/Angle"}}}) {
    SCOPED_TRACE(method);
    auto const attempt = [&, &name = method, &values = arguments] {
      call(*viewer, "KXMemory", name, values);
    };
    EXPECT_THAT(refusal(attempt),
                HasSubstr("the server forbids to call 'KXMemory." + method + "'"));
  }
  EXPECT_EQ(call(*mHost, "KXMemory", "getData", {"Arm/Angle"}), KXValue(1.5));
  EXPECT_EQ(call(*mHost, "KXMemory", "getKeys", {""}).getSize(), 2);
}

// The library cuts what the server says, and the subject with it.
TEST_F(Robot, IsToldOfWhatIsForbiddenHoweverLongItsNameIs) {
  auto const viewer = join("viewer");
  for (std::size_t const size : {100U, 180U, 200U, 210U, 300U, 1000U}) {
    std::string const method(size, 'x');
    EXPECT_THAT(refusal([&] { call(*viewer, "KXMemory", method, {}); }),
                HasSubstr("the server forbids to call"))
        << size;
  }
}

TEST_F(Robot, ViewerHasNoRightsOverTheWatcherOfOthers) {
  auto const process = join("module", KXHost::Announced::OwnModules);
  process->loadModule(KX_LIB_DIR "/libmemorywatcher.so");
  process->announce();
  auto const viewer = join("viewer");
  auto const operatr = join("operator");
  call(*operatr, "KXMemoryWatcher", "addListener", {"Arm/Angle"});

  for (std::string const method :
       {"getData", "clearBuffer", "removeAllListeners", "stopWatching"}) {
    SCOPED_TRACE(method);
    EXPECT_THAT(refusal([&] { call(*viewer, "KXMemoryWatcher", method); }), HasSubstr(method));
  }
  EXPECT_FALSE(viewer->getBroker()->getProxy("KXMemoryWatcher", 0)->describe().methods.empty());
  EXPECT_EQ(call(*operatr, "KXMemoryWatcher", "listeners").getSize(), 1);
}

TEST_F(Robot, WatcherOfItsOwnProcessIsToldOfEventsAndReadsTheStore) {
  auto const process = join("module", KXHost::Announced::OwnModules);
  process->loadModule(KX_LIB_DIR "/libmemorywatcher.so");
  process->announce();
  auto const operatr = join("operator");
  call(*operatr, "KXMemoryWatcher", "startWatching", {10});
  call(*operatr, "KXMemoryWatcher", "addListeners", {KXValue::arrayOf("Arm/Angle", "Arm/Touched")});
  call(*mHost, "KXMemory", "raiseEvent", {"Arm/Touched", "left"});

  std::string samples;
  auto const end = Clock::now() + 30s;
  while (Clock::now() < end &&
         (samples.find("1.5") == std::string::npos || samples.find("left") == std::string::npos)) {
    samples += call(*operatr, "KXMemoryWatcher", "getData").toString(1);
  }

  EXPECT_THAT(samples, HasSubstr("1.5"));
  EXPECT_THAT(samples, HasSubstr("left"));
  EXPECT_EQ(mServer.server().logText().find(" Violation - "), std::string::npos)
      << mServer.server().logText();
}

TEST_F(Robot, OperatorCallsMethodsButDeliversNoEvents) {
  auto const operatr = join("operator");

  call(*operatr, "KXMemory", "insertData", {"Arm/Angle", 2.5});
  EXPECT_EQ(call(*mHost, "KXMemory", "getData", {"Arm/Angle"}), KXValue(2.5));
  EXPECT_THAT(refusal([&] { call(*operatr, "KXMemory", "_onEventNotify"); }),
              HasSubstr("_onEventNotify"));
}

TEST_F(Robot, NamesAreForThoseWhoMayHaveThem) {
  for (std::string const user : {"viewer", "operator"}) {
    SCOPED_TRACE(user);
    auto const process = join(user, KXHost::Announced::OwnModules);
    KXModule::createModule<Touched>(process->getBroker());
    EXPECT_THAT(refusal([&] { process->announce(); }), HasSubstr("'Touched'"));
  }
  // Even a name that nobody has.
  auto const process = join("module", KXHost::Announced::OwnModules);
  KXModule::createModule<Touched>(process->getBroker());
  EXPECT_THAT(refusal([&] { process->announce(); }), HasSubstr("'Touched'"));
}

// ---- what none of our programs sends

/// One question by a plain connection: the code of the error that it is answered with.
std::string errorCodeOf(KXBus& bus, KXBusMessage question) {
  static int count = 0;
  Inbox answers;
  std::string const reply = bus.inboxPrefix() + ".question" + std::to_string(++count);
  auto const inbox = bus.subscribe(reply, "", 1, answers.handler());
  question.reply = reply;
  bus.publish(question);
  auto const all = answers.waitFor(1);
  if (all.empty()) return "no answer";
  if (all[0].isNoResponders) return "nobody there";
  for (auto const& [name, value] : all[0].headers) {
    if (name == kErrorCodeHeader) return value;
  }
  return "";
}

TEST_F(Robot, StoreSubscribesAUserForThatUserOnly) {
  auto const bus = connectNats(mServer.options("viewer"));
  auto const ask = [&](std::string const& method, KXValue const& arguments) {
    std::string const subject = "kx.r1.@from.viewer.KXMemory." + method;
    std::string const payload = encodeValue(arguments);
    return errorCodeOf(*bus, {.subject = subject, .payload = payload});
  };
  std::string const method = "_onEventNotify";

  for (std::string const victim :
       {"KXMemoryWatcher", "KXMemoryWatcher@module.1f", "KXMemoryWatcher@operator.1f",
        "KXMemoryWatcher@viewer2.1f", "KXMemoryWatcher@viewer.1f@module.1f", "viewer.1f",
        "KXMemoryWatcher@viewer", "@viewer", ""}) {
    SCOPED_TRACE(victim);
    EXPECT_EQ(ask("subscribeToEvent", KXValue::arrayOf("Arm/Touched", victim, method)), "403");
    EXPECT_EQ(ask("subscribeToMicroEvent", KXValue::arrayOf("Arm/Touched", victim, "", method)),
              "403");
    EXPECT_EQ(ask("unsubscribeToEvent", KXValue::arrayOf("Arm/Touched", victim)), "403");
    EXPECT_EQ(ask("unsubscribeToMicroEvent", KXValue::arrayOf("Arm/Touched", victim)), "403");
  }
  EXPECT_EQ(ask("subscribeToEvent", KXValue::arrayOf("Arm/Touched", 5, method)), "403");
  EXPECT_EQ(ask("subscribeToEvent", KXValue::arrayOf("Arm/Touched")), "403");
  EXPECT_EQ(
      ask("subscribeToEvent", KXValue::arrayOf("Arm/Touched", "KXMemoryWatcher@viewer.1f", method)),
      "");
}

TEST_F(Robot, AnswersNothingToSubjectsThatAreNoInboxes) {
  auto const viewer = connectNats(mServer.options("viewer"));
  auto const witness = connectNats(mServer.options("host"));
  std::string const arguments = encodeValue(KXValue::arrayOf("Arm/Angle"));
  // What the host publishes here would be done in its name.
  std::vector<std::string> const subjects{"kx.r1.KXMemory.insertData", "kx.r1.KXMemory.removeData",
                                          "kx.r1.@events.KXMemoryWatcher"};
  Inbox done;
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions;
  for (std::string const& subject : subjects)
    subscriptions.push_back(witness->subscribe(subject, "", 1, done.handler()));
  witness->flush(10'000);

  for (std::string const& subject : subjects) {
    for (std::string const question :
         {"kx.r1.KXMemory.getData", "kx.r1.KXMemory.@find", "$SRV.INFO", "$SRV.PING.KXMemory"})
      viewer->publish({.subject = question, .reply = subject, .payload = arguments});
  }
  for (std::string const question : {"kx.r1.KXMemory.getData", "$SRV.INFO", "$SRV.PING.KXMemory"})
    EXPECT_EQ(errorCodeOf(*viewer, {.subject = question, .payload = arguments}), "");

  // What they were answered with would have come before this.
  for (std::string const& subject : subjects)
    witness->publish({.subject = subject, .payload = "last"});
  EXPECT_EQ(done.payloads(subjects.size()), std::vector<std::string>(subjects.size(), "last"));
}

TEST_F(Robot, KeptReplyIsForWhoeverAskedFirst) {
  auto const viewer = connectNats(mServer.options("viewer"));
  auto const operatr = connectNats(mServer.options("operator"));
  std::string const arguments = encodeValue(KXValue::arrayOf("Arm/Angle"));
  KXBusHeaders const first{{kCallHeader, "0123456789abcdef.1.0"}};
  EXPECT_EQ(
      errorCodeOf(*viewer,
                  {.subject = "kx.r1.KXMemory.getData", .headers = first, .payload = arguments}),
      "");

  // Somebody who has got hold of the number.
  for (KXBusHeaders const& headers :
       {first, KXBusHeaders{{kCallHeader, "0123456789abcdef.1.0"}, {kAgainHeader, "0"}}}) {
    EXPECT_EQ(errorCodeOf(
                  *operatr,
                  {.subject = "kx.r1.KXMemory.getData", .headers = headers, .payload = arguments}),
              "403");
  }
}

TEST_F(Robot, GoesOnAfterMessagesThatAreNone) {
  auto const viewer = connectNats(mServer.options("viewer"));
  std::string const large(viewer->maxPayload() - 100, '\x91');
  std::string const wide = "\xdd\xff\xff\xff\xff";

  for (std::string const& payload : {std::string("\xc1"), std::string(100'000, '\x91'), large, wide,
                                     std::string(1000, '\xff')}) {
    SCOPED_TRACE(payload.size());
    EXPECT_EQ(errorCodeOf(*viewer, {.subject = "kx.r1.KXMemory.getListData", .payload = payload}),
              "400");
    viewer->publish({.subject = "kx.r1.@hello", .payload = payload});
  }
  auto const process = connectNats(mServer.options("module"));
  for (std::string const& payload : {std::string(), std::string("\xc1"), large}) {
    process->publish({.subject = "kx.r1.@here", .payload = payload});
    process->publish({.subject = "kx.r1.@claim.KXMemoryWatcher", .payload = payload});
  }
  process->flush(10'000);

  // The host reads this after all of those.
  std::string const arguments = encodeValue(KXValue::arrayOf("Arm/Angle"));
  EXPECT_EQ(errorCodeOf(*viewer, {.subject = "kx.r1.KXMemory.getData", .payload = arguments}), "");
  EXPECT_EQ(call(*mHost, "KXMemory", "getData", {"Arm/Angle"}), KXValue(1.5));
}

long residentKb() {
  std::istringstream status(testing::readFile("/proc/self/status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  }
  return 0;
}

TEST_F(Robot, IsNotFilledUpByMadeUpNames) {
  LogCapture const log;
  auto const viewer = connectNats(mServer.options("viewer"));
  auto const process = connectNats(mServer.options("module"));
  std::string const text(1000, 'n');
  long const before = residentKb();

  for (int i = 0; i < 20'000; ++i) {
    std::string const name = text + std::to_string(i);
    std::string const hello = encodeValue(KXValue::arrayOf(name + "@viewer.1f"));
    std::string const here = encodeValue(KXValue::arrayOf(name, name));
    std::string const claim = encodeValue(KXValue::arrayOf("claims", name, name, i, name));
    viewer->publish({.subject = "kx.r1.@hello", .payload = hello});
    process->publish({.subject = "kx.r1.@here", .payload = here});
    process->publish({.subject = "kx.r1.@claim.KXMemoryWatcher", .payload = claim});
  }
  viewer->flush(30'000);
  process->flush(30'000);
  // As many processes of his as he likes.
  std::string last;
  for (int i = 0; i < 100; ++i) {
    std::string const arguments =
        encodeValue(KXValue::arrayOf("Arm/Touched", "M@viewer." + std::to_string(i), "onTouch"));
    last = errorCodeOf(
        *viewer, {.subject = "kx.r1.@from.viewer.KXMemory.subscribeToEvent", .payload = arguments});
  }

  EXPECT_EQ(last, "403");
  EXPECT_EQ(call(*mHost, "KXMemory", "getData", {"Arm/Angle"}), KXValue(1.5));
  // 60 MB were sent. A sanitizer's allocator keeps what is freed.
  if (!testing::kIsSanitized) {
    EXPECT_LT(residentKb() - before, 30'000);
  }
}

}  // namespace
}  // namespace KX
