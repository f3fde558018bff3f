#include <host/bus/kxbusobservers.hpp>

#include <utility>

namespace KX {

class KXBusObservers::Observation : public KXBusSubscription {
 public:
  Observation(KXBusObservers& observers, std::shared_ptr<Handler> handler)
      : mObservers(observers), mHandler(std::move(handler)) {}
  ~Observation() override {
    {
      std::lock_guard const lock(mObservers.mMutex);
      std::erase(mObservers.mHandlers, mHandler);
    }
    mHandler->end();
  }

 private:
  KXBusObservers& mObservers;
  std::shared_ptr<Handler> const mHandler;
};

std::unique_ptr<KXBusSubscription> KXBusObservers::add(KXBus::EventHandler handler) {
  auto added = std::make_shared<Handler>(std::move(handler));
  auto observation = std::make_unique<Observation>(*this, added);
  std::lock_guard const lock(mMutex);
  mHandlers.push_back(std::move(added));
  return observation;
}

void KXBusObservers::tell(KXBusEvent const& event) {
  std::vector<std::shared_ptr<Handler>> handlers;
  {
    std::lock_guard const lock(mMutex);
    handlers = mHandlers;
  }
  for (auto const& handler : handlers) handler->call(event);
}

}  // namespace KX
