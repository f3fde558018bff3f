// Memory and swap.
#pragma once

#include <memory>
#include <vector>

#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxhostgroup.hpp>

struct meminfo_info;

namespace KX {

/// What is used and what is left, and the event of memory running low.
class KXMemoryGroup : public KXHostGroup {
 public:
  char const* name() const override { return "Memory"; }
  std::vector<KXHostKey> keys() const override;
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  struct Unref {
    void operator()(meminfo_info* info) const;
  };

  std::unique_ptr<meminfo_info, Unref> mInfo;
  // In percent of memory that is not available.
  KXHysteresis mLow{90.0, 85.0};
};

}  // namespace KX
