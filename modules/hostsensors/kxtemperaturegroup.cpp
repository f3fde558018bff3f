// Temperatures and fans.
#include <sensors/sensors.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <utility>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxcounters.hpp>
#include <modules/hostsensors/kxmachinefiles.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

namespace KX {

namespace {

// libsensors has one state for the whole process and no lock: the groups of this process take
// turns, and the last one cleans up.
std::mutex gLibraryMutex;
int gLibraryUsers = 0;
bool gIsLibraryReady = false;

// What one chip measures at one place.
struct ChipReading {
  enum class Kind { Temperature, Fan };

  std::string chip;
  std::string feature;  // the kernel's name, unique in the chip: temp1
  std::string label;    // the name for people, not always unique: Core 0
  Kind kind;
  double value;  // degrees Celsius, or turns per minute
};

struct Free {
  void operator()(char* text) const { std::free(text); }
};

void readFeature(sensors_chip_name const& chip, std::string const& chipName,
                 sensors_feature const& feature, std::vector<ChipReading>& readings) {
  bool const isFan = feature.type == SENSORS_FEATURE_FAN;
  if (!isFan && feature.type != SENSORS_FEATURE_TEMP) return;
  sensors_subfeature const* const input = sensors_get_subfeature(
      &chip, &feature, isFan ? SENSORS_SUBFEATURE_FAN_INPUT : SENSORS_SUBFEATURE_TEMP_INPUT);
  double value = 0;
  if (input == nullptr || sensors_get_value(&chip, input->number, &value) != 0) return;
  std::unique_ptr<char, Free> const label(sensors_get_label(&chip, &feature));
  readings.push_back({chipName, feature.name, label ? label.get() : feature.name,
                      isFan ? ChipReading::Kind::Fan : ChipReading::Kind::Temperature, value});
}

std::vector<ChipReading> readChips() {
  std::vector<ChipReading> readings;
  std::lock_guard const lock(gLibraryMutex);
  if (!gIsLibraryReady) return readings;
  int chipNumber = 0;
  while (sensors_chip_name const* const chip = sensors_get_detected_chips(nullptr, &chipNumber)) {
    std::array<char, 256> chipName{};
    if (sensors_snprintf_chip_name(chipName.data(), chipName.size(), chip) < 0) continue;
    int featureNumber = 0;
    while (sensors_feature const* const feature = sensors_get_features(chip, &featureNumber)) {
      readFeature(*chip, chipName.data(), *feature, readings);
    }
  }
  return readings;
}

void reportChipReadings(std::vector<ChipReading> const& readings, KXMachineReport& report) {
  std::set<std::string> taken;
  for (ChipReading const& reading : readings) {
    bool const isFan = reading.kind == ChipReading::Kind::Fan;
    std::string place = std::string(isFan ? "Host/Fan/" : "Host/Temperature/") +
                        keySegment(reading.chip) + "/" + keySegment(reading.label);
    if (!taken.insert(place).second) place.append(".").append(keySegment(reading.feature));
    report.add(place + (isFan ? "/Rpm" : "/Celsius"), KXValue(reading.value));
  }
}

class TemperatureGroup : public KXMachineGroup {
 public:
  explicit TemperatureGroup(std::string root);
  ~TemperatureGroup() override;
  TemperatureGroup(TemperatureGroup const&) = delete;
  TemperatureGroup& operator=(TemperatureGroup const&) = delete;
  char const* name() const override { return "Temperature"; }
  std::vector<KXMachineKey> keys() const override;
  std::chrono::milliseconds interval() const override { return std::chrono::seconds(1); }
  void read(KXMachineTime now, KXMachineReport& report) override;

 private:
  void xReadZones(KXMachineReport& report) const;

  std::string const mRoot;
};

TemperatureGroup::TemperatureGroup(std::string root) : mRoot(std::move(root)) {
  std::lock_guard const lock(gLibraryMutex);
  if (gLibraryUsers++ == 0) gIsLibraryReady = sensors_init(nullptr) == 0;
}

TemperatureGroup::~TemperatureGroup() {
  std::lock_guard const lock(gLibraryMutex);
  if (--gLibraryUsers == 0 && std::exchange(gIsLibraryReady, false)) sensors_cleanup();
}

std::vector<KXMachineKey> TemperatureGroup::keys() const {
  using enum KXMachineKey::Kind;
  return {
      {"Host/Temperature/<chip>/<label>/Celsius", "degrees Celsius, once a second", Data, "float",
       "libsensors"},
      {"Host/Fan/<chip>/<label>/Rpm", "turns per minute, once a second", Data, "float",
       "libsensors"},
      {"Host/Temperature/<zone>/<type>/Celsius", "degrees Celsius, once a second", Data, "float",
       "/sys/class/thermal"},
  };
}

void TemperatureGroup::read(KXMachineTime, KXMachineReport& report) {
  reportChipReadings(readChips(), report);
  xReadZones(report);
  if (report.values.empty()) {
    throw KXError("KXHostSensors", "read", "no temperature or fan can be read",
                  "hostsensors/kxtemperaturegroup", 0);
  }
}

// A zone that is switched off has a file of its temperature and refuses to be read.
void TemperatureGroup::xReadZones(KXMachineReport& report) const {
  std::string const folder = mRoot + "/sys/class/thermal/";
  for (std::string const& zone : tryListMachineFolder(folder)) {
    auto const milliCelsius = tryReadMachineNumber(folder + zone + "/temp");
    auto const type = tryReadMachineFile(folder + zone + "/type");
    if (!milliCelsius || !type) continue;
    std::string const typeText = type->substr(0, type->find('\n'));
    report.add("Host/Temperature/" + keySegment(zone) + "/" + keySegment(typeText) + "/Celsius",
               KXValue(static_cast<double>(*milliCelsius) / 1000.0));
  }
}

}  // namespace

std::unique_ptr<KXMachineGroup> makeTemperatureGroup(std::string root) {
  return std::make_unique<TemperatureGroup>(std::move(root));
}

}  // namespace KX
