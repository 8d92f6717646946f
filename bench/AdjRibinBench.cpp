// What import decisions cost the receive path: 100000 rules announced into the adjacency
// RIB-in of one session and taken out again, without an import control (the neighbor has no
// policy and no limit: one pointer test per rule), with a policy of allowed destinations and
// actions, with a rule limit, and with both; against the RIB table alone (the paths put
// there directly, as the RIB-in did before it made import decisions).
//
// Run: build/default/bench/AdjRibinBench
#include <benchmark/benchmark.h>

#include <vector>

#include "BgpFlowspec/FlowspecAdjRibin.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/ImportPolicy.h"

namespace {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

constexpr std::uint32_t kRules = 100'000;

struct Session {
   Session() {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      c.extCommList.push(core->extCommIs(ExtComm::create(0x8006000000000000ull)));
      attr = attrs->rtAttrIs(std::move(c));
      for (std::uint32_t i = 0; i < kRules; ++i) {
         auto key = flowspecV4RouteKeyFactory();
         key->destPrefixIs(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(0x0a000000u | i), 32));
         BgpParseNlriResults n;
         n.reachable = true;
         n.routeKey = key->dedupRouteKey(dedup.ptr());
         nlri.push_back(std::move(n));
      }
      source = sources->sourceIs(BgpPeer{*Ovnet::IpGenAddr::parse("127.0.0.2"), 65002, 65001, 2, {}});
      ribin->sourceIs(source);
      ribin->ribTableIs(table);
   }
   ~Session() { table->pathDelAll(source); }

   Ovk::Ptr<FlowspecRouteKeyDedupTable> dedup =
       flowspecRouteKeyDedupTableFactory(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<CoreDedupTables> core = CoreDedupTables::create();
   Ovk::Ptr<RtAttrDedupTable> attrs = RtAttrDedupTable::create();
   Ovk::Ptr<RibSources> sources = RibSources::create(BgpPeer{});
   Ovk::Ptr<RibTable> table = Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), kIpv4Flowspec, sources);
   Ovk::Ptr<FlowspecAdjRibin> ribin =
       Ovk::makePtr<FlowspecAdjRibin>(AdjRibinType::received, NlriType::ipv4Flowspec, BgpInstanceEpoch{}, nullptr, nullptr);
   Ovk::Ptr<RtAttr const> attr;
   std::vector<BgpParseNlriResults> nlri;
   RibSource source = 0;
};

enum Control { none, policy, limit, both, ribAlone };

void BM_AdjRibinAnnounce(benchmark::State& state) {
   Session s;
   auto const control = static_cast<Control>(state.range(0));
   if (control != none && control != ribAlone) {
      auto c = Ovk::makePtr<ImportControl>();
      if (control == policy || control == both) {
         ImportPolicy::Options o;
         o.destinations = std::vector<PrefixRange>{parsePrefixRange("10.0.0.0/8 le 32").value()};
         o.actions.emplace();
         o.actions->add(RuleAction::discard);
         o.actions->add(RuleAction::rateLimit);
         c->policy = ImportPolicy::create(o);
      }
      if (control == limit || control == both) {
         RuleLimit l;
         l.maxRules = kRules * 2;
         c->limit = l;
      }
      s.ribin->importControlIs(c);
   }
   for (auto _ : state) {
      if (control == ribAlone) {
         for (BgpParseNlriResults const& n : s.nlri) s.table->pathIs(*n.routeKey, s.source, s.attr);
      } else {
         for (BgpParseNlriResults const& n : s.nlri) s.ribin->announce(n, s.attr);
      }
      state.PauseTiming();
      s.table->pathDelAll(s.source);
      s.table->flushChanges();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
   char const* const labels[] = {"no control", "policy", "limit", "both", "RIB table alone"};
   state.SetLabel(labels[control]);
}
BENCHMARK(BM_AdjRibinAnnounce)
    ->Arg(ribAlone)
    ->Arg(none)
    ->Arg(policy)
    ->Arg(limit)
    ->Arg(both)
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
