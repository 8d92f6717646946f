#include "BgpFlowspec/FlowspecAdjRibin.h"
#include "host/fwk/FwkType.h"

namespace Routing::Bgp::FlowspecPlugin {

FlowspecAdjRibin::FlowspecAdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
                                   Ovk::Ptr<BgpInputDedupTables const> inputTables,
                                   Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification)
    : AdjRibin(type, nlriType, epoch, std::move(inputTables), std::move(attributeModification)) {}

OVK_FWK_TYPE(FlowspecAdjRibin, "Routing::Bgp::FlowspecPlugin::FlowspecAdjRibin")

AdjRibinPath FlowspecAdjRibin::instantiateRibinPathFromNlriResults(PathKey const& pathKey,
                                                                   Ovk::Ptr<RtAttr const> const& attrs,
                                                                   BgpParseNlriResults const&) const {
   return AdjRibinPath{pathKey.routeKey, attrs, pathKey.source};
}

} // namespace Routing::Bgp::FlowspecPlugin
