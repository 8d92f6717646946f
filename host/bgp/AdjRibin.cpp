#include "host/bgp/AdjRibin.h"

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

char const* toStrep(AdjRibinType type) {
   switch (type) {
   case AdjRibinType::received: return "received";
   }
   return "?";
}

void BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafiIs(AfiSafi afiSafi, BgpVrfIdBase vrfId,
                                                          Ovk::Ptr<RouteKeyDedupTableBase> routeKeyTable,
                                                          Ovk::Ptr<GenNexthopDedupTableBase> nexthopTable) {
   auto tables = Ovk::makePtr<DedupTablesVrfAfiSafi>(afiSafi, std::move(routeKeyTable), std::move(nexthopTable));
   tables_[vrfId] = tables;
   if (listener_) listener_(vrfId, tables);
}

void BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafiDel(BgpVrfIdBase vrfId) {
   tables_.erase(vrfId);
   if (listener_) listener_(vrfId, nullptr);
}

Ovk::Ptr<DedupTablesVrfAfiSafi> BgpAfiSafiDedupTablesAllVrf::dedupTablesVrfAfiSafi(BgpVrfIdBase vrfId) const {
   auto const it = tables_.find(vrfId);
   return it == tables_.end() ? nullptr : it->second;
}

AdjRibin::AdjRibin(AdjRibinType type, NlriType nlriType, BgpInstanceEpoch epoch,
                   Ovk::Ptr<BgpInputDedupTables const> inputTables,
                   Ovk::Ptr<BgpInputAfiSafiAttributeModificationPluginBase const> attributeModification)
    : type_(type), nlriType_(nlriType), epoch_(epoch), inputTables_(std::move(inputTables)),
      attributeModification_(std::move(attributeModification)) {}

bool AdjRibin::announce(BgpParseNlriResults const& nlri, Ovk::Ptr<RtAttr const> const& attrs) {
   OVK_ASSERT(ribTable_);
   AdjRibinPath const path =
       instantiateRibinPathFromNlriResults(PathKey{nlri.routeKey.ptr(), source_, nlri.pathId}, attrs, nlri);
   if (!path.routeKey || !path.attrs) return false;
   ribTable_->pathIs(*path.routeKey, path.source, path.attrs);
   ++counters_.announced;
   return true;
}

bool AdjRibin::withdraw(RouteKey const& key) {
   OVK_ASSERT(ribTable_);
   if (!ribTable_->pathDel(key, source_)) {
      ++counters_.unknownWithdrawals;
      return false;
   }
   ++counters_.withdrawn;
   return true;
}

void AdjRibinCollection::adjRibinIs(Ovk::Ptr<AdjRibin> const& adjRibin) { adjRibins_[adjRibin->nlriType()] = adjRibin; }

Ovk::Ptr<AdjRibin> AdjRibinCollection::adjRibin(NlriType nlriType) const {
   auto const it = adjRibins_.find(nlriType);
   return it == adjRibins_.end() ? nullptr : it->second;
}

} // namespace Routing::Bgp
