// The host's UPDATE message decoder (RFC 4271 section 4.3, RFC 4760, RFC 7606).
//
// decode() reads one whole BGP message, header included: the withdrawn routes, the path
// attributes (ORIGIN, AS_PATH with 2- or 4-octet AS numbers, NEXT_HOP, MULTI_EXIT_DISC,
// LOCAL_PREF, ATOMIC_AGGREGATE, AGGREGATOR, COMMUNITIES, EXTENDED_COMMUNITIES, IPv6 address
// specific extended communities, MP_REACH_NLRI, MP_UNREACH_NLRI) and the NLRI field. The
// NLRI and the MP_REACH_NLRI next hop of a family are handed to the sub-rules registered in
// that family's rule collections (BgpParseRuleCollections.h); families without rules are
// skipped.
//
// Every error is counted under a BgpParseCountReason on the UPDATE's results and recorded
// with the action RFC 7606 section 2 names for it; the UPDATE's action is the strongest one
// met (RFC 7606 section 3.f):
//   attribute discard  the attribute is ignored, the rest of the UPDATE stands;
//   treat-as-withdraw  every route the UPDATE announces is to be taken as withdrawn;
//   session reset      the session ends with the NOTIFICATION the decoder chose; decoding
//                      stops at the error.
// Where each error stands and why is in the table of BgpUpdateDecoder.cpp. Nothing here
// throws, and no input makes the decoder read outside the message.
//
// The decoder keeps no view of the message beyond the next decode(): the result refers to
// the message's bytes and is valid while they are and until the next call. Its vectors and
// its scratchpad are reused, so an UPDATE costs no heap allocation once the decoder has
// seen one as large; the route keys come out of the family's dedup table.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpMessage.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/BgpParseRules.h"
#include "host/fwk/Ptr.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

// The approaches of RFC 7606 section 2, weakest first.
enum class BgpUpdateAction : std::uint8_t { accept, attributeDiscard, treatAsWithdraw, sessionReset };
// "accept", "attribute-discard", "treat-as-withdraw", "session-reset".
char const* toStrep(BgpUpdateAction action);

// The NOTIFICATION a session reset sends (RFC 4271 section 4.5): error code 1 (Message
// Header Error) or 3 (UPDATE Message Error), its subcode, and the data: the attribute at
// fault, type to value, where RFC 4271 section 6.3 asks for it.
struct BgpUpdateNotification {
   std::uint8_t code = 0;
   std::uint8_t subcode = 0;
   std::span<std::uint8_t const> data;
};

// One error met in an UPDATE.
struct BgpUpdateError {
   BgpParseCountReason reason = BgpParseCountReason::none;
   BgpUpdateAction action = BgpUpdateAction::accept;
   std::uint8_t attributeType = 0; // the attribute it concerns; 0 for none
   std::uint32_t offset = 0;       // where in the message it was found
};

// One NLRI of an MP_REACH_NLRI or MP_UNREACH_NLRI attribute.
struct BgpParsedNlri {
   AfiSafi afiSafi;
   bool reachable = false;              // from MP_REACH_NLRI; else MP_UNREACH_NLRI
   std::uint32_t pathId = 0;            // RFC 7911, when the session receives them
   std::span<std::uint8_t const> bytes; // the NLRI as received (the rest of the attribute when its end was lost)
   Ovk::Ptr<RouteKey const> routeKey;   // the interned key; null when the rule refused the NLRI
   BgpParseCountReason reason = BgpParseCountReason::none; // why it was refused
   // From the NLRI's start to the end of its attribute: what the rule was given, to read a
   // refused NLRI again for its message.
   std::span<std::uint8_t const> given;
};

// An MP_REACH_NLRI or MP_UNREACH_NLRI attribute as found.
struct BgpParsedMpAttribute {
   bool present = false;
   AfiSafi afiSafi;
   bool parsed = false;                   // a rule of the family read its NLRI
   std::size_t nlriBytes = 0;             // size of its NLRI field
   std::span<std::uint8_t const> nextHop; // MP_REACH_NLRI: the next-hop field
   bool nextHopRead = false;              // MP_REACH_NLRI: the next-hop field was there whole
};

// Everything decode() found in one message.
struct BgpParsedUpdate {
   std::span<std::uint8_t const> message;
   BgpUpdateAction action = BgpUpdateAction::accept;
   std::optional<BgpUpdateNotification> notification; // set with action sessionReset
   std::vector<BgpUpdateError> errors;
   // IPv4 unicast fields (RFC 4271 section 4.3), checked for syntax; see forEachIpv4Prefix.
   std::span<std::uint8_t const> withdrawnRoutes;
   std::span<std::uint8_t const> ipv4Nlri;
   std::span<std::uint8_t const> pathAttributes;
   std::size_t attributeCount = 0;
   BgpParsedMpAttribute mpReach;
   BgpParsedMpAttribute mpUnreach;
   // The NLRI of both attributes, MP_REACH_NLRI's and MP_UNREACH_NLRI's in attribute order.
   std::vector<BgpParsedNlri> nlri;
   // The path attributes and the next hop made of the MP_REACH_NLRI next-hop field.
   Ovk::Ptr<BgpParseUpdateAttributesScratchpad> attributes;

   // RFC 4724 section 2: no routes and no attributes at all, or nothing but an empty
   // MP_UNREACH_NLRI; the family whose End-of-RIB it marks.
   std::optional<AfiSafi> endOfRib() const;
   // Under treat-as-withdraw the announced routes are to be taken as withdrawn.
   bool announcedWithdrawn() const { return action == BgpUpdateAction::treatAsWithdraw; }
};

// Calls `fn(address, length)` for each IPv4 prefix of a withdrawn-routes or NLRI field
// that decode() accepted.
void forEachIpv4Prefix(std::span<std::uint8_t const> field,
                       std::function<void(Ovnet::IpGenAddr const&, std::uint8_t)> const& fn);

// The segments of an AS_PATH value that decode() accepted, as text: AS_SEQUENCE as the
// numbers, AS_SET as "{a,b}", AS_CONFED_SEQUENCE as "(a b)", AS_CONFED_SET as "[a,b]".
std::string asPathText(std::span<std::uint8_t const> value, bool fourOctet);

// What a session's decoder has seen.
struct BgpUpdateDecoderCounters {
   struct Family {
      std::uint64_t announced = 0; // NLRI read from MP_REACH_NLRI
      std::uint64_t withdrawn = 0; // NLRI read from MP_UNREACH_NLRI
      std::uint64_t refused = 0;   // NLRI a rule refused
      std::uint64_t updates = 0;   // UPDATEs with NLRI of the family
      Family& operator+=(Family const& o);
   };
   std::uint64_t messages = 0;
   std::array<std::uint64_t, 4> actions{}; // UPDATEs per BgpUpdateAction
   std::map<AfiSafi, Family> families;
   std::map<BgpParseCountReason, std::uint64_t> reasons;
   std::uint64_t action(BgpUpdateAction a) const { return actions[static_cast<std::size_t>(a)]; }
   // Adds every count of `o` (another session's, or an earlier one's).
   BgpUpdateDecoderCounters& operator+=(BgpUpdateDecoderCounters const& o);
};

class BgpUpdateDecoder {
 public:
   struct Options {
      // RFC 6793: AS numbers in AS_PATH and AGGREGATOR are 4 octets (both sides announced
      // the capability).
      bool fourOctetAs = true;
      // For captures of sessions whose capabilities are unknown: an AS_PATH that does not
      // frame with 4-octet numbers but does with 2-octet ones is read with 2-octet ones.
      bool detectAsWidth = false;
      // The peer is in another AS: its LOCAL_PREF is discarded (RFC 7606 section 7.5).
      bool externalPeer = false;
      // The largest message: 4096 (RFC 4271), 65535 with extended messages (RFC 8654).
      std::size_t maxMessageSize = 4096;
   };

   // Decodes in `parseContext` (the receiving VRF's dedup tables).
   BgpUpdateDecoder(Ovk::Ptr<BgpParseContext> parseContext, Options options);
   ~BgpUpdateDecoder();
   BgpUpdateDecoder(BgpUpdateDecoder const&) = delete;
   BgpUpdateDecoder& operator=(BgpUpdateDecoder const&) = delete;

   // Decodes `collections`' family with the session's settings: declares the family's
   // UPDATE message rule instance and MP_REACH_NLRI next-hop rule instance there, so that a
   // plugin listening on the collections registers its sub-rules.
   void ruleCollectionsIs(Ovk::Ptr<BgpParseRuleCollections> const& collections, BgpParseControl const& parseControl);
   Ovk::Ptr<BgpParseRuleCollections> ruleCollections(AfiSafi afiSafi) const;

   // Decodes one whole message. The result is valid until the next call and while the
   // message's bytes are.
   BgpParsedUpdate const& decode(std::span<std::uint8_t const> message);

   BgpUpdateDecoderCounters const& counters() const { return counters_; }
   Ovk::Ptr<BgpParseContext> const& parseContext() const { return parseContext_; }
   Options const& options() const { return options_; }

 private:
   class Run;
   struct Family {
      Ovk::Ptr<BgpParseRuleCollections> collections;
      BgpParseControl parseControl;
   };
   // Interns the keys the rules handed over not interned, a family's run at a time.
   void internRouteKeys();

   Ovk::Ptr<BgpParseContext> parseContext_;
   Options options_;
   Ovk::Ptr<BgpParseUpdateResults> results_ = BgpParseUpdateResults::create();
   std::map<AfiSafi, Family> families_;
   BgpParsedUpdate parsed_;
   BgpUpdateDecoderCounters counters_;
   std::vector<Ovk::Ptr<RouteKey const>*> keyScratch_;
};

} // namespace Routing::Bgp
