#include <host/rttools/kxbusarguments.hpp>

#include <array>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>

#include <host/ka/loglines.hpp>

namespace KX {
namespace {

struct Argument {
  char const* flag;
  char const* variable;  ///< empty: none
  char const* value;
  char const* help;
  std::string KXBusOptions::*member;  ///< null: it is a number
  int KXBusOptions::*number = nullptr;
  char const* unit = "";
};

constexpr std::array kArguments{
    Argument{"--bus", "KX_BUS", "URL",
             "the bus that the robot is on: nats://HOST[:PORT] or tls://HOST[:PORT]",
             &KXBusOptions::url},
    Argument{"--robot", "KX_ROBOT", "NAME", "the robot's name on the bus", &KXBusOptions::robot},
    Argument{"--bus-user", "KX_BUS_USER", "NAME", "the user's name", &KXBusOptions::user},
    Argument{"--bus-password-file", "KX_BUS_PASSWORD_FILE", "FILE", "holds the user's password",
             &KXBusOptions::passwordFile},
    Argument{"--bus-token-file", "KX_BUS_TOKEN_FILE", "FILE", "holds a token",
             &KXBusOptions::tokenFile},
    Argument{"--bus-creds", "KX_BUS_CREDS", "FILE", "NATS credentials",
             &KXBusOptions::credentialsFile},
    Argument{"--bus-ca", "KX_BUS_CA", "FILE", "who may vouch for the server; encrypts",
             &KXBusOptions::caFile},
    Argument{"--bus-cert", "KX_BUS_CERT", "FILE", "this side's certificate",
             &KXBusOptions::certFile},
    Argument{"--bus-key", "KX_BUS_KEY", "FILE", "its key", &KXBusOptions::keyFile},
    Argument{"--bus-timeout", "", "MS", "how long a call may take", nullptr,
             &KXBusOptions::timeoutMs, "milliseconds"},
    Argument{"--bus-backlog", "", "MB", "events that wait for each module that takes none", nullptr,
             &KXBusOptions::backlogMb, "megabytes"},
};
constexpr std::size_t kRobot = 1;
constexpr std::size_t kBacklog = kArguments.size() - 1;

int numberOf(Argument const& argument, std::string const& text) {
  int number = 0;
  char const* const end = text.data() + text.size();
  auto const [rest, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && rest == end && number > 0) return number;
  throw std::invalid_argument(std::string(argument.flag) + ": expected " + argument.unit +
                              ", more than 0, got '" + ka::log::printable(text) + "'");
}

std::string helpOf(Argument const& argument) {
  std::string help = argument.help;
  if (argument.variable[0] != '\0') help += " (or " + std::string(argument.variable) + ")";
  return help;
}

}  // namespace

struct KXBusArguments::Impl {
  std::array<std::string, kArguments.size()> texts;
  std::array<CLI::Option*, kArguments.size()> given{};  ///< null: not for this program

  bool isGiven(std::size_t i) const { return given[i] != nullptr && given[i]->count() > 0; }
  std::string textOf(std::size_t i) const {
    if (isGiven(i) || given[i] == nullptr) return texts[i];
    char const* const text = std::getenv(kArguments[i].variable);
    return text == nullptr ? "" : text;
  }
};

KXBusArguments::KXBusArguments(CLI::App& app, Means means) : mImpl(std::make_unique<Impl>()) {
  KXBusOptions const defaults;
  for (std::size_t i = 0; i < kArguments.size(); ++i) {
    Argument const& argument = kArguments[i];
    if (i == kRobot && means == Means::WholeBus) continue;
    if (i == kBacklog && means != Means::Host) continue;
    std::string value = argument.value;
    if (i == kRobot) value += " (" + defaults.robot + ")";
    if (argument.number != nullptr) value += " (" + std::to_string(defaults.*argument.number) + ")";
    mImpl->given[i] = app.add_option(argument.flag, mImpl->texts[i], helpOf(argument))
                          ->option_text(value)
                          ->take_last();
  }
}

KXBusArguments::~KXBusArguments() = default;

std::optional<KXBusOptions> KXBusArguments::options() const {
  KXBusOptions options;
  options.url = mImpl->textOf(0);
  for (std::size_t i = 1; i < kArguments.size(); ++i) {
    Argument const& argument = kArguments[i];
    if (options.url.empty() && mImpl->isGiven(i)) {
      throw std::invalid_argument(std::string(argument.flag) +
                                  ": expected a bus as well (--bus URL or KX_BUS), got none");
    }
    std::string const text = mImpl->textOf(i);
    if (argument.number != nullptr) {
      if (mImpl->isGiven(i)) options.*argument.number = numberOf(argument, text);
    } else if (!text.empty()) {
      options.*argument.member = text;
    }
  }
  if (options.url.empty()) return std::nullopt;
  return options;
}

}  // namespace KX
