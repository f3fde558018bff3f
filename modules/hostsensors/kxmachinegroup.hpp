// One subject of the machine - its processors, its disks - that is read and published as a whole.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include <kxvalue/kxvalue.hpp>

namespace KX {

/// The clock that rates are computed with. It never steps.
using KXMachineClock = std::chrono::steady_clock;
using KXMachineTime = KXMachineClock::time_point;

/// A family of keys. In the pattern `<word>` stands for one segment, such as a device's name.
struct KXMachineKey {
  enum class Kind { Data, Event, MicroEvent };

  std::string pattern;
  std::string unit;
  Kind kind;
  std::string valueType;  ///< as the README's table has it: `float`, `[string, bool]`
  std::string source;
};

/// Something that happened between the last reading and this one.
struct KXMachineEvent {
  std::string key;
  KXValue value;
  bool isMicroEvent;
};

/// What groups found in one reading. A value that is not known yet, such as a rate at the first
/// reading, is invalid: its key exists from the beginning.
struct KXMachineReport {
  std::vector<std::pair<std::string, KXValue>> values;
  std::vector<KXMachineEvent> events;

  void add(std::string key, KXValue value) {
    values.emplace_back(std::move(key), std::move(value));
  }
};

/// Reads one subject. Owned by the survey; entered by one thread at a time.
class KXMachineGroup {
 public:
  virtual ~KXMachineGroup() = default;

  /// For log lines.
  virtual char const* name() const = 0;
  /// Every key that read() may report.
  virtual std::vector<KXMachineKey> keys() const = 0;
  /// How long a reading is good for; 0 reads in every period.
  virtual std::chrono::milliseconds interval() const { return std::chrono::milliseconds(0); }
  /// Adds the present values, all of them each time: a key that is missing has vanished. KXError
  /// if the source cannot be read; what was added then is dropped, and the next reading may work.
  virtual void read(KXMachineTime now, KXMachineReport& report) = 0;
};

}  // namespace KX
