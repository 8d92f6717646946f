#include "host/bgp/BgpTrace.h"

namespace Routing::Bgp {

Ovk::TraceFacility& bgpTraceFacility() {
   static Ovk::TraceFacility facility("Bgp", "bgp");
   return facility;
}

} // namespace Routing::Bgp
