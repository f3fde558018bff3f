// A group that finds whatever the test wants.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <modules/hostsensors/kxmachinegroup.hpp>

namespace KX::testing {

class FakeGroup : public KXMachineGroup {
 public:
  using Read = std::function<void(KXMachineReport& report)>;

  FakeGroup(std::string name, Read read, int intervalMs = 0, std::vector<KXMachineKey> keys = {})
      : mName(std::move(name)),
        mRead(std::move(read)),
        mInterval(intervalMs),
        mKeys(std::move(keys)) {}

  char const* name() const override { return mName.c_str(); }
  std::vector<KXMachineKey> keys() const override { return mKeys; }
  std::chrono::milliseconds interval() const override { return mInterval; }
  void read(KXMachineTime, KXMachineReport& report) override { mRead(report); }

 private:
  std::string const mName;
  Read const mRead;
  std::chrono::milliseconds const mInterval;
  std::vector<KXMachineKey> const mKeys;
};

template <class... Group>
std::vector<std::unique_ptr<KXMachineGroup>> groupsOf(Group... groups) {
  std::vector<std::unique_ptr<KXMachineGroup>> all;
  (all.push_back(std::make_unique<FakeGroup>(std::move(groups))), ...);
  return all;
}

}  // namespace KX::testing
