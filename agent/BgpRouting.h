// The agent's routing: received UPDATEs into the RIB through the plugins, per session.
//
// BgpRouting is the sessions' UpdateSink. For each established session it makes an UPDATE
// decoder over the context's rule collections of the families the session negotiated (the
// plugins' parse rules are installed there), the session's adjacency RIB-ins (each family's
// hook 0) and a builder of its interned path attributes. Each accepted UPDATE changes the
// paths of the session's source in the default VRF's RIB tables: withdrawals (and, under
// RFC 7606 treat-as-withdraw, the announcements too) first, then announcements, so that an
// UPDATE that announces and withdraws one rule leaves it announced (RFC 4271 section 4.3
// for the like case of IPv4 prefixes). The table's changes are then flushed to the
// forwarding export, in the same pass of the event loop. A session that goes down takes its
// paths with it (RFC 4271 section 8.2.2).
//
// Each established session also gets a RIB-out per negotiated family (host/bgp/AdjRibOut.h:
// SessionRibOut), registered in the context while the session lasts: it sends the table,
// End-of-RIB, every later change, and the table again on ROUTE-REFRESH. The next hop it
// gives routes is the family's hook 1 answer for the session's local address.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "agent/Neighbor.h"
#include "host/bgp/BgpUpdateDecoder.h"
#include "host/plugin/Plugin.h"

namespace Flowspecd {

class BgpRouting : public UpdateSink {
 public:
   BgpRouting(Logger& logger, Ovk::Ptr<Plugin::Context> context);
   ~BgpRouting() override;
   BgpRouting(BgpRouting const&) = delete;
   BgpRouting& operator=(BgpRouting const&) = delete;

   UpdateOutcome handleUpdate(BgpPeer const& from, MessageView const& update) override;
   void handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) override;
   void handleSessionDown(BgpPeer const& from) override;
   void handleRouteRefresh(BgpPeer const& from, AfiSafi family) override;

   // The RIB-out settings of `neighbor`'s next sessions (by default: none of the interval).
   void ribOutOptionsIs(Ovnet::IpGenAddr const& neighbor, SessionRibOut::Options options);
   // The RIB-out of `neighbor`'s established session for `family`; null when none.
   SessionRibOut const* ribOut(Ovnet::IpGenAddr const& neighbor, AfiSafi family) const;

   Plugin::Context& context() const { return *context_; }
   // The default VRF's RIB table of `family`; null when no plugin serves it.
   Ovk::Ptr<RibTable> ribTable(AfiSafi family) const;

   // What one neighbor's UPDATEs gave, over all its sessions.
   struct PeerView {
      BgpUpdateDecoderCounters counters;
      std::map<AfiSafi, std::size_t> received; // paths in the RIB now, per family
      std::map<AfiSafi, std::size_t> accepted; // of them, the best paths of their rules
      std::map<AfiSafi, std::uint64_t> unknownWithdrawals;
      std::map<AfiSafi, std::uint64_t> fsibRefusals; // its best rules the full FSIB refused
      std::map<AfiSafi, RibOutCounters> sent;        // what its sessions were sent
      std::map<AfiSafi, std::size_t> advertised;     // rules its session holds from us now
   };
   // Empty for a neighbor that never had a session.
   std::optional<PeerView> peer(Ovnet::IpGenAddr const& neighbor) const;

   // "show updates": {"neighbors": [{"address", "messages", "outcomes": {"accept",
   // "attribute-discard", "treat-as-withdraw", "session-reset"}, "families": {"ipv4-flowspec":
   // {"updates", "announced", "withdrawn", "refused", "rules"}}, "reasons": {name: count}}]},
   // neighbors in address order.
   nlohmann::json updatesJson() const;
   // "show summary": {"vrfs": [{"name", "id", "families": {"ipv4-flowspec": {"rules",
   // "paths", "indexBytes", "fsib": {"added", "replaced", "deleted", "refusedFull",
   // "notExportable"}}}}], "attributeSets", "attributeSetsBuilt", "attributeSetsReused"}.
   nlohmann::json summaryJson() const;
   // The export state machine of the default VRF's `family`; null when nothing exports.
   Ovk::Ptr<FwdTgtRouteConfigSm> exportSm(AfiSafi family) const;

   // Keys of the table's order a purge of a session's paths visits per turn of the event
   // loop: about 10 ms of work.
   static constexpr std::size_t kPurgeKeysPerSlice = 16384;
   // While the full FSIB goes on refusing rules, how often the log says how many.
   static constexpr std::chrono::seconds kRefusalReport{10};
   // Tables whose paths of a session that went down are still being removed.
   std::size_t purgesPending() const;
   // Logs refusals of the full FSIB: the first at once, then what came since every
   // kRefusalReport while they go on. Runs after every UPDATE; callers that change the RIB
   // otherwise (originated rules) call it too.
   void noteRefusals();

 private:
   struct Peer;
   Peer* peerOf(BgpPeer const& from) const;
   void flush(Peer& p);
   void startRibOuts(Peer& p, Negotiated const& negotiated, BgpPeerOutput& output);
   // Stops the session's RIB-outs, keeping their counts.
   void stopRibOuts(Peer& p);
   void armRefusalTimer();
   std::uint64_t fsibRefusals() const;
   // Removes a slice of at most `budget` keys' worth of the paths of `p`'s last session and
   // flushes; true when some remain.
   bool purgeStep(Peer& p, std::size_t budget);
   void schedulePurge();

   Logger& logger_;
   Ovk::Ptr<Plugin::Context> context_;
   std::map<Ovnet::IpGenAddr, std::unique_ptr<Peer>> peers_;
   std::map<Ovnet::IpGenAddr, SessionRibOut::Options> ribOutOptions_;
   std::uint64_t refusalsLogged_ = 0;
   std::optional<Ovk::TaskId> refusalTimer_;
   std::optional<Ovk::TaskId> purgeTask_;
};

} // namespace Flowspecd
