// What validation against the unicast table costs. A full table of 1M IPv4 unicast routes
// (/24s, each with its key, its RIB path and its longest-prefix node) goes into the unicast
// RIB as the agent's flush puts it; then 10k flowspec rules (one per /24, from the neighbor
// that routes them) are judged against it; then a unicast change that concerns 100 rules
// (a /16's best path moves to another AS and back) is judged again.
//
// Run: build/default/bench/ValidationBench
// Counters: per route or rule, and bytes of the longest-prefix structure per route.
#include <benchmark/benchmark.h>

#include <vector>

#include "BgpFlowspec/FlowspecAdjRibin.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/UnicastRouteKey.h"
#include "host/bgp/Validation.h"

namespace {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

constexpr std::uint32_t kRoutes = 1'000'000;
constexpr std::uint32_t kRules = 10'000;

// The /24 number i: 1.0.0.0/24 upwards.
Ovnet::IpGenPrefix slash24(std::uint32_t i) { return {Ovnet::IpGenAddr::ipv4((0x01000000u + i) << 8), 24}; }

struct Table {
   Table() {
      a = sources->sourceIs(BgpPeer{*Ovnet::IpGenAddr::parse("127.0.0.2"), 65002, 65001, 2, {}});
      b = sources->sourceIs(BgpPeer{*Ovnet::IpGenAddr::parse("127.0.0.3"), 65003, 65001, 3, {}});
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      c.asPathLength = 1;
      c.neighborAs = 65002;
      fromA = attrs->rtAttrIs(c);
      c.neighborAs = 65003;
      fromB = attrs->rtAttrIs(c);
   }
   void fill() {
      for (std::uint32_t i = 0; i < kRoutes; ++i) {
         auto key = unicastRouteKeyFactory(slash24(i))->dedupRouteKey(keys.ptr());
         unicast->pathIs(*key, a, fromA);
      }
      unicast->flushChanges();
   }
   ~Table() {
      unicast->pathDelAll(a);
      unicast->pathDelAll(b);
      rules->pathDelAll(a);
   }

   Ovk::Ptr<RibSources> sources = RibSources::create(BgpPeer{});
   RibSource a = 0;
   RibSource b = 0;
   Ovk::Ptr<RtAttrDedupTable> attrs = RtAttrDedupTable::create();
   Ovk::Ptr<RtAttr const> fromA;
   Ovk::Ptr<RtAttr const> fromB;
   Ovk::Ptr<UnicastRouteKeyDedupTable> keys =
       Ovk::makePtr<UnicastRouteKeyDedupTable>(AfiSafi::ipv4Unicast(), BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<RibTable> unicast = Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), kIpv4Unicast, sources);
   Ovk::Ptr<RuleValidation> validation = Ovk::makePtr<RuleValidation>(unicast, nullptr);
   Ovk::Ptr<FlowspecRouteKeyDedupTable> ruleKeys =
       flowspecRouteKeyDedupTableFactory(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<RibTable> rules = Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), kIpv4Flowspec, sources);
};

// A full table into the unicast RIB and the longest-prefix structure.
void BM_FullTable(benchmark::State& state) {
   for (auto _ : state) {
      state.PauseTiming();
      auto t = std::make_unique<Table>();
      state.ResumeTiming();
      t->fill();
      state.PauseTiming();
      state.counters["trieBytesPerRoute"] = static_cast<double>(t->validation->bytes()) / kRoutes;
      state.counters["ribIndexBytesPerRoute"] = static_cast<double>(t->unicast->bytes()) / kRoutes;
      t.reset();
      state.ResumeTiming();
   }
   state.counters["perRoute"] = benchmark::Counter(static_cast<double>(kRoutes) * static_cast<double>(state.iterations()),
                                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FullTable)->Unit(benchmark::kMillisecond)->Iterations(2);

struct Rules {
   Rules() {
      t.fill();
      ribin->sourceIs(t.a);
      ribin->ribTableIs(t.rules);
      ribin->validationIs(t.validation);
      // 200.0.0.0/16 from A: the best match of the last 100 rules, and nothing else's.
      cover = unicastRouteKeyFactory(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(0xc8000000u), 16))->dedupRouteKey(t.keys.ptr());
      t.unicast->pathIs(*cover, t.a, t.fromA);
      t.unicast->flushChanges();
      // Rules 0 to 9899: a host of every 100th /24 of the table; rules 9900 to 9999: a host
      // each in 200.0.0.0/16.
      for (std::uint32_t i = 0; i < kRules; ++i) {
         auto key = flowspecV4RouteKeyFactory();
         std::uint32_t const host = i < kRules - 100 ? ((0x01000000u + i * 100) << 8) | 1 : 0xc8000001u | (i - (kRules - 100)) << 8;
         key->destPrefixIs(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(host), 32));
         BgpParseNlriResults n;
         n.reachable = true;
         n.routeKey = key->dedupRouteKey(t.ruleKeys.ptr());
         nlri.push_back(std::move(n));
      }
   }
   Table t;
   Ovk::Ptr<RouteKey const> cover;
   Ovk::Ptr<FlowspecAdjRibin> ribin =
       Ovk::makePtr<FlowspecAdjRibin>(AdjRibinType::received, NlriType::ipv4Flowspec, BgpInstanceEpoch{}, nullptr, nullptr);
   std::vector<BgpParseNlriResults> nlri;
};

// 10k rules announced by the neighbor that routes them, each judged against the full table.
void BM_ValidateRules(benchmark::State& state) {
   Rules r;
   for (auto _ : state) {
      for (auto const& n : r.nlri) benchmark::DoNotOptimize(r.ribin->announce(n, r.t.fromA));
      state.PauseTiming();
      if (r.t.rules->pathsOf(r.t.a) != kRules) {
         state.SkipWithError("a rule was found infeasible");
         break;
      }
      for (auto const& n : r.nlri) r.ribin->withdraw(*n.routeKey);
      state.ResumeTiming();
   }
   state.counters["perRule"] = benchmark::Counter(static_cast<double>(kRules) * static_cast<double>(state.iterations()),
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ValidateRules)->Unit(benchmark::kMillisecond);

// A unicast change that concerns 100 rules: the route that is their best match goes (they
// become infeasible and leave the rules' table) or comes back (they come in). Each iteration
// is one change, its flush and the revalidation of the rules it concerns.
void BM_Revalidate100(benchmark::State& state) {
   Rules r;
   for (auto const& n : r.nlri) r.ribin->announce(n, r.t.fromA);
   r.t.rules->flushChanges();
   std::size_t judged = 0;
   bool present = true;
   for (auto _ : state) {
      if (present) {
         r.t.unicast->pathDel(*r.cover, r.t.a);
      } else {
         r.t.unicast->pathIs(*r.cover, r.t.a, r.t.fromA);
      }
      present = !present;
      r.t.unicast->flushChanges();
      judged = r.t.validation->revalidate();
      r.t.rules->flushChanges();
   }
   if (!present) r.t.unicast->pathIs(*r.cover, r.t.a, r.t.fromA);
   r.t.unicast->flushChanges();
   r.t.validation->revalidate();
   state.counters["rulesJudged"] = static_cast<double>(judged);
   for (auto const& n : r.nlri) r.ribin->withdraw(*n.routeKey);
   r.t.unicast->pathDel(*r.cover, r.t.a);
}
BENCHMARK(BM_Revalidate100)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
