#include <host/bus/kxannounced.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>

#include <unistd.h>
#include <nlohmann/json.hpp>

#include <kxerror/kxerror.hpp>

namespace KX {
namespace {

using Json = nlohmann::json;
using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kLongest = 2s;
constexpr char kSubject[] = "$SRV.INFO";

// None if it is the answer of another kind of service.
std::optional<KXAnnouncedModule> moduleOf(std::string_view answer) {
  Json const json = Json::parse(answer, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  auto const metadata = json.find("metadata");
  if (metadata == json.end() || !metadata->is_object()) return std::nullopt;
  KXAnnouncedModule module;
  std::pair<char const*, std::string*> const fields[] = {{"robot", &module.robot},
                                                         {"module", &module.module},
                                                         {"moduleVersion", &module.moduleVersion},
                                                         {"broker", &module.broker},
                                                         {"instance", &module.instance},
                                                         {"version", &module.version},
                                                         {"started", &module.started}};
  for (auto const& [name, text] : fields) {
    auto const field = metadata->find(name);
    if (field == metadata->end() || !field->is_string()) return std::nullopt;
    *text = field->get<std::string>();
  }
  return module;
}

struct Answers {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<KXAnnouncedModule> modules;  // guarded by mutex
  std::size_t count = 0;                   // guarded by mutex; of all kinds
  std::size_t bytes = 0;                   // guarded by mutex; of all kinds
  SteadyClock::time_point last{};          // guarded by mutex
  bool isNobodyThere = false;              // guarded by mutex
  std::optional<KXBusEvent> failure;       // guarded by mutex

  // Under the mutex. Empty if they are within the bounds.
  std::string excess() const {
    if (count > kMostAnnounced) {
      return "expected at most " + std::to_string(kMostAnnounced) +
             " services to answer, got more of them";
    }
    if (bytes > kMostAnnouncedBytes) {
      return "expected answers of at most " + std::to_string(kMostAnnouncedBytes) +
             " bytes from services, got more of them";
    }
    return "";
  }
};

}  // namespace

std::vector<KXAnnouncedModule> findAnnounced(KXBus& bus, std::chrono::milliseconds quiet) {
  static std::atomic<unsigned> count{0};
  std::string const inbox = bus.inboxPrefix() + ".announced-" + std::to_string(::getpid()) + '-' +
                            std::to_string(++count);
  Answers answers;
  auto const events = bus.observe([&](KXBusEvent const& event) {
    bool const isOurs = event.concerns(kSubject) || event.concerns(inbox);
    if (event.kind != KXBusEvent::Kind::Lost &&
        !(event.kind == KXBusEvent::Kind::Refused && isOurs)) {
      return;
    }
    std::lock_guard const lock(answers.mutex);
    answers.failure = event;
    answers.changed.notify_all();
  });
  auto const subscription = bus.subscribe(inbox, "", 1, [&](KXBusMessage const& message) {
    std::lock_guard const lock(answers.mutex);
    answers.last = SteadyClock::now();
    answers.isNobodyThere = message.isNoResponders;
    answers.changed.notify_all();
    ++answers.count;
    answers.bytes += message.payload.size();
    if (!answers.excess().empty()) return;
    if (auto module = moduleOf(message.payload)) answers.modules.push_back(*std::move(module));
  });

  auto const end = SteadyClock::now() + kLongest;
  bus.publish({.subject = kSubject, .reply = inbox});
  std::unique_lock lock(answers.mutex);
  answers.last = SteadyClock::now();
  while (!answers.isNobodyThere && !answers.failure && answers.excess().empty()) {
    auto const until = std::min(end, answers.last + quiet);
    if (SteadyClock::now() >= until) break;
    answers.changed.wait_until(lock, until);
  }
  if (answers.failure) {
    bool const isLost = answers.failure->kind == KXBusEvent::Kind::Lost;
    throw KXError("KXBus", "findAnnounced",
                  isLost ? "the connection was lost while robots were asked for"
                         : "not allowed to ask for robots: " + answers.failure->text,
                  "bus/kxannounced", 0,
                  isLost ? KXError::Kind::Disconnected : KXError::Kind::Refused);
  }
  if (auto const excess = answers.excess(); !excess.empty()) {
    throw KXError("KXBus", "findAnnounced", excess, "bus/kxannounced", 0);
  }
  std::ranges::sort(answers.modules);
  return answers.modules;
}

}  // namespace KX
