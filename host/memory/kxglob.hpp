// Shell patterns over names of any bytes.
#pragma once

#include <string_view>

#include <kxerror/kxapi.hpp>

namespace KX {

/// True if the pattern matches the whole name, byte by byte: `*` any bytes, `/` included, `?` one
/// byte, `[a-z]` one of a set, `[!a-z]` or `[^a-z]` one outside it, `\` takes the next byte as it
/// is. A bracket that is never closed stands for itself. Never fails; time O(pattern * name).
KX_API bool matchesGlob(std::string_view pattern, std::string_view name);

}  // namespace KX
