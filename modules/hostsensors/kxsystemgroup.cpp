// The machine as a whole: its load averages and how long it has been up.
#include <libproc2/misc.h>

#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

class LoadGroup : public KXMachineGroup {
 public:
  char const* name() const override { return "Load"; }

  std::vector<KXMachineKey> keys() const override {
    using enum KXMachineKey::Kind;
    return {
        {"Host/Load/1min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
        {"Host/Load/5min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
        {"Host/Load/15min", "threads that run or want to", Data, "float", "libproc2 loadavg"},
    };
  }

  void read(KXMachineTime, KXMachineReport& report) override {
    double oneMinute = 0;
    double fiveMinutes = 0;
    double fifteenMinutes = 0;
    int const result = procps_loadavg(&oneMinute, &fiveMinutes, &fifteenMinutes);
    if (result < 0) throwUnreadable("/proc/loadavg", -result);
    report.add("Host/Load/1min", KXValue(oneMinute));
    report.add("Host/Load/5min", KXValue(fiveMinutes));
    report.add("Host/Load/15min", KXValue(fifteenMinutes));
  }
};

class UptimeGroup : public KXMachineGroup {
 public:
  char const* name() const override { return "Uptime"; }

  std::vector<KXMachineKey> keys() const override {
    return {{"Host/UptimeSeconds", "s", KXMachineKey::Kind::Data, "float", "libproc2 uptime"}};
  }

  void read(KXMachineTime, KXMachineReport& report) override {
    double uptimeSeconds = 0;
    double idleSeconds = 0;
    int const result = procps_uptime(&uptimeSeconds, &idleSeconds);
    if (result < 0) throwUnreadable("/proc/uptime", -result);
    report.add("Host/UptimeSeconds", KXValue(uptimeSeconds));
  }
};

}  // namespace

std::unique_ptr<KXMachineGroup> makeLoadGroup() {
  return std::make_unique<LoadGroup>();
}

std::unique_ptr<KXMachineGroup> makeUptimeGroup() {
  return std::make_unique<UptimeGroup>();
}

}  // namespace KX
