// The module as a host loads it, on the machine that runs this test.

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fnmatch.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <binding/kxproxycall.hpp>
#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxmodule.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {
namespace {

std::vector<KXMachineKey> declaredKeys() {
  std::vector<KXMachineKey> keys;
  for (auto const& group : makeMachineGroups("")) {
    for (KXMachineKey& key : group->keys()) keys.push_back(std::move(key));
  }
  return keys;
}

std::string typeCell(KXMachineKey const& key) {
  switch (key.kind) {
    case KXMachineKey::Kind::Event:
      return "event, " + key.valueType;
    case KXMachineKey::Kind::MicroEvent:
      return "micro-event, " + key.valueType;
    case KXMachineKey::Kind::Data:
      break;
  }
  return key.valueType;
}

TEST(HostKeys, AreTheReadmesTable) {
  std::string declared;
  for (KXMachineKey const& key : declaredKeys()) {
    declared += "| `" + key.pattern + "` | " + key.unit + " | " + typeCell(key) + " | " +
                key.source + " |\n";
  }

  std::ifstream readme(KX_SOURCE_DIR "/modules/hostsensors/README.md");
  std::string documented;
  for (std::string line; std::getline(readme, line);) {
    if (line.starts_with("| `Host/")) documented += line + "\n";
  }

  EXPECT_EQ(declared, documented);
}

/// A star for each `<word>`; it stands for one segment.
std::string asGlob(std::string pattern) {
  for (std::size_t begin = pattern.find('<'); begin != std::string::npos;
       begin = pattern.find('<')) {
    pattern.replace(begin, pattern.find('>', begin) + 1 - begin, "*");
  }
  return pattern;
}

/// Whether the declared keys allow for this one.
bool isDeclared(std::string const& name, std::string const& storeType, KXValue const& value) {
  static std::vector<KXMachineKey> const keys = declaredKeys();
  for (KXMachineKey const& key : keys) {
    if (::fnmatch(asGlob(key.pattern).c_str(), name.c_str(), FNM_PATHNAME) != 0) continue;
    bool const isData = key.kind == KXMachineKey::Kind::Data;
    bool const isRightType =
        !isData || !value.isValid() || KXValue::TypeToString(value.getType()) == key.valueType;
    char const* const expected = isData                                  ? "Data"
                                 : key.kind == KXMachineKey::Kind::Event ? "Event"
                                                                         : "MicroEvent";
    if (isRightType && storeType == expected) return true;
  }
  return false;
}

/// Takes notifications, for tests to wait for.
class Listener : public KXModule {
 public:
  explicit Listener(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Listener") {
    setScript();
  }
  void execute(std::string const&, KXValue const& params, KXValue&) override {
    std::lock_guard const lock(mMutex);
    mReceived.insert(params[1].toString(1));
    mChanged.notify_all();
  }
  /// False if the value has not come within half a minute.
  bool waitFor(std::string const& value) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30),
                             [&] { return mReceived.contains(value); });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::set<std::string> mReceived;
};

class Machine : public ::testing::Test {
 protected:
  Machine() {
    mHost.loadModule(KX_LIB_DIR "/libkxhostsensors.so");
    mListener = KXModule::createModule<Listener>(mHost.getBroker());
    store()->call<void>("subscribeToMicroEvent", std::string("Host/Process/Started"),
                        std::string("Listener"), std::string(), std::string("onStarted"));
  }
  ~Machine() override {
    if (mChild == 0) return;
    ::kill(mChild, SIGKILL);
    ::waitpid(mChild, nullptr, 0);
  }
  boost::shared_ptr<KXProxy> store() { return mHost.getBroker()->getProxy("KXMemory", 0); }
  KXValue get(std::string const& key) { return store()->call<KXValue>("getData", key); }
  std::vector<std::string> keys(std::string const& pattern) {
    return store()->call<std::vector<std::string>>("getKeys", pattern);
  }
  /// Starts a process and waits for its event; a period has passed then.
  bool startProcess() {
    std::string program = "sleep";
    std::string time = "1000";
    char* const arguments[] = {program.data(), time.data(), nullptr};
    if (::posix_spawnp(&mChild, "sleep", nullptr, nullptr, arguments, environ) != 0) return false;
    return mListener->waitFor(R"(["sleep",)" + std::to_string(mChild) + "]");
  }

  KXHost mHost{KXHost::Options()};
  boost::shared_ptr<Listener> mListener;
  pid_t mChild = 0;
};

TEST_F(Machine, TellsOfAProcessThatStarts) {
  EXPECT_TRUE(startProcess());
}

TEST_F(Machine, GrowsOlder) {
  double const before = static_cast<double>(get("Host/UptimeSeconds"));
  ASSERT_TRUE(startProcess());
  double const after = static_cast<double>(get("Host/UptimeSeconds"));

  EXPECT_GT(before, 0);
  EXPECT_GT(after, before);
}

TEST_F(Machine, HasItsProcessors) {
  long const online = ::sysconf(_SC_NPROCESSORS_ONLN);

  EXPECT_EQ(KXValue(static_cast<int>(online)), get("Host/Cpu/Count"));
  EXPECT_EQ(static_cast<std::size_t>(online), keys("Host/Cpu/*/Usage").size());
}

TEST_F(Machine, UsesItsProcessors) {
  ASSERT_TRUE(startProcess());

  EXPECT_GE(static_cast<double>(get("Host/Cpu/Usage")), 0);
  EXPECT_LE(static_cast<double>(get("Host/Cpu/Usage")), 100);
}

TEST_F(Machine, HasMemory) {
  double const total = static_cast<double>(get("Host/Memory/TotalBytes"));
  double const available = static_cast<double>(get("Host/Memory/AvailableBytes"));
  double const pages = static_cast<double>(::sysconf(_SC_PHYS_PAGES));

  EXPECT_NEAR(pages * static_cast<double>(::sysconf(_SC_PAGESIZE)), total, 0.001 * total);
  EXPECT_GT(available, 0);
  EXPECT_LE(available, total);
}

TEST_F(Machine, HasLoadAndProcesses) {
  EXPECT_GE(static_cast<double>(get("Host/Load/1min")), 0);
  EXPECT_GT(static_cast<int>(get("Host/Process/Count")), 0);
  EXPECT_GE(static_cast<int>(get("Host/Process/Threads")),
            static_cast<int>(get("Host/Process/RunningThreads")));
}

TEST_F(Machine, PublishesWhatTheCodeDeclaresAndNothingElse) {
  // After two periods, so that rates have their values.
  ASSERT_TRUE(startProcess());

  std::vector<std::string> const names = keys("");
  EXPECT_LT(20u, names.size());
  for (std::string const& name : names) {
    std::string const type = store()->call<std::string>("getType", name);
    KXValue const value = get(name);
    EXPECT_TRUE(isDeclared(name, type, value)) << name << " " << type << " " << value.toString(2);
  }
}

TEST_F(Machine, DeclaresItsEventsFromTheBeginning) {
  std::set<std::string> const expected = {"Host/Cpu/Saturated", "Host/Memory/Low",
                                          "Host/Network/LinkChanged"};
  for (std::string const& name : expected) {
    EXPECT_EQ("Event", store()->call<std::string>("getType", name)) << name;
  }
  EXPECT_EQ("MicroEvent",
            store()->call<std::string>("getType", std::string("Host/Process/Started")));
}

TEST_F(Machine, IsReadByTwoHostsOfOneProcess) {
  KXHost other{KXHost::Options()};
  other.loadModule(KX_LIB_DIR "/libkxhostsensors.so");
  other.shutdown();

  EXPECT_TRUE(startProcess());
}

}  // namespace
}  // namespace KX
