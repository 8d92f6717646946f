#include "host/bgp/BgpVrfId.h"

#include <ostream>

namespace Routing::Bgp {

std::ostream& operator<<(std::ostream& os, BgpVrfIdBase vrfId) { return os << vrfId.value(); }

} // namespace Routing::Bgp
