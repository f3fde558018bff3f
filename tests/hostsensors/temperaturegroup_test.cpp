// Temperatures and fans. The chips are the test's: the functions of libsensors that the group calls
// are defined here, so that they take the place of the library's in this program. A module library
// that this program loads has the library's own.

#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include <sensors/sensors.h>

#include <gtest/gtest.h>

#include <kxerror/kxerror.hpp>
#include <modules/hostsensors/kxmachinegroups.hpp>

#include "fakeroot.hpp"

namespace {

struct FakeFeature {
  std::string name;
  std::string label;
  sensors_feature_type type;
  double value;
  int result = 0;
  bool hasInput = true;
  sensors_feature feature{};
  sensors_subfeature input{};
};
struct FakeChip {
  std::string name;
  std::deque<FakeFeature> features;
  sensors_chip_name chip{};
};
std::deque<FakeChip> gChips;
int gInitResult = 0;
int gInits = 0;
int gCleanups = 0;

FakeChip& chipOf(sensors_chip_name const* name) {
  for (FakeChip& chip : gChips) {
    if (&chip.chip == name) return chip;
  }
  throw std::logic_error("unknown chip");
}

}  // namespace

extern "C" {

int sensors_init(FILE*) {
  ++gInits;
  return gInitResult;
}
void sensors_cleanup() {
  ++gCleanups;
}
sensors_chip_name const* sensors_get_detected_chips(sensors_chip_name const*, int* nr) {
  auto const index = static_cast<std::size_t>((*nr)++);
  return index < gChips.size() ? &gChips[index].chip : nullptr;
}
int sensors_snprintf_chip_name(char* text, size_t size, sensors_chip_name const* chip) {
  return std::snprintf(text, size, "%s", chipOf(chip).name.c_str());
}
sensors_feature const* sensors_get_features(sensors_chip_name const* chip, int* nr) {
  auto const index = static_cast<std::size_t>((*nr)++);
  auto& features = chipOf(chip).features;
  if (index >= features.size()) return nullptr;
  FakeFeature& fake = features[index];
  fake.feature.name = fake.name.data();
  fake.feature.number = static_cast<int>(index);
  fake.feature.type = fake.type;
  return &fake.feature;
}
sensors_subfeature const* sensors_get_subfeature(sensors_chip_name const* chip,
                                                 sensors_feature const* feature,
                                                 sensors_subfeature_type type) {
  FakeFeature& fake = chipOf(chip).features[static_cast<std::size_t>(feature->number)];
  bool const isFan = fake.type == SENSORS_FEATURE_FAN;
  if (type != (isFan ? SENSORS_SUBFEATURE_FAN_INPUT : SENSORS_SUBFEATURE_TEMP_INPUT))
    return nullptr;
  fake.input.number = feature->number;
  return fake.hasInput ? &fake.input : nullptr;
}
int sensors_get_value(sensors_chip_name const* chip, int number, double* value) {
  FakeFeature const& fake = chipOf(chip).features[static_cast<std::size_t>(number)];
  if (fake.result == 0) *value = fake.value;
  return fake.result;
}
char* sensors_get_label(sensors_chip_name const* chip, sensors_feature const* feature) {
  FakeFeature const& fake = chipOf(chip).features[static_cast<std::size_t>(feature->number)];
  return fake.label.empty() ? nullptr : ::strdup(fake.label.c_str());
}

}  // extern "C"

namespace KX {
namespace {

using testing::FakeRoot;
using testing::find;
using testing::readGroup;

class Temperature : public ::testing::Test {
 protected:
  Temperature() { gInits = gCleanups = gInitResult = 0; }
  ~Temperature() override { gChips.clear(); }

  FakeRoot mRoot;
};

TEST_F(Temperature, ComesFromChipsWithTheirLabels) {
  gChips.push_back({"coretemp-isa-0000",
                    {{"temp1", "Package id 0", SENSORS_FEATURE_TEMP, 45.5},
                     {"fan1", "Rear", SENSORS_FEATURE_FAN, 1200},
                     {"in0", "Vcore", SENSORS_FEATURE_IN, 1.1}}});
  auto const group = makeTemperatureGroup(mRoot.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(2u, report.values.size());
  EXPECT_EQ(KXValue(45.5), find(report, "Host/Temperature/coretemp-isa-0000/Package_id_0/Celsius"));
  EXPECT_EQ(KXValue(1200.0), find(report, "Host/Fan/coretemp-isa-0000/Rear/Rpm"));
}

TEST_F(Temperature, HasTheKernelsNameWhereThereIsNoLabel) {
  gChips.push_back({"nvme-pci-0100", {{"temp1", "", SENSORS_FEATURE_TEMP, 30}}});
  auto const group = makeTemperatureGroup(mRoot.path());

  EXPECT_EQ(KXValue(30.0), find(readGroup(*group), "Host/Temperature/nvme-pci-0100/temp1/Celsius"));
}

TEST_F(Temperature, KeepsPlacesOfOneLabelApart) {
  gChips.push_back({"chip",
                    {{"temp1", "CPU", SENSORS_FEATURE_TEMP, 1},
                     {"temp2", "CPU", SENSORS_FEATURE_TEMP, 2},
                     {"fan1", "CPU", SENSORS_FEATURE_FAN, 3}}});
  gChips.push_back({"other", {{"temp1", "CPU", SENSORS_FEATURE_TEMP, 4}}});
  auto const group = makeTemperatureGroup(mRoot.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(KXValue(1.0), find(report, "Host/Temperature/chip/CPU/Celsius"));
  EXPECT_EQ(KXValue(2.0), find(report, "Host/Temperature/chip/CPU.temp2/Celsius"));
  EXPECT_EQ(KXValue(3.0), find(report, "Host/Fan/chip/CPU/Rpm"));
  EXPECT_EQ(KXValue(4.0), find(report, "Host/Temperature/other/CPU/Celsius"));
}

TEST_F(Temperature, LeavesOutAPlaceThatCannotBeRead) {
  gChips.push_back({"chip",
                    {{"temp1", "fault", SENSORS_FEATURE_TEMP, 1, -5},
                     {"temp2", "no input", SENSORS_FEATURE_TEMP, 2, 0, false},
                     {"temp3", "good", SENSORS_FEATURE_TEMP, 3}}});
  auto const group = makeTemperatureGroup(mRoot.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(1u, report.values.size());
  EXPECT_EQ(KXValue(3.0), find(report, "Host/Temperature/chip/good/Celsius"));
}

TEST_F(Temperature, ComesFromThermalZonesToo) {
  mRoot.write("sys/class/thermal/thermal_zone0/type", "acpitz\n");
  mRoot.write("sys/class/thermal/thermal_zone0/temp", "27800\n");
  mRoot.write("sys/class/thermal/thermal_zone2/type", "x86 pkg/temp\n");
  mRoot.write("sys/class/thermal/thermal_zone2/temp", "-500\n");
  mRoot.write("sys/class/thermal/thermal_zone1/type", "off\n");
  mRoot.write("sys/class/thermal/cooling_device0/type", "Fan\n");
  auto const group = makeTemperatureGroup(mRoot.path());

  KXMachineReport const report = readGroup(*group);

  EXPECT_EQ(2u, report.values.size());
  EXPECT_EQ(KXValue(27.8), find(report, "Host/Temperature/thermal_zone0/acpitz/Celsius"));
  EXPECT_EQ(KXValue(-0.5), find(report, "Host/Temperature/thermal_zone2/x86_pkg_temp/Celsius"));
}

TEST_F(Temperature, FailsWhereThereIsNone) {
  auto const group = makeTemperatureGroup(mRoot.path());

  EXPECT_THROW(readGroup(*group), KXError);
}

TEST_F(Temperature, DoesWithoutALibraryThatFindsNoSys) {
  gInitResult = -4;
  gChips.push_back({"chip", {{"temp1", "never asked", SENSORS_FEATURE_TEMP, 1}}});
  {
    auto const group = makeTemperatureGroup(mRoot.path());

    EXPECT_THROW(readGroup(*group), KXError);
  }
  EXPECT_EQ(0, gCleanups);
}

TEST_F(Temperature, SharesTheLibraryAmongGroups) {
  {
    auto const first = makeTemperatureGroup(mRoot.path());
    { auto const second = makeTemperatureGroup(mRoot.path()); }
    EXPECT_EQ(1, gInits);
    EXPECT_EQ(0, gCleanups);
  }
  EXPECT_EQ(1, gCleanups);
  { auto const third = makeTemperatureGroup(mRoot.path()); }
  EXPECT_EQ(2, gInits);
  EXPECT_EQ(2, gCleanups);
}

}  // namespace
}  // namespace KX
