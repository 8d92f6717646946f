#include "host/bgp/BgpParse.h"
#include "host/fwk/FwkType.h"

#include <algorithm>
#include <cstring>
#include <ostream>

namespace Routing::Bgp {

// ---- BgpParsePktPosition ----

BgpParsePktPosition BgpParsePktPosition::declared(std::span<std::uint8_t const> packet,
                                                  std::size_t declaredLength) noexcept {
   std::size_t const received = std::min(packet.size(), declaredLength);
   BgpParsePktPosition p(packet.first(received));
   p.undelivered_ = declaredLength - received;
   return p;
}

bool BgpParsePktPosition::consumeIpv4GenAddress(Ovnet::IpGenAddr* addr) noexcept {
   BytePtrConst const b = consumeData(4);
   if (!b) return false;
   *addr = Ovnet::IpGenAddr::ipv4(std::span<std::uint8_t const, 4>(b, 4));
   return true;
}

bool BgpParsePktPosition::consumeIpv6GenAddress(Ovnet::IpGenAddr* addr) noexcept {
   BytePtrConst const b = consumeData(16);
   if (!b) return false;
   *addr = Ovnet::IpGenAddr::ipv6(std::span<std::uint8_t const, 16>(b, 16));
   return true;
}

// ---- Count reasons ----

namespace {

struct ReasonText {
   char const* name;
   char const* text; // the decoder's; empty for the reasons the families' rules count
};

// The one table of the reasons. The switch has no default: a reason added to the enum
// without its entry here does not compile (-Wswitch, warnings are errors).
constexpr ReasonText reasonText(BgpParseCountReason reason) {
   using R = BgpParseCountReason;
   switch (reason) {
   case R::none: return {"none", ""};
   case R::updateHeaderShort: return {"updateHeaderShort", "message shorter than the BGP header"};
   case R::updateMarker: return {"updateMarker", "marker is not all ones"};
   case R::updateLength: return {"updateLength", "length field does not match the message"};
   case R::updateType: return {"updateType", "message is not an UPDATE"};
   case R::withdrawnRoutesLength: return {"withdrawnRoutesLength", "withdrawn routes length runs past the message"};
   case R::pathAttributesLength: return {"pathAttributesLength", "total path attribute length runs past the message"};
   case R::withdrawnRoutesInvalid: return {"withdrawnRoutesInvalid", "withdrawn routes hold an invalid IPv4 prefix"};
   case R::nlriInvalid: return {"nlriInvalid", "NLRI field holds an invalid IPv4 prefix"};
   case R::attributeHeaderShort: return {"attributeHeaderShort", "bytes left too few for an attribute header"};
   case R::attributeLengthOverrun: return {"attributeLengthOverrun", "attribute length runs past the path attributes"};
   case R::attributeFlags: return {"attributeFlags", "attribute flags conflict with the attribute type"};
   case R::attributeDuplicate: return {"attributeDuplicate", "attribute appears more than once"};
   case R::mpAttributeDuplicate:
      return {"mpAttributeDuplicate", "MP_REACH_NLRI or MP_UNREACH_NLRI appears more than once"};
   case R::unrecognizedWellKnown: return {"unrecognizedWellKnown", "unrecognized well-known attribute"};
   case R::originLength: return {"originLength", "ORIGIN length is not 1"};
   case R::originValue: return {"originValue", "ORIGIN value is undefined"};
   case R::asPathMalformed: return {"asPathMalformed", "AS_PATH is malformed"};
   case R::nextHopLength: return {"nextHopLength", "NEXT_HOP length is not 4"};
   case R::medLength: return {"medLength", "MULTI_EXIT_DISC length is not 4"};
   case R::localPrefLength: return {"localPrefLength", "LOCAL_PREF length is not 4"};
   case R::localPrefFromExternal: return {"localPrefFromExternal", "LOCAL_PREF from an external peer"};
   case R::atomicAggregateLength: return {"atomicAggregateLength", "ATOMIC_AGGREGATE length is not 0"};
   case R::aggregatorLength: return {"aggregatorLength", "AGGREGATOR length is wrong"};
   case R::communitiesLength: return {"communitiesLength", "COMMUNITIES length is not a non-zero multiple of 4"};
   case R::extCommunitiesLength:
      return {"extCommunitiesLength", "EXTENDED_COMMUNITIES length is not a non-zero multiple of 8"};
   case R::ipv6ExtCommunitiesLength:
      return {"ipv6ExtCommunitiesLength",
              "IPv6 address specific extended communities length is not a non-zero multiple of 20"};
   case R::mpReachShort: return {"mpReachShort", "MP_REACH_NLRI too short for its fixed fields"};
   case R::mpReachNexthopOverrun: return {"mpReachNexthopOverrun", "MP_REACH_NLRI next hop runs past the attribute"};
   case R::mpUnreachShort: return {"mpUnreachShort", "MP_UNREACH_NLRI too short for AFI and SAFI"};
   case R::mpFamilyWithoutRule: return {"mpFamilyWithoutRule", "NLRI of a family without a parse rule skipped"};
   case R::missingOrigin: return {"missingOrigin", "ORIGIN missing"};
   case R::missingAsPath: return {"missingAsPath", "AS_PATH missing"};
   case R::missingNextHop: return {"missingNextHop", "NEXT_HOP missing"};
   case R::nlriPathIdShort: return {"nlriPathIdShort", "path identifier cut short"};
   case R::unicastPrefixLength: return {"unicastPrefixLength", "unicast prefix length beyond the address size"};
   case R::unicastPrefixShort: return {"unicastPrefixShort", "unicast prefix cut short"};
   case R::unicastNotNegotiated:
      return {"unicastNotNegotiated", "IPv4 unicast routes of a session without ipv4-unicast skipped"};
   case R::flowspecNlriLenMissing: return {"flowspecNlriLenMissing", ""};
   case R::flowspecNlriLenMismatch: return {"flowspecNlriLenMismatch", ""};
   case R::flowspecComponentTypeMissing: return {"flowspecComponentTypeMissing", ""};
   case R::flowspecComponentTypeInvalid: return {"flowspecComponentTypeInvalid", ""};
   case R::flowspecComponentTypeOrder: return {"flowspecComponentTypeOrder", ""};
   case R::flowspecPrefixMaskMissing: return {"flowspecPrefixMaskMissing", ""};
   case R::flowspecPrefixOffsetMissing: return {"flowspecPrefixOffsetMissing", ""};
   case R::flowspecPrefixOffsetAboveMask: return {"flowspecPrefixOffsetAboveMask", ""};
   case R::flowspecPrefixInvalid: return {"flowspecPrefixInvalid", ""};
   case R::flowspecOperatorMissing: return {"flowspecOperatorMissing", ""};
   case R::flowspecValueMissing: return {"flowspecValueMissing", ""};
   case R::flowspecValueTooLong: return {"flowspecValueTooLong", ""};
   case R::flowspecIpv6FragmentDf: return {"flowspecIpv6FragmentDf", ""};
   case R::flowspecNexthopShort: return {"flowspecNexthopShort", ""};
   }
   return {nullptr, ""};
}

} // namespace

std::string toStrep(BgpParseCountReason reason) {
   if (char const* const name = reasonText(reason).name) return name;
   return std::to_string(static_cast<unsigned>(reason));
}

char const* bgpUpdateErrorText(BgpParseCountReason reason) { return reasonText(reason).text; }

std::ostream& operator<<(std::ostream& os, BgpParseCountReason reason) { return os << toStrep(reason); }

void BgpParseHeaderAndMessageBase::clear() {
   counts_.clear();
   lastReason_ = BgpParseCountReason::none;
}

void BgpParseHeaderAndMessageBase::countReasonIs(BgpParseCountReason reason) {
   lastReason_ = reason;
   for (auto& [r, n] : counts_) {
      if (r == reason) {
         ++n;
         return;
      }
   }
   counts_.emplace_back(reason, 1);
}

std::uint32_t BgpParseHeaderAndMessageBase::count(BgpParseCountReason reason) const {
   for (auto const& [r, n] : counts_) {
      if (r == reason) return n;
   }
   return 0;
}

std::uint32_t BgpParseHeaderAndMessageBase::totalCount() const {
   std::uint32_t total = 0;
   for (auto const& c : counts_) total += c.second;
   return total;
}

// ---- Dedup tables ----

DedupTablesVrfAfiSafi* DedupTablesVrf::dedupTablesVrfAfiSafi(AfiSafi afiSafi) const {
   auto const it = tables_.find(afiSafi);
   return it == tables_.end() ? nullptr : it->second.ptr();
}

void DedupTablesVrf::dedupTablesVrfAfiSafiIs(Ovk::Ptr<DedupTablesVrfAfiSafi> const& tables) {
   tables_[tables->afiSafi()] = tables;
   ++generation_;
}

void DedupTablesVrf::dedupTablesVrfAfiSafiDel(AfiSafi afiSafi) {
   tables_.erase(afiSafi);
   ++generation_;
}

BgpParseContext::CacheEntry& BgpParseContext::cacheEntryIs(AfiSafi afiSafi) {
   std::uint64_t const generation = vrfTables_ ? vrfTables_->generation() : 0;
   for (CacheEntry& e : cache_) {
      if (e.afiSafi != afiSafi) continue;
      // Filled under an older registry: what it held may be gone, so start it afresh.
      if (e.generation != generation) e = CacheEntry{afiSafi, generation, nullptr, nullptr};
      return e;
   }
   return cache_.emplace_back(CacheEntry{afiSafi, generation, nullptr, nullptr});
}

std::ostream& operator<<(std::ostream& os, BgpParseContext const& context) {
   os << context.name();
   if (DedupTablesVrf const* vrf = context.dedupVrfTablesRawPtr()) os << " vrf=" << vrf->vrfId();
   return os;
}

// ---- Rules ----

OVK_FWK_TYPE(BgpParseUpdateNlriRuleBase, "Routing::Bgp::BgpParseUpdateNlriRuleBase")

void BgpParseUpdateNlriRuleBase::additionalTreatAsUnreachChecks(Ovk::Ptr<BgpParseUpdateResults> const&, bool) const {}

std::optional<std::size_t> BgpParseUpdateNlriRuleBase::nlriExtent(BgpParsePktPosition const&) const {
   return std::nullopt;
}

} // namespace Routing::Bgp
