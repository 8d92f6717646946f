#include "host/bgp/UnicastRouteKey.h"

#include <algorithm>
#include <cstring>
#include <ostream>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

std::size_t addressSize(Afi afi) { return afi == Afi::afiIpv6 ? 16 : 4; }

// Keys of one family differ only in their bytes: IPv4 keys store 4, IPv6 keys 16.
template <std::size_t N>
class UnicastRouteKeyT final : public UnicastRouteKey {
 public:
   UnicastRouteKeyT(std::uint8_t len, std::span<std::uint8_t const> addr) : UnicastRouteKey(len) {
      std::copy_n(addr.begin(), N, addr_.begin());
   }
   std::span<std::uint8_t const> addressBytes() const override { return addr_; }
   Afi afi() const override { return N == 4 ? Afi::afiIpv4 : Afi::afiIpv6; }
   NlriType nlriType() const override { return N == 4 ? NlriType::ipv4Unicast : NlriType::ipv6Unicast; }

 protected:
   ~UnicastRouteKeyT() override = default;

 private:
   std::array<std::uint8_t, N> addr_{};
};

// True when the first `len` bits of `a` and `b` agree.
bool samePrefixBits(std::span<std::uint8_t const> a, std::span<std::uint8_t const> b, unsigned len) {
   unsigned const whole = len / 8;
   if (std::memcmp(a.data(), b.data(), whole) != 0) return false;
   unsigned const rest = len % 8;
   if (rest == 0) return true;
   auto const mask = static_cast<std::uint8_t>(0xffu << (8 - rest));
   return (a[whole] & mask) == (b[whole] & mask);
}

} // namespace

BgpParseCountReason readUnicastPrefix(BgpParsePktPosition& pos, Afi afi, UnicastPrefix* out) {
   BgpParsePktPosition work = pos;
   std::uint8_t len = 0;
   if (!work.consumeU8(&len)) return BgpParseCountReason::unicastPrefixShort;
   std::size_t const size = addressSize(afi);
   if (len > size * 8) return BgpParseCountReason::unicastPrefixLength;
   std::size_t const n = (len + 7u) / 8u;
   BytePtrConst const bytes = n == 0 ? work.currentPosition() : work.consumeData(n);
   if (!bytes) return BgpParseCountReason::unicastPrefixShort;
   out->len = len;
   out->addr.fill(0);
   std::copy_n(bytes, n, out->addr.begin());
   // Bits beyond the length are irrelevant (RFC 4271 section 4.3): cleared, so that they
   // make no second route.
   if (len % 8 != 0) out->addr[n - 1] &= static_cast<std::uint8_t>(0xffu << (8 - len % 8));
   pos = work;
   return BgpParseCountReason::none;
}

// ---- UnicastRouteKey ----

OVK_FWK_TYPE(UnicastRouteKey, "Routing::Bgp::UnicastRouteKey")

Ovnet::IpGenPrefix UnicastRouteKey::prefix() const {
   std::span<std::uint8_t const> const a = addressBytes();
   Ovnet::IpGenAddr const addr = a.size() == 4 ? Ovnet::IpGenAddr::ipv4(a.first<4>()) : Ovnet::IpGenAddr::ipv6(a.first<16>());
   return Ovnet::IpGenPrefix(addr, len_);
}

std::uint32_t UnicastRouteKey::hash() const {
   std::span<std::uint8_t const> const a = addressBytes();
   std::uint32_t h = Ovnet::oneAtATimeMix(len_, a.data(), a.size());
   h += h << 3;
   h ^= h >> 11;
   h += h << 15;
   return h;
}

bool UnicastRouteKey::compare(Ovk::DedupHandle const* other) const {
   auto const* o = static_cast<UnicastRouteKey const*>(other);
   std::span<std::uint8_t const> const a = addressBytes();
   std::span<std::uint8_t const> const b = o->addressBytes();
   return len_ == o->len_ && a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
}

int UnicastRouteKey::orderCompare(RouteKeyBase const& other) const {
   auto const& o = static_cast<UnicastRouteKey const&>(other);
   std::span<std::uint8_t const> const a = addressBytes();
   std::span<std::uint8_t const> const b = o.addressBytes();
   if (int const c = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size()))) return c;
   if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
   return static_cast<int>(len_) - static_cast<int>(o.len_);
}

bool UnicastRouteKey::lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const { return orderCompare(*other) < 0; }

RouteKeyBase::OrderSummary UnicastRouteKey::orderSummary() const {
   std::span<std::uint8_t const> const a = addressBytes();
   if (a.size() == 4) return {orderPrefix(), 0};
   // IPv6: the second 64 address bits, then the length in the low byte is left to
   // orderCompare (keys of one address differ only in length).
   std::uint64_t lo = 0;
   for (std::size_t i = 8; i < 16; ++i) lo = lo << 8 | a[i];
   return {orderPrefix(), lo};
}

std::uint64_t UnicastRouteKey::orderPrefix() const {
   // IPv4: the address and the length, the whole order; IPv6: the first 64 address bits.
   std::span<std::uint8_t const> const a = addressBytes();
   std::uint64_t v = 0;
   if (a.size() == 4) {
      for (std::uint8_t const b : a) v = v << 8 | b;
      return v << 8 | len_;
   }
   for (std::size_t i = 0; i < 8; ++i) v = v << 8 | a[i];
   return v;
}

void UnicastRouteKey::formatDerivedType(std::ostream& os) const { os << prefix(); }
void UnicastRouteKey::formatWithoutVrf(std::ostream& os) const { os << prefix(); }

bool UnicastRouteKey::isOverlapping(RouteKeyBase const& other) const {
   auto const& o = static_cast<UnicastRouteKey const&>(other);
   if (o.afi() != afi()) return false;
   return samePrefixBits(addressBytes(), o.addressBytes(), std::min(len_, o.len_));
}

bool UnicastRouteKey::isMoreSpecific(RouteKeyBase const& other) const {
   auto const& o = static_cast<UnicastRouteKey const&>(other);
   return o.afi() == afi() && len_ > o.len_ && samePrefixBits(addressBytes(), o.addressBytes(), o.len_);
}

Ovk::String UnicastRouteKey::serialize(SerializeOperation, Ovk::Ptr<RouteKeySerializeArguments const> const&) const {
   std::array<std::uint8_t, 17> out{};
   out[0] = len_;
   std::size_t const n = (len_ + 7u) / 8u;
   std::copy_n(addressBytes().begin(), n, out.begin() + 1);
   return Ovk::String(out.data(), n + 1);
}

Ovk::Ptr<UnicastRouteKey> unicastRouteKeyFactory(Afi afi, UnicastPrefix const& prefix) {
   if (afi == Afi::afiIpv6) return newRouteKey<UnicastRouteKeyT<16>>(prefix.len, std::span<std::uint8_t const>(prefix.addr));
   return newRouteKey<UnicastRouteKeyT<4>>(prefix.len, std::span<std::uint8_t const>(prefix.addr));
}

Ovk::Ptr<UnicastRouteKey> unicastRouteKeyFactory(Ovnet::IpGenPrefix const& prefix) {
   Ovnet::IpGenPrefix p = prefix;
   p.clearLowerAddrBits();
   UnicastPrefix u;
   u.len = p.len();
   std::copy_n(p.addr().storage().begin(), 16, u.addr.begin());
   return unicastRouteKeyFactory(p.af() == Ovnet::AddressFamily::ipv6 ? Afi::afiIpv6 : Afi::afiIpv4, u);
}

// ---- UnicastRouteKeyDedupTable ----

OVK_FWK_TYPE(UnicastRouteKeyDedupTable, "Routing::Bgp::UnicastRouteKeyDedupTable")

Ovk::Ptr<RouteKey const> UnicastRouteKeyDedupTable::dedupFromCommandParams(std::string const& params) const {
   std::optional<Ovnet::IpGenPrefix> const p = Ovnet::IpGenPrefix::parse(params);
   if (!p) return nullptr;
   bool const v6 = p->af() == Ovnet::AddressFamily::ipv6;
   if (v6 != (afiSafi().afi() == Afi::afiIpv6)) return nullptr;
   return unicastRouteKeyFactory(*p)->dedupRouteKey(this);
}

// ---- UnicastNlriRule ----

OVK_FWK_TYPE(UnicastNlriRule, "Routing::Bgp::UnicastNlriRule")

BgpParseUpdateNlriReturn UnicastNlriRule::inhale(Ovk::Ptr<BgpParseContext> const& parseContext,
                                                 BgpParsePktPosition* const& position, bool,
                                                 Ovk::Ptr<BgpParseUpdateResults> const& results) const {
   UnicastPrefix prefix;
   if (BgpParseCountReason const why = readUnicastPrefix(*position, afiSafi_.afi(), &prefix);
       why != BgpParseCountReason::none) {
      results->countReasonIs(why);
      return {};
   }
   RouteKeyDedupTableBase const* table = parseContext->flowspecRouteKeyDedupTableRawPtr(afiSafi_);
   if (!table) {
      DedupTablesVrf const* const vrf = parseContext->dedupVrfTablesRawPtr();
      DedupTablesVrfAfiSafi const* const tables = vrf ? vrf->dedupTablesVrfAfiSafi(afiSafi_) : nullptr;
      table = tables ? tables->routeKeyDedupTableRawPtr() : nullptr;
      // The family's tables are registered before any session parses it.
      OVK_ASSERT(table != nullptr);
      parseContext->flowspecRouteKeyDedupTableRawPtrIs(afiSafi_, table);
   }
   Ovk::Ptr<UnicastRouteKey> key = unicastRouteKeyFactory(afiSafi_.afi(), prefix);
   // The decoder interns a message's keys together (BgpParseContext::routeKeyDedupDeferred).
   if (parseContext->routeKeyDedupDeferred()) return {std::move(key), nullptr, false};
   return {key->dedupRouteKey(table), nullptr, false};
}

// ---- UnicastParseSm ----

UnicastParseSm::UnicastParseSm(Ovk::Ptr<BgpParseRuleCollections const> collections)
    : BgpParsePluginBaseSm(std::move(collections)) {
   handleStartup();
   // Sessions declare their rule instances when they come up: hear them.
   hasNotificationActiveIs(true);
}

UnicastParseSm::~UnicastParseSm() = default;

void UnicastParseSm::instantiateNlriSubRule(BgpParseUpdateMessageRuleKey ruleKey, BgpParseControl const&) const {
   addNlriSubRule(ruleKey, Ovk::makePtr<UnicastNlriRule>(ruleKey.afiSafi));
}

// ---- UnicastAdjRibin ----

AdjRibinPath UnicastAdjRibin::instantiateRibinPathFromNlriResults(PathKey const& pathKey,
                                                                  Ovk::Ptr<RtAttr const> const& attrs,
                                                                  BgpParseNlriResults const&) const {
   return AdjRibinPath{pathKey.routeKey, attrs, pathKey.source};
}

} // namespace Routing::Bgp
