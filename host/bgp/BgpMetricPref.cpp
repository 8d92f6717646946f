#include "host/bgp/BgpMetricPref.h"

#include <ostream>

namespace Routing::Bgp {

std::ostream& operator<<(std::ostream& os, BgpMetricPref m) {
   return os << "metric=" << m.metric() << " pref=" << static_cast<unsigned>(m.pref());
}

} // namespace Routing::Bgp
