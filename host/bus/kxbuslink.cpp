#include <host/bus/kxbuslink.hpp>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include <boost/smart_ptr/make_shared.hpp>

#include <fmt/format.h>

#include <host/bus/kxbustransport.hpp>
#include <host/bus/kxclaim.hpp>
#include <host/bus/kxserver.hpp>
#include <host/bus/kxservice.hpp>
#include <ka/runlogged.hpp>
#include <kxcommon/kxproxy.hpp>
#include <kxcommon/kxtask.hpp>
#include <kxerror/kxerror.hpp>

namespace KX {

namespace {

// What the calls of all modules that leave may take together.
constexpr std::chrono::milliseconds kLeaving{500};
// How often those that are here say so. Said once, it would be lost to who was cut off just then:
// two servers may lose each other without their clients' noticing.
constexpr std::chrono::seconds kHeraldPeriod{5};
// For the server to take notice of what is announced.
constexpr int kKnownMs = 2000;

// Whoever is told that a module is there may call it at once: the server has to know of it first.
void xAwaitServer(KXBus& bus) {
  try {
    bus.flush(kKnownMs);
  } catch (KXError const&) {
    // The connection was lost meanwhile: the server learns it from the next one.
  }
}

// A name was lost: on a thread of the broker, since ending what serves it waits for calls.
class Withdrawal : public KXTask {
 public:
  Withdrawal(std::string const& module, std::function<void()> withdraw)
      : KXTask(KXTaskInfo(module, "withdraw")), mWithdraw(std::move(withdraw)) {}
  void run() override { mWithdraw(); }

 private:
  std::function<void()> const mWithdraw;
};

}  // namespace

struct KXBusLink::Impl {
  Impl(std::shared_ptr<KXBus> itsBus, boost::shared_ptr<KXBroker> itsBroker,
       KXBusOptions const& options, std::function<void()> itsOnNameLost)
      : onNameLost(std::move(itsOnNameLost)),
        bus(std::move(itsBus)),
        broker(std::move(itsBroker)),
        robot(options.robot),
        subjects(robot),
        receiver(std::in_place, *bus, subjects, broker),
        transport(boost::make_shared<KXBusTransport>(bus, subjects, options, broker->getName(),
                                                     *receiver)),
        server(std::in_place, *bus, broker, subjects) {
    KXModuleAddress const address = parseAddress("any@" + broker->getName());
    server->serveBroker(address.user, address.nonce);
    broker->setTransport(transport);
  }

  void present(std::string const& module) {
    std::lock_guard const lock(mutex);
    server->serve(module);
    receiver->serve(module);
    KXServiceIdentity identity{robot, broker->getName(), server->instance(),
                               std::chrono::system_clock::now()};
    services[module] =
        std::make_unique<KXService>(*bus, identity, broker->getProxy(module, 0)->describe(),
                                    [this, module] { return server->statistics(module); });
    KXReturns::announce(*bus, subjects, module, server->instance());
    startHerald(module);
  }

  // Holds no lock while it waits for the calls in progress: what ends them may be leave().
  void withdraw(std::string const& module) {
    std::unique_ptr<KXService> service;
    {
      std::lock_guard const lock(mutex);
      if (isClosing) return;
      ++withdrawing;
      if (auto const found = services.find(module); found != services.end()) {
        service = std::move(found->second);
        services.erase(found);
      }
    }
    struct Leave {
      Impl& impl;
      ~Leave() {
        std::lock_guard const lock(impl.mutex);
        --impl.withdrawing;
        impl.hasWithdrawn.notify_all();
      }
    } const leave{*this};
    {
      std::lock_guard const heraldLock(heraldMutex);
      announced.erase(module);
    }
    service.reset();
    server->stopServing(module);
    receiver->withdraw(module);
  }
  void lose(std::string const& module) {
    if (onNameLost) onNameLost();
    withdraw(module);
  }
  void endWithdrawals() {
    std::unique_lock lock(mutex);
    isClosing = true;
    hasWithdrawn.wait(lock, [this] { return withdrawing == 0; });
  }

  std::function<void()> const onNameLost;
  std::shared_ptr<KXBus> const bus;
  boost::shared_ptr<KXBroker> const broker;
  std::string const robot;
  KXSubjects const subjects;
  std::optional<KXEventReceiver> receiver;
  boost::shared_ptr<KXBusTransport> const transport;

  std::optional<KXServer> server;
  std::mutex mutex;
  std::condition_variable hasWithdrawn;
  std::map<std::string, std::unique_ptr<KXService>> services;  // guarded by mutex
  int withdrawing = 0;                                         // guarded by mutex
  bool isClosing = false;                                      // guarded by mutex: none begins
  std::vector<std::unique_ptr<KXClaim>> claims;                // of the thread that announces

  // Says again who is here.
  void startHerald(std::string const& module) {
    std::lock_guard const lock(heraldMutex);
    announced.insert(module);
    if (herald.joinable() || isHeraldOver) return;
    herald = std::thread([this, instance = server->instance()] { runHerald(instance); });
  }
  void runHerald(std::string const& instance) {
    std::unique_lock lock(heraldMutex);
    while (!heraldEnd.wait_for(lock, kHeraldPeriod, [this] { return isHeraldOver; })) {
      for (std::string const& module : announced) {
        try {
          KXReturns::announce(*bus, subjects, module, instance);
        } catch (KXError const&) {
          // The connection is lost, of which the bus tells. The next time comes.
        }
      }
    }
  }
  void endHerald() {
    {
      std::lock_guard const lock(heraldMutex);
      isHeraldOver = true;
    }
    heraldEnd.notify_all();
    if (herald.joinable()) herald.join();
  }
  std::mutex heraldMutex;
  std::condition_variable heraldEnd;
  std::set<std::string> announced;  // guarded by heraldMutex
  bool isHeraldOver = false;        // guarded by heraldMutex
  std::thread herald;

  // Closes the transport when the time of those that leave is up.
  std::mutex leavingMutex;
  std::condition_variable left;
  bool hasLeft = false;  // guarded by leavingMutex
  std::thread leaving;
};

std::string KXBusLink::newBrokerName(KXBus const& bus) {
  std::random_device random;
  return fmt::format("{}.{:08x}", bus.user(), random());
}

KXBusLink::KXBusLink(std::shared_ptr<KXBus> bus, boost::shared_ptr<KXBroker> broker,
                     KXBusOptions const& options, std::function<void()> onNameLost)
    : mImpl(std::make_unique<Impl>(std::move(bus), std::move(broker), options,
                                   std::move(onNameLost))) {}

KXBusLink::~KXBusLink() {
  close();
}

void KXBusLink::announce(std::vector<std::string> const& modules) {
  Impl& impl = *mImpl;
  std::vector<std::unique_ptr<KXClaim>> claims;
  for (std::string const& module : modules) {
    auto const onWithdrawn = [&impl, module] {
      // After a shutdown of the broker there is nothing left to withdraw.
      ka::log::runLogged(
          "KXBus", "withdraw", [&] { return "withdrawing '" + module + "' failed"; },
          [&] {
            impl.broker->addTask(
                "withdraw " + module,
                boost::make_shared<Withdrawal>(module, [&impl, module] { impl.lose(module); }));
          });
    };
    claims.push_back(std::make_unique<KXClaim>(*impl.bus, impl.robot, module,
                                               impl.server->instance(), onWithdrawn));
  }
  KXClaim::acquireAll(claims);

  try {
    for (std::string const& module : modules) impl.present(module);
  } catch (...) {
    for (std::string const& module : modules) impl.withdraw(module);  // the names are free again
    throw;
  }
  xAwaitServer(*impl.bus);
  for (auto& claim : claims) {
    // Lost meanwhile, before there was anything to withdraw.
    if (!claim->isHeld()) impl.lose(claim->module());
    impl.claims.push_back(std::move(claim));
  }
}

void KXBusLink::leave() {
  Impl& impl = *mImpl;
  if (!impl.server || impl.leaving.joinable()) return;
  impl.leaving = std::thread([&impl] {
    std::unique_lock lock(impl.leavingMutex);
    impl.left.wait_for(lock, kLeaving, [&] { return impl.hasLeft; });
    impl.transport->close();
  });
  impl.endHerald();
  std::map<std::string, std::unique_ptr<KXService>> services;
  {
    std::lock_guard const lock(impl.mutex);
    services.swap(impl.services);
  }
  impl.server->refuse();
}

void KXBusLink::close() {
  Impl& impl = *mImpl;
  if (!impl.server) return;
  leave();
  // Calls in progress have ended by now, or end when the transport is closed: by the module that
  // left, or by the time that those that leave have.
  impl.endWithdrawals();
  impl.transport->detachReceiver();
  impl.receiver.reset();
  impl.server.reset();
  impl.claims.clear();  // Last: the next one that has the name meets nobody who still answers.
  {
    std::lock_guard const lock(impl.leavingMutex);
    impl.hasLeft = true;
  }
  impl.left.notify_all();
  impl.leaving.join();
  impl.broker->setTransport(nullptr);
}

}  // namespace KX
