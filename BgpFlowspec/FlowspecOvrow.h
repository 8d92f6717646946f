// The flowspec show tables' helpers.
#pragma once

#include <string>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp::FlowspecPlugin {

// The key a show command's rule text names in `table`, which must be a flowspec route-key
// table: the table's key, or an orphan of it (FlowspecRouteKeyDedupTable::
// lookupOrCreateOrphanFromRkAttrs).
inline FlowspecRouteKey::PtrConst dedupFlowspecRouteKey(Ovk::Ptr<RouteKeyDedupTable const> const& table,
                                                        std::string const& text) {
   auto const* const flowspecRouteKeyDedupTable = dynamic_cast<FlowspecRouteKeyDedupTable const*>(table.ptr());
   OVK_ASSERT(flowspecRouteKeyDedupTable);
   return flowspecRouteKeyDedupTable->lookupOrCreateOrphanFromRkAttrs(text);
}

} // namespace Routing::Bgp::FlowspecPlugin
