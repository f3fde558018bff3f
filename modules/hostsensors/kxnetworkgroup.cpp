// The network interfaces.
#include <unistd.h>

#include <utility>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

KXTraffic trafficFrom(std::vector<std::uint64_t> const& counts, std::size_t first) {
  return {counts[first], counts[first + 1], counts[first + 2], counts[first + 3]};
}

KXMachineEvent linkChanged(std::string const& interface, bool isUp) {
  return {"Host/Network/LinkChanged", KXValue::arrayOf(KXValue(interface), KXValue(isUp)), false};
}

class NetworkGroup : public KXMachineGroup {
 public:
  explicit NetworkGroup(std::string root) : mRoot(std::move(root)) {}
  char const* name() const override { return "Network"; }
  std::vector<KXMachineKey> keys() const override;
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  void xReportTraffic(std::string const& prefix, char const* direction, KXTraffic const& traffic,
                      KXMachineTime now, KXMachineReport& report);
  std::optional<bool> xReadLink(std::string const& interface) const;
  void xReportChanges(std::map<std::string, bool> links, KXMachineReport& report);

  std::string const mRoot;
  KXRates mRates;
  std::optional<std::map<std::string, bool>> mLinks;
};

std::vector<KXMachineKey> NetworkGroup::keys() const {
  using enum KXMachineKey::Kind;
  std::vector<KXMachineKey> keys;
  for (std::string const direction : {"Received", "Sent"}) {
    std::string const prefix = "Host/Network/<interface>/" + direction;
    auto const add = [&](char const* what, char const* unit) {
      keys.push_back({prefix + what, unit, Data, "float", "/proc/net/dev"});
    };
    add("Bytes", "bytes");
    add("BytesPerSecond", "bytes/s");
    add("Packets", "packets");
    add("PacketsPerSecond", "packets/s");
    add("Errors", "packets");
    add("Dropped", "packets");
  }
  keys.push_back(
      {"Host/Network/<interface>/LinkUp", "true with a carrier", Data, "bool", "/sys/class/net"});
  keys.push_back(
      {"Host/Network/LinkChanged", "interface, up", Event, "[string, bool]", "/sys/class/net"});
  return keys;
}

void NetworkGroup::read(KXMachineTime now, KXMachineReport& report) {
  std::map<std::string, bool> links;
  for (KXInterfaceCounters const& counters :
       parseNetDev(readMachineFile(mRoot + "/proc/net/dev"))) {
    std::string const prefix = "Host/Network/" + keySegment(counters.name) + "/";
    xReportTraffic(prefix, "Received", counters.received, now, report);
    xReportTraffic(prefix, "Sent", counters.sent, now, report);
    if (std::optional<bool> const isUp = xReadLink(counters.name)) {
      report.add(prefix + "LinkUp", KXValue(*isUp));
      links.emplace(counters.name, *isUp);
    }
  }
  mRates.forgetOthers(now);
  xReportChanges(std::move(links), report);
}

void NetworkGroup::xReportTraffic(std::string const& prefix, char const* direction,
                                  KXTraffic const& traffic, KXMachineTime now,
                                  KXMachineReport& report) {
  auto const addCounter = [&](char const* what, std::uint64_t count) {
    report.add(prefix + direction + what, KXValue(static_cast<double>(count)));
  };
  auto const addRate = [&](char const* what, std::uint64_t count) {
    std::string key = prefix + direction + what;
    KXValue rate = mRates.update(key, count, 1, now);
    report.add(std::move(key), std::move(rate));
  };
  addCounter("Bytes", traffic.bytes);
  addRate("BytesPerSecond", traffic.bytes);
  addCounter("Packets", traffic.packets);
  addRate("PacketsPerSecond", traffic.packets);
  addCounter("Errors", traffic.errors);
  addCounter("Dropped", traffic.dropped);
}

// Nothing where the kernel has no folder for the interface. An interface that is switched off
// refuses to tell its carrier.
std::optional<bool> NetworkGroup::xReadLink(std::string const& interface) const {
  std::string const folder = mRoot + "/sys/class/net/" + interface;
  if (auto const carrier = tryReadMachineNumber(folder + "/carrier")) return *carrier == 1;
  if (::access(folder.c_str(), F_OK) == 0) return false;
  return std::nullopt;
}

void NetworkGroup::xReportChanges(std::map<std::string, bool> links, KXMachineReport& report) {
  if (!mLinks) {
    mLinks = std::move(links);
    return;
  }
  for (auto const& [interface, isUp] : links) {
    auto const former = mLinks->find(interface);
    bool const wasUp = former != mLinks->end() && former->second;
    if (isUp != wasUp) report.events.push_back(linkChanged(interface, isUp));
  }
  for (auto const& [interface, wasUp] : *mLinks) {
    if (wasUp && !links.contains(interface)) report.events.push_back(linkChanged(interface, false));
  }
  mLinks = std::move(links);
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeNetworkGroup(std::string root) {
  return std::make_unique<NetworkGroup>(std::move(root));
}

std::vector<KXInterfaceCounters> parseNetDev(std::string_view text) {
  std::vector<KXInterfaceCounters> interfaces;
  std::string_view line;
  while (takeLine(text, line)) {
    // An alias's name has a colon in it; its last one ends the name.
    std::size_t const colon = line.rfind(':');
    if (colon == std::string_view::npos) continue;
    std::vector<std::string_view> const name = splitWords(line.substr(0, colon));
    std::vector<std::uint64_t> counts;
    for (std::string_view const word : splitWords(line.substr(colon + 1))) {
      if (auto const count = parseCount(word)) counts.push_back(*count);
    }
    if (name.size() != 1 || counts.size() < 16) continue;
    interfaces.push_back(
        {std::string(name.front()), trafficFrom(counts, 0), trafficFrom(counts, 8)});
  }
  return interfaces;
}

}  // namespace KX
