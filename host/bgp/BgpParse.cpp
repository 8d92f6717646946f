#include "host/bgp/BgpParse.h"

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

std::string toStrep(BgpParseCountReason reason) {
   switch (reason) {
    case BgpParseCountReason::none: return "none";
    case BgpParseCountReason::updateHeaderShort: return "updateHeaderShort";
    case BgpParseCountReason::updateMarker: return "updateMarker";
    case BgpParseCountReason::updateLength: return "updateLength";
    case BgpParseCountReason::updateType: return "updateType";
    case BgpParseCountReason::withdrawnRoutesLength: return "withdrawnRoutesLength";
    case BgpParseCountReason::pathAttributesLength: return "pathAttributesLength";
    case BgpParseCountReason::withdrawnRoutesInvalid: return "withdrawnRoutesInvalid";
    case BgpParseCountReason::nlriInvalid: return "nlriInvalid";
    case BgpParseCountReason::attributeHeaderShort: return "attributeHeaderShort";
    case BgpParseCountReason::attributeLengthOverrun: return "attributeLengthOverrun";
    case BgpParseCountReason::attributeFlags: return "attributeFlags";
    case BgpParseCountReason::attributeDuplicate: return "attributeDuplicate";
    case BgpParseCountReason::mpAttributeDuplicate: return "mpAttributeDuplicate";
    case BgpParseCountReason::unrecognizedWellKnown: return "unrecognizedWellKnown";
    case BgpParseCountReason::originLength: return "originLength";
    case BgpParseCountReason::originValue: return "originValue";
    case BgpParseCountReason::asPathMalformed: return "asPathMalformed";
    case BgpParseCountReason::nextHopLength: return "nextHopLength";
    case BgpParseCountReason::medLength: return "medLength";
    case BgpParseCountReason::localPrefLength: return "localPrefLength";
    case BgpParseCountReason::localPrefFromExternal: return "localPrefFromExternal";
    case BgpParseCountReason::atomicAggregateLength: return "atomicAggregateLength";
    case BgpParseCountReason::aggregatorLength: return "aggregatorLength";
    case BgpParseCountReason::communitiesLength: return "communitiesLength";
    case BgpParseCountReason::extCommunitiesLength: return "extCommunitiesLength";
    case BgpParseCountReason::ipv6ExtCommunitiesLength: return "ipv6ExtCommunitiesLength";
    case BgpParseCountReason::mpReachShort: return "mpReachShort";
    case BgpParseCountReason::mpReachNexthopOverrun: return "mpReachNexthopOverrun";
    case BgpParseCountReason::mpUnreachShort: return "mpUnreachShort";
    case BgpParseCountReason::mpFamilyWithoutRule: return "mpFamilyWithoutRule";
    case BgpParseCountReason::missingOrigin: return "missingOrigin";
    case BgpParseCountReason::missingAsPath: return "missingAsPath";
    case BgpParseCountReason::missingNextHop: return "missingNextHop";
    case BgpParseCountReason::nlriPathIdShort: return "nlriPathIdShort";
    case BgpParseCountReason::flowspecNlriLenMissing: return "flowspecNlriLenMissing";
    case BgpParseCountReason::flowspecNlriLenMismatch: return "flowspecNlriLenMismatch";
    case BgpParseCountReason::flowspecComponentTypeMissing: return "flowspecComponentTypeMissing";
    case BgpParseCountReason::flowspecComponentTypeInvalid: return "flowspecComponentTypeInvalid";
    case BgpParseCountReason::flowspecComponentTypeOrder: return "flowspecComponentTypeOrder";
    case BgpParseCountReason::flowspecPrefixMaskMissing: return "flowspecPrefixMaskMissing";
    case BgpParseCountReason::flowspecPrefixOffsetMissing: return "flowspecPrefixOffsetMissing";
    case BgpParseCountReason::flowspecPrefixOffsetAboveMask: return "flowspecPrefixOffsetAboveMask";
    case BgpParseCountReason::flowspecPrefixInvalid: return "flowspecPrefixInvalid";
    case BgpParseCountReason::flowspecOperatorMissing: return "flowspecOperatorMissing";
    case BgpParseCountReason::flowspecValueMissing: return "flowspecValueMissing";
    case BgpParseCountReason::flowspecValueTooLong: return "flowspecValueTooLong";
    case BgpParseCountReason::flowspecIpv6FragmentDf: return "flowspecIpv6FragmentDf";
    case BgpParseCountReason::flowspecNexthopShort: return "flowspecNexthopShort";
   }
   return std::to_string(static_cast<unsigned>(reason));
}

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

Ovk::FwkType const& BgpParseUpdateNlriRuleBase::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::BgpParseUpdateNlriRuleBase");
   return type;
}

Ovk::FwkType const& BgpParseUpdateNlriRuleBase::fwkType() const { return classFwkType(); }

void BgpParseUpdateNlriRuleBase::additionalTreatAsUnreachChecks(Ovk::Ptr<BgpParseUpdateResults> const&, bool) const {}

std::optional<std::size_t> BgpParseUpdateNlriRuleBase::nlriExtent(BgpParsePktPosition const&) const {
   return std::nullopt;
}

} // namespace Routing::Bgp
