// The adjacency RIB-in of a peer's flowspec routes.
#pragma once

#include "host/bgp/AdjRibin.h"

namespace Routing::Bgp::FlowspecPlugin {

class FlowspecAdjRibin : public AdjRibin {
 public:
   FlowspecAdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
                    Ovk::Ptr<BgpInputDedupTables const> inputTables,
                    Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   // The path of one received rule: its key and its UPDATE's attributes. Everything flowspec
   // knows of the rule is in the key already, so the parse results are not read.
   AdjRibinPath instantiateRibinPathFromNlriResults(PathKey const& pathKey, Ovk::Ptr<RtAttr const> const& attrs,
                                                    BgpParseNlriResults const& nlriResults) const override;

 protected:
   ~FlowspecAdjRibin() override = default;
};

} // namespace Routing::Bgp::FlowspecPlugin
