// The RIB-outs of the agent's established sessions (host/bgp/AdjRibOut.h: SessionRibOut), one
// per family a session negotiated and a plugin serves, and what each neighbor's sessions were
// sent over the agent's life.
//
// A RIB-out sends its session the table, End-of-RIB, every later change, and the table again
// on ROUTE-REFRESH; each is registered in the context while its session lasts, so that the
// show tables read what a peer was sent. The next hop it gives routes is the family's hook 1
// answer for the session's local address. Neighbors are keyed as the RIB's sources are: by
// address and VRF.
#pragma once

#include <map>
#include <utility>

#include "agent/Neighbor.h"
#include "host/bgp/AdjRibOut.h"
#include "host/plugin/Plugin.h"

namespace Flowspecd {

class SessionRibOuts {
 public:
   explicit SessionRibOuts(Ovk::Ptr<Plugin::Context> context);
   // Stops every RIB-out.
   ~SessionRibOuts();
   SessionRibOuts(SessionRibOuts const&) = delete;
   SessionRibOuts& operator=(SessionRibOuts const&) = delete;

   // The settings of `neighbor`'s next sessions (by default: none of the interval).
   void optionsIs(Ovnet::IpGenAddr const& neighbor, SessionRibOut::Options options);

   // Starts the RIB-outs of `peer`'s session (whose paths have `source`) over `output`, one
   // per table of `tables` (by family); a family of `negotiated` without a table gets its
   // End-of-RIB at once, there being nothing to send.
   void start(BgpPeer const& peer, RibSource source, Negotiated const& negotiated, BgpPeerOutput& output,
              std::map<AfiSafi, Ovk::Ptr<RibTable>> const& tables);
   // Stops the RIB-outs of `peer`'s session, keeping their counts.
   void stop(BgpPeer const& peer);
   // RFC 2918: `family`'s table again.
   void routeRefresh(BgpPeer const& peer, AfiSafi family);

   // The RIB-out of `neighbor`'s established session for `family`; null when none.
   SessionRibOut const* ribOut(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf, AfiSafi family) const;
   // What `neighbor`'s sessions were sent, per family, over all of them.
   std::map<AfiSafi, RibOutCounters> sent(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const;
   // Rules the neighbor's established session holds from us now, per family.
   std::map<AfiSafi, std::size_t> advertised(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const;

 private:
   using PeerId = std::pair<Ovnet::IpGenAddr, BgpVrfIdBase>;
   struct Neighbor {
      std::map<AfiSafi, Ovk::Ptr<SessionRibOut>> live; // of the established session
      std::map<AfiSafi, RibOutCounters> before;        // by the sessions before it
   };
   Neighbor const* find(Ovnet::IpGenAddr const& neighbor, BgpVrfIdBase vrf) const;

   Ovk::Ptr<Plugin::Context> context_;
   std::map<Ovnet::IpGenAddr, SessionRibOut::Options> options_;
   std::map<PeerId, Neighbor> neighbors_;
};

} // namespace Flowspecd
