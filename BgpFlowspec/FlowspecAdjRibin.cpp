#include "BgpFlowspec/FlowspecAdjRibin.h"

namespace Routing::Bgp::FlowspecPlugin {

FlowspecAdjRibin::FlowspecAdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
                                   Ovk::Ptr<BgpInputDedupTables const> inputTables,
                                   Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification)
    : AdjRibin(type, nlriType, epoch, std::move(inputTables), std::move(attributeModification)) {}

Ovk::FwkType const& FlowspecAdjRibin::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecAdjRibin");
   return type;
}

Ovk::FwkType const& FlowspecAdjRibin::fwkType() const { return classFwkType(); }

AdjRibinPath FlowspecAdjRibin::instantiateRibinPathFromNlriResults(PathKey const& pathKey,
                                                                   Ovk::Ptr<RtAttr const> const& attrs,
                                                                   BgpParseNlriResults const&) const {
   return AdjRibinPath{pathKey.routeKey, attrs, pathKey.source};
}

} // namespace Routing::Bgp::FlowspecPlugin
