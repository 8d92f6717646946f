#include "host/bgp/BgpTrace.h"

namespace Routing::Bgp {

Ovk::TraceFacility& bgpTraceFacility() {
   // Never destroyed: objects released during static destruction may still trace.
   static auto* const facility = new Ovk::TraceFacility("Bgp", "bgp");
   return *facility;
}

} // namespace Routing::Bgp
