#include <modules/hostsensors/kxsystemgroup.hpp>

#include <libproc2/misc.h>

#include <modules/hostsensors/kxhostfiles.hpp>

namespace KX {

std::vector<KXHostKey> KXLoadGroup::keys() const {
  using enum KXHostKey::Kind;
  return {
      {"Host/Load/1min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
      {"Host/Load/5min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
      {"Host/Load/15min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
  };
}

void KXLoadGroup::read(KXHostTime, KXHostReport& report) {
  double oneMinute = 0;
  double fiveMinutes = 0;
  double fifteenMinutes = 0;
  int const result = procps_loadavg(&oneMinute, &fiveMinutes, &fifteenMinutes);
  if (result < 0) throwUnreadable("/proc/loadavg", -result);
  report.add("Host/Load/1min", KXValue(oneMinute));
  report.add("Host/Load/5min", KXValue(fiveMinutes));
  report.add("Host/Load/15min", KXValue(fifteenMinutes));
}

std::vector<KXHostKey> KXUptimeGroup::keys() const {
  return {{"Host/UptimeSeconds", "s", KXHostKey::Kind::Data, "float", "libproc2 uptime"}};
}

void KXUptimeGroup::read(KXHostTime, KXHostReport& report) {
  double uptimeSeconds = 0;
  double idleSeconds = 0;
  int const result = procps_uptime(&uptimeSeconds, &idleSeconds);
  if (result < 0) throwUnreadable("/proc/uptime", -result);
  report.add("Host/UptimeSeconds", KXValue(uptimeSeconds));
}

}  // namespace KX
