// Which modules are announced on a bus, on all its robots.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include <host/bus/kxbus.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// As KXService tells it. Texts are those of whoever announces: any text.
struct KXAnnouncedModule {
  std::string robot;
  std::string module;
  std::string moduleVersion;  ///< may be empty
  std::string broker;
  std::string instance;
  std::string version;  ///< of the program's build
  std::string started;  ///< RFC 3339, UTC

  // NOLINTNEXTLINE(modernize-use-nullptr): none is written here
  auto operator<=>(KXAnnouncedModule const&) const = default;
};

/// Of all services that answer, other kinds included.
inline constexpr std::size_t kMostAnnounced = 10'000;
inline constexpr std::size_t kMostAnnouncedBytes = 64 << 20;

/// Asks all services and returns when none has answered for `quiet`, but after two seconds at most;
/// at once if there is none. Sorted; what others announce by the same protocol is left out.
/// KXError: Disconnected; Refused; Failed if more answer than kMostAnnounced, or with more than
/// kMostAnnouncedBytes in all.
KX_API std::vector<KXAnnouncedModule> findAnnounced(
    KXBus& bus, std::chrono::milliseconds quiet = std::chrono::milliseconds(300));

}  // namespace KX
