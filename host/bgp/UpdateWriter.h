// UPDATE messages the agent sends (RFC 4271 section 4.3, RFC 4760, RFC 6793).
//
// The path attributes of a route go out in type order: ORIGIN, AS_PATH, MULTI_EXIT_DISC,
// LOCAL_PREF (internal peers only), ATOMIC_AGGREGATE, COMMUNITIES, MP_REACH_NLRI,
// EXTENDED_COMMUNITIES, AS4_PATH (only to a session without 4-octet AS numbers whose path
// holds an AS above 65535) and IPv6 address specific extended communities. The route keys
// write their own NLRI (RouteKey::serialize); UpdateWriter packs NLRI that share one
// attribute set into as few messages of at most 4096 bytes as hold them, and withdrawals
// into MP_UNREACH_NLRI messages of their own.
//
// exportAttributes makes the attributes a peer is sent from those the RIB holds: the local
// AS prepended towards an external peer, LOCAL_PREF towards internal peers only, the
// session's next hop.
//
// Nothing here allocates per NLRI beyond what the key's serialize() does: a writer keeps one
// message buffer (Serialize, 4096 bytes inline) and the fixed part of the message for the
// current attribute set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpMessage.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/GenNexthop.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/Serialize.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

// How a session reads what it is sent.
struct UpdateSession {
   // Both OPENs carried the 4-octet AS capability (Negotiated::fourOctetAs).
   bool fourOctetAs = true;
   // The peer is in our AS: LOCAL_PREF goes out.
   bool internal = false;
};

// The attributes `to` is sent for a path whose RIB attributes are `rib`: for an external
// peer the local AS (`to.localAs`) prepended (RFC 4271 section 5.1.2), LOCAL_PREF removed
// and MULTI_EXIT_DISC removed unless the path is the agent's own (`local`, RFC 4271 section
// 5.1.4); for an internal peer LOCAL_PREF set (100 when the path has none, section 5.1.5).
// The next hop is `nexthop` (the family's hook 1 for the session; may be null).
PathAttributesContents exportAttributes(PathAttributesContents const& rib, BgpPeer const& to, bool local,
                                        Ovk::Ptr<GenNexthop const> nexthop);

// Appends the path attributes of `attrs` whose type codes lie in [firstType, lastType], in
// type order, as `session` reads them (MP_REACH_NLRI is never among them: the writer puts
// it between the attributes below type 14 and those above).
void encodePathAttributes(Serialize& out, PathAttributesContents const& attrs, UpdateSession session,
                          std::uint8_t firstType = 0, std::uint8_t lastType = 255);

// Bytes of an UPDATE that carries nothing but one MP_UNREACH_NLRI, NLRI aside.
inline constexpr std::size_t kWithdrawOverhead = 19 + 2 + 2 + 4 + 3;
// The largest NLRI (its length field included) a withdrawal can carry: 4066 bytes.
inline constexpr std::size_t kMaxWithdrawnNlriBytes = kMaxMessageSize - kWithdrawOverhead;

// The NLRI bytes one UPDATE can carry with `attrs` (as the peer is sent them:
// exportAttributes) in `family` for `session`; 0 when the attributes alone fill it.
std::size_t maxNlriBytes(AfiSafi family, PathAttributesContents const& attrs, UpdateSession session);

// The NLRI bytes (length field included) one UPDATE can carry with the RIB attributes `rib`
// to any peer the agent of AS `localAs` may send them to: the tightest of external and
// internal, with and without 4-octet AS numbers, with the longest next hop of the family (4
// bytes for IPv4, 16 for IPv6), as its own path; never more than a withdrawal carries.
std::size_t maxNlriBytesToAnyPeer(AfiSafi family, PathAttributesContents const& rib, std::uint32_t localAs);

// The check for a rule before it enters the RIB: true when an NLRI of `nlriBytes` bytes fits
// one UPDATE to any peer (maxNlriBytesToAnyPeer) and its withdrawal fits one too.
inline bool fitsOneUpdate(AfiSafi family, PathAttributesContents const& rib, std::size_t nlriBytes,
                          std::uint32_t localAs) {
   return nlriBytes <= maxNlriBytesToAnyPeer(family, rib, localAs);
}

// Packs NLRI into UPDATE messages for one session and family.
class UpdateWriter {
 public:
   // Each finished message, header included; valid during the call.
   using Emit = std::function<void(std::span<std::uint8_t const>)>;

   UpdateWriter(AfiSafi family, UpdateSession session, Emit emit);
   UpdateWriter(UpdateWriter const&) = delete;
   UpdateWriter& operator=(UpdateWriter const&) = delete;

   // Starts messages announcing with `attrs` (exportAttributes' result; its next hop goes
   // into MP_REACH_NLRI: none when null, or when it is not an address of the family). The
   // message under way is finished first.
   void startAdvertise(PathAttributesContents const& attrs);
   // Starts messages of withdrawals.
   void startWithdraw();
   // Adds one NLRI to the message under way, finishing it first when the NLRI would not fit.
   // False, and nothing added, when the NLRI cannot fit one message with these attributes.
   bool add(std::span<std::uint8_t const> nlri);
   // Finishes the message under way (nothing when it holds no NLRI).
   void flush();

   // The NLRI bytes one message holds with the current attributes.
   std::size_t maxNlri() const;

   // Messages emitted, NLRI written in them, and their bytes.
   std::uint64_t messages() const { return messages_; }
   std::uint64_t nlri() const { return nlri_; }
   std::uint64_t bytes() const { return bytes_; }

 private:
   AfiSafi family_;
   UpdateSession session_;
   Emit emit_;
   // The message around its NLRI: the header, the attributes below type 14 and the MP
   // attribute's fields up to its NLRI; then the attributes above type 15.
   Serialize prefix_;
   Serialize suffix_;
   std::size_t mpLengthAt_ = 0;
   Serialize nlriBytes_; // the NLRI of the message under way
   std::size_t nlriCount_ = 0;
   Serialize message_;
   std::uint64_t messages_ = 0;
   std::uint64_t nlri_ = 0;
   std::uint64_t bytes_ = 0;
};

} // namespace Routing::Bgp
