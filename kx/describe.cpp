// kx describe: what the modules say about themselves, word for word.
#include <algorithm>

#include <fmt/format.h>

#include <kxcommon/kxmethodinfo.hpp>
#include <kxcommon/kxmodulecore.hpp>

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

std::string describedModule(KXModuleCore const& module) {
  std::string text = module.getName() + '\n';
  if (!module.getModuleDescription().empty()) text += module.getModuleDescription() + '\n';
  for (KXMethodInfo const& method : module.getMethods()) text += describedMethod(method);
  return linesForTerminal(text);
}

// What a module says of itself is only known in its own process; null for others.
boost::shared_ptr<KXModuleCore> coreOf(KXSession const& session, std::string const& name) {
  return session.broker().getProxy(name, 0)->getModuleCore();
}

std::string listedModules(KXSession const& session, std::vector<std::string> const& names) {
  std::size_t width = 0;
  for (std::string const& name : names) width = std::max(width, displayWidth(forTerminal(name)));
  std::string text;
  for (std::string const& name : names) {
    auto const core = coreOf(session, name);
    text += fmt::format(
        "{}  {}\n", fitToWidth(forTerminal(name), width),
        core == nullptr ? "(in another process)" : forTerminal(core->getModuleDescription()));
  }
  return text;
}

}  // namespace

int describe(KXDescribeOptions const& options, KXOutput& output, KXStop const& stop) {
  // All modules that a watch can have, the hardware cycle included.
  KXSession const session({.withVsm = true, .withWatcher = true, .libraries = options.libraries},
                          stop);
  std::vector<std::string> const names = session.broker().getModuleNames();
  if (options.module.empty()) {
    output.write(listedModules(session, names));
    return kOk;
  }
  if (std::ranges::find(names, options.module) == names.end()) {
    throw KXToolError(
        kNothingThere,
        fmt::format("unknown module '{}', loaded: '{}'{}", forTerminal(options.module),
                    fmt::join(names, "', '"), nearestHint(options.module, names)));
  }
  auto const core = coreOf(session, options.module);
  if (core == nullptr) {
    throw KXToolError(kFailed, fmt::format("expected module '{}' in this process, it is in another "
                                           "one and cannot be described",
                                           forTerminal(options.module)));
  }
  output.write(describedModule(*core));
  return kOk;
}

}  // namespace KX::tool
