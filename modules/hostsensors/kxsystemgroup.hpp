// The machine as a whole: its load averages and how long it has been up.
#pragma once

#include <vector>

#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

class KXLoadGroup : public KXHostGroup {
 public:
  char const* name() const override { return "Load"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;
};

class KXUptimeGroup : public KXHostGroup {
 public:
  char const* name() const override { return "Uptime"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;
};

}  // namespace KX
