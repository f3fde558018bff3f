// The brokers of this process.
#pragma once

#include <mutex>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include <kxerror/kxapi.hpp>

namespace KX {

class KXBroker;

/// Knows the brokers of this process, without owning them. Threads: all operations may overlap.
class KX_API KXBrokerManager {
 public:
  /// Installs the process's manager; an empty pointer takes the installed one out.
  static void setInstance(boost::shared_ptr<KXBrokerManager> const& manager);
  /// The installed manager; installs a new one if there is none.
  static boost::shared_ptr<KXBrokerManager> getInstance();

  /// Adding a broker twice is the same as adding it once.
  void addBroker(boost::shared_ptr<KXBroker> const& broker);
  /// Those that are still alive, in the order of adding.
  std::vector<boost::shared_ptr<KXBroker>> getBrokers() const;

 private:
  mutable std::mutex mMutex;
  std::vector<boost::weak_ptr<KXBroker>> mBrokers;
};

}  // namespace KX
