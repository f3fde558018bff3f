// The other side: a robot's host with a store and a module, and the bare client's end of the same.

#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include <binding/kxproxycall.hpp>

#include "bench/bus/busbench.hpp"

namespace KX::bench {
namespace {

using Clock = std::chrono::steady_clock;

// Calls `one` so many times, a gap of nanoseconds apart; without a gap at once.
template <class One>
void pace(int count, int gapNs, One one) {
  Clock::time_point const start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (gapNs > 0) {
      auto const due = start + std::chrono::nanoseconds(std::int64_t{gapNs} * i);
      if (due > Clock::now() + std::chrono::microseconds(60)) std::this_thread::sleep_until(due);
    }
    one();
  }
}

class Bench : public KXModule {
 public:
  explicit Bench(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Bench") {
    publish(*this, {"isLong"}, &Bench::isLong);
    publish(*this, {"raise"}, &Bench::raise);
    publish(*this, {"big"}, &Bench::big);
  }
  ~Bench() override {
    if (mRaiser.joinable()) mRaiser.join();
  }

  bool isLong(std::string const& text) { return text.size() > 100; }

  /// Raises events on a thread of its own, as fast as the subscriber takes them if there is no gap.
  void raise(std::string const& subscriber, int const& count, int const& gapNs) {
    if (mRaiser.joinable()) mRaiser.join();
    mRaiser = std::thread([this, subscriber, count, gapNs] { xRaise(subscriber, count, gapNs); });
  }

  /// What a fetch of a million samples returns: 100 keys, 10 000 batches.
  KXValue big() {
    static KXValue const value = [] {
      std::vector<KXValue> keys;
      for (std::string const& name : keyNames(100)) {
        std::vector<KXValue> samples;
        for (int i = 0; i < 10'000; ++i) {
          samples.push_back(KXValue::arrayOf(
              KXValue::arrayOf(1'700'000'000 + i / 100, i % 100 * 10'000), 0.5 * i));
        }
        keys.push_back(KXValue::arrayOf(name, KXValue(std::move(samples))));
      }
      return KXValue(std::move(keys));
    }();
    return value;
  }

 private:
  void xRaise(std::string const& subscriber, int count, int gapNs) {
    constexpr std::uint64_t kAhead = 50'000;
    auto const broker = getParentBroker();
    auto const store = broker->getProxy("KXMemory", 0);
    auto const transport = broker->getTransport();
    std::uint64_t const before = transport->notificationCounts(subscriber).delivered;
    std::uint64_t raised = 0;
    pace(count, gapNs, [&] {
      store->call<void>("raiseEvent", std::string(kEventKey), KXValue(stampedText()));
      if (++raised % 1000 != 0 || gapNs > 0) return;
      while (raised - (transport->notificationCounts(subscriber).delivered - before) > kAhead) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    });
  }

  std::thread mRaiser;
};

// rawecho.BYTES: an answer of so many bytes.
void onEcho(natsConnection* connection, natsSubscription* /*subscription*/, natsMsg* message,
            void* /*closure*/) {
  static std::string const bytes(8 << 20, 'x');
  std::string const subject = natsMsg_GetSubject(message);
  int const size = std::stoi(subject.substr(subject.rfind('.') + 1));
  natsConnection_Publish(connection, natsMsg_GetReply(message), bytes.data(), size);
  natsMsg_Destroy(message);
}

// rawevents.COUNT.GAP: so many single messages, then the answer.
void onEvents(natsConnection* connection, natsSubscription* /*subscription*/, natsMsg* message,
              void* closure) {
  auto const& events = *static_cast<RawConnection*>(closure);
  std::string const subject = natsMsg_GetSubject(message);
  std::size_t const gapAt = subject.rfind('.');
  std::size_t const countAt = subject.rfind('.', gapAt - 1);
  natsConnection_Publish(connection, natsMsg_GetReply(message), "", 0);
  pace(std::stoi(subject.substr(countAt + 1)), std::stoi(subject.substr(gapAt + 1)), [&] {
    std::string const text = stampedText();
    natsConnection_Publish(events.get(), "rawevent", text.data(), static_cast<int>(text.size()));
  });
  natsConnection_Flush(events.get());
  natsMsg_Destroy(message);
}

}  // namespace

void servePeer(std::string const& url) {
  KXHost::Options options{.bus = KXBusOptions{}, .announced = KXHost::Announced::Everything};
  options.bus->url = url;
  options.bus->robot = kRobot;
  KXHost host(options);
  auto const store = host.getBroker()->getProxy("KXMemory", 0);
  for (std::string const& name : keyNames(kKeyCount)) {
    store->call<void>("insertData", name, KXValue(0.25 * static_cast<double>(name.size())));
  }
  store->call<void>("declareEvent", std::string(kEventKey));
  KXModule::createModule<Bench>(host.getBroker());
  host.announce();

  RawConnection const raw(url);
  RawConnection singles(url);          // sends at once
  RawConnection buffered(url, false);  // gathers
  natsSubscription* subscriptions[3] = {};
  natsConnection_Subscribe(&subscriptions[0], raw.get(), "rawecho.*", onEcho, nullptr);
  natsConnection_Subscribe(&subscriptions[1], raw.get(), "rawevents.*.*", onEvents, &singles);
  natsConnection_Subscribe(&subscriptions[2], raw.get(), "rawgathered.*.*", onEvents, &buffered);
  natsConnection_Flush(raw.get());
  std::fputs("ready\n", stderr);
  while (true) std::this_thread::sleep_for(std::chrono::hours(1));
}

}  // namespace KX::bench
