#include "BgpFlowspec/FlowspecPluginHoardReaders.h"
#include "host/fwk/FwkType.h"

#include "host/hoard/AttributeCache.h"

namespace Routing::Bgp::FlowspecPlugin {

// ---- FlowspecGenNexthopHoardReader ----

FlowspecGenNexthopHoardReader::~FlowspecGenNexthopHoardReader() = default;

OVK_FWK_TYPE(FlowspecGenNexthopHoardReader, "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopHoardReader")

// ---- FlowspecPolicyRejectNexthopHoardReader ----

FlowspecPolicyRejectNexthopHoardReader::~FlowspecPolicyRejectNexthopHoardReader() = default;

OVK_FWK_TYPE(FlowspecPolicyRejectNexthopHoardReader, "Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthopHoardReader")

// ---- FlowspecNexthopSelfHoardReader ----

FlowspecNexthopSelfHoardReader::~FlowspecNexthopSelfHoardReader() = default;

OVK_FWK_TYPE(FlowspecNexthopSelfHoardReader, "Routing::Bgp::FlowspecPlugin::FlowspecNexthopSelfHoardReader")

// ---- FlowspecOrreryInitializer ----

void FlowspecOrreryInitializer::initialize() {
   Hoard::NameMap& names = Hoard::NameMap::instance();
   names.insert(Ovk::makePtr<FlowspecGenNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecPolicyRejectNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecNexthopSelfHoardReader>());
}

} // namespace Routing::Bgp::FlowspecPlugin
