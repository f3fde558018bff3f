// What the benchmarks share: an embedded host with a store and the watcher, and the floor's types.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include <host/rttools/kxhost.hpp>
#include <kxcommon/kxbroker.hpp>
#include <kxcommon/kxmodule.hpp>
#include <kxvalue/kxvalue.hpp>
#include <memorywatcher/kxmemorywatcher.hpp>
#include <tests/support/memorywatcherfortest.hpp>

namespace KX::bench {

/// A host with `keyCount` float keys in the store, all of them watched.
class WatcherHost {
 public:
  explicit WatcherHost(int keyCount, bool withVsm = false);

  KXMemoryWatcher& watcher() { return *mWatcher; }
  boost::shared_ptr<KXBroker> const& broker() { return mHost.getBroker(); }
  std::string const& moduleName() { return mWatcher->getName(); }

 private:
  KXHost mHost;
  boost::shared_ptr<KXMemoryWatcher> mWatcher;
};

/// A sample as one would write it by hand: 32 bytes.
struct FloorSample {
  std::int64_t seconds;
  std::int64_t microseconds;
  std::uint64_t kind;
  double value;
};

/// The store and the buffers by hand: values behind pointers, one vector per key.
struct FloorBuffers {
  explicit FloorBuffers(int keyCount);
  /// Reads all values, one clock read, appends all.
  void cycle();
  void clear();

  struct Source {
    std::uint64_t kind = 4;
    double value = 0;
  };
  std::vector<Source> storage;
  std::vector<Source const*> sources;
  std::vector<std::vector<FloorSample>> buffers;
};

/// Resident memory after ten million samples were buffered, fetched and dropped, as a multiple of
/// what it was before.
double afterPeak();

}  // namespace KX::bench
