// A watch with a watcher that is announced on a robot and that others use too.
#pragma once

#include <kx/commands.hpp>
#include <kx/session.hpp>
#include <kx/watch/samples.hpp>

namespace KX::tool {

/// Gives the robot's watcher the period and the keys that it lacks, starts it unless it runs,
/// prints what it takes until the end, and takes back what it was given but the period, also if
/// that ends by an error. Once it has started, a watcher that does not answer is no error: it is
/// asked again, and given everything again if it is another one.
void watchShared(KXWatchOptions const& options, KXSession const& session, KXWatchedKeys const& keys,
                 KXOutput& output, KXStop const& stop);

}  // namespace KX::tool
