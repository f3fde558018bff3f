// Which keys of the store a watch means.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <kx/session.hpp>
#include <kx/watch/samples.hpp>

namespace KX::tool {

/// The keys that these keys and shell patterns mean, each once, sorted by the way they are watched;
/// without any, those that a newcomer wants to see. The name of an existing key is never taken for
/// a pattern. A name that is no pattern and not in the store is watched as unknown. Each argument
/// for which nothing is there is told on stderr.
/// KXToolError (nothing there) if the store has none of them.
KXWatchedKeys findKeys(KXSession const& session, std::vector<std::string> const& patterns);

/// True for a type of the store whose keys are pushed and not sampled.
bool isEventType(std::string_view type);

/// True if the store says that a key is an event; false also if it cannot be asked right now.
bool isEventByNow(KXSession const& session, std::string const& key);

}  // namespace KX::tool
