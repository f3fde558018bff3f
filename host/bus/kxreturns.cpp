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
        Observers observers;
        {
          std::lock_guard const lock(mState->mutex);
          for (auto const& [module, observer] : mState->observers) observers.push_back(observer);
        }
        xTell(observers, "");
      })),
      mAnnouncements(bus.subscribe(subjects.here(), "", 1,
                                   [this](KXBusMessage const& message) { xHear(message); })) {}

void KXReturns::announce(KXBus& bus, KXSubjects const& subjects, std::string const& module,
                         std::string const& instance) {
  std::string const subject = subjects.here();
  std::string const payload = encodeValue(KXValue::arrayOf(module, instance));
  bus.publish({.subject = subject, .payload = payload});
}

std::shared_ptr<void> KXReturns::observe(std::string const& module, std::function<bool()> handler) {
  auto const observer = std::make_shared<Observer>(Observer{std::move(handler)});
  std::lock_guard const lock(mState->mutex);
  auto const entry = mState->observers.emplace(module, observer);
  return {observer.get(), [state = mState, entry](void*) {
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
  xTell(xToTell(module, instance), instance);
}

KXReturns::Observers KXReturns::xToTell(std::string const& module, std::string const& instance) {
  std::lock_guard const lock(mState->mutex);
  auto const [begin, end] = mState->observers.equal_range(module);
  Clock::time_point const now = Clock::now();
  auto const told = mState->toldAt.find(module);
  // What comes too soon is not lost: whoever has the module goes on saying so.
  if (told != mState->toldAt.end() && now - told->second < kPause) return {};
  Observers observers;
  for (auto entry = begin; entry != end; ++entry) {
    if (entry->second->instance != instance) observers.push_back(entry->second);
  }
  if (!observers.empty()) mState->toldAt[module] = now;
  return observers;
}

// Behind the call: one that fails leaves the next sign to be news.
void KXReturns::xTell(Observers const& observers, std::string const& instance) {
  for (auto const& observer : observers) {
    bool const hasBegun = observer->handler();
    std::lock_guard const lock(mState->mutex);
    if (!hasBegun) {
      observer->instance.clear();
    } else if (!instance.empty()) {
      observer->instance = instance;
    }
  }
}

}  // namespace KX
