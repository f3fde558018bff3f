// The hardware cycle, raised by hand.
#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>

#include <kxcommon/kxmodule.hpp>

namespace KX {

/// A module "VSM" whose cycle is raised by the test, on the test's thread.
/// Use: `auto vsm = KXModule::createModule<FakeVsm>(broker); vsm->cycle(5);`
class FakeVsm : public KXModule {
 public:
  explicit FakeVsm(boost::shared_ptr<KXBroker> const& broker);

  /// Raises the cycle signal `count` times. What a slot throws comes out here.
  void cycle(int count = 1);
  int getSlotCount() { return static_cast<int>(cycleSignal().num_slots()); }
};

}  // namespace KX
