// What messages look like on the wire: MessagePack, and the headers of calls, replies and event
// packs. Pure functions. Bytes from the network are hostile: lengths beyond the bytes left, more
// than 32 levels (40 in a reply), values that take far more memory than their bytes and types that
// a KXValue has not are refused before anything is allocated for them. Errors: KXError that says
// what was expected and what came.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxcommon/kxtransport.hpp>
#include <kxerror/kxapi.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {

// ---- values: invalid is nil, binary is bin; integers of 32 bits; floats are doubles.

KX_API void appendValue(std::string& bytes, KXValue const& value);
KX_API std::string encodeValue(KXValue const& value);
/// The one value that the bytes are.
KX_API KXValue decodeValue(std::string_view bytes);

// ---- calls. The payload of a request is the array of arguments.

/// The header of a request that is to run once. Without it a request is a foreign client's: it runs
/// once for each time that it arrives, and its reply has to fit one message. All requests of one
/// call have the same.
struct KXCallId {
  std::string caller;        ///< 16 hexadecimal digits, made anew for each callee of each process
  std::uint64_t number = 0;  ///< from 1
  std::uint64_t done = 0;    ///< the caller waits for none of its calls up to this one
  std::string to{};  ///< the server that alone may run it; empty: the caller does not know it yet
  /// The calls up to `done` that the caller gave up without a reply, in rising order.
  std::vector<std::uint64_t> lost{};

  static constexpr std::size_t kMaxLost = 64;
};

/// "CALLER.NUMBER.DONE", "CALLER.NUMBER.DONE.TO" or "CALLER.NUMBER.DONE.TO.LOST.LOST..."
inline constexpr char const* kCallHeader = "Kx-Call";
/// Of a request that was sent before: the first part of the reply that the caller has not got.
inline constexpr char const* kAgainHeader = "Kx-Again";
inline constexpr char const* kTaskHeader = "Kx-Task";  ///< "1": start it as a parallel call
inline constexpr char const* kDoneHeader = "Kx-Done";  ///< "1": no call, the reply has arrived
inline constexpr char const* kPartHeader = "Kx-Part";  ///< "INDEX.COUNT" of a reply in parts
/// Of a reply: which server sends it, where the caller may not know.
inline constexpr char const* kInstanceHeader = "Kx-Instance";
inline constexpr char const* kErrorCodeHeader = "Nats-Service-Error-Code";
/// The code of two answers that are no reply to the call, since another server than the one it is
/// for has it. It was not run here. Moved: nor elsewhere, as far as this request goes.
inline constexpr char const* kMovedCode = "421";
/// Of a repeat: what became of the first request is not known.
inline constexpr char const* kRestartedCode = "410";
inline constexpr char const* kErrorTextHeader = "Nats-Service-Error";

/// Can it be what tells a server, or a caller, from others? 16 hexadecimal digits.
KX_API bool isId(std::string_view text);
KX_API std::string formatCallId(KXCallId const& id);
KX_API std::optional<KXCallId> parseCallId(std::string_view text);
KX_API std::optional<std::uint32_t> parseFromPart(std::string_view text);

struct KXPart {
  std::uint32_t index = 0;
  std::uint32_t count = 1;
};
KX_API std::string formatPart(KXPart const& part);
KX_API std::optional<KXPart> parsePart(std::string_view text);

/// `[0, result]`.
KX_API std::string encodeResult(KXValue const& result);
/// `[1, [module, method, description, file, line]]`; the kind travels in the headers.
KX_API std::string encodeError(KXError const& error);
/// The service protocol's headers for an error: the code tells the kind (400 Failed, 404 NotFound,
/// 403 Refused, 504 TimedOut, 503 Disconnected), the text is the description on one line.
KX_API KXBusHeaders errorHeaders(KXError const& error);
/// The result, or throws the error that the reply is, of the kind that the code says.
KX_API KXValue decodeReply(std::string_view payload, std::string_view errorCode);

// ---- packs of notifications

struct KXPackHeader {
  std::string epoch;        ///< 16 hexadecimal digits: one sender's numbering
  std::uint64_t first = 0;  ///< number of the first notification in the pack, from 1
  std::uint32_t count = 0;
  std::uint64_t holeFrom = 0;  ///< those from here up to `first` were dropped; = first: none
  std::uint64_t oldest = 0;    ///< the oldest that may still come; a new receiver begins there
};
/// Of one numbering, at one receiver.
struct KXUnhandled {
  std::uint64_t from = 0;   ///< the number that the receiver began with: another one counts anew
  std::uint64_t count = 0;  ///< so many it gave up since, in packs that it is done with
};
struct KXPackAck {
  std::string epoch;
  std::uint64_t next = 0;  ///< all before this one were handled or are known as dropped
  bool isGap = false;      ///< go back: what came began later than `next`
  KXUnhandled unhandled{};
};
inline constexpr char const* kPackHeader = "Kx-Events";  ///< "EPOCH.FIRST.COUNT.HOLE.OLDEST"
inline constexpr char const* kAckHeader = "Kx-Ack";      ///< "EPOCH.NEXT.GAP", payload empty
/// Of an acknowledgement: "FROM.COUNT". Without it there is nothing that was given up.
inline constexpr char const* kUnhandledHeader = "Kx-Unhandled";

KX_API std::string formatPackHeader(KXPackHeader const& header);
KX_API std::optional<KXPackHeader> parsePackHeader(std::string_view text);
/// Of kAckHeader only.
KX_API std::string formatPackAck(KXPackAck const& ack);
KX_API std::optional<KXPackAck> parsePackAck(std::string_view text);
KX_API std::string formatUnhandled(KXUnhandled const& unhandled);
KX_API std::optional<KXUnhandled> parseUnhandled(std::string_view text);
/// All headers of an acknowledgement, and what they say.
KX_API KXBusHeaders packAckHeaders(KXPackAck const& ack);
KX_API std::optional<KXPackAck> packAckOf(KXBusMessage const& message);

/// A notification in a pack: `[method, [argument ...]]`. A pack is the plain sequence of these,
/// `count` of them, so that packs can be put together without touching what is encoded.
KX_API void appendNotification(std::string& bytes, std::string_view method,
                               KXValue const& arguments);
/// Exactly `count` of them.
KX_API std::vector<KXNotification> decodePack(std::string_view bytes, std::uint32_t count);

// ---- descriptions

KX_API KXValue toValue(KXModuleInfo const& info);
KX_API KXModuleInfo moduleInfoFromValue(KXValue const& value);

}  // namespace KX
