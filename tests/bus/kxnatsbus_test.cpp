// What the bus over NATS does beside what every bus promises: the way in, encryption, and a server
// that hangs.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kxerror/kxerror.hpp>

#include <tests/support/logcapture.hpp>
#include <tests/support/temporarydirectory.hpp>
#include "busworld.hpp"

namespace KX {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using testing::Events;
using ::testing::HasSubstr;
using testing::Inbox;
using ::testing::IsEmpty;
using testing::NatsServer;
using ::testing::Not;

using Clock = std::chrono::steady_clock;

constexpr char const* kSecret = "open-sesame-4711";

/// The error of an attempt to connect; none if it succeeds.
std::optional<KXError> refusal(KXBusOptions const& options) {
  try {
    connectNats(options);
    return std::nullopt;
  } catch (KXError const& error) {
    return error;
  }
}

/// Files of a test, and a capture of the log in which no secret may stand.
class NatsBus : public ::testing::Test {
 protected:
  ~NatsBus() override {
    for (auto const& text : mLog.texts()) EXPECT_THAT(text, Not(HasSubstr(kSecret)));
  }
  std::string write(std::string const& name, std::string const& text, ::mode_t mode = 0600) {
    std::string path = mDirectory.write(name, text);
    ::chmod(path.c_str(), mode);
    return path;
  }
  void expectRefused(KXBusOptions const& options, KXError::Kind kind, std::string const& text) {
    auto const begin = Clock::now();
    auto const error = refusal(options);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->getKind(), kind) << error->what();
    EXPECT_THAT(error->what(), HasSubstr(text));
    EXPECT_THAT(error->what(), Not(HasSubstr(kSecret)));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
  }

  LogCapture mLog;
  testing::TemporaryDirectory const mDirectory;
};

// ---- options

TEST_F(NatsBus, UrlThatSaysNoServerIsRefused) {
  struct Case {
    std::string url;
    char const* text;
  };
  for (Case const& each :
       {Case{"", "nats://HOST[:PORT]"}, Case{"localhost:4222", "nats://HOST[:PORT]"},
        Case{"http://localhost", "nats://HOST[:PORT]"}, Case{"nats://", "no host"},
        Case{"nats://:4222", "no host"}, Case{"nats://a b", "no host"},
        Case{"nats://[::1", "no host"}, Case{"nats://a,b", "no host"}, Case{"nats://a:", "no port"},
        Case{"nats://a:0", "no port"}, Case{"nats://a:65536", "no port"},
        Case{"nats://a:12x", "no port"}}) {
    SCOPED_TRACE(each.url);
    expectRefused({.url = each.url}, KXError::Kind::Failed, each.text);
  }
}

TEST_F(NatsBus, SecretInUrlIsRefusedAndNotRepeated) {
  for (std::string const scheme : {"nats://", "tls://", ""})
    expectRefused({.url = scheme + "user:" + kSecret + "@localhost"}, KXError::Kind::Failed,
                  "list of processes");
}

TEST_F(NatsBus, FileThatIsOfNoUseIsNamed) {
  KXBusOptions const to{.url = "nats://127.0.0.1:1", .user = "u"};
  auto with = [&](auto member, std::string const& path) {
    auto options = to;
    options.*member = path;
    return options;
  };
  auto const empty = write("empty", "");
  auto const lines = write("lines", std::string(kSecret) + "\nx\n");
  for (auto const member : {&KXBusOptions::passwordFile, &KXBusOptions::tokenFile}) {
    expectRefused(with(member, "/not/there"), KXError::Kind::Failed, "'/not/there'");
    expectRefused(with(member, empty), KXError::Kind::Failed, "is empty");
    expectRefused(with(member, lines), KXError::Kind::Failed, "does not hold one line");
    expectRefused(with(member, mDirectory.path()), KXError::Kind::Failed, mDirectory.path());
  }
  expectRefused(with(&KXBusOptions::credentialsFile, "/not/there"), KXError::Kind::Failed,
                "'/not/there'");
  expectRefused(with(&KXBusOptions::credentialsFile, lines), KXError::Kind::Failed, "no JWT");
  expectRefused(with(&KXBusOptions::caFile, "/not/there"), KXError::Kind::Failed, "'/not/there'");
  expectRefused(with(&KXBusOptions::caFile, lines), KXError::Kind::Failed, lines);
  expectRefused(with(&KXBusOptions::certFile, lines), KXError::Kind::Failed, "needs a key");
  expectRefused({.url = to.url, .passwordFile = lines}, KXError::Kind::Failed, "needs a user");
  expectRefused({.url = to.url, .user = "u", .passwordFile = lines, .tokenFile = lines},
                KXError::Kind::Failed, "only one of");
}

TEST_F(NatsBus, NameOfTheUserIsEscaped) {
  NatsServer const server;

  EXPECT_EQ(connectNats({.url = server.url()})->user(), "any");
  EXPECT_EQ(connectNats({.url = server.url()})->inboxPrefix(), "_INBOX");
  auto const bus = connectNats({.url = server.url(), .user = "a.b>"});
  EXPECT_EQ(bus->user(), "a%2Eb%3E");
  EXPECT_EQ(bus->inboxPrefix(), "_INBOX_a%2Eb%3E");
  EXPECT_EQ(bus->address(), server.url());
}

TEST_F(NatsBus, CredentialsNameTheUser) {
  NatsServer const server;
  // {"typ":"JWT","alg":"ed25519-nkey"} . {"name":"dash board","sub":"UX"} . signature
  auto const credentials = write(
      "creds",
      "-----BEGIN NATS USER JWT-----\n"
      "eyJ0eXAiOiJKV1QiLCJhbGciOiJlZDI1NTE5LW5rZXkifQ.eyJuYW1lIjoiZGFzaCBib2FyZCIsInN1YiI6IlVYIn0"
      ".c2ln\n"
      "------END NATS USER JWT------\n\n"
      "-----BEGIN USER NKEY SEED-----\n"
      "SUAMK2FG4MI6UE3ACF3FK3OIQBCEIEZV7NSWFFEW63UXMRLFM2XLAXK4GY\n"
      "------END USER NKEY SEED------\n");

  // A server without users asks for no signature.
  auto const bus = connectNats({.url = server.url(), .credentialsFile = credentials});

  EXPECT_EQ(bus->user(), "dash%20board");
  EXPECT_EQ(bus->inboxPrefix(), "_INBOX_dash%20board");
}

// ---- the way in

TEST_F(NatsBus, NoServerIsDisconnected) {
  NatsServer server;
  server.kill();

  expectRefused({.url = server.url()}, KXError::Kind::Disconnected, server.url());
}

TEST_F(NatsBus, ServerThatSaysNothingIsATimeOut) {
  NatsServer server;
  server.hang();

  expectRefused({.url = server.url()}, KXError::Kind::TimedOut, server.url());
}

TEST_F(NatsBus, PasswordLetsIn) {
  NatsServer const server("authorization { users = [ { user: viewer, password: \"" +
                          std::string(kSecret) + "\" } ] }");
  auto const right = write("right", std::string(kSecret) + "\n");
  auto const wrong = write("wrong", std::string(kSecret) + "x\n");

  EXPECT_EQ(connectNats({.url = server.url(), .user = "viewer", .passwordFile = right})->user(),
            "viewer");
  expectRefused({.url = server.url(), .user = "viewer", .passwordFile = wrong},
                KXError::Kind::Refused, server.url());
  expectRefused({.url = server.url(), .user = "other", .passwordFile = right},
                KXError::Kind::Refused, server.url());
  expectRefused({.url = server.url()}, KXError::Kind::Refused, server.url());
  EXPECT_THAT(mLog.texts(), IsEmpty());
}

TEST_F(NatsBus, TokenLetsIn) {
  NatsServer const server("authorization { token: \"" + std::string(kSecret) + "\" }");
  auto const wrong = write("wrong", std::string(kSecret) + "x");

  EXPECT_TRUE(
      connectNats({.url = server.url(), .tokenFile = write("right", kSecret)})->isConnected());
  expectRefused({.url = server.url(), .tokenFile = wrong}, KXError::Kind::Refused, server.url());
}

TEST_F(NatsBus, SecretThatOthersCanReadIsAWarning) {
  NatsServer const server;
  auto const path = write("open", kSecret, 0644);

  connectNats({.url = server.url(), .tokenFile = path});

  EXPECT_THAT(mLog.texts(),
              ElementsAre("others can read the token file '" + path + "': chmod 600 it"));
}

// ---- what is not allowed

TEST_F(NatsBus, WhatTheServerForbidsIsToldWithItsSubject) {
  NatsServer const server(
      "authorization { users = [ { user: viewer, password: \"" + std::string(kSecret) +
      "\", permissions { publish: {allow: [\"may.>\"]}, subscribe: {allow: [\"may.>\"]} } } ] }");
  auto const bus = connectNats(
      {.url = server.url(), .user = "viewer", .passwordFile = write("password", kSecret)});
  Events events(*bus);
  auto const begin = Clock::now();

  bus->publish({.subject = "kx.robot.KXMemory.insertData", .reply = "may.answer"});
  auto const afterFirst = events.waitFor(1);
  auto const tookMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
  auto const listening = bus->subscribe("kx.other.>", "q", 4, [](auto&) {});
  auto const alone = events.waitFor(2).size();
  // Several at once are told one by one.
  bus->publish({.subject = "no.one"});
  bus->publish({.subject = "no.two"});

  auto const all = events.waitFor(4);
  EXPECT_EQ(alone, 2U);
  ASSERT_EQ(all.size(), 4U);
  for (auto const& event : all) {
    EXPECT_EQ(event.kind, KXBusEvent::Kind::Refused);
    EXPECT_THAT(event.text, HasSubstr("Permissions Violation"));
  }
  EXPECT_EQ(all[0].subject, "kx.robot.KXMemory.insertData");
  EXPECT_TRUE(all[0].isPublishing);
  EXPECT_EQ(all[1].subject, "kx.other.>");
  EXPECT_FALSE(all[1].isPublishing);
  EXPECT_EQ(all[2].subject, "no.one");
  EXPECT_EQ(all[3].subject, "no.two");
  EXPECT_TRUE(bus->isConnected());
  RecordProperty("refusedAfterMs", static_cast<int>(tookMs));
  EXPECT_LT(tookMs, 5000);
}

// Whoever asked for it sees a time-out: only here one can learn why.
TEST_F(NatsBus, AnswersThatAreNotAllowedAreOneLineForEachUser) {
  NatsServer server("authorization { users = [ { user: host, password: \"" + std::string(kSecret) +
                    "\", permissions { publish: {deny: [\"_INBOX_viewer.>\", \"no.one\"]} } } ] }");
  auto const bus = connectNats(
      {.url = server.url(), .user = "host", .passwordFile = write("password", kSecret)});
  Events events(*bus);

  for (auto const* subject : {"_INBOX_viewer.1.2", "_INBOX_viewer.3", "no.one"}) {
    bus->publish({.subject = subject});
  }

  ASSERT_EQ(events.waitFor(3).size(), 3U);
  EXPECT_THAT(
      mLog.texts(),
      ElementsAre("user 'host' is not allowed to answer to '_INBOX_viewer.>' on the bus at '" +
                  server.url() + "'"));
}

TEST_F(NatsBus, WhatMayNotBeListenedToIsOneLineForEachConnection) {
  NatsServer server("authorization { users = [ { user: viewer, password: \"" +
                    std::string(kSecret) +
                    "\", permissions { subscribe: {allow: [\"may.>\"]} } } ] }");
  auto const bus = connectNats(
      {.url = server.url(), .user = "viewer", .passwordFile = write("password", kSecret)});
  Events events(*bus);
  auto const line = [&](std::string const& subject) {
    return "user 'viewer' is not allowed to listen to '" + subject + "' on the bus at '" +
           server.url() + "'";
  };

  auto const first = bus->subscribe("not.one", "", 1, [](auto&) {});
  auto const again = bus->subscribe("not.one", "", 1, [](auto&) {});
  auto const second = bus->subscribe("not.two", "", 1, [](auto&) {});
  auto const allowed = bus->subscribe("may.one", "", 1, [](auto&) {});
  events.waitFor(3);
  EXPECT_THAT(mLog.texts(), ElementsAre(line("not.one"), line("not.two")));

  server.kill();
  server.start();
  ASSERT_EQ(events.waitFor(8).size(), 8U);
  EXPECT_EQ(std::ranges::count(mLog.texts(), line("not.one")), 2);
  EXPECT_EQ(std::ranges::count(mLog.texts(), line("not.two")), 2);
}

// Whoever asks chooses where the answer goes, and could fill the log or use up its lines.
TEST_F(NatsBus, AnswersThatAreNotAllowedAreAHundredLinesAtMostAndSilenceNoOthers) {
  NatsServer server("authorization { users = [ { user: host, password: \"" + std::string(kSecret) +
                    "\", permissions { publish: {allow: [\"may.>\"]}, subscribe: {allow: "
                    "[\"may.>\"]} } } ] }");
  auto const bus = connectNats(
      {.url = server.url(), .user = "host", .passwordFile = write("password", kSecret)});
  Events events(*bus);

  for (int i = 0; i < 150; ++i) {
    bus->publish({.subject = "_INBOX_" + std::to_string(i) + ".x"});
  }
  ASSERT_EQ(events.waitFor(150).size(), 150U);
  auto const subscription = bus->subscribe("not.one", "", 1, [](auto&) {});
  ASSERT_EQ(events.waitFor(151).size(), 151U);

  auto const texts = mLog.texts();
  EXPECT_EQ(texts.size(), 101U);
  EXPECT_THAT(texts.back(), HasSubstr("is not allowed to listen to 'not.one'"));
}

// ---- a server that hangs or dies

TEST_F(NatsBus, LossAndReturnAreOneLineEach) {
  NatsServer server;
  auto const bus = connectNats({.url = server.url()});
  Events events(*bus);

  server.kill();
  events.waitFor(1);
  server.start();
  ASSERT_THAT(events.kinds(2), ElementsAre(KXBusEvent::Kind::Lost, KXBusEvent::Kind::Back));

  auto const lines = mLog.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "lost the bus at '" + server.url() + "', trying again");
  EXPECT_EQ(lines[0].level, ka::log::Warning);
  EXPECT_THAT(lines[1].text, HasSubstr("the bus at '" + server.url() + "' is back after "));
  EXPECT_EQ(lines[1].level, ka::log::Warning);
  EXPECT_EQ(lines[1].category, "KXBus");
}

// The library itself gives up when it was refused twice.
TEST_F(NatsBus, ServerThatRefusedForAWhileIsBackWithAllSubscriptions) {
  std::string const right = "authorization { token: \"" + std::string(kSecret) + "\" }";
  NatsServer server(right);
  auto const bus = connectNats({.url = server.url(), .tokenFile = write("token", kSecret)});
  Events events(*bus);
  Inbox ordered;
  Inbox parallel;
  Inbox later;
  auto const one = bus->subscribe("ordered", "", 1, ordered.handler());
  auto const two = bus->subscribe("parallel.>", "queue", 3, parallel.handler());
  std::unique_ptr<KXBusSubscription> three;
  auto ended = bus->subscribe("ended", "", 1, [](auto&) { ADD_FAILURE() << "was ended"; });
  auto const refuse = [&] {
    server.kill();
    server.setConfiguration("authorization { token: another }");
    server.start();
  };

  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    auto const linesBefore = mLog.texts().size();
    auto const eventsBefore = events.waitFor(0).size();
    refuse();
    auto const said =
        "the bus at '" + server.url() + "' lets this process in no more, trying again";
    auto const lines = mLog.waitFor(linesBefore + 3);
    EXPECT_EQ(lines.back().text, said);
    EXPECT_EQ(lines.back().level, ka::log::Error);
    EXPECT_EQ(testing::kindThrownBy([&] { bus->publish({.subject = "s"}); }),
              KXError::Kind::Disconnected);
    three = bus->subscribe("later", "", 1, later.handler());
    ended.reset();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(mLog.texts().size(), linesBefore + 3) << "one line is enough";
    EXPECT_FALSE(bus->isConnected());

    server.kill();
    server.setConfiguration(right);
    server.start();
    auto const told = events.waitFor(eventsBefore + 2);
    ASSERT_EQ(told.size(), eventsBefore + 2);
    EXPECT_EQ(told[eventsBefore].kind, KXBusEvent::Kind::Lost);
    EXPECT_EQ(told[eventsBefore + 1].kind, KXBusEvent::Kind::Back);
    EXPECT_TRUE(bus->isConnected());
    EXPECT_THAT(mLog.texts().back(), HasSubstr("is back after "));

    for (char const* const subject : {"ordered", "parallel.one", "later", "ended"}) {
      bus->publish({.subject = subject, .payload = std::to_string(round)});
    }
    EXPECT_EQ(ordered.waitFor(static_cast<std::size_t>(round)).size(),
              static_cast<std::size_t>(round));
    EXPECT_EQ(parallel.waitFor(static_cast<std::size_t>(round)).size(),
              static_cast<std::size_t>(round));
    EXPECT_EQ(later.waitFor(static_cast<std::size_t>(round)).size(),
              static_cast<std::size_t>(round));
    bus->flush(5000);
  }
  auto const linesBefore = mLog.texts().size();
  refuse();
  mLog.waitFor(linesBefore + 3);  // it may end while it tries
}

TEST_F(NatsBus, HungServerIsNoticedAndHoldsNobodyForLong) {
  NatsServer server;
  auto const bus = connectNats({.url = server.url()});
  Events events(*bus);
  server.hang();

  // Until there is no connection any more: what the system's buffers take, then what they do not.
  std::string const payload(100'000, 'x');
  auto longest = Clock::duration::zero();
  std::optional<KXError::Kind> kind;
  auto const limit = Clock::now() + testing::kLimit;
  while (!kind && Clock::now() < limit) {
    auto const begin = Clock::now();
    try {
      bus->publish({.subject = "much", .payload = payload});
    } catch (KXError const& error) {
      kind = error.getKind();
    }
    longest = std::max(longest, Clock::now() - begin);
  }

  EXPECT_EQ(kind, KXError::Kind::Disconnected);
  EXPECT_LT(longest, std::chrono::seconds(4));
  EXPECT_THAT(events.kinds(1), ElementsAre(KXBusEvent::Kind::Lost));
  server.goOn();
  EXPECT_THAT(events.kinds(2), ElementsAre(KXBusEvent::Kind::Lost, KXBusEvent::Kind::Back));
}

TEST_F(NatsBus, HungServerIsNoticedByWhoOnlyListens) {
  NatsServer server;
  auto const bus = connectNats({.url = server.url()});
  Events events(*bus);
  auto const begin = Clock::now();
  server.hang();

  EXPECT_THAT(events.kinds(1), ElementsAre(KXBusEvent::Kind::Lost));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(8));
  server.goOn();
}

TEST_F(NatsBus, FlushOfAHungServerTimesOut) {
  NatsServer server;
  auto const bus = connectNats({.url = server.url()});
  server.hang();

  EXPECT_EQ(testing::kindThrownBy([&] { bus->flush(100); }), KXError::Kind::TimedOut);
  server.goOn();
}

// ---- encryption

/// A CA, and certificates of it for a server named localhost and for a client; and another CA.
class EncryptedNatsBus : public NatsBus {
 protected:
  static void SetUpTestSuite() {
    sCertificates = std::make_unique<testing::TemporaryDirectory>();
    auto const script = "cd " + sCertificates->path().string() + R"( && {
      for ca in ca other; do
        openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
          -keyout $ca.key -out $ca.pem -subj /CN=$ca
      done
      sign() {  # NAME SUBJECT_ALT_NAME
        openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout $1.key \
          -out $1.csr -subj /CN=$1 &&
        printf 'subjectAltName=%s' $2 > $1.ext &&
        openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 \
          -extfile $1.ext -out $1.pem
      }
      sign server DNS:localhost && sign client DNS:client
    } > log 2>&1)";
    ASSERT_EQ(std::system(script.c_str()), 0);
  }
  static void TearDownTestSuite() { sCertificates.reset(); }

  static std::string file(std::string const& name) { return sCertificates->file(name); }
  static std::string configuration(std::string const& more = "") {
    return "tls { cert_file: \"" + file("server.pem") + "\", key_file: \"" + file("server.key") +
           "\", timeout: 2, " + more + " }\n";
  }
  static std::string urlOf(NatsServer const& server, char const* scheme = "tls://",
                           char const* host = "localhost") {
    return scheme + std::string(host) + ':' + std::to_string(server.port());
  }

 private:
  static std::unique_ptr<testing::TemporaryDirectory> sCertificates;
};
std::unique_ptr<testing::TemporaryDirectory> EncryptedNatsBus::sCertificates;

TEST_F(EncryptedNatsBus, RightCaLetsIn) {
  NatsServer const server(configuration());
  for (char const* const scheme : {"tls://", "nats://"}) {
    auto const bus = connectNats({.url = urlOf(server, scheme), .caFile = file("ca.pem")});
    Inbox inbox;
    auto const listening = bus->subscribe("s", "", 1, inbox.handler());
    bus->publish({.subject = "s", .payload = "x"});
    EXPECT_THAT(inbox.payloads(1), ElementsAre("x"));
  }
}

TEST_F(EncryptedNatsBus, ServerThatIsNotTheRightOneIsRefused) {
  NatsServer const server(configuration());

  expectRefused({.url = urlOf(server), .caFile = file("other.pem")}, KXError::Kind::Refused, "SSL");
  // Of the system's CAs none has signed it.
  expectRefused({.url = urlOf(server)}, KXError::Kind::Refused, "SSL");
  expectRefused({.url = urlOf(server, "tls://", "127.0.0.1"), .caFile = file("ca.pem")},
                KXError::Kind::Refused, "SSL");
}

TEST_F(EncryptedNatsBus, ServerMayWantACertificate) {
  NatsServer const server(configuration("verify: true, ca_file: \"" + file("ca.pem") + "\""));

  EXPECT_TRUE(connectNats({.url = urlOf(server),
                           .caFile = file("ca.pem"),
                           .certFile = file("client.pem"),
                           .keyFile = file("client.key")})
                  ->isConnected());
  auto const error = refusal({.url = urlOf(server), .caFile = file("ca.pem")});
  ASSERT_TRUE(error.has_value());
  EXPECT_THAT(error->getKind(), AnyOf(KXError::Kind::Refused, KXError::Kind::Disconnected))
      << error->what();
}

TEST_F(EncryptedNatsBus, ServerWithoutEncryptionIsRefused) {
  NatsServer const server;
  auto const password = write("password", kSecret);

  expectRefused({.url = urlOf(server), .user = "u", .passwordFile = password},
                KXError::Kind::Refused, "Secure");
  expectRefused({.url = urlOf(server, "nats://"),
                 .caFile = file("ca.pem"),
                 .user = "u",
                 .passwordFile = password},
                KXError::Kind::Refused, "Secure");
}

/// Says what a server without encryption says, and keeps what the client answers.
std::string whatIsSentTo(std::function<void(int port)> const& connect) {
  int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
  ::sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<::sockaddr*>(&address);
  EXPECT_EQ(::bind(listener, generic, size), 0);
  EXPECT_EQ(::listen(listener, 4), 0);
  ::getsockname(listener, generic, &size);
  std::string sent;
  std::jthread server([&] {
    int const client = ::accept(listener, nullptr, nullptr);
    std::string const info =
        "INFO "
        "{\"server_id\":\"x\",\"version\":\"2.9.10\",\"headers\":true,\"max_payload\":1000}\r\n";
    EXPECT_EQ(::send(client, info.data(), info.size(), MSG_NOSIGNAL),
              static_cast<::ssize_t>(info.size()));
    char buffer[4096];
    for (::pollfd input{client, POLLIN, 0}; ::poll(&input, 1, 3000) > 0;) {
      auto const read = ::recv(client, buffer, sizeof(buffer), 0);
      if (read <= 0) break;
      sent.append(buffer, static_cast<std::size_t>(read));
    }
    ::close(client);
  });
  connect(ntohs(address.sin_port));
  server.join();
  ::close(listener);
  return sent;
}

TEST_F(EncryptedNatsBus, NothingIsSentInClear) {
  auto const password = write("password", kSecret);
  auto const sentTo = [&](std::string const& scheme, std::string const& caFile) {
    return whatIsSentTo([&](int port) {
      (void)refusal({.url = scheme + "127.0.0.1:" + std::to_string(port),
                     .caFile = caFile,
                     .user = "u",
                     .passwordFile = password});
    });
  };

  EXPECT_EQ(sentTo("tls://", ""), "");
  EXPECT_EQ(sentTo("nats://", file("ca.pem")), "");
  // The check itself sees what a connection without encryption sends.
  EXPECT_THAT(sentTo("nats://", ""), HasSubstr("CONNECT"));
}

}  // namespace
}  // namespace KX
