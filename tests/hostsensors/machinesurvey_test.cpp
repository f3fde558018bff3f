#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>
#include <modules/hostsensors/kxmachinesurvey.hpp>
#include <tests/support/testhost.hpp>

#include "fakegroup.hpp"
#include "fakeroot.hpp"

namespace KX {
namespace {

using testing::at;
using testing::FakeGroup;
using testing::FakeRoot;
using testing::find;
using testing::groupsOf;

std::vector<std::string> loggedTexts(testing::TestHost const& host, int level) {
  std::vector<std::string> texts;
  for (auto const& record : host.getLogged()) {
    if (record.level != level || record.category != "KXHostSensors") continue;
    texts.push_back(record.function + ": " + record.text);
  }
  return texts;
}

std::string keysOf(KXMachineReport const& report) {
  std::string keys;
  for (auto const& [key, value] : report.values) keys += key;
  return keys;
}

TEST(Survey, JoinsWhatTheGroupsFind) {
  KXMachineSurvey survey(groupsOf(FakeGroup("A", [](auto& report) { report.add("a", KXValue(1)); }),
                                  FakeGroup("B", [](auto& report) {
                                    report.add("b", KXValue(2));
                                    report.events.push_back({"e", KXValue(3), true});
                                  })));

  KXMachineSurvey::Result const found = survey.read(at(0));

  EXPECT_EQ("ab", keysOf(found.report));
  ASSERT_EQ(1u, found.report.events.size());
  EXPECT_EQ("e", found.report.events[0].key);
  EXPECT_TRUE(found.vanishedKeys.empty());
}

TEST(Survey, ReadsSlowGroupsAtTheirOwnInterval) {
  KXMachineSurvey survey(
      groupsOf(FakeGroup("Fast", [](auto& report) { report.add("f", KXValue()); }),
               FakeGroup(
                   "Slow", [](auto& report) { report.add("s", KXValue()); }, 1000)));
  struct {
    int ms;
    char const* keys;
  } const steps[] = {{0, "fs"}, {100, "f"}, {899, "f"}, {950, "fs"}, {1800, "f"}, {1900, "fs"}};

  for (auto const& step : steps) {
    SCOPED_TRACE(step.ms);
    KXMachineSurvey::Result const found = survey.read(at(step.ms));
    EXPECT_EQ(step.keys, keysOf(found.report));
    EXPECT_TRUE(found.vanishedKeys.empty());
  }
}

TEST(Survey, NamesTheKeysThatVanish) {
  std::vector<std::string> keys = {"a", "b", "c"};
  KXMachineSurvey survey(groupsOf(FakeGroup("A", [&](auto& report) {
    for (std::string const& key : keys) report.add(key, KXValue());
  })));
  auto const read = [&](std::vector<std::string> const& now) {
    keys = now;
    return survey.read(at(0)).vanishedKeys;
  };
  using Keys = std::vector<std::string>;

  EXPECT_EQ(Keys(), read({"a", "b", "c"}));
  EXPECT_EQ(Keys{"b"}, read({"c", "a"}));
  EXPECT_EQ(Keys(), read({"a", "c", "d"}));
  EXPECT_EQ((Keys{"c", "d"}), read({"a", "e", "f"}));
  EXPECT_EQ((Keys{"a", "e", "f"}), read({}));
  EXPECT_EQ(Keys(), read({}));
}

TEST(Survey, LeavesOutAGroupThatFailsWithOneLogLine) {
  testing::TestHost const host;
  KXMachineSurvey survey(
      groupsOf(FakeGroup("Bad",
                         [](auto& report) {
                           report.add("half", KXValue());
                           report.events.push_back({"half", KXValue(), false});
                           throw KXError("M", "m", "it is broken", "", 0);
                         }),
               FakeGroup("Good", [](auto& report) { report.add("g", KXValue()); })));

  for (int ms = 0; ms < 500; ms += 100) {
    KXMachineSurvey::Result const found = survey.read(at(ms));
    EXPECT_EQ("g", keysOf(found.report));
    EXPECT_TRUE(found.report.events.empty());
  }

  EXPECT_EQ(std::vector<std::string>{"readBad: group 'Bad' left out: it is broken"},
            loggedTexts(host, ka::log::Info));
  EXPECT_TRUE(loggedTexts(host, ka::log::Warning).empty());
}

TEST(Survey, TakesAGroupInAgainWhenItCanBeRead) {
  testing::TestHost const host;
  bool isBroken = false;
  KXMachineSurvey survey(groupsOf(FakeGroup("A", [&](auto& report) {
    if (isBroken) throw std::runtime_error("away");
    report.add("a", KXValue());
  })));

  survey.read(at(0));
  isBroken = true;
  EXPECT_EQ(std::vector<std::string>{"a"}, survey.read(at(100)).vanishedKeys);
  isBroken = false;
  EXPECT_EQ("a", keysOf(survey.read(at(200)).report));
  isBroken = true;
  survey.read(at(300));

  EXPECT_EQ((std::vector<std::string>{"readA: group 'A' left out: away",
                                      "readA: group 'A' left out: away"}),
            loggedTexts(host, ka::log::Warning));
  EXPECT_EQ(std::vector<std::string>{"readA: group 'A' is read again"},
            loggedTexts(host, ka::log::Info));
}

TEST(MachineGroups, WithSlowSourcesAreReadOnceASecond) {
  for (auto const& group : makeMachineGroups("")) {
    std::string const name = group->name();
    bool const isSlow = name == "Frequency" || name == "Temperature";
    EXPECT_EQ(std::chrono::milliseconds(isSlow ? 1000 : 0), group->interval()) << name;
  }
}

TEST(Survey, GoesOnWithWhatIsLeftOnAMachineWithoutProcAndSys) {
  testing::TestHost const host;
  FakeRoot const root;
  KXMachineSurvey survey(makeMachineGroups(root.path()));

  survey.read(at(0));
  KXMachineReport const report = survey.read(at(1000)).report;

  // What libproc2 reads does not depend on the root.
  EXPECT_TRUE(find(report, "Host/UptimeSeconds"));
  EXPECT_TRUE(find(report, "Host/Memory/TotalBytes"));
  EXPECT_FALSE(find(report, "Host/Process/Count"));
  EXPECT_EQ((std::vector<std::string>{
                "readFrequency: group 'Frequency' left out: no processor tells its frequency",
                "readDisk: group 'Disk' left out: cannot read '" + root.path() +
                    "/proc/diskstats': No such file or directory",
                "readNetwork: group 'Network' left out: cannot read '" + root.path() +
                    "/proc/net/dev': No such file or directory",
                "readTemperature: group 'Temperature' left out: no temperature or fan can be read",
                "readProcess: group 'Process' left out: cannot read '" + root.path() +
                    "/proc/loadavg': No such file or directory"}),
            loggedTexts(host, ka::log::Info));
}

}  // namespace
}  // namespace KX
