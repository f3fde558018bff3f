// Temperatures and fans, once a second: chips on slow buses take milliseconds to answer.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <modules/hostsensors/kxhostgroup.hpp>

namespace KX {

/// What one chip measures at one place.
struct KXChipReading {
  enum class Kind { Temperature, Fan };

  std::string chip;
  std::string feature;  ///< the kernel's name, unique in the chip: temp1
  std::string label;    ///< the name for people, not always unique: Core 0
  Kind kind;
  double value;  ///< degrees Celsius, or turns per minute
};

/// Adds a value per reading. Of readings with one label in one chip, all but the first have the
/// feature behind it.
void reportChipReadings(std::vector<KXChipReading> const& readings, KXHostReport& report);

/// The chips that libsensors knows when the group is made, and the kernel's thermal zones.
class KXTemperatureGroup : public KXHostGroup {
 public:
  explicit KXTemperatureGroup(std::string root);
  ~KXTemperatureGroup() override;
  KXTemperatureGroup(KXTemperatureGroup const&) = delete;
  KXTemperatureGroup& operator=(KXTemperatureGroup const&) = delete;
  char const* name() const override { return "Temperature"; }
  std::vector<KXHostKey> keys() const override;
  std::chrono::milliseconds interval() const override { return std::chrono::seconds(1); }
  void read(KXHostTime now, KXHostReport& report) override;

 private:
  void xReadZones(KXHostReport& report) const;

  std::string const mRoot;
};

}  // namespace KX
