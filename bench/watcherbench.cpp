#include "bench/watcherbench.hpp"

#include <sys/time.h>

#include <kxproxies/kxmemoryproxy.hpp>

#include <binding/kxproxycall.hpp>

namespace KX::bench {

WatcherHost::WatcherHost(int keyCount, bool withVsm)
    : mHost(KXHost::Options{.name = "bench", .withVsm = withVsm}),
      mWatcher(KXModule::createModule<KXMemoryWatcher>(mHost.getBroker())) {
  auto const store = mHost.getBroker()->getProxy("KXMemory", 0);
  std::vector<std::string> names;
  for (int i = 0; i < keyCount; ++i) {
    names.push_back("Device/Joint" + std::to_string(i) + "/Position");
    store->call<void>("insertData", names.back(), KXValue(0.5 + i));
  }
  mWatcher->addListeners(names);
}

FloorBuffers::FloorBuffers(int keyCount)
    : storage(static_cast<std::size_t>(keyCount)), buffers(static_cast<std::size_t>(keyCount)) {
  for (Source& source : storage) {
    source.value = 0.5 + static_cast<double>(sources.size());
    sources.push_back(&source);
  }
}

void FloorBuffers::cycle() {
  timeval now{};
  gettimeofday(&now, nullptr);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    buffers[i].push_back({now.tv_sec, now.tv_usec, sources[i]->kind, sources[i]->value});
  }
}

void FloorBuffers::clear() {
  for (auto& buffer : buffers) buffer.clear();
}

}  // namespace KX::bench
