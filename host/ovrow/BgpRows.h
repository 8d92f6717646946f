// The BGP show tables' row types.
//
//   "Bgp::bgpFlowspecRoute"       one flowspec rule of a VRF's best-path RIB:
//      key: rule (the rule's text form), destPrefix (lookup only: start at the first rule
//      of that destination); then ruleId, nlri (the NLRI bytes in hex as received, only for
//      a rule forwarding cannot honour), detail, redirectVrf (VRF name), paths (rows of
//      "Bgp::bgpFlowspecPath", the best first), inFsib, notInFsibReason.
//   "Bgp::bgpFlowspecPath"        one path: peer, best, stale (kept from a peer restarting
//      gracefully), asPath, origin, localPref, med, nextHop, communities (standard, extended
//      and IPv6 extended, as text).
//   "Bgp::showBgpFlowspec"        the answer of a flowspec show command: key afiSafi (the
//      family's text), then rules (rows of "Bgp::bgpFlowspecRoute" in rule order).
//   "Bgp::bgpFlowspecPeerEgress"  what one peer was sent for one rule:
//      key: vrf (name), peer (address), rule (text form); then ruleId, source (whose path
//      it is), asPath, origin, localPref, med, nextHop, communities.
#pragma once

#include "host/ovrow/Table.h"

namespace Ovrow::Bgp {

Ovk::Ptr<RowType const> const& bgpFlowspecRouteRowType();
Ovk::Ptr<RowType const> const& bgpFlowspecPathRowType();
Ovk::Ptr<RowType const> const& bgpFlowspecPeerEgressRowType();
Ovk::Ptr<RowType const> const& showBgpFlowspecRowType();

// Registers the BGP row types with `db` (tables of them can then be registered).
void registerBgpRowTypes(Ovdb& db);

} // namespace Ovrow::Bgp
