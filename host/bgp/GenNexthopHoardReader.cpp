#include "host/bgp/GenNexthopHoardReader.h"
#include "host/fwk/FwkType.h"

namespace Routing::Bgp {

OVK_FWK_TYPE(GenNexthopHoardReader, "Routing::Bgp::GenNexthopHoardReader")

} // namespace Routing::Bgp
