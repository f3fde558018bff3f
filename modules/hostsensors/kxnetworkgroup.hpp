// The network interfaces.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

/// One direction of an interface.
struct KXTraffic {
  std::uint64_t bytes = 0;
  std::uint64_t packets = 0;
  std::uint64_t errors = 0;
  std::uint64_t dropped = 0;
};

/// One line of /proc/net/dev.
struct KXInterfaceCounters {
  std::string name;
  KXTraffic received;
  KXTraffic sent;
};

/// The lines that are well formed; the two lines of titles are not.
std::vector<KXInterfaceCounters> parseNetDev(std::string_view text);

/// Counters, rates and links, and the event of a link that comes or goes, be it that its interface
/// does. The links found at the first reading are no event.
class KXNetworkGroup : public KXHostGroup {
 public:
  explicit KXNetworkGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Network"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  void xReportTraffic(std::string const& prefix, char const* direction, KXTraffic const& traffic,
                      KXHostTime now, KXHostReport& report);
  std::optional<bool> xReadLink(std::string const& interface) const;
  void xReportChanges(std::map<std::string, bool> links, KXHostReport& report);

  std::string const mRoot;
  KXRates mRates;
  std::optional<std::map<std::string, bool>> mLinks;
};

}  // namespace KX
