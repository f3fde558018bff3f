#include <host/bus/kxnatsoptions.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <system_error>
#include <utility>

#include <nats/nats.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxsubject.hpp>
#include <ka/log.hpp>

namespace KX {
namespace {

constexpr int kDefaultPort = 4222;
constexpr int kConnectTimeoutMs = 1000;  // a server that hangs holds up who ends meanwhile
/// Above the server's own, so that it cuts a slow receiver before the sender gives up.
constexpr int kWriteDeadlineMs = 2000;
/// A server that hangs is noticed after two to three of them.
constexpr int kPingIntervalMs = 1000;
constexpr int kMaxPingsOut = 2;
constexpr int kReconnectWaitMs = 100;
constexpr int kReconnectJitterMs = 50;

void check(natsStatus status, std::string const& what) {
  if (status != NATS_OK) throwBusError("connect", what + ": " + describeNatsStatus(status));
}

// ---- the address

struct Address {
  bool isSecure = false;
  std::string host;  // with its brackets, if it has
  int port = kDefaultPort;

  std::string text() const {
    return (isSecure ? "tls://" : "nats://") + host + ':' + std::to_string(port);
  }
};

bool isHostCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
         std::strchr("-._", character) != nullptr;
}
bool isInnerOfBrackets(char character) {
  return isHostCharacter(character) || character == ':' || character == '%';
}

int parsePort(std::string_view text, std::string const& url) {
  bool const isNumber =
      !text.empty() && text.size() <= 5 &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  int const port = isNumber ? std::stoi(std::string(text)) : 0;
  if (port < 1 || port > 65535)
    throwBusError("connect", "no port from 1 to 65535 in '" + url + "'");
  return port;
}

Address parseUrl(std::string const& url) {
  // Before anything that shows the text.
  if (url.find('@') != std::string::npos)
    throwBusError(
        "connect",
        "user and password must not be in the bus's URL, where every user of this machine "
        "sees them in the list of processes: name the user and a password file");
  Address address;
  std::string_view rest(url);
  if (rest.starts_with("tls://")) {
    address.isSecure = true;
    rest.remove_prefix(6);
  } else if (rest.starts_with("nats://")) {
    rest.remove_prefix(7);
  } else {
    throwBusError("connect",
                  "a bus's URL is nats://HOST[:PORT] or tls://HOST[:PORT], not '" + url + "'");
  }
  if (rest.ends_with('/')) rest.remove_suffix(1);
  bool const hasBrackets = rest.starts_with('[');
  auto const hostEnd = hasBrackets ? std::min(rest.find(']'), rest.size() - 1) + 1
                                   : std::min(rest.find(':'), rest.size());
  address.host = rest.substr(0, hostEnd);
  rest.remove_prefix(hostEnd);
  bool const isLegal =
      hasBrackets
          ? address.host.size() > 2 && address.host.back() == ']' &&
                std::all_of(address.host.begin() + 1, address.host.end() - 1, isInnerOfBrackets)
          : !address.host.empty() &&
                std::all_of(address.host.begin(), address.host.end(), isHostCharacter);
  if (!isLegal || (!rest.empty() && rest.front() != ':'))
    throwBusError("connect", "no host in the bus's URL '" + url + "'");
  if (!rest.empty()) address.port = parsePort(rest.substr(1), url);
  return address;
}

// ---- files

std::string readFile(std::string const& path, char const* what) {
  std::ifstream file(path, std::ios::binary);
  struct stat status {};
  if (!file || ::stat(path.c_str(), &status) != 0)
    throwBusError("connect", std::string("cannot read the ") + what + " '" + path +
                                 "': " + std::generic_category().message(errno));
  if (S_ISDIR(status.st_mode))
    throwBusError("connect", std::string("the ") + what + " '" + path + "' is a directory");
  std::string text{std::istreambuf_iterator<char>(file), {}};
  if (text.empty())
    throwBusError("connect", std::string("the ") + what + " '" + path + "' is empty");
  return text;
}

/// A file that holds what nobody else should know.
std::string readSecret(std::string const& path, char const* what) {
  auto text = readFile(path, what);
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
    ka::log::LogStream(ka::log::Warning, "KXBus", "", "connect", 0)
        << "others can read the " << what << " '" << path << "': chmod 600 it";
  return text;
}

std::string readSecretLine(std::string const& path, char const* what) {
  auto text = readSecret(path, what);
  if (text.ends_with('\n')) text.pop_back();
  if (text.ends_with('\r')) text.pop_back();
  if (text.empty() || text.find('\n') != std::string::npos || text.find('\0') != std::string::npos)
    throwBusError("connect", std::string("the ") + what + " '" + path + "' does not hold one line");
  return text;
}

// ---- credentials

/// Of the URL's alphabet, without padding; empty if it is something else.
std::string decodeBase64Url(std::string_view text) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string bytes;
  unsigned buffer = 0;
  int bits = 0;
  for (char const character : text) {
    auto const digit = kDigits.find(character);
    if (digit == std::string_view::npos) return {};
    buffer = (buffer << 6 | static_cast<unsigned>(digit)) & 0xFFFF;
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes.push_back(static_cast<char>(buffer >> bits & 0xFF));
  }
  return bytes;
}

/// The `name` claim of the user's JWT; empty if there is none.
std::string userOfCredentials(std::string const& text, std::string const& path) {
  constexpr std::string_view kBegin = "-----BEGIN NATS USER JWT-----";
  auto const begin = text.find(kBegin);
  auto const first =
      text.find_first_not_of("-\r\n ", begin == std::string::npos ? begin : begin + kBegin.size());
  if (begin == std::string::npos || first == std::string::npos)
    throwBusError("connect", "the credentials file '" + path + "' holds no JWT of a user");
  auto const jwt = std::string_view(text).substr(first, text.find_first_of("\r\n", first) - first);
  auto const dot = jwt.find('.');
  if (dot == std::string_view::npos) return {};
  auto const claims = nlohmann::json::parse(
      decodeBase64Url(jwt.substr(dot + 1, jwt.find('.', dot + 1) - dot - 1)), nullptr, false);
  if (!claims.is_object()) return {};
  auto const name = claims.find("name");
  return name != claims.end() && name->is_string() ? name->get<std::string>() : std::string();
}

void checkCombination(KXBusOptions const& options) {
  int const ways = (options.credentialsFile.empty() ? 0 : 1) +
                   (options.passwordFile.empty() ? 0 : 1) + (options.tokenFile.empty() ? 0 : 1);
  if (ways > 1)
    throwBusError("connect", "only one of credentials, password and token file can be used");
  if (!options.passwordFile.empty() && options.user.empty())
    throwBusError("connect", "a password file needs a user");
  if (options.certFile.empty() != options.keyFile.empty())
    throwBusError("connect", "a certificate needs a key file, and a key a certificate file");
}

/// Lets the connection use the way in that the options name; gives the user's name.
std::string setWayIn(natsOptions* to, KXBusOptions const& from) {
  std::string user = from.user;
  if (!from.credentialsFile.empty()) {
    auto const named = userOfCredentials(readSecret(from.credentialsFile, "credentials file"),
                                         from.credentialsFile);
    if (user.empty()) user = named;
    check(natsOptions_SetUserCredentialsFromFiles(to, from.credentialsFile.c_str(), nullptr),
          "cannot use the credentials file '" + from.credentialsFile + "'");
  } else if (!from.tokenFile.empty()) {
    check(natsOptions_SetToken(to, readSecretLine(from.tokenFile, "token file").c_str()),
          "cannot use the token file '" + from.tokenFile + "'");
  } else if (!from.passwordFile.empty()) {
    auto const password = readSecretLine(from.passwordFile, "password file");
    check(natsOptions_SetUserInfo(to, user.c_str(), password.c_str()),
          "cannot use the password file '" + from.passwordFile + "'");
  }
  return user.empty() ? "any" : escapeToken(user);
}

void setEncryption(natsOptions* to, KXBusOptions const& from, bool isSecure) {
  if (!isSecure && from.caFile.empty() && from.certFile.empty()) return;
  // Certificates alone would be ignored by a server without TLS, and secrets sent in clear.
  check(natsOptions_SetSecure(to, true), "cannot encrypt");
  if (!from.caFile.empty()) {
    readFile(from.caFile, "CA file");
    check(natsOptions_LoadCATrustedCertificates(to, from.caFile.c_str()),
          "cannot use the CA file '" + from.caFile + "'");
  }
  if (!from.certFile.empty()) {
    readFile(from.certFile, "certificate file");
    readSecret(from.keyFile, "key file");
    check(natsOptions_LoadCertificatesChain(to, from.certFile.c_str(), from.keyFile.c_str()),
          "cannot use the certificate '" + from.certFile + "' with the key '" + from.keyFile + "'");
  }
}

void setBehaviour(natsOptions* to) {
  std::string const name =
      std::string(program_invocation_short_name) + ' ' + std::to_string(::getpid());
  check(natsOptions_SetName(to, name.c_str()), "name");
  check(natsOptions_SetTimeout(to, kConnectTimeoutMs), "time-out");
  check(natsOptions_SetSendAsap(to, true), "sending at once");
  check(natsOptions_SetWriteDeadline(to, kWriteDeadlineMs), "write deadline");
  check(natsOptions_SetPingInterval(to, kPingIntervalMs), "ping interval");
  check(natsOptions_SetMaxPingsOut(to, kMaxPingsOut), "pings");
  check(natsOptions_SetAllowReconnect(to, true), "reconnecting");
  check(natsOptions_SetMaxReconnect(to, -1), "reconnecting");
  check(natsOptions_SetReconnectWait(to, kReconnectWaitMs), "reconnecting");
  check(natsOptions_SetReconnectJitter(to, kReconnectJitterMs, kReconnectJitterMs), "reconnecting");
  check(natsOptions_SetIgnoreDiscoveredServers(to, true), "servers");
  // Nothing is kept for later: 0 would be the library's own size.
  check(natsOptions_SetReconnectBufSize(to, 1), "buffer");
}

}  // namespace

void checkBusOptions(KXBusOptions const& options) {
  parseUrl(options.url);
  checkCombination(options);
  bool const hasProof = !options.passwordFile.empty() || !options.credentialsFile.empty() ||
                        !options.tokenFile.empty() || !options.certFile.empty();
  if (!options.user.empty() && !hasProof)
    throwBusError("connect", "a user needs a password file, credentials or a certificate");
}

KXNatsOptions makeNatsOptions(KXBusOptions const& options) {
  auto const address = parseUrl(options.url);
  checkCombination(options);
  natsOptions* made = nullptr;
  check(natsOptions_Create(&made), "cannot use the NATS library");
  KXNatsOptions result{{made, natsOptions_Destroy}, address.text(), {}, {}};
  check(natsOptions_SetURL(made, result.address.c_str()), "no URL: '" + result.address + "'");
  setBehaviour(made);
  setEncryption(made, options, address.isSecure);
  result.user = setWayIn(made, options);
  result.inboxPrefix = result.user == "any" ? "_INBOX" : "_INBOX_" + result.user;
  check(natsOptions_SetCustomInboxPrefix(made, result.inboxPrefix.c_str()), "inbox prefix");
  return result;
}

std::string describeNatsStatus(int status) {
  std::string const text = natsStatus_GetText(static_cast<natsStatus>(status));
  natsStatus last = NATS_OK;
  char const* const error = nats_GetLastError(&last);
  if (last != static_cast<natsStatus>(status) || error == nullptr) return text;
  // "(conn.c:2088): No server available for connection"
  std::string_view detail(error);
  if (auto const place = detail.find("): "); detail.starts_with('(') && place != detail.npos)
    detail.remove_prefix(place + 3);
  return detail.empty() || detail == text ? text : text + " (" + std::string(detail) + ')';
}

}  // namespace KX
