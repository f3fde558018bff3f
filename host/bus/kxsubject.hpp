// The subjects that modules of a robot are reached under, and the names in them. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <kxerror/kxapi.hpp>

namespace KX {

/// A name as one token of a subject: letters, digits, "_" and "-" stand for themselves, every other
/// byte is %HH (upper case), the empty name is "%".
KX_API std::string escapeToken(std::string_view name);
/// The name; none if it is no token that escapeToken() makes.
KX_API std::optional<std::string> unescapeToken(std::string_view token);

/// Where a module is. One that is meant for everybody is known by its name alone; one that is meant
/// for its own process's sake is qualified: "NAME@USER.NONCE", where "USER.NONCE" is the name of
/// the broker that has it, the user's token first so that a server can say who may listen there.
struct KXModuleAddress {
  std::string module;  ///< without the broker
  std::string user{};  ///< empty: meant for everybody
  std::string nonce{};

  bool isQualified() const noexcept { return !user.empty(); }
  bool operator==(KXModuleAddress const&) const = default;
};

/// A name that is not "NAME@USER.NONCE" is a module meant for everybody, whatever it holds.
KX_API KXModuleAddress parseAddress(std::string_view name);

/// The subjects of one robot.
class KX_API KXSubjects {
 public:
  explicit KXSubjects(std::string_view robot);

  /// `kx.ROBOT.MODULE.METHOD`, qualified: `kx.ROBOT.@at.USER.NONCE.MODULE.METHOD`. `method` is a
  /// name of a published method or one of the bus's own, that begin with "@" (kFind ...).
  std::string call(KXModuleAddress const& to, std::string_view method) const;
  /// `kx.ROBOT.@from.USER.MODULE.METHOD`: a call in the name of a user. The server lets nobody but
  /// that user publish it.
  std::string callFrom(std::string_view user, std::string_view module,
                       std::string_view method) const;
  /// All calls of a module, and of all modules of a broker: with a wildcard at the end.
  std::string callsOf(std::string_view module) const;
  std::string callsFromOthersOf(std::string_view module) const;  ///< `kx.ROBOT.@from.*.MODULE.*`
  std::string callsAt(std::string_view user, std::string_view nonce) const;
  /// `kx.ROBOT.@events.MODULE`, qualified: `kx.ROBOT.@events.USER.NONCE.MODULE`.
  std::string events(KXModuleAddress const& to) const;
  /// `kx.ROBOT.@claim.MODULE`: who has a name meant for everybody.
  std::string claim(std::string_view module) const;
  /// `kx.ROBOT.@hello`: a receiver of events is there (again).
  std::string hello() const;
  /// `kx.ROBOT.@here`: a module is announced.
  std::string here() const;

  /// What a subject of a call says; none if it is no call of this robot.
  struct Call {
    KXModuleAddress to;
    std::string method;  ///< begins with "@" if it is one of the bus's own
    std::string from{};  ///< the user, if it is a call in somebody's name
    bool operator==(Call const&) const = default;
  };
  std::optional<Call> parseCall(std::string_view subject) const;

 private:
  std::string const mPrefix;  ///< "kx.ROBOT."
};

/// The store's methods that name a callback module: a server may let a user call these for itself
/// and for nobody else.
KX_API bool isInOwnName(std::string_view module, std::string_view method);

/// The bus's own methods, which every module answers that can be reached.
inline constexpr char const* kFindMethod = "@find";
inline constexpr char const* kDescribeMethod = "@describe";
inline constexpr char const* kIsRunningMethod = "@isRunning";
inline constexpr char const* kWaitMethod = "@wait";

}  // namespace KX
