// The client of docs/clients.md, in JavaScript, with a robot.

#include <filesystem>
#include <string>

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tests/bus/natsserver.hpp>
#include <tests/support/childprocess.hpp>

namespace KX::testing {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

TEST(JavaScriptClient, ListsModulesReadsKeysPrintsSamplesAndErrors) {
  NatsServer const server;
  ChildProcess host({KX_BIN_DIR "/kx", "host", "--bus", server.url(), "--robot", "r 1"});
  host.waitForErrorText("serving");
  ChildProcess watcher({KX_BIN_DIR "/memorywatcher", "--bus", server.url(), "--robot", "r 1"});
  watcher.waitForErrorText("serving");
  std::filesystem::path const place = KX_CLIENT_DIR;
  std::filesystem::create_directories(place);
  for (char const* const name : {"client.mjs", "package.json", "package-lock.json"}) {
    std::filesystem::copy_file(KX_SOURCE_DIR "/docs/examples/" + std::string(name), place / name,
                               std::filesystem::copy_options::overwrite_existing);
  }

  ChildProcess install({"/bin/sh", "-c",
                        "cd \"$0\" && exec npm ci --no-audit --no-fund "
                        "--fetch-retries=1 --fetch-timeout=20000 --prefer-offline",
                        place});
  ASSERT_EQ(install.waitForEnd(), 0)
      << "npm did not install the client's packages; it needs npm (./dev test installs it) and a "
         "network, or its cache:\n"
      << install.getErrors();
  ChildProcess client({"/bin/sh", "-c", "exec node \"$0/client.mjs\" 'r 1'", place},
                      {{"KX_BUS", server.url()}});

  EXPECT_EQ(client.waitForEnd(), 0) << client.getErrors();
  EXPECT_THAT(client.getOutput(),
              AllOf(HasSubstr("KXMemory: 16 methods\n"), HasSubstr("KXMemoryWatcher: 14 methods\n"),
                    ContainsRegex("Host/Load/1min = [0-9.]+\n"),
                    ContainsRegex("20[0-9-]+T[0-9:.]+Z Host/Load/5min [0-9.]+\n"),
                    HasSubstr("error 404: KXMemory.getData: unknown key 'No/Such/Key'\n")));
}

}  // namespace
}  // namespace KX::testing
