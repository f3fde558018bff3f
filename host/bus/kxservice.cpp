#include <host/bus/kxservice.hpp>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include <host/bus/kxbusrules.hpp>
#include <host/bus/kxsubject.hpp>
#include <host/bus/kxutctext.hpp>

namespace KX {
namespace {

using Json = nlohmann::json;

constexpr char kQueue[] = "q";
constexpr char kType[] = "io.nats.micro.v1.";

// Names of services and endpoints are of these characters alone.
std::string serviceName(std::string const& name) {
  std::string result = name.empty() ? "_" : name;
  for (char& c : result) {
    bool const isAllowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '_' || c == '-';
    if (!isAllowed) c = '_';
  }
  return result;
}

struct Endpoint {
  std::string method;
  std::string name;
  std::string subject;
  std::string description;
};

// One for each name: overloads share their subject. Names that are allowed stay as they are, of the
// others those that would be alike are numbered.
std::vector<Endpoint> endpointsOf(KXModuleInfo const& module, KXSubjects const& subjects) {
  std::vector<Endpoint> endpoints;
  std::set<std::string> methods;
  std::set<std::string> names;
  for (KXMethodInfo const& method : module.methods) {
    if (!methods.insert(method.name).second) continue;
    endpoints.push_back({.method = method.name,
                         .name = serviceName(method.name),
                         .subject = subjects.call(parseAddress(module.name), method.name),
                         .description = method.description});
    if (endpoints.back().name == method.name) names.insert(method.name);
  }
  for (Endpoint& endpoint : endpoints) {
    if (endpoint.name == endpoint.method) continue;
    std::string const name = endpoint.name;
    for (int i = 2; !names.insert(endpoint.name).second; ++i)
      endpoint.name = name + '-' + std::to_string(i);
  }
  return endpoints;
}

Json withoutStatistics(Endpoint const& endpoint) {
  return {{"name", endpoint.name}, {"subject", endpoint.subject}, {"queue_group", kQueue}};
}

}  // namespace

struct KXService::Impl {
  Impl(KXBus& theBus, KXServiceIdentity const& identity, KXModuleInfo const& module,
       Statistics theStatistics)
      : bus(theBus),
        started(utcText(identity.started)),
        description(module.description),
        statistics(std::move(theStatistics)),
        endpoints(endpointsOf(module, KXSubjects(identity.robot))),
        head({{"name", serviceName(module.name)},
              {"id", identity.instance},
              {"version", KX_VERSION},
              {"metadata",
               {{"robot", identity.robot},
                {"module", module.name},
                {"moduleVersion", module.version},
                {"broker", identity.broker},
                {"instance", identity.instance},
                {"version", KX_VERSION},
                {"started", started}}}}) {
    struct Verb {
      char const* name;
      Json (Impl::*answer)() const;
    };
    for (Verb const& verb :
         {Verb{"PING", &Impl::ping}, {"INFO", &Impl::info}, {"STATS", &Impl::stats}}) {
      auto const answer = [this, make = verb.answer](KXBusMessage const& message) {
        if (!isInbox(message.reply)) return;
        Json const json = (this->*make)();
        // Texts of modules may hold any bytes.
        std::string const text = json.dump(-1, ' ', false, Json::error_handler_t::replace);
        bus.publish({.subject = message.reply, .payload = text});
      };
      std::string subject = std::string("$SRV.") + verb.name;
      for (std::string const& token :
           {std::string(), serviceName(module.name), identity.instance}) {
        if (!token.empty()) subject += '.' + token;
        subscriptions.push_back(bus.subscribe(subject, "", 1, answer));
      }
    }
  }

  Json ofType(char const* type) const {
    Json json = head;
    json["type"] = std::string(kType) + type;
    return json;
  }
  Json ping() const { return ofType("ping_response"); }
  Json info() const {
    Json json = ofType("info_response");
    json["description"] = description;
    Json& list = json["endpoints"] = Json::array();
    for (Endpoint const& endpoint : endpoints) {
      Json each = withoutStatistics(endpoint);
      each["metadata"] = {{"method", endpoint.method}, {"description", endpoint.description}};
      list.push_back(std::move(each));
    }
    return json;
  }
  Json stats() const {
    Json json = ofType("stats_response");
    json["started"] = started;
    Json& list = json["endpoints"] = Json::array();
    std::vector<KXMethodStatistics> const all = statistics();
    for (Endpoint const& endpoint : endpoints) {
      auto const found = std::ranges::find(all, endpoint.method, &KXMethodStatistics::method);
      KXMethodStatistics const of = found == all.end() ? KXMethodStatistics{} : *found;
      bool const wasCalled = of.requests > 0;
      Json each = withoutStatistics(endpoint);
      each["num_requests"] = of.requests;
      each["num_errors"] = of.errors;
      each["last_error"] = of.lastError;
      each["processing_time"] = wasCalled ? of.processingNs : 0;
      each["average_processing_time"] = wasCalled ? of.processingNs / of.requests : 0;
      list.push_back(std::move(each));
    }
    return json;
  }

  KXBus& bus;
  std::string const started;
  std::string const description;
  Statistics const statistics;
  std::vector<Endpoint> const endpoints;
  Json const head;  ///< what all answers have in common
  // Last: their handlers use everything above.
  std::vector<std::unique_ptr<KXBusSubscription>> subscriptions;
};

KXService::KXService(KXBus& bus, KXServiceIdentity const& identity, KXModuleInfo const& module,
                     Statistics statistics)
    : mImpl(std::make_unique<Impl>(bus, identity, module, std::move(statistics))) {}

KXService::~KXService() = default;

}  // namespace KX
