// The BGP classes' own trace facility ("Bgp", trace file "bgp"), for what the host's generic
// route keys and tables trace. Address families trace on facilities of their own.
#pragma once

#include "host/fwk/Trace.h"

namespace Routing::Bgp {

Ovk::TraceFacility& bgpTraceFacility();

} // namespace Routing::Bgp
