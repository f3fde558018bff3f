// kx describe: what the modules say about themselves, word for word.
#include <algorithm>

#include <fmt/format.h>

#include <host/bus/kxannounced.hpp>
#include <host/bus/kxnatsbus.hpp>
#include <kxcommon/kxmoduleinfo.hpp>
#include <kxerror/kxerror.hpp>

#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>

namespace KX::tool {
namespace {

// Texts are shown as published, blanks included: they are not wrapped.
std::string describedValue(KXParameterInfo const& value) {
  return fmt::format("{}: {}; {}", value.name, value.description, value.type);
}

std::string describedMethod(KXMethodInfo const& method) {
  std::vector<std::string> types;
  for (KXParameterInfo const& parameter : method.parameters) types.push_back(parameter.type);
  std::string text = fmt::format("\n{}({}) -> {}\n    {}\n", method.name, fmt::join(types, ", "),
                                 method.result.type, method.description);
  for (KXParameterInfo const& parameter : method.parameters) {
    text += "    " + describedValue(parameter) + '\n';
  }
  bool const isResultNamed = !method.result.name.empty() || !method.result.description.empty();
  if (isResultNamed) text += "    returns " + describedValue(method.result) + '\n';
  return text;
}

// Line by line, since a line break in what a module says is the only control character to keep.
std::string linesForTerminal(std::string_view text) {
  std::string result;
  for (std::size_t begin = 0; begin < text.size();) {
    std::size_t const end = std::min(text.find('\n', begin), text.size());
    result += forTerminal(text.substr(begin, end - begin)) + '\n';
    begin = end + 1;
  }
  return result;
}

std::string describedModule(KXModuleInfo const& module) {
  std::string text = module.name + '\n';
  if (!module.description.empty()) text += module.description + '\n';
  for (KXMethodInfo const& method : module.methods) text += describedMethod(method);
  return linesForTerminal(text);
}

KXModuleInfo infoOf(KXSession const& session, std::string const& name) {
  return session.broker().getProxy(name, 0)->describe();
}

// A module that went away since it was listed, or hangs, keeps nobody from hearing of the others.
std::string descriptionOf(KXSession const& session, std::string const& name) {
  try {
    return forTerminal(infoOf(session, name).description);
  } catch (KXError const& error) {
    return fmt::format("({})", forTerminal(error.what()));
  }
}

std::string listedModules(KXSession const& session, std::vector<std::string> const& names) {
  std::size_t width = 0;
  for (std::string const& name : names) width = std::max(width, displayWidth(forTerminal(name)));
  std::string text;
  for (std::string const& name : names) {
    text +=
        fmt::format("{}  {}\n", fitToWidth(forTerminal(name), width), descriptionOf(session, name));
  }
  return text;
}

// The modules of this process, or those that are meant for everybody on the robot.
std::vector<std::string> namesOfModules(KXSession const& session,
                                        std::optional<KXBusOptions> const& bus) {
  if (!bus) return session.broker().getModuleNames();
  std::vector<std::string> names;
  auto const connection = connectNats(*bus);
  for (KXAnnouncedModule const& each : findAnnounced(*connection)) {
    if (each.robot == bus->robot) names.push_back(each.module);
  }
  return names;
}

}  // namespace

int describe(KXDescribeOptions const& options, KXOutput& output, KXStop const& stop) {
  // Without a robot all modules that a watch can have, the hardware cycle included.
  KXSession const session({.withVsm = !options.bus,
                           .withWatcher = !options.bus,
                           .libraries = options.libraries,
                           .bus = options.bus},
                          stop);
  if (options.module.empty()) {
    output.write(listedModules(session, namesOfModules(session, options.bus)));
    return kOk;
  }
  try {
    output.write(describedModule(infoOf(session, options.module)));
    return kOk;
  } catch (KXError const& error) {
    if (error.getKind() != KXError::Kind::NotFound) throw;
  }
  std::vector<std::string> const names = namesOfModules(session, options.bus);
  throw KXToolError(kNothingThere,
                    fmt::format("unknown module '{}', loaded: '{}'{}", forTerminal(options.module),
                                fmt::join(names, "', '"), nearestHint(options.module, names)));
}

}  // namespace KX::tool
