// A parse environment for the NLRI rule's tests, fuzz target and benchmarks: the default
// VRF's flowspec route-key tables for both families, a parse context and the two rules.
#pragma once

#include <string>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "tests/BgpFlowspec/RouteKeyTestHelpers.h"

namespace FlowspecTest {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

struct ParseEnv {
   ParseEnv() {
      for (bool v6 : {false, true}) {
         AfiSafi const family = v6 ? AfiSafi::ipv6Flowspec() : AfiSafi::ipv4Flowspec();
         tables[v6] = flowspecRouteKeyDedupTableFactory(family, BgpL3VrfId::defaultVrfId());
         vrf->dedupTablesVrfAfiSafiIs(Ovk::makePtr<DedupTablesVrfAfiSafi>(family, tables[v6], nullptr));
         contexts[v6] = Ovk::makePtr<BgpParseContext>(vrf, v6 ? "test v6" : "test v4");
         rules[v6] = Ovk::makePtr<FlowspecParseUpdateNlriRule>(BgpParseControl{}, family);
      }
   }

   struct Outcome {
      Ovk::Result<FlowspecRouteKey::PtrConst, FlowspecNlriParseFailure> result;
      std::size_t consumed; // bytes the rule read
      std::size_t left;     // bytes after the position
   };
   // Reads one NLRI from `bytes`, the whole NLRI field of an attribute.
   Outcome parse(bool v6, Bytes const& bytes) {
      BgpParsePktPosition pos(bytes);
      BgpParsePktPosition* p = &pos;
      auto r = rules[v6]->parse(contexts[v6], p, results);
      std::size_t const left = pos.bytesLeft();
      return {std::move(r), bytes.size() - left, left};
   }

   // The key of `bytes`, which must parse.
   FlowspecRouteKey::PtrConst key(bool v6, std::string_view hex) {
      auto o = parse(v6, fromHex(hex));
      if (!o.result) return nullptr;
      return o.result.value();
   }

   static std::string nlriHex(FlowspecRouteKey const& key) {
      auto const s = key.serialize(RouteKey::SerializeOperation::advertise, nullptr);
      return toHex(s.span());
   }

   Ovk::Ptr<DedupTablesVrf> vrf = Ovk::makePtr<DedupTablesVrf>(BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<FlowspecRouteKeyDedupTable> tables[2];
   Ovk::Ptr<BgpParseContext> contexts[2];
   Ovk::Ptr<FlowspecParseUpdateNlriRule> rules[2];
   Ovk::Ptr<BgpParseUpdateResults> results = BgpParseUpdateResults::create();
};

} // namespace FlowspecTest
