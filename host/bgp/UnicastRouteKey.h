// Unicast routes (AFI 1 and 2, SAFI 1): their route keys, the dedup table they are interned
// in, the reader of one prefix as NLRI carry it, and the NLRI rule the UPDATE decoder runs.
//
// The host learns unicast routes for one purpose: to judge flowspec rules against them.
// They are kept (adj-RIB-in, best path, longest-prefix lookups) and shown; they are not
// installed and not advertised.
//
// A key holds the prefix with the bits beyond its length zeroed (RFC 4271 section 4.3: they
// are irrelevant), so that 10.1.2.3/8 and 10.0.0.0/8 are one route. An IPv4 key stores four
// address bytes, an IPv6 key sixteen: a full table is mostly keys.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "host/bgp/AdjRibin.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/BgpParseRules.h"
#include "host/bgp/RouteKey.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

// One prefix as read from an NLRI field: its length and the address, zero beyond it.
struct UnicastPrefix {
   std::uint8_t len = 0;
   std::array<std::uint8_t, 16> addr{};
};

// Reads one prefix of `afi` (a length byte, then the bytes that length needs) from `pos`.
// On success returns none and leaves `pos` after the prefix; otherwise the reason
// (unicastPrefixShort: the field ends first; unicastPrefixLength: longer than the address),
// with `pos` where it was.
BgpParseCountReason readUnicastPrefix(BgpParsePktPosition& pos, Afi afi, UnicastPrefix* out);

class UnicastRouteKey : public RouteKey {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   std::uint8_t len() const { return len_; }
   // The address bytes (4 or 16), zero beyond the length.
   virtual std::span<std::uint8_t const> addressBytes() const = 0;
   Ovnet::IpGenPrefix prefix() const;

   std::uint8_t safi() const override { return Safi::unicast; }

   std::uint32_t hash() const override;
   bool compare(Ovk::DedupHandle const* other) const override;
   // Address first, then length: a prefix sorts before its more-specific routes, which
   // follow it in a run.
   bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const override;
   int orderCompare(RouteKeyBase const& other) const override;
   std::uint64_t orderPrefix() const override;
   OrderSummary orderSummary() const override;

   void formatDerivedType(std::ostream& os) const override;
   void formatWithoutVrf(std::ostream& os) const override;

   bool overlappingRouteKeysSupported() const override { return true; }
   bool isDefaultPrefix() const override { return len_ == 0; }
   // True when the two prefixes share addresses (one holds the other).
   bool isOverlapping(RouteKeyBase const& other) const override;
   // True when this prefix lies strictly inside `other`.
   bool isMoreSpecific(RouteKeyBase const& other) const override;
   std::optional<Ovnet::IpGenPrefix> importDestination() const override { return prefix(); }

   // The prefix as NLRI: its length byte and the bytes the length needs.
   Ovk::String serialize(SerializeOperation operation,
                         Ovk::Ptr<RouteKeySerializeArguments const> const& arguments) const override;

 protected:
   explicit UnicastRouteKey(std::uint8_t len) : len_(len) {}
   ~UnicastRouteKey() override = default;

 private:
   std::uint8_t len_;
};

// The key of `prefix`, never deduplicated yet (newRouteKey): IPv4 or IPv6 by `afi`.
Ovk::Ptr<UnicastRouteKey> unicastRouteKeyFactory(Afi afi, UnicastPrefix const& prefix);
// The same of an address and length (bits beyond the length are cleared).
Ovk::Ptr<UnicastRouteKey> unicastRouteKeyFactory(Ovnet::IpGenPrefix const& prefix);

// The route-key dedup table of one VRF's unicast family.
class UnicastRouteKeyDedupTable final : public RouteKeyDedupTable {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   UnicastRouteKeyDedupTable(AfiSafi afiSafi, BgpVrfIdBase vrfId) : RouteKeyDedupTable(afiSafi, vrfId) {}

   // "PREFIX": the table's key of that prefix, interned; null on bad text or another family.
   Ovk::Ptr<RouteKey const> dedupFromCommandParams(std::string const& params) const override;

 protected:
   ~UnicastRouteKeyDedupTable() override = default;
};

// The NLRI rule of one unicast family: one prefix per call, interned in the family's table
// of the parse context's VRF. A prefix that cannot be read is counted and yields nothing;
// its end cannot be trusted (nlriExtent gives none), so the decoder resets the session as it
// does for the UPDATE's own NLRI field.
class UnicastNlriRule final : public BgpParseUpdateNlriRuleBase {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   explicit UnicastNlriRule(AfiSafi afiSafi) : afiSafi_(afiSafi) {}

   BgpParseUpdateNlriReturn inhale(Ovk::Ptr<BgpParseContext> const& parseContext, BgpParsePktPosition* const& position,
                                   bool reachable, Ovk::Ptr<BgpParseUpdateResults> const& results) const override;

 protected:
   ~UnicastNlriRule() override = default;

 private:
   AfiSafi afiSafi_;
};

// The parse state machine of one unicast family: answers each rule instance of its
// collections with a UnicastNlriRule (the next hop is kept as the attribute carries it; no
// next-hop rule).
class UnicastParseSm final : public BgpParsePluginBaseSm {
 public:
   explicit UnicastParseSm(Ovk::Ptr<BgpParseRuleCollections const> collections);
   void instantiateNextHopSubRule(BgpParseUpdateAttributeMpReachNlriRuleKey, BgpParseControl const&) const override {}
   void instantiateNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey, BgpParseControl const& parseControl) const override;

 protected:
   ~UnicastParseSm() override;
};

// A session's unicast RIB-in: one path per prefix.
class UnicastAdjRibin final : public AdjRibin {
 public:
   using AdjRibin::AdjRibin;
   AdjRibinPath instantiateRibinPathFromNlriResults(PathKey const& pathKey, Ovk::Ptr<RtAttr const> const& attrs,
                                                    BgpParseNlriResults const& nlriResults) const override;

 protected:
   ~UnicastAdjRibin() override = default;
};

} // namespace Routing::Bgp
