#include <host/bus/kxnatsbus.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include <nats/nats.h>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxnatsline.hpp>
#include <host/bus/kxnatsoptions.hpp>
#include <host/bus/kxnatswatch.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

KXError::Kind kindOf(natsStatus status) {
  switch (status) {
    case NATS_CONNECTION_AUTH_FAILED:
    case NATS_NOT_PERMITTED:
    case NATS_SSL_ERROR:
    case NATS_SECURE_CONNECTION_WANTED:
    case NATS_SECURE_CONNECTION_REQUIRED:
      return KXError::Kind::Refused;
    case NATS_MAX_PAYLOAD:
    case NATS_INVALID_ARG:
    case NATS_INVALID_SUBJECT:
    case NATS_NO_MEMORY:
    case NATS_NO_SERVER_SUPPORT:
      return KXError::Kind::Failed;
    default:
      return KXError::Kind::Disconnected;
  }
}

class NatsBus : public KXBus {
 public:
  explicit NatsBus(KXBusOptions const& options) : NatsBus(makeNatsOptions(options)) {}
  ~NatsBus() override {
    mRetired.end();
    mWatch->close();
    // Ends what the watch may wait for.
    natsConnection_Close(mLine.end().get());
    mWatch->join();
  }

  void publish(KXBusMessage const& message) override {
    checkMessage(message, maxPayload());
    xCheckConnected("publish");
    KXNatsConnection const connection = mLine.connection();
    std::string const subject(message.subject);
    std::string const reply(message.reply);
    char const* const replyText = reply.empty() ? nullptr : reply.c_str();
    auto const size = static_cast<int>(message.payload.size());
    if (message.headers.empty()) {
      xCheck("publish",
             replyText == nullptr
                 ? natsConnection_Publish(connection.get(), subject.c_str(), message.payload.data(),
                                          size)
                 : natsConnection_PublishRequest(connection.get(), subject.c_str(), replyText,
                                                 message.payload.data(), size));
      return;
    }
    natsMsg* made = nullptr;
    xCheck("publish",
           natsMsg_Create(&made, subject.c_str(), replyText, message.payload.data(), size));
    std::unique_ptr<natsMsg, void (*)(natsMsg*)> const owned(made, natsMsg_Destroy);
    for (auto const& [name, value] : message.headers) {
      std::string const trimmed(trimHeaderValue(value));
      if (!trimmed.empty())
        xCheck("publish", natsMsgHeader_Add(made, name.c_str(), trimmed.c_str()));
    }
    xCheck("publish", natsConnection_PublishMsg(connection.get(), made));
  }

  std::unique_ptr<KXBusSubscription> subscribe(std::string const& subject, std::string const& queue,
                                               int threads, Handler handler) override {
    checkSubscription(subject, queue, threads);
    int status = NATS_OK;
    auto made = mLine.subscribe(mRetired, subject, queue, threads, std::move(handler), status);
    xCheck("subscribe", static_cast<natsStatus>(status));
    return made;
  }

  void flush(int timeoutMs) override {
    xCheckConnected("flush");
    auto const status = natsConnection_FlushTimeout(mLine.connection().get(), timeoutMs);
    if (status == NATS_TIMEOUT)
      throwBusError("flush",
                    "the server at '" + mAddress + "' has not answered within " +
                        std::to_string(timeoutMs) + " ms",
                    KXError::Kind::TimedOut);
    xCheck("flush", status);
  }

  std::unique_ptr<KXBusSubscription> observe(EventHandler handler) override {
    return mWatch->observers().add(std::move(handler));
  }
  bool isConnected() const override { return mWatch->isConnected(); }
  std::size_t maxPayload() const override { return mWatch->maxPayload(); }
  std::string const& inboxPrefix() const override { return mInboxPrefix; }
  std::string const& user() const override { return mUser; }
  std::string const& address() const override { return mAddress; }

 private:
  explicit NatsBus(KXNatsOptions options)
      : mAddress(options.address),
        mUser(options.user),
        mInboxPrefix(options.inboxPrefix),
        mOptions(std::move(options.options)) {
    KXNatsWatch::listen(mWatch, mOptions.get());
    natsConnection* made = nullptr;
    auto const status = natsConnection_Connect(&made, mOptions.get());
    KXNatsConnection const connection = ownedConnection(made);
    std::string const text =
        "cannot connect to the bus at '" + mAddress + "': " +
        (status == NATS_NO_SERVER ? "nobody listens there, or there is no host of that name"
                                  : describeNatsStatus(status));
    // By TLS 1.3 this side takes itself to be let in before the server has seen its certificate:
    // what it reads, or writes, next fails.
    bool const isCutOff =
        text.find("SSL_write") != std::string::npos || text.find("SSL_read") != std::string::npos;
    if (status == NATS_PROTOCOL_ERROR || (status == NATS_IO_ERROR && isCutOff))
      throwBusError("connect",
                    text +
                        "; the server has closed the connection, as one does that asks for a "
                        "certificate",
                    KXError::Kind::Refused);
    if (status == NATS_TIMEOUT) throwBusError("connect", text, KXError::Kind::TimedOut);
    if (status != NATS_OK) throwBusError("connect", text, kindOf(status));
    mLine.use(connection);
    mWatch->start(connection, [this] { return xConnectAnew(); });
  }
  KXNatsConnection xConnectAnew() {
    natsConnection* made = nullptr;
    if (natsConnection_Connect(&made, mOptions.get()) != NATS_OK) return nullptr;
    KXNatsConnection connection = ownedConnection(made);
    return mLine.use(connection) ? connection : nullptr;
  }
  void xCheckConnected(char const* method) const {
    if (!isConnected())
      throwBusError(method, "no connection to the bus at '" + mAddress + '\'',
                    KXError::Kind::Disconnected);
  }
  void xCheck(char const* method, natsStatus status) const {
    if (status != NATS_OK)
      throwBusError(method, "the bus at '" + mAddress + "': " + describeNatsStatus(status),
                    kindOf(status));
  }

  std::string const mAddress;
  std::string const mUser;
  std::string const mInboxPrefix;
  std::shared_ptr<KXNatsWatch> const mWatch = std::make_shared<KXNatsWatch>(mAddress, mUser);
  decltype(KXNatsOptions::options) const mOptions;
  KXNatsLine mLine;
  KXBusRetired mRetired;
};

}  // namespace

std::unique_ptr<KXBus> connectNats(KXBusOptions const& options) {
  return std::make_unique<NatsBus>(options);
}

}  // namespace KX
