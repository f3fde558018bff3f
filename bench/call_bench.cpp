// A bound call through the broker with one string argument, typed and as an array of values.

#include <string>

#include <benchmark/benchmark.h>

#include <binding/kxfunctor.hpp>
#include <binding/kxproxycall.hpp>
#include <binding/kxsignature.hpp>

#include "bench/watcherbench.hpp"

namespace KX::bench {
namespace {

class BenchModule : public KXModule {
 public:
  explicit BenchModule(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "Bench") {
    functionName("isLong", getName(), "tells whether a text is long", 0);
    completeAndCheck(&BenchModule::isLong, getCurrentMethodDescription());
    bindMethod(createFunctor(this, &BenchModule::isLong));
  }
  virtual bool isLong(std::string const& text) { return text.size() > 100; }
};

std::string const kMethod = "isLong";
std::string const kArgument = "Device/Joint1/Position";

void typedCall(benchmark::State& state) {
  auto const broker = KXBroker::createBroker("bench");
  KXModule::createModule<BenchModule>(broker);
  auto const proxy = broker->getProxy("Bench", 0);
  for (auto _ : state) benchmark::DoNotOptimize(proxy->call<bool>(kMethod, kArgument));
}

void genericCall(benchmark::State& state) {
  auto const broker = KXBroker::createBroker("bench");
  KXModule::createModule<BenchModule>(broker);
  auto const proxy = broker->getProxy("Bench", 0);
  for (auto _ : state) {
    benchmark::DoNotOptimize(proxy->genericCall(kMethod, KXValue::arrayOf(KXValue(kArgument))));
  }
}

// The same member without any middleware.
void directCall(benchmark::State& state) {
  auto const broker = KXBroker::createBroker("bench");
  auto const module = KXModule::createModule<BenchModule>(broker);
  BenchModule* target = module.get();
  for (auto _ : state) {
    benchmark::DoNotOptimize(target);
    benchmark::DoNotOptimize(target->isLong(kArgument));
  }
}

BENCHMARK(typedCall)->Name("call/typed/ours");
BENCHMARK(genericCall)->Name("call/generic/ours");
BENCHMARK(directCall)->Name("call/floor");

}  // namespace
}  // namespace KX::bench
