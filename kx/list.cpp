// kx list: the keys of the store.
#include <fmt/format.h>

#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/text.hpp>

namespace KX::tool {

int list(KXListOptions const& options, KXOutput& output, KXStop const& stop) {
  KXSession const session({.libraries = options.libraries, .bus = options.bus}, stop);
  session.awaitMatches({options.pattern}, stop);
  std::vector<std::string> const keys = session.keys(options.pattern);
  if (keys.empty()) {
    throw KXToolError(kNothingThere, session.noMatchText({options.pattern}));
  }
  std::string text;
  for (std::string const& key : keys) {
    std::string const type = options.withTypes ? session.typeOf(key) : "";
    if (options.withTypes && type.empty()) continue;  // gone since the keys were listed
    text += (options.withTypes ? fmt::format("{:<12} ", type) : "") + forTerminal(key) + '\n';
  }
  output.write(text);
  return kOk;
}

}  // namespace KX::tool
