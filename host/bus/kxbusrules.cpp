#include <host/bus/kxbusrules.hpp>

#include <algorithm>

namespace KX {
namespace {

// A server closes the connection at a longer line (4096 with what else stands in it).
constexpr std::size_t kMaxNames = 3500;
constexpr std::size_t kHeaderFrame = 12;     // "NATS/1.0\r\n" and "\r\n"
constexpr std::size_t kHeaderLineFrame = 4;  // ": " and "\r\n"

bool isBlankOrControl(char character) {
  auto const byte = static_cast<unsigned char>(character);
  return byte <= ' ' || byte == 0x7F;
}

/// Cuts the first token off.
std::string_view takeToken(std::string_view& rest) {
  auto const end = std::min(rest.find('.'), rest.size());
  auto const token = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return token;
}

bool isLegalHeader(std::string const& name, std::string const& value) {
  auto const isLineEnd = [](char character) {
    return character == '\r' || character == '\n';
  };
  return !name.empty() && name.find(':') == std::string::npos &&
         std::none_of(name.begin(), name.end(), isBlankOrControl) &&
         std::none_of(value.begin(), value.end(), isLineEnd);
}

}  // namespace

bool isLegalSubject(std::string_view subject, bool mayBePattern) {
  if (subject.empty() || subject.back() == '.') return false;
  if (std::any_of(subject.begin(), subject.end(), isBlankOrControl)) return false;
  while (!subject.empty()) {
    auto const token = takeToken(subject);
    if (token.empty()) return false;
    if (token == "*" && !mayBePattern) return false;
    if (token == ">" && !(mayBePattern && subject.empty())) return false;
  }
  return true;
}

bool subjectMatches(std::string_view pattern, std::string_view subject) {
  while (!pattern.empty() && !subject.empty()) {
    auto const wanted = takeToken(pattern);
    if (wanted == ">") return true;
    if (auto const token = takeToken(subject); wanted != "*" && wanted != token) return false;
  }
  return pattern.empty() && subject.empty();
}

bool isInbox(std::string_view subject) {
  // "_INBOX." of those who have no user, "_INBOX_USER." of the others.
  return subject.starts_with("_INBOX.") || subject.starts_with("_INBOX_");
}

std::size_t messageBytes(KXBusMessage const& message) {
  std::size_t bytes = message.payload.size();
  if (!message.headers.empty()) bytes += kHeaderFrame;
  for (auto const& [name, value] : message.headers)
    bytes += name.size() + value.size() + kHeaderLineFrame;
  return bytes;
}

std::string_view trimHeaderValue(std::string_view value) {
  constexpr char const* kBlanks = " \t";
  value.remove_prefix(std::min(value.find_first_not_of(kBlanks), value.size()));
  return value.substr(0, value.find_last_not_of(kBlanks) + 1);
}

void checkMessage(KXBusMessage const& message, std::size_t maxPayload) {
  if (!isLegalSubject(message.subject, false) ||
      (!message.reply.empty() && !isLegalSubject(message.reply, false)))
    throwBusError("publish", "no legal subject: '" + std::string(message.subject) + "', reply '" +
                                 std::string(message.reply) + "'");
  if (message.subject.size() + message.reply.size() > kMaxNames)
    throwBusError("publish", "subject and reply subject have more than " +
                                 std::to_string(kMaxNames) + " bytes");
  for (auto const& [name, value] : message.headers)
    if (!isLegalHeader(name, value))
      throwBusError("publish", "no legal header: '" + name + "': '" + value + "'");
  if (auto const bytes = messageBytes(message); bytes > maxPayload)
    throwBusError("publish", "a message of " + std::to_string(bytes) + " bytes under '" +
                                 std::string(message.subject) + "', the server allows " +
                                 std::to_string(maxPayload));
}

void checkSubscription(std::string_view subject, std::string_view queue, int threads) {
  if (!isLegalSubject(subject, true))
    throwBusError("subscribe", "no legal subject: '" + std::string(subject) + "'");
  if (std::any_of(queue.begin(), queue.end(), isBlankOrControl))
    throwBusError("subscribe", "no legal queue: '" + std::string(queue) + "'");
  if (subject.size() + queue.size() > kMaxNames)
    throwBusError("subscribe",
                  "subject and queue have more than " + std::to_string(kMaxNames) + " bytes");
  if (threads < 1)
    throwBusError("subscribe", "threads: " + std::to_string(threads) + ", at least 1 is needed");
}

void throwBusError(char const* method, std::string const& text, KXError::Kind kind) {
  throw KXError("KXBus", method, text, "bus/kxbusrules", 0, kind);
}

}  // namespace KX
