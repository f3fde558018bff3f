// Who is let in to the server of docs/examples/robot-server.conf, and that no secret gets out.
#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/bus/kxnatsbus.hpp>
#include <kxerror/kxerror.hpp>
#include <tests/support/childprocess.hpp>
#include <tests/support/logcapture.hpp>

#include "robotserver.hpp"

namespace KX {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using ::testing::HasSubstr;
using testing::makeCertificates;
using testing::NatsServer;
using ::testing::Not;
using testing::readFile;
using testing::replaced;
using testing::RobotServer;
using testing::TemporaryDirectory;
using Clock = std::chrono::steady_clock;

/// The text of the error of kind Refused; it comes at once.
std::string refusalOf(KXBusOptions const& options) {
  auto const begin = Clock::now();
  try {
    connectNats(options);
    ADD_FAILURE() << "it was let in";
  } catch (KXError const& error) {
    EXPECT_EQ(error.getKind(), KXError::Kind::Refused) << error.what();
    EXPECT_LT(Clock::now() - begin, 5s) << error.what();
    return error.what();
  }
  return "";
}

TEST(WayIn, IsOpenToEachUserWithItsPassword) {
  RobotServer server;

  for (std::string const user : {"host", "module", "viewer", "operator"}) {
    auto const bus = connectNats(server.options(user));
    EXPECT_TRUE(bus->isConnected());
    EXPECT_EQ(bus->user(), user);
    EXPECT_EQ(bus->inboxPrefix(), "_INBOX_" + user);
  }
}

TEST(WayIn, TakesAHashInPlaceOfAPassword) {
  // Of "right", by mkpasswd -m bcrypt -R 5.
  RobotServer const server("IP:127.0.0.1", [](std::string text, std::string const&) {
    return replaced(std::move(text), "password: $KX_VIEWER_PASSWORD",
                    "password: \"$2b$05$abcdefghijklmnopqrstuu8xaCxxL82bnl.UY74PMksDxIJShppPC\"");
  });
  auto options = server.options("viewer");
  options.passwordFile = server.directory().write("right", "right\n");

  EXPECT_TRUE(connectNats(options)->isConnected());
  options.passwordFile = server.directory().file("viewer");
  refusalOf(options);
}

TEST(WayIn, IsClosedToWrongPasswordsAndUnknownUsers) {
  RobotServer server;
  TemporaryDirectory const& directory = server.directory();
  std::string const wrong = directory.write("wrong", "guessed-secret\n");
  auto const edited = [&](std::function<void(KXBusOptions&)> const& edit) {
    auto options = server.options("viewer");
    edit(options);
    return options;
  };

  for (auto const& options : {
           edited([&](KXBusOptions& o) { o.passwordFile = wrong; }),
           edited([&](KXBusOptions& o) { o.user = "nobody"; }),
           edited([&](KXBusOptions& o) { o.user = "host"; }),
           edited([&](KXBusOptions& o) { o.user = "*"; }),
           edited([&](KXBusOptions& o) { o.user = o.passwordFile = ""; }),
           edited([&](KXBusOptions& o) { o.passwordFile = ""; }),
           edited([&](KXBusOptions& o) {
             o.user = o.passwordFile = "";
             o.tokenFile = wrong;
           }),
       }) {
    SCOPED_TRACE(options.user + " " + options.passwordFile + " " + options.tokenFile);
    std::string const text = refusalOf(options);
    EXPECT_THAT(text, Not(HasSubstr("secret")));
  }
}

// Of a server that knows its users by what an operator and an account have signed.
constexpr char kSigned[] = KX_SOURCE_DIR "/tests/bus/credentials/";

TEST(WayIn, IsOpenToCredentialsThatAnOperatorVouchesFor) {
  NatsServer const server(readFile(std::string(kSigned) + "operator.conf"));
  TemporaryDirectory const directory;
  auto const fileOf = [&](std::string const& user) {
    return directory.write(user, readFile(kSigned + user + ".creds"));
  };

  auto const viewer = connectNats({.url = server.url(), .credentialsFile = fileOf("viewer")});
  EXPECT_EQ(viewer->user(), "viewer");
  EXPECT_EQ(viewer->inboxPrefix(), "_INBOX_viewer");
  ChildProcess host({KX_BIN_DIR "/kx", "host", "--robot", "r1", "--bus", server.url(),
                     "--bus-creds", fileOf("module")});
  host.waitForErrorText("serving");
  ChildProcess list({KX_BIN_DIR "/kx", "list", "Host/Load/*", "--robot", "r1", "--bus",
                     server.url(), "--bus-creds", fileOf("viewer")});
  EXPECT_EQ(list.waitForEnd(), 0) << list.getErrors();
  EXPECT_THAT(list.getOutput(), HasSubstr("Host/Load/1min"));
}

TEST(WayIn, IsClosedToCredentialsThatNobodyVouchesFor) {
  NatsServer const server(readFile(std::string(kSigned) + "operator.conf"));
  TemporaryDirectory const directory;
  std::string const module = readFile(std::string(kSigned) + "module.creds");
  std::string const viewer = readFile(std::string(kSigned) + "viewer.creds");
  constexpr char kSeedLine[] = "-----BEGIN USER NKEY SEED-----";
  auto const half = [&](std::string const& text) {
    return text.find(kSeedLine);
  };

  std::string const othersSeed = viewer.substr(0, half(viewer)) + module.substr(half(module));
  std::string const text =
      refusalOf({.url = server.url(), .credentialsFile = directory.write("mixed", othersSeed)});
  EXPECT_THAT(text, Not(HasSubstr(module.substr(half(module) + sizeof(kSeedLine), 20))));
  refusalOf({.url = server.url()});
}

TEST(WayIn, IsClosedToThoseWhoDoNotEncrypt) {
  RobotServer server;
  auto options = server.options("viewer");
  options.caFile.clear();

  refusalOf(options);
}

TEST(Server, IsRefusedWhenAnotherCaVouchesForIt) {
  RobotServer server;
  TemporaryDirectory const other;
  auto options = server.options("viewer");
  options.caFile = makeCertificates(other, "other", "IP:127.0.0.1") + "/ca.pem";
  EXPECT_THAT(refusalOf(options), Not(HasSubstr("secret")));

  // Nobody that the system trusts does either.
  options.caFile.clear();
  options.url = "tls://127.0.0.1:" + std::to_string(server.server().port());
  refusalOf(options);
}

TEST(Server, IsRefusedUnderANameThatItsCertificateHasNot) {
  RobotServer server("DNS:localhost");

  refusalOf(server.options("viewer"));
  auto options = server.options("viewer");
  options.url = "tls://localhost:" + std::to_string(server.server().port());
  EXPECT_TRUE(connectNats(options)->isConnected());
}

TEST(Server, IsToldNothingUnlessItEncrypts) {
  NatsServer server("debug: true\ntrace: true");
  TemporaryDirectory const directory;
  makeCertificates(directory, "certificates", "IP:127.0.0.1");

  refusalOf({.url = server.url(),
             .caFile = directory.file("certificates/ca.pem"),
             .user = "viewer",
             .passwordFile = directory.write("password", "the-secret\n")});
  // The trace hides passwords, but not that somebody has sent a user's name.
  EXPECT_THAT(server.logText(), Not(HasSubstr("viewer")));
  EXPECT_THAT(server.logText(), Not(HasSubstr("[CONNECT")));
}

TEST(ClientCertificate, IsNeededWhereTheServerAsksForOne) {
  RobotServer const server("IP:127.0.0.1", [](std::string text, std::string const& place) {
    text = replaced(std::move(text), "# ca_file: \"/etc/nats/ca.pem\"",
                    "ca_file: \"" + place + "/ca.pem\"");
    return replaced(std::move(text), "# verify: true", "verify: true");
  });
  TemporaryDirectory const other;
  std::string const foreign = makeCertificates(other, "other", "IP:127.0.0.1");
  auto options = server.options("viewer");

  EXPECT_THAT(refusalOf(options), Not(HasSubstr("secret")));
  options.certFile = foreign + "/server.pem";
  options.keyFile = foreign + "/server.key";
  refusalOf(options);
  options.certFile = server.directory().file("certificates/server.pem");
  options.keyFile = server.directory().file("certificates/server.key");
  EXPECT_TRUE(connectNats(options)->isConnected());
}

// ---- what programs tell of secrets

/// A seed that signs nothing.
constexpr char kSeed[] = "SUACAYCBJJO3TZE5QWIOMIWJEXHWDCGNKX3R5QTNNN3VVTPOBX2763HI5U";
constexpr char kPassword[] = "pw-8f1c27aa";
constexpr char kToken[] = "token-55e0b1d9";
constexpr std::array kSecrets{kSeed, kPassword, kToken};

void expectNoSecret(std::string const& text) {
  for (char const* const secret : kSecrets) EXPECT_THAT(text, Not(HasSubstr(secret)));
}

class Secrets : public ::testing::Test {
 protected:
  using Arguments = std::vector<std::string>;

  /// The ways to name who one is, by files; and files in wrong places, of which errors tell.
  std::vector<Arguments> ways() {
    std::string const password = mDirectory.write("password", std::string(kPassword) + "\n");
    std::string const token = mDirectory.write("token", std::string(kToken) + "\n");
    std::string const creds =
        mDirectory.write("creds",
                         "-----BEGIN NATS USER JWT-----\n"
                         "e30.eyJuYW1lIjoidmlld2VyIn0.AAAA\n"
                         "------END NATS USER JWT------\n\n"
                         "-----BEGIN USER NKEY SEED-----\n" +
                             std::string(kSeed) + "\n------END USER NKEY SEED------\n");
    std::string const twoLines =
        mDirectory.write("two", std::string(kPassword) + "\n" + kToken + "\n");
    return {{"--bus-user", "viewer", "--bus-password-file", password},
            {"--bus-token-file", token},
            {"--bus-creds", creds},
            {"--bus-creds", password},
            {"--bus-user", "viewer", "--bus-password-file", twoLines},
            {"--bus-ca", password},
            {"--bus-cert", token, "--bus-key", creds},
            {"--bus-user", "viewer", "--bus-password-file", password, "--bus-token-file", token}};
  }

  TemporaryDirectory mDirectory;
};

TEST_F(Secrets, AreInNothingThatProgramsPrint) {
  RobotServer server;
  std::string const ca = server.directory().file("certificates/ca.pem");
  std::vector<Arguments> const programs{
      {KX_BIN_DIR "/memorywatcher", "--log-level", "debug"},
      {KX_BIN_DIR "/kx", "host"},
      {KX_BIN_DIR "/kx", "list"},
      {KX_BIN_DIR "/kx", "watch"},
      {KX_BIN_DIR "/kx", "robots"},
  };
  for (Arguments const& program : programs) {
    for (Arguments const& way : ways()) {
      Arguments arguments = program;
      arguments.insert(arguments.end(), {"--bus", server.url(), "--bus-ca", ca});
      arguments.insert(arguments.end(), way.begin(), way.end());
      SCOPED_TRACE(::testing::PrintToString(arguments));
      ChildProcess child(arguments);
      EXPECT_NE(child.waitForEnd(), 0) << child.getErrors();
      expectNoSecret(child.getOutput());
      expectNoSecret(child.getErrors());
    }
  }
  expectNoSecret(server.server().logText());
}

TEST_F(Secrets, AreNotAcceptedWhereOthersSeeThem) {
  for (std::string const& user :
       {std::string(kPassword) + "@", std::string("viewer:") + kPassword + "@",
        std::string(kToken) + "@"}) {
    ChildProcess child({KX_BIN_DIR "/kx", "list"}, {{"KX_BUS", "nats://" + user + "127.0.0.1"}});
    EXPECT_NE(child.waitForEnd(), 0);
    EXPECT_THAT(child.getErrors(), HasSubstr("password file"));
    expectNoSecret(child.getErrors());
  }
}

std::string ofProcess(pid_t pid, std::string const& what) {
  return testing::readFile("/proc/" + std::to_string(pid) + "/" + what);
}

TEST_F(Secrets, AreNotSeenOfAProcessThatRuns) {
  NatsServer password("authorization { user: viewer, password: \"" + std::string(kPassword) +
                      "\" }");
  NatsServer token("authorization { token: \"" + std::string(kToken) + "\" }");
  auto const all = ways();
  for (auto const& [url, way] :
       {std::pair(password.url(), all[0]), std::pair(token.url(), all[1])}) {
    SCOPED_TRACE(way[0]);
    Arguments arguments{KX_BIN_DIR "/kx", "host", "--bus", url};
    arguments.insert(arguments.end(), way.begin(), way.end());
    ChildProcess child(arguments);
    child.waitForErrorText("serving");

    expectNoSecret(ofProcess(child.getPid(), "cmdline"));
    expectNoSecret(ofProcess(child.getPid(), "comm"));
    expectNoSecret(ofProcess(child.getPid(), "environ"));
    child.sendSignal(SIGTERM);
    EXPECT_EQ(child.waitForEnd(), 0) << child.getErrors();
    expectNoSecret(child.getErrors());
  }
}

TEST_F(Secrets, AreNotToldWhenTheServerLetsInNoMore) {
  NatsServer server("authorization { user: viewer, password: \"" + std::string(kPassword) + "\" }");
  LogCapture log;
  auto const bus = connectNats({.url = server.url(),
                                .user = "viewer",
                                .passwordFile = mDirectory.write("right", kPassword)});

  server.setConfiguration("authorization { user: viewer, password: changed }");
  server.start();

  auto const end = Clock::now() + 30s;
  auto const hasGivenUp = [&] {
    for (auto const& line : log.lines()) {
      if (line.text.find("lets this process in no more") != std::string::npos) return true;
    }
    return false;
  };
  while (!hasGivenUp() && Clock::now() < end) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(hasGivenUp());
  for (auto const& line : log.lines()) expectNoSecret(line.text);
}

}  // namespace
}  // namespace KX
