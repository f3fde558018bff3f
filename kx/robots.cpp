// kx robots: which robots are on the bus, and their modules.
#include <algorithm>
#include <string>
#include <vector>

#include <fmt/format.h>

#include <host/bus/kxannounced.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX::tool {
namespace {

using Modules = std::vector<KXAnnouncedModule>;

// The modules of the robot that begins here; they are sorted by robots.
Modules takeRobot(Modules::const_iterator& at, Modules::const_iterator end) {
  Modules modules;
  std::string const robot = at->robot;
  for (; at != end && at->robot == robot; ++at) modules.push_back(*at);
  return modules;
}

std::string versionOf(KXAnnouncedModule const& module) {
  return module.moduleVersion.empty() ? module.version
                                      : module.version + " (" + module.moduleVersion + ")";
}

std::string tableOf(Modules const& all) {
  std::size_t width = 0;
  for (auto const& each : all) width = std::max(width, displayWidth(forTerminal(each.module)));
  std::string text;
  for (auto at = all.begin(); at != all.end();) {
    if (!text.empty()) text += '\n';
    text += forTerminal(at->robot) + '\n';
    for (KXAnnouncedModule const& each : takeRobot(at, all.end())) {
      text += fmt::format("  {}  since {}  version {}  in {}\n",
                          fitToWidth(forTerminal(each.module), width), forTerminal(each.started),
                          forTerminal(versionOf(each)), forTerminal(each.broker));
    }
  }
  return text;
}

std::string json(std::string const& text) {
  return KXValue(text).toString(1);
}

std::string jsonOf(Modules const& all) {
  std::vector<std::string> robots;
  for (auto at = all.begin(); at != all.end();) {
    std::string const robot = at->robot;
    std::vector<std::string> modules;
    for (KXAnnouncedModule const& each : takeRobot(at, all.end())) {
      modules.push_back(fmt::format(
          R"({{"module":{},"since":{},"version":{},"moduleVersion":{},"broker":{},"instance":{}}})",
          json(each.module), json(each.started), json(each.version), json(each.moduleVersion),
          json(each.broker), json(each.instance)));
    }
    robots.push_back(
        fmt::format(R"({{"robot":{},"modules":[{}]}})", json(robot), fmt::join(modules, ",")));
  }
  return fmt::format("[{}]\n", fmt::join(robots, ","));
}

}  // namespace

int robots(KXRobotsOptions const& options, KXOutput& output) {
  Modules const all = findAnnounced(*connectNats(options.bus));
  if (all.empty()) {
    throw KXToolError(kNothingThere, fmt::format("no robot on {}; kx host puts one there",
                                                 forTerminal(options.bus.url)));
  }
  output.write(options.listing == KXListing::Json ? jsonOf(all) : tableOf(all));
  return kOk;
}

}  // namespace KX::tool
