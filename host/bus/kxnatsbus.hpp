// The bus over a NATS server.
#pragma once

#include <memory>

#include <host/bus/kxbus.hpp>
#include <host/bus/kxbusoptions.hpp>
#include <kxerror/kxapi.hpp>

namespace KX {

/// Connects, which takes a few seconds at most. KXError: Disconnected if no server is there,
/// Refused if it lets nobody in so or is not the one that the certificates say, Failed if the
/// options make no sense or a file cannot be used. A lost connection and its return are one line in
/// the log each.
KX_API std::unique_ptr<KXBus> connectNats(KXBusOptions const& options);

}  // namespace KX
