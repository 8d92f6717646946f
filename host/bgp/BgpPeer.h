// Who a path came from, and the way out to a peer.
//
// BgpPeer is the identity of one BGP peer as the RIB sees it: a small value, passed wherever
// RIB code needs to know where a path came from (best-path tie-breaks, show tables, what to
// advertise to whom), so that the RIB and its tests never need a session object.
//
// BgpPeerOutput is one established session's way out: the RIB-out hands it whole UPDATE
// messages and End-of-RIB markers, and paces itself by the bytes the transport still holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

struct BgpPeer {
   Ovnet::IpGenAddr address; // the peer's configured address
   std::uint32_t remoteAs = 0;
   std::uint32_t localAs = 0;  // our AS on this session
   std::uint32_t routerId = 0; // the peer's BGP identifier; 0 until its OPEN is known
   BgpVrfIdBase vrfId;         // the VRF the session serves

   // RFC 4271 section 1.1: a session between speakers of one AS.
   bool internal() const noexcept { return remoteAs == localAs; }
   // "192.0.2.1 AS 65002".
   std::string str() const;
   friend bool operator==(BgpPeer const&, BgpPeer const&) = default;
};
std::ostream& operator<<(std::ostream& os, BgpPeer const& peer);

class BgpPeerOutput {
 public:
   virtual ~BgpPeerOutput() = default;
   // Queues one whole UPDATE message (header included) for the peer.
   virtual void sendUpdate(std::span<std::uint8_t const> message) = 0;
   // Queues the End-of-RIB marker of `family` (RFC 4724 section 2).
   virtual void sendEndOfRib(AfiSafi family) = 0;
   // Queues a ROUTE-REFRESH for `family` (RFC 2918): the peer is asked for its routes again.
   virtual void sendRouteRefresh(AfiSafi family) = 0;
   // Bytes queued and not yet written to the peer.
   virtual std::size_t queuedBytes() const = 0;
   // `drained` runs on the task thread each time the queue has been written out; empty: no
   // call. It is dropped when the session ends.
   virtual void drainedCallbackIs(std::function<void()> drained) = 0;
   // The session's local transport address (the next hop the agent gives its routes);
   // unspecified when unknown.
   virtual Ovnet::IpGenAddr localAddress() const { return {}; }
};

} // namespace Routing::Bgp
