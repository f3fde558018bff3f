// A complete client: an embedded host, the watcher as a library, two keys watched for a second.

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include <binding/kx.hpp>
#include <host/rttools/kxhost.hpp>
#include <host/rttools/kxmodulelibrary.hpp>

namespace {

void watchForASecond() {
  KX::KXHost host({.name = "client"});
  host.loadModule(KX::findLibrary("memorywatcher"));
  auto const store = host.getBroker()->getProxy("KXMemory", 0);
  auto const watcher = host.getBroker()->getProxy("KXMemoryWatcher", 0);

  store->call<void>("insertData", "Arm/Angle", KX::KXValue(0.25));
  store->call<void>("declareEvent", "Arm/Touched");

  watcher->call<void>("startWatching", 100);
  // Added while watching: only then is an event key subscribed. It begins with its value of now.
  watcher->call<void>("addListener", "Arm/Angle");
  watcher->call<void>("addListener", "Arm/Touched");

  store->call<void>("raiseEvent", "Arm/Touched", KX::KXValue("left"));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  watcher->call<void>("stopWatching");

  KX::KXValue const data = watcher->call<KX::KXValue>("getData");
  for (int i = 0; i < data.getSize(); ++i) {
    KX::KXValue const& samples = data[i][1];
    int const count = samples.getSize();
    std::string const last = count == 0 ? "none" : samples[count - 1].toString(1);
    std::printf("%s: %d samples, the last one %s\n", data[i][0].toString().c_str(), count,
                last.c_str());
  }
}

}  // namespace

int main() {
  try {
    watchForASecond();
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "client: %s\n", error.what());
    return 1;
  }
}
