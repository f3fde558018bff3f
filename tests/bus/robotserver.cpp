#include "robotserver.hpp"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <sys/stat.h>

#include <tests/support/childprocess.hpp>

namespace KX::testing {

std::string replaced(std::string text, std::string const& from, std::string const& to) {
  auto const at = text.find(from);
  if (at == std::string::npos || text.find(from, at + 1) != std::string::npos)
    throw std::runtime_error("expected exactly once: " + from);
  return text.replace(at, from.size(), to);
}

std::string readFile(std::filesystem::path const& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string makeCertificates(TemporaryDirectory const& directory, std::string const& name,
                             std::string const& serverNames) {
  std::string const place = directory.file(name);
  std::filesystem::create_directory(place);
  ChildProcess child({"/bin/sh", "-c", "cd \"$1\" && exec sh \"$0\" \"$2\"",
                      KX_SOURCE_DIR "/docs/examples/certificates.sh", place, serverNames});
  if (child.waitForEnd() != 0) throw std::runtime_error("no certificates: " + child.getErrors());
  return place;
}

RobotServer::RobotServer(std::string const& serverNames,
                         std::string (*edit)(std::string text, std::string const& directory)) {
  std::string const place = makeCertificates(mDirectory, "certificates", serverNames);
  for (char const* const user : {"host", "module", "viewer", "operator"}) {
    std::string variable = std::string("KX_") + user + "_PASSWORD";
    for (char& c : variable) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    ::setenv(variable.c_str(), passwordOf(user).c_str(), 1);
    mDirectory.write(user, passwordOf(user) + "\n");
  }
  std::string text = readFile(KX_SOURCE_DIR "/docs/examples/robot-server.conf");
  // The test's server says where it listens.
  text = replaced(text, "listen: \"0.0.0.0:4222\"\n", "");
  text = replaced(text, "cert_file: \"/etc/nats/server.pem\"",
                  "cert_file: \"" + place + "/server.pem\"");
  text = replaced(text, "key_file: \"/etc/nats/server.key\"",
                  "key_file: \"" + place + "/server.key\"");
  if (edit != nullptr) text = edit(text, place);
  mServer = std::make_unique<NatsServer>(text);
}

KXBusOptions RobotServer::options(std::string const& user) const {
  return {.url = url(),
          .robot = "r1",
          .caFile = mDirectory.file("certificates/ca.pem"),
          .user = user,
          .passwordFile = mDirectory.file(user)};
}

}  // namespace KX::testing
