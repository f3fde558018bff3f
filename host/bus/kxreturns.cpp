#include <host/bus/kxreturns.hpp>

#include <utility>

#include <host/bus/kxwire.hpp>
#include <kxerror/kxerror.hpp>
#include <kxvalue/kxvalue.hpp>

namespace KX {
namespace {

// Whoever may announce may do so as often as he likes, and all are told everything again each time.
constexpr std::chrono::seconds kPause{1};

}  // namespace

KXReturns::KXReturns(KXBus& bus, KXSubjects const& subjects)
    : mEvents(bus.observe([this](KXBusEvent const& event) {
        if (event.kind != KXBusEvent::Kind::Back) return;
        std::list<Handler> handlers;
        {
          std::lock_guard const lock(mState->mutex);
          for (auto const& [module, observer] : mState->observers) {
            handlers.push_back(observer.handler);
          }
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
  auto const entry = mState->observers.emplace(module, Observer{shared, ""});
  return {shared.get(), [state = mState, entry](void*) {
            std::lock_guard const stateLock(state->mutex);
            std::string const name = entry->first;
            state->observers.erase(entry);
            if (!state->observers.contains(name)) state->toldAt.erase(name);
          }};
}

void KXReturns::xHear(KXBusMessage const& message) {
  std::string module;
  std::string instance;
  try {
    KXValue const announced = decodeValue(message.payload);
    module = static_cast<std::string const&>(announced[0]);
    instance = static_cast<std::string const&>(announced[1]);
  } catch (KXError const& error) {
    return mMalformed.tell(
        [&] { return std::string("what was announced cannot be read: ") + messageOf(error); });
  }
  if (!isId(instance)) {
    return mMalformed.tell([] { return "what was announced has no instance"; });
  }
  xRun(xToTell(module, instance));
}

std::list<KXReturns::Handler> KXReturns::xToTell(std::string const& module,
                                                 std::string const& instance) {
  std::lock_guard const lock(mState->mutex);
  auto const [begin, end] = mState->observers.equal_range(module);
  Clock::time_point const now = Clock::now();
  auto const told = mState->toldAt.find(module);
  // What comes too soon is not lost: whoever has the module goes on saying so.
  if (told != mState->toldAt.end() && now - told->second < kPause) return {};
  std::list<Handler> handlers;
  for (auto entry = begin; entry != end; ++entry) {
    if (std::exchange(entry->second.instance, instance) == instance) continue;
    handlers.push_back(entry->second.handler);
  }
  if (!handlers.empty()) mState->toldAt[module] = now;
  return handlers;
}

void KXReturns::xRun(std::list<Handler> const& handlers) {
  for (Handler const& handler : handlers) (*handler)();
}

}  // namespace KX
