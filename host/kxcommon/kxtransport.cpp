#include <kxcommon/kxtransport.hpp>

namespace KX {

KXTransport::~KXTransport() = default;

}  // namespace KX
