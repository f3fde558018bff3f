// What both buses allow and how they match, as a NATS server does. Pure functions.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <host/bus/kxbus.hpp>
#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

/// Tokens separated by ".", none empty, without blanks and control characters. In a pattern a token
/// may be "*", and the last one ">".
KX_API bool isLegalSubject(std::string_view subject, bool mayBePattern);

/// Does a message under `subject` go to those who subscribed to `pattern`?
KX_API bool subjectMatches(std::string_view pattern, std::string_view subject);

/// May an answer go there? Whoever asks says where, and the answer is published with the rights of
/// whoever is asked: to anything but an inbox it would be a call, or an event, in his name.
KX_API bool isInbox(std::string_view subject);

/// Of the message as it counts against the server's limit: payload and headers.
KX_API std::size_t messageBytes(KXBusMessage const& message);

/// A header's value as it arrives: without blanks at its ends. If that is empty the header is not
/// sent: the NATS library takes the next header for the value of one that has none.
KX_API std::string_view trimHeaderValue(std::string_view value);

/// Throws KXError (Failed) if the message must not be sent: the server would close the connection.
KX_API void checkMessage(KXBusMessage const& message, std::size_t maxPayload);
/// Throws KXError (Failed) if one cannot subscribe so.
KX_API void checkSubscription(std::string_view subject, std::string_view queue, int threads);

[[noreturn]] KX_API void throwBusError(char const* method, std::string const& text,
                                       KXError::Kind kind = KXError::Kind::Failed);

}  // namespace KX
