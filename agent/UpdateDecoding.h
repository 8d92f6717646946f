// Received UPDATE messages through the host's UPDATE decoder and the flowspec plugin.
//
// UpdateDecoding is the agent's UpdateSink. It installs the flowspec parse plugin state
// machine of IPv4 and IPv6 flowspec in the host's rule collections, over the default VRF's
// route-key and next-hop dedup tables, and gives every established session a decoder set up
// with what the session negotiated (4-octet AS numbers; LOCAL_PREF discarded from external
// peers). Each UPDATE's RFC 7606 outcome is applied: a session reset returns the
// NOTIFICATION the decoder chose, treat-as-withdraw takes the UPDATE's announced rules as
// withdrawn, and every error is logged and counted per neighbor, per family and per outcome.
//
// Until the adjacency RIB-in exists, each neighbor's received rules are kept as the set of
// their interned route keys per family, emptied when the session goes down.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "agent/Neighbor.h"
#include "host/bgp/BgpUpdateDecoder.h"

namespace Flowspecd {

class UpdateDecoding : public UpdateSink {
 public:
   // `localAs` tells external peers from internal ones.
   explicit UpdateDecoding(Logger& logger);
   ~UpdateDecoding() override;
   UpdateDecoding(UpdateDecoding const&) = delete;
   UpdateDecoding& operator=(UpdateDecoding const&) = delete;

   UpdateOutcome handleUpdate(BgpPeer const& from, MessageView const& update) override;
   void handleEstablished(BgpPeer const& from, Negotiated const& negotiated, BgpPeerOutput& output) override;
   void handleSessionDown(BgpPeer const& from) override;

   // What one neighbor's UPDATEs gave, over all its sessions.
   struct PeerView {
      Routing::Bgp::BgpUpdateDecoderCounters counters;
      std::map<Routing::Bgp::AfiSafi, std::size_t> rules; // rules held now, per family
   };
   // Null for a neighbor that sent nothing yet.
   std::optional<PeerView> peer(Ovnet::IpGenAddr const& neighbor) const;
   // The answer to "show updates": {"neighbors": [{"address", "messages", "outcomes":
   // {"accept", "attribute-discard", "treat-as-withdraw", "session-reset"}, "families":
   // {"ipv4-flowspec": {"updates", "announced", "withdrawn", "refused", "rules"}}, "reasons":
   // {name: count}}]}, neighbors in address order.
   nlohmann::json json() const;

 private:
   struct Peer;
   struct Plugin;
   Peer& peerOf(BgpPeer const& from);
   void startSession(Peer& peer, BgpPeer const& from, Negotiated const* negotiated);

   Logger& logger_;
   std::unique_ptr<Plugin> plugin_;
   std::map<Ovnet::IpGenAddr, std::unique_ptr<Peer>> peers_;
};

} // namespace Flowspecd
