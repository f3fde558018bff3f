// What the fuzzers run, and the tests with the stored corpus: each takes any bytes and throws
// std::logic_error if something that is promised for all bytes does not hold.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <host/bus/kxsubject.hpp>
#include <host/bus/kxwire.hpp>

namespace KX::fuzz {

namespace detail {

inline void expect(bool holds, char const* what) {
  if (!holds) throw std::logic_error(std::string("expected ") + what);
}

// Compares bytes and not values: a NaN does not equal itself.
inline void expectSameAgain(KXValue const& value) {
  std::string const bytes = encodeValue(value);
  expect(encodeValue(decodeValue(bytes)) == bytes, "a value to come back as it was");
}

template <class T>
void expectSameText(std::optional<T> const& parsed, std::string (*format)(T const&),
                    std::string_view text) {
  if (parsed) expect(format(*parsed) == text, "a header to be formatted as it was parsed");
}

inline void headers(std::string_view text) {
  expectSameText(parseCallId(text), formatCallId, text);
  if (auto const part = parseFromPart(text)) {
    expect(std::to_string(*part) == text, "a number to be written in one way");
  }
  expectSameText(parsePart(text), formatPart, text);
  expectSameText(parsePackHeader(text), formatPackHeader, text);
  expectSameText(parsePackAck(text), formatPackAck, text);
  expectSameText(parseUnhandled(text), formatUnhandled, text);
}

inline void reply(std::string_view payload, std::string_view code) {
  std::string again;
  bool isRefused = false;
  try {
    again = encodeResult(decodeReply(payload, code));
  } catch (KXError const& error) {
    // Either the error that the reply is, or what is wrong with it; both have to fit a header.
    for (auto const& [name, text] : errorHeaders(error)) {
      expect(text.size() <= 512 && text.find_first_of("\r\n") == std::string::npos,
             "the header of an error to be one line");
    }
    expect(!error.getDescription().empty() || error.getModuleName() != "KXBus",
           "a refusal to say why");
    isRefused = true;
  }
  if (!isRefused) expect(encodeResult(decodeReply(again, code)) == again, "the same result");
}

inline void pack(std::string_view bytes, std::uint32_t count) {
  std::vector<KXNotification> notifications;
  try {
    notifications = decodePack(bytes, count);
  } catch (KXError const&) {
    return;  // no pack
  }
  expect(notifications.size() == count, "as many notifications as were promised");
  std::string again;
  for (KXNotification const& each : notifications) {
    appendNotification(again, each.method, each.arguments);
  }
  std::string thirdTime;
  for (KXNotification const& each : decodePack(again, count)) {
    appendNotification(thirdTime, each.method, each.arguments);
  }
  expect(thirdTime == again, "a pack to come back as it was");
}

inline void description(std::string_view bytes) {
  KXValue value;
  KXModuleInfo info;
  try {
    value = decodeValue(bytes);
    info = moduleInfoFromValue(value);
  } catch (KXError const&) {
    return;  // none
  }
  expect(toValue(info) == value, "a description to come back as it was");
}

}  // namespace detail

/// What decodes as a value encodes, and that decodes to an equal one.
inline void value(std::string_view bytes) {
  KXValue decoded;
  try {
    decoded = decodeValue(bytes);
  } catch (KXError const& error) {
    detail::expect(!error.getDescription().empty(), "a refusal to say why");
    return;
  }
  detail::expectSameAgain(decoded);
}

/// Headers, replies, packs and descriptions: what parses formats back to the same. The first byte
/// says what the others are: h, r, e (a reply with error code), d, or the count of a pack.
inline void frames(std::string_view bytes) {
  if (bytes.empty()) return;
  char const kind = bytes.front();
  bytes.remove_prefix(1);
  switch (kind) {
    case 'h':
      return detail::headers(bytes);
    case 'r':
      return detail::reply(bytes, "");
    case 'e':
      return detail::reply(bytes, "404");
    case 'd':
      return detail::description(bytes);
    default:
      if (kind >= '0' && kind <= '9') detail::pack(bytes, static_cast<std::uint32_t>(kind - '0'));
  }
}

/// Subjects, tokens and addresses: likewise.
inline void subject(std::string_view bytes) {
  if (std::optional<std::string> const name = unescapeToken(bytes)) {
    detail::expect(escapeToken(*name) == bytes, "a name to have one token");
  }
  detail::expect(unescapeToken(escapeToken(bytes)) == bytes, "each name to have a token");

  KXSubjects const subjects("r");
  KXModuleAddress const address = parseAddress(bytes);
  detail::expect(address.isQualified()
                     ? address.module + "@" + address.user + "." + address.nonce == bytes
                     : address.module == bytes,
                 "an address to hold all of the name");
  std::optional<KXSubjects::Call> const called = subjects.parseCall(subjects.call(address, bytes));
  detail::expect(called == KXSubjects::Call{address, std::string(bytes)},
                 "a call to be what was asked");

  if (std::optional<KXSubjects::Call> const call = subjects.parseCall(bytes)) {
    detail::expect((call->from.empty()
                        ? subjects.call(call->to, call->method)
                        : subjects.callFrom(call->from, call->to.module, call->method)) == bytes,
                   "a call to have one subject");
  }
}

}  // namespace KX::fuzz
