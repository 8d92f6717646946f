// The adjacency RIB-out of one peer and family: what the agent last sent the peer for each
// route key (RFC 4271 section 3.2, Adj-RIBs-Out).
//
// The agent's sessions keep one per established session and family; the show tables read
// them through the plugin context (Context::ribOut). A route whose advertisement is still
// waiting for the minimum route advertisement interval shows what the peer has now, not what
// it is about to get.
#pragma once

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// What the peer was sent for one route key.
struct AdvertisedPath {
   // The attributes as they went on the wire: the local AS prepended for an external peer,
   // the next hop set, LOCAL_PREF only towards internal peers.
   Ovk::Ptr<RtAttr const> attrs;
   // Whose path it is: the RIB source (0, the agent itself, for an originated rule).
   std::uint32_t source = 0;
};

class AdjRibOut : public Ovk::PtrInterface {
 public:
   // The peer and family this RIB-out sends to.
   virtual BgpPeer const& peer() const = 0;
   virtual AfiSafi afiSafi() const = 0;
   // The path the peer holds from us for `key` (a key of the family's dedup table, or an
   // orphan equal to one); null when none was sent or it was withdrawn since.
   virtual AdvertisedPath const* findAdvertisedPath(RouteKey const& key) const = 0;
   // Routes the peer holds from us.
   virtual std::size_t advertisedRoutes() const = 0;
};

} // namespace Routing::Bgp
