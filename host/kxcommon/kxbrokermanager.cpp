#include <kxcommon/kxbrokermanager.hpp>

#include <boost/smart_ptr/make_shared.hpp>

#include <kxcommon/kxbroker.hpp>

namespace KX {
namespace {

struct Installed {
  std::mutex mutex;
  boost::shared_ptr<KXBrokerManager> manager;  // guarded by mutex
};

// Here and not in the header, so that there is one for all libraries of the process.
Installed& installed() {
  static Installed instance;
  return instance;
}

}  // namespace

void KXBrokerManager::setInstance(boost::shared_ptr<KXBrokerManager> const& manager) {
  std::lock_guard<std::mutex> const lock(installed().mutex);
  installed().manager = manager;
}

boost::shared_ptr<KXBrokerManager> KXBrokerManager::getInstance() {
  std::lock_guard<std::mutex> const lock(installed().mutex);
  if (!installed().manager) installed().manager = boost::make_shared<KXBrokerManager>();
  return installed().manager;
}

void KXBrokerManager::addBroker(boost::shared_ptr<KXBroker> const& broker) {
  std::lock_guard<std::mutex> const lock(mMutex);
  std::erase_if(mBrokers, [](auto const& known) { return known.expired(); });
  for (boost::weak_ptr<KXBroker> const& known : mBrokers) {
    // Compared without locking: that could leave the last reference to another broker here.
    if (!known.owner_before(broker) && !broker.owner_before(known)) return;
  }
  mBrokers.emplace_back(broker);
}

std::vector<boost::shared_ptr<KXBroker>> KXBrokerManager::getBrokers() const {
  std::lock_guard<std::mutex> const lock(mMutex);
  std::vector<boost::shared_ptr<KXBroker>> brokers;
  for (boost::weak_ptr<KXBroker> const& known : mBrokers) {
    if (auto broker = known.lock()) brokers.push_back(std::move(broker));
  }
  return brokers;
}

}  // namespace KX
