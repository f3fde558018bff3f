#include <host/bus/kxreturns.hpp>

#include <utility>

#include <host/bus/kxwire.hpp>

namespace KX {

KXReturns::KXReturns(KXBus& bus, KXSubjects const& subjects)
    : mEvents(bus.observe([this](KXBusEvent const& event) {
        if (event.kind != KXBusEvent::Kind::Back) return;
        std::list<Handler> handlers;
        {
          std::lock_guard const lock(mState->mutex);
          for (auto const& [module, handler] : mState->handlers) handlers.push_back(handler);
        }
        xRun(handlers);
      })),
      mAnnouncements(bus.subscribe(subjects.here(), "", 1,
                                   [this](KXBusMessage const& message) { xHear(message); })) {}

void KXReturns::announce(KXBus& bus, KXSubjects const& subjects, std::string const& module,
                         std::string const& instance) {
  std::string const subject = subjects.here();
  std::string const payload = encodeValue(KXValue::arrayOf(module, instance));
  bus.publish({.subject = subject, .payload = payload});
}

std::shared_ptr<void> KXReturns::observe(std::string const& module, std::function<void()> handler) {
  auto const shared = std::make_shared<std::function<void()>>(std::move(handler));
  std::lock_guard const lock(mState->mutex);
  auto const entry = mState->handlers.emplace(module, shared);
  return {shared.get(), [state = mState, entry](void*) {
            std::lock_guard const stateLock(state->mutex);
            std::string const name = entry->first;
            state->handlers.erase(entry);
            if (!state->handlers.contains(name)) state->instances.erase(name);
          }};
}

void KXReturns::xHear(KXBusMessage const& message) {
  KXValue const announced = decodeValue(message.payload);
  if (announced.getType() != KXValue::TypeArray || announced.getSize() != 2) return;
  std::string const module = announced[0].toString();
  std::string const instance = announced[1].toString();
  std::list<Handler> handlers;
  {
    std::lock_guard const lock(mState->mutex);
    auto const [begin, end] = mState->handlers.equal_range(module);
    if (begin == end) return;
    std::string& last = mState->instances[module];
    if (last == instance) return;
    last = instance;
    for (auto entry = begin; entry != end; ++entry) handlers.push_back(entry->second);
  }
  xRun(handlers);
}

void KXReturns::xRun(std::list<Handler> const& handlers) {
  for (Handler const& handler : handlers) (*handler)();
}

}  // namespace KX
