// What the options of a bus mean to the NATS library.
#pragma once

#include <memory>
#include <string>

#include <host/bus/kxbusoptions.hpp>

struct __natsOptions;

namespace KX {

struct KXNatsOptions {
  std::unique_ptr<__natsOptions, void (*)(__natsOptions*)> options;
  std::string address;      ///< "nats://HOST:PORT", with a port always
  std::string user;         ///< escaped
  std::string inboxPrefix;  ///< "_INBOX" or "_INBOX_USER"
};

/// Reads the files. KXError (Failed) says which option or file is of no use; secrets are in no
/// text.
KXNatsOptions makeNatsOptions(KXBusOptions const& options);

/// What is known of a failure of the library's on this thread.
std::string describeNatsStatus(int status);

}  // namespace KX
