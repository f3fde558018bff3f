// The server that docs/examples/robot-server.conf describes, with certificates and passwords made
// for a test.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include <host/bus/kxbusoptions.hpp>
#include <tests/support/temporarydirectory.hpp>

#include "natsserver.hpp"

namespace KX::testing {

/// The text with one thing in it replaced; std::runtime_error unless it is there exactly once.
std::string replaced(std::string text, std::string const& from, std::string const& to);
std::string readFile(std::filesystem::path const& path);

/// Has docs/examples/certificates.sh make a CA and a server's certificate in a new directory.
std::string makeCertificates(TemporaryDirectory const& directory, std::string const& name,
                             std::string const& serverNames);

/// Ownership: a value of a test. It sets the passwords in this process's environment.
class RobotServer {
 public:
  /// `serverNames` stand in the certificate. `edit` changes the configuration.
  explicit RobotServer(std::string const& serverNames = "DNS:localhost,IP:127.0.0.1",
                       std::string (*edit)(std::string text,
                                           std::string const& directory) = nullptr);

  NatsServer& server() { return *mServer; }
  TemporaryDirectory const& directory() const { return mDirectory; }
  std::string url() const { return "nats://127.0.0.1:" + std::to_string(mServer->port()); }
  /// How a user gets in.
  KXBusOptions options(std::string const& user) const;
  static std::string passwordOf(std::string const& user) { return "secret-of-" + user; }

 private:
  TemporaryDirectory mDirectory;
  std::unique_ptr<NatsServer> mServer;
};

}  // namespace KX::testing
