// A complete client: an embedded host, the watcher as a library, two keys watched for a second.
// Usage: client PATH_OF_LIBMEMORYWATCHER

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include <binding/kxproxycall.hpp>
#include <host/rttools/kxhost.hpp>

namespace {

void watchForASecond(std::string const& library) {
  KX::KXHost host({.name = "client"});
  host.loadModule(library);
  // [calls]
  auto const store = host.getBroker()->getProxy("KXMemory", 0);
  auto const watcher = host.getBroker()->getProxy("KXMemoryWatcher", 0);

  store->call<void>("insertData", std::string("Arm/Angle"), KX::KXValue(0.25));
  store->call<void>("declareEvent", std::string("Arm/Touched"));

  watcher->call<void>("startWatching", 100);
  // Added while watching: only then is an event key subscribed. It begins with its value of now.
  watcher->call<void>("addListener", std::string("Arm/Angle"));
  watcher->call<void>("addListener", std::string("Arm/Touched"));

  store->call<void>("raiseEvent", std::string("Arm/Touched"), KX::KXValue("left"));
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
  // [calls end]
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "client: expected the path of libmemorywatcher.so\n");
    return 2;
  }
  try {
    watchForASecond(argv[1]);
    return 0;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "client: %s\n", error.what());
    return 1;
  }
}
