#include <host/bus/kxsubject.hpp>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>
#include <vector>

namespace KX {

namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";
constexpr std::string_view kAt = "@at";
constexpr std::string_view kFrom = "@from";

bool standsForItself(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

bool isToken(std::string_view text) {
  return unescapeToken(text).has_value();
}

// Methods of the bus's own keep their "@", which no escaped name holds: none of a module's can be
// taken for one.
std::string methodToken(std::string_view method) {
  bool const isOwn = method.starts_with('@');
  return std::string(isOwn ? 1 : 0, '@') + escapeToken(method.substr(isOwn ? 1 : 0));
}

std::optional<std::string> methodOf(std::string_view token) {
  bool const isOwn = token.starts_with('@');
  std::optional<std::string> const name = unescapeToken(token.substr(isOwn ? 1 : 0));
  if (!name || (!isOwn && name->starts_with('@'))) return std::nullopt;
  return std::string(isOwn ? 1 : 0, '@') + *name;
}

std::string join(std::string text, std::initializer_list<std::string_view> tokens) {
  for (std::string_view const token : tokens) {
    if (!text.ends_with('.')) text += '.';
    text += token;
  }
  return text;
}

std::vector<std::string_view> split(std::string_view text) {
  std::vector<std::string_view> tokens;
  for (;;) {
    std::size_t const dot = text.find('.');
    tokens.push_back(text.substr(0, dot));
    if (dot == std::string_view::npos) return tokens;
    text.remove_prefix(dot + 1);
  }
}

}  // namespace

std::string escapeToken(std::string_view name) {
  if (name.empty()) return "%";
  std::string token;
  token.reserve(name.size());
  for (char const c : name) {
    if (standsForItself(c)) {
      token += c;
    } else {
      auto const byte = static_cast<unsigned char>(c);
      token += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
    }
  }
  return token;
}

std::optional<std::string> unescapeToken(std::string_view token) {
  if (token == "%") return std::string();
  if (token.empty()) return std::nullopt;
  std::string name;
  name.reserve(token.size());
  for (std::size_t i = 0; i < token.size(); ++i) {
    char c = token[i];
    if (c == '%') {
      if (token.size() - i < 3) return std::nullopt;
      std::size_t const high = kHexDigits.find(token[i + 1]);
      std::size_t const low = kHexDigits.find(token[i + 2]);
      if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
      c = static_cast<char>(high << 4 | low);
      if (standsForItself(c)) return std::nullopt;  // a name has one token only
      i += 2;
    } else if (!standsForItself(c)) {
      return std::nullopt;
    }
    name += c;
  }
  return name;
}

KXModuleAddress parseAddress(std::string_view name) {
  std::size_t const at = name.rfind('@');
  if (at != std::string_view::npos) {
    std::string_view const broker = name.substr(at + 1);
    std::size_t const dot = broker.find('.');
    if (dot != std::string_view::npos && isToken(broker.substr(0, dot)) &&
        isToken(broker.substr(dot + 1))) {
      return {std::string(name.substr(0, at)), std::string(broker.substr(0, dot)),
              std::string(broker.substr(dot + 1))};
    }
  }
  return {std::string(name)};
}

KXSubjects::KXSubjects(std::string_view robot) : mPrefix("kx." + escapeToken(robot) + ".") {}

std::string KXSubjects::call(KXModuleAddress const& to, std::string_view method) const {
  std::string const module = escapeToken(to.module);
  if (!to.isQualified()) return join(mPrefix, {module, methodToken(method)});
  return join(mPrefix, {kAt, to.user, to.nonce, module, methodToken(method)});
}

std::string KXSubjects::callFrom(std::string_view user, std::string_view module,
                                 std::string_view method) const {
  return join(mPrefix, {kFrom, user, escapeToken(module), methodToken(method)});
}

std::string KXSubjects::callsOf(std::string_view module) const {
  return join(mPrefix, {escapeToken(module), "*"});
}

std::string KXSubjects::callsFromOthersOf(std::string_view module) const {
  return join(mPrefix, {kFrom, "*", escapeToken(module), "*"});
}

std::string KXSubjects::callsAt(std::string_view user, std::string_view nonce) const {
  return join(mPrefix, {kAt, user, nonce, "*.*"});
}

std::string KXSubjects::events(KXModuleAddress const& to) const {
  std::string const module = escapeToken(to.module);
  if (!to.isQualified()) return join(mPrefix, {"@events", module});
  return join(mPrefix, {"@events", to.user, to.nonce, module});
}

std::string KXSubjects::claim(std::string_view module) const {
  return join(mPrefix, {"@claim", escapeToken(module)});
}

std::string KXSubjects::hello() const {
  return join(mPrefix, {"@hello"});
}

std::string KXSubjects::here() const {
  return join(mPrefix, {"@here"});
}

std::optional<KXSubjects::Call> KXSubjects::parseCall(std::string_view subject) const {
  if (!subject.starts_with(mPrefix)) return std::nullopt;
  std::vector<std::string_view> const tokens = split(subject.substr(mPrefix.size()));

  Call call;
  switch (tokens.size()) {
    case 2:
      break;
    case 4:
      if (tokens[0] != kFrom || !isToken(tokens[1])) return std::nullopt;
      call.from = tokens[1];
      break;
    case 5:
      if (tokens[0] != kAt || !isToken(tokens[1]) || !isToken(tokens[2])) return std::nullopt;
      call.to.user = tokens[1];
      call.to.nonce = tokens[2];
      break;
    default:
      return std::nullopt;
  }
  std::optional<std::string> module = unescapeToken(tokens[tokens.size() - 2]);
  std::optional<std::string> method = methodOf(tokens.back());
  if (!module || !method) return std::nullopt;
  call.to.module = std::move(*module);
  call.method = std::move(*method);
  return call;
}

bool isInOwnName(std::string_view module, std::string_view method) {
  static constexpr std::array<std::string_view, 4> kMethods{
      "subscribeToEvent", "subscribeToMicroEvent", "unsubscribeToEvent", "unsubscribeToMicroEvent"};
  return module == "KXMemory" && std::ranges::find(kMethods, method) != kMethods.end();
}

}  // namespace KX
