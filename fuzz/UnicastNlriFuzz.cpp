// The unicast NLRI reader and rule under arbitrary input. The first byte picks the family
// (even: IPv4, odd: IPv6); the rest is an NLRI field, read prefix by prefix as the decoder
// does. Oracles: a read advances by the prefix's own size and no further; a prefix that
// reads comes back from its key's wire form as the same interned key, and the wire form is
// the input's bytes with the bits beyond the length cleared; the field stops at the first
// refusal with a reason.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "host/bgp/UnicastRouteKey.h"

namespace {

using namespace Routing::Bgp;

void check(bool ok) {
   if (!ok) std::abort();
}

struct Env {
   Env() {
      for (AfiSafi const f : {AfiSafi::ipv4Unicast(), AfiSafi::ipv6Unicast()}) {
         vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(
             f, Ovk::makePtr<UnicastRouteKeyDedupTable>(f, BgpL3VrfId::defaultVrfId()), nullptr));
      }
   }
   Ovk::Ptr<DedupTablesVrf> vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<BgpParseContext> context = Ovk::makePtr<BgpParseContext>(vrf, "fuzz");
   Ovk::Ptr<BgpParseUpdateResults> results = BgpParseUpdateResults::create();
   Ovk::Ptr<UnicastNlriRule> rules[2] = {Ovk::makePtr<UnicastNlriRule>(AfiSafi::ipv4Unicast()),
                                         Ovk::makePtr<UnicastNlriRule>(AfiSafi::ipv6Unicast())};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   static Env env;
   if (size == 0) return 0;
   bool const v6 = (data[0] & 1) != 0;
   Afi const afi = v6 ? Afi::afiIpv6 : Afi::afiIpv4;
   std::span<std::uint8_t const> const field(data + 1, size - 1);
   BgpParsePktPosition pos(field);
   BgpParsePktPosition rulePos(field);
   env.results->clear();
   while (pos.bytesLeft() > 0) {
      BytePtrConst const start = pos.currentPosition();
      UnicastPrefix p;
      BgpParseCountReason const why = readUnicastPrefix(pos, afi, &p);
      BgpParsePktPosition* const position = &rulePos;
      BgpParseUpdateNlriReturn const r = env.rules[v6 ? 1 : 0]->inhale(env.context, position, true, env.results);
      if (why != BgpParseCountReason::none) {
         check(pos.currentPosition() == start);
         check(!r.routeKey && env.results->lastReason() == why);
         break;
      }
      std::size_t const used = static_cast<std::size_t>(pos.currentPosition() - start);
      check(used == 1 + (p.len + 7u) / 8u && p.len <= (v6 ? 128u : 32u));
      check(r.routeKey && rulePos.currentPosition() == pos.currentPosition());
      auto const& key = static_cast<UnicastRouteKey const&>(*r.routeKey);
      check(key.len() == p.len && key.afi() == afi);
      Ovk::String const wire = key.serialize(RouteKey::SerializeOperation::advertise, nullptr);
      check(wire.size() == used);
      auto const* w = reinterpret_cast<std::uint8_t const*>(wire.data());
      for (std::size_t i = 0; i < used; ++i) {
         std::uint8_t mask = 0xff;
         if (i > 0 && i == used - 1 && p.len % 8 != 0) mask = static_cast<std::uint8_t>(0xffu << (8 - p.len % 8));
         check(w[i] == (start[i] & mask));
      }
      BgpParsePktPosition again(std::span<std::uint8_t const>(w, wire.size()));
      BgpParsePktPosition* const againPos = &again;
      BgpParseUpdateNlriReturn const back = env.rules[v6 ? 1 : 0]->inhale(env.context, againPos, true, env.results);
      check(back.routeKey.ptr() == r.routeKey.ptr() && again.dataLeft() == 0);
   }
   return 0;
}
