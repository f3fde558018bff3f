// A robot over a real server: its host as a process, and the tool's verbs on it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxproxy.hpp>
#include <tests/bus/natsserver.hpp>

#include "tool.hpp"

namespace KX::testing {

inline std::string watcherPath() {
  return KX_BIN_DIR "/memorywatcher";
}

class OnABus : public ::testing::Test {
 protected:
  std::vector<std::string> withBus(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--bus", mServer.url()});
    return arguments;
  }
  std::vector<std::string> onRobot(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--robot", "r1"});
    return withBus(std::move(arguments));
  }
  ToolResult run(std::vector<std::string> const& arguments) const {
    return runTool(onRobot(arguments));
  }
  std::unique_ptr<ChildProcess> start(std::vector<std::string> const& arguments) const {
    return std::make_unique<ChildProcess>(onRobot(arguments));
  }

  NatsServer mServer;
};

/// A robot with its host, and a process of this test's on it.
class Robot : public OnABus {
 protected:
  Robot() { mHost->waitForErrorText("serving"); }

  std::unique_ptr<ChildProcess> startWatcher() const {
    auto watcher = start({watcherPath()});
    watcher->waitForErrorText("serving");
    return watcher;
  }

  KXValue call(std::string const& module, std::string const& method,
               std::vector<KXValue> arguments = {}) {
    if (!mOperator) {
      mOperator.emplace(KXHost::Options{.withStore = false,
                                        .bus = KXBusOptions{.url = mServer.url(), .robot = "r1"}});
    }
    return mOperator->getBroker()->getProxy(module, 0)->genericCall(method,
                                                                    KXValue(std::move(arguments)));
  }
  std::vector<std::string> listeners() {
    std::vector<std::string> names;
    call("KXMemoryWatcher", "listeners").ToStringArray(names, false);
    return names;
  }
  /// Waits until so many subscribe to a key, then raises it so many times.
  void raise(std::string const& key, int count) {
    for (int i = 0; i < count; ++i) call("KXMemory", "raiseEvent", {key, i});
  }

  std::unique_ptr<ChildProcess> const mHost = start({toolPath(), "host"});
  std::optional<KXHost> mOperator;
};

}  // namespace KX::testing
