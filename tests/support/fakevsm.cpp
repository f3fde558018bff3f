#include <tests/support/fakevsm.hpp>

namespace KX {

FakeVsm::FakeVsm(boost::shared_ptr<KXBroker> const& broker) : KXModule(broker, "VSM") {
  setModuleDescription("The hardware cycle, raised by hand.");
}

void FakeVsm::cycle(int count) {
  for (int i = 0; i < count; ++i) cycleSignal()();
}

}  // namespace KX
