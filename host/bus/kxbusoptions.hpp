// Where the bus is and how to be let in: what options, the environment and files say.
#pragma once

#include <string>

#include <kxerror/kxapi.hpp>

namespace KX {

/// Secrets stand in files, never in options or the environment: those are seen by every process.
struct KXBusOptions {
  std::string url{};  ///< nats://HOST[:PORT] or tls://HOST[:PORT], without user or password
  std::string robot{"robot"};     ///< whose modules; any text
  std::string credentialsFile{};  ///< NATS credentials (JWT and seed)
  std::string caFile{};           ///< PEM; given, the connection is encrypted, as with tls://
  std::string certFile{};         ///< PEM, this side's certificate
  std::string keyFile{};
  std::string user{};
  std::string passwordFile{};  ///< one line
  std::string tokenFile{};     ///< one line
  int timeoutMs = 5000;        ///< of a call that is given no other
  /// 2^20 bytes of events that wait for each module that takes none, before the oldest are dropped.
  int backlogMb = 8;
};

/// For what a person typed: KXError (Failed) if it makes no sense together, whatever stands in the
/// files.
KX_API void checkBusOptions(KXBusOptions const& options);

}  // namespace KX
