// A NATS server of a test's own. For one thread of a test, which outlives it.
#pragma once

#include <filesystem>
#include <string>

#include <sys/types.h>

#include <tests/support/temporarydirectory.hpp>

namespace KX::testing {

/// Runs a server on a free port of 127.0.0.1 until destruction; should the test die, the system
/// kills it. What it logs is in logText(). Waiting has limits; std::runtime_error beyond them.
class NatsServer {
 public:
  /// Starts it. `configuration` is added to its file.
  explicit NatsServer(std::string configuration = "");
  ~NatsServer();
  NatsServer(NatsServer const&) = delete;
  NatsServer& operator=(NatsServer const&) = delete;

  /// Starts it again, on the same port.
  void start();
  void kill();  ///< at once, as by kill -9
  void hang();  ///< it does nothing any more, connections stay open
  void goOn();  ///< after hang()
  /// Of its next start.
  void setConfiguration(std::string configuration) { mConfiguration = std::move(configuration); }

  int port() const { return mPort; }
  std::string url() const { return "nats://127.0.0.1:" + std::to_string(mPort); }
  std::string logText() const;
  /// For files that the test needs, gone with the server.
  std::filesystem::path const& directory() const { return mDirectory.path(); }

 private:
  int xPortInFile() const;

  TemporaryDirectory const mDirectory;
  std::string mConfiguration;
  int mPort = -1;  // the server chooses
  pid_t mPid = -1;
};

}  // namespace KX::testing
