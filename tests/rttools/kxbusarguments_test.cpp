// Where the bus is: by the command line, by the environment, by default.
#include <host/rttools/kxbusarguments.hpp>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <CLI/CLI.hpp>

namespace KX {
namespace {

constexpr char const* kVariables[] = {"KX_BUS",
                                      "KX_ROBOT",
                                      "KX_BUS_USER",
                                      "KX_BUS_PASSWORD_FILE",
                                      "KX_BUS_TOKEN_FILE",
                                      "KX_BUS_CREDS",
                                      "KX_BUS_CA",
                                      "KX_BUS_CERT",
                                      "KX_BUS_KEY"};

class BusArguments : public ::testing::Test {
 protected:
  void SetUp() override { clearEnvironment(); }
  void TearDown() override { clearEnvironment(); }
  static void clearEnvironment() {
    for (char const* name : kVariables) ::unsetenv(name);
  }
  static std::optional<KXBusOptions> parse(
      std::vector<std::string> arguments,
      KXBusArguments::Means means = KXBusArguments::Means::Robot) {
    CLI::App app;
    KXBusArguments const bus(app, means);
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
    return bus.options();
  }
  static std::string errorOf(std::vector<std::string> const& arguments) {
    try {
      parse(arguments);
      return "no error";
    } catch (std::invalid_argument const& error) {
      return error.what();
    }
  }
};

TEST_F(BusArguments, NameNoBusByDefault) {
  EXPECT_FALSE(parse({}));
}

TEST_F(BusArguments, HaveDefaultsBesideTheBus) {
  auto const options = parse({"--bus", "nats://127.0.0.1"});

  ASSERT_TRUE(options);
  EXPECT_EQ(options->url, "nats://127.0.0.1");
  EXPECT_EQ(options->robot, "robot");
  EXPECT_EQ(options->user, "");
  EXPECT_EQ(options->timeoutMs, 5000);
}

struct Names {
  char const* flag;
  char const* variable;
  std::string KXBusOptions::*member;
};
constexpr Names kNames[] = {
    {"--bus", "KX_BUS", &KXBusOptions::url},
    {"--robot", "KX_ROBOT", &KXBusOptions::robot},
    {"--bus-user", "KX_BUS_USER", &KXBusOptions::user},
    {"--bus-password-file", "KX_BUS_PASSWORD_FILE", &KXBusOptions::passwordFile},
    {"--bus-token-file", "KX_BUS_TOKEN_FILE", &KXBusOptions::tokenFile},
    {"--bus-creds", "KX_BUS_CREDS", &KXBusOptions::credentialsFile},
    {"--bus-ca", "KX_BUS_CA", &KXBusOptions::caFile},
    {"--bus-cert", "KX_BUS_CERT", &KXBusOptions::certFile},
    {"--bus-key", "KX_BUS_KEY", &KXBusOptions::keyFile},
};

TEST_F(BusArguments, AreTakenFromTheCommandLineBeforeTheEnvironment) {
  for (auto const& [flag, variable, member] : kNames) {
    SCOPED_TRACE(flag);
    clearEnvironment();
    ::setenv("KX_BUS", "nats://default", 1);
    std::string const byDefault = *parse({}).*member;
    ::setenv(variable, "", 1);
    if (std::string(variable) != "KX_BUS") {
      EXPECT_EQ(*parse({}).*member, byDefault);
    }

    ::setenv(variable, "of the environment", 1);
    EXPECT_EQ(*parse({}).*member, "of the environment");
    EXPECT_EQ(*parse({flag, "of the line"}).*member, "of the line");
    EXPECT_EQ(*parse({flag, "first", flag, "last"}).*member, "last");
  }
}

TEST_F(BusArguments, TreatAnEmptyVariableAsNone) {
  ::setenv("KX_BUS", "", 1);

  EXPECT_FALSE(parse({}));
}

TEST_F(BusArguments, LetAnEmptyOptionOverrideTheEnvironment) {
  ::setenv("KX_BUS", "nats://127.0.0.1", 1);
  ::setenv("KX_ROBOT", "r1", 1);

  EXPECT_FALSE(parse({"--bus", ""}));
  EXPECT_EQ(parse({"--robot", ""})->robot, "robot");
}

TEST_F(BusArguments, MakeNoSenseWithoutABus) {
  for (auto const& [flag, variable, member] : kNames) {
    if (std::string(flag) == "--bus") continue;
    EXPECT_EQ(errorOf({flag, "x"}),
              std::string(flag) + ": expected a bus as well (--bus URL or KX_BUS), got none");
  }
  EXPECT_EQ(errorOf({"--bus-timeout", "5"}),
            "--bus-timeout: expected a bus as well (--bus URL or KX_BUS), got none");
}

TEST_F(BusArguments, OfTheEnvironmentWaitForABus) {
  ::setenv("KX_ROBOT", "r1", 1);

  EXPECT_FALSE(parse({}));
  EXPECT_EQ(parse({"--bus", "nats://127.0.0.1"})->robot, "r1");
}

TEST_F(BusArguments, HaveATimeoutInMilliseconds) {
  EXPECT_EQ(parse({"--bus", "u", "--bus-timeout", "250"})->timeoutMs, 250);
  for (char const* text : {"0", "-1", "5s", "", "99999999999", "1\x1b[2J"}) {
    EXPECT_THAT(errorOf({"--bus", "u", "--bus-timeout", text}),
                ::testing::StartsWith("--bus-timeout: expected milliseconds, more than 0, got '"));
  }
}

TEST_F(BusArguments, OfAHostHaveABacklogInMegabytes) {
  std::vector<std::string> const given{"--bus", "u", "--bus-backlog", "64"};

  EXPECT_EQ(parse(given, KXBusArguments::Means::Host)->backlogMb, 64);
  EXPECT_EQ(parse({"--bus", "u"}, KXBusArguments::Means::Host)->backlogMb, 8);
  EXPECT_THROW(parse(given), CLI::ParseError);
  try {
    parse({"--bus", "u", "--bus-backlog", "0"}, KXBusArguments::Means::Host);
    FAIL() << "did not throw";
  } catch (std::invalid_argument const& error) {
    EXPECT_STREQ(error.what(), "--bus-backlog: expected megabytes, more than 0, got '0'");
  }
}

TEST_F(BusArguments, OfTheWholeBusNameNoRobot) {
  ::setenv("KX_ROBOT", "r1", 1);

  EXPECT_EQ(parse({"--bus", "u"}, KXBusArguments::Means::WholeBus)->robot, "robot");
  EXPECT_THROW(parse({"--bus", "u", "--robot", "r1"}, KXBusArguments::Means::WholeBus),
               CLI::ParseError);
}

}  // namespace
}  // namespace KX
