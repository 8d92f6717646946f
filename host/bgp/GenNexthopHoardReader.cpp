#include "host/bgp/GenNexthopHoardReader.h"

namespace Routing::Bgp {

Ovk::FwkType const& GenNexthopHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::GenNexthopHoardReader");
   return type;
}

Ovk::FwkType const& GenNexthopHoardReader::fwkType() const { return classFwkType(); }

} // namespace Routing::Bgp
