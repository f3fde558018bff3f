#include <host/bus/kxbus.hpp>

namespace KX {

KXBusSubscription::~KXBusSubscription() = default;

KXBus::~KXBus() = default;

}  // namespace KX
