#include "BgpFlowspec/FlowspecRedirectVrfId.h"

#include <ostream>

namespace Routing::Bgp::FlowspecPlugin {

std::string FlowspecRedirVrfId::valueToStrep() const {
   return "Value('Routing::Bgp::FlowspecPlugin::FlowspecRedirVrfId', ** {'vrfId': " + std::to_string(vrfId) +
          ", 'flowspecExtComm': " + std::to_string(flowspecExtComm) + "})";
}

std::ostream& operator<<(std::ostream& os, FlowspecRedirVrfId const& v) { return os << v.valueToStrep(); }

Ovk::FwkType const& FlowspecRkToRedirVrfId::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecRkToRedirVrfId");
   return type;
}

} // namespace Routing::Bgp::FlowspecPlugin
