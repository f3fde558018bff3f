#include <host/launcher/kxlauncher.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tests/support/testhost.hpp>

namespace KX {
namespace {

using Texts = std::vector<std::string>;

TEST(Launcher, TellsWhetherAModuleIsPublished) {
  testing::TestHost host;
  auto const launcher = host.getProxy("KXLauncher");
  EXPECT_TRUE((launcher->call<bool, std::string>("isModulePresent", "KXLauncher")));
  EXPECT_FALSE((launcher->call<bool, std::string>("isModulePresent", "VSM")));

  host.publishScript("VSM", [](std::string const&, KXValue const&) { return KXValue(); });
  EXPECT_TRUE((launcher->call<bool, std::string>("isModulePresent", "VSM")));

  host.getBroker()->removeModule("VSM");
  EXPECT_FALSE((launcher->call<bool, std::string>("isModulePresent", "VSM")));
}

TEST(Launcher, ListsModulesInTheOrderOfPublishing) {
  testing::TestHost host;
  auto const script = [](std::string const&, KXValue const&) {
    return KXValue();
  };
  host.publishScript("Zebra", script);
  host.publishScript("Ant", script);

  EXPECT_EQ(host.getProxy("KXLauncher")->call<Texts>("getModuleList"),
            (Texts{"KXLauncher", "Zebra", "Ant"}));
}

TEST(Launcher, KnowsTheModulesOfItsOwnBrokerOnly) {
  testing::TestHost one("one");
  testing::TestHost two("two");
  two.publishScript("VSM", [](std::string const&, KXValue const&) { return KXValue(); });

  EXPECT_EQ(one.call("KXLauncher", "isModulePresent", "VSM"), KXValue(false));
  EXPECT_EQ(two.call("KXLauncher", "isModulePresent", "VSM"), KXValue(true));
}

}  // namespace
}  // namespace KX
