// Flowspec next hops: the cost the next-hop rule pays per UPDATE (build, deduplicate against
// a shared next hop, release), and the cost of a next hop that enters and leaves its table
// (life-time notifier made and dropped, id handed out and returned).
#include <benchmark/benchmark.h>

#include <vector>

#include "BgpFlowspec/FlowspecNexthop.h"

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using Routing::Bgp::Afi;

Ovk::Ptr<FlowspecGenNexthopDedupTable> makeTable() {
   return flowspecGenNexthopDedupTableFactory(Routing::Bgp::BgpL3VrfId::defaultVrfId(),
                                              Routing::Bgp::AfiSafi::ipv4Flowspec(),
                                              flowspecGenNexthopLifeTimeNotifieeFactory(false, nullptr, "bench"),
                                              Routing::Bgp::GenNexthopIdAllocator::create());
}

// Table of `n` next hops held outside; each iteration deduplicates one of them again.
void BM_NexthopDedupHit(benchmark::State& state) {
   auto const n = static_cast<std::uint32_t>(state.range(0));
   auto table = makeTable();
   std::vector<Ovk::Ptr<Routing::Bgp::GenNexthop const>> held;
   for (std::uint32_t i = 0; i < n; ++i) {
      held.push_back(
          flowspecGenNexthopFactory(Afi::afiIpv4, Ovnet::IpGenAddr::ipv4(0x0a000000 + i), {})->dedup(table, false));
   }
   std::uint32_t i = 0;
   for (auto _ : state) {
      auto nh = flowspecGenNexthopFactory(Afi::afiIpv4, Ovnet::IpGenAddr::ipv4(0x0a000000 + i++ % n), {});
      benchmark::DoNotOptimize(nh->dedup(table, false));
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_NexthopDedupHit)->Arg(16)->Arg(1 << 16);

// A next hop of new content enters the table and leaves it again.
void BM_NexthopEnterAndLeave(benchmark::State& state) {
   auto table = makeTable();
   std::uint32_t i = 0;
   for (auto _ : state) {
      auto nh = flowspecGenNexthopFactory(Afi::afiIpv4, Ovnet::IpGenAddr::ipv4(0x0a000000 + i++), {});
      benchmark::DoNotOptimize(nh->dedup(table, false));
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_NexthopEnterAndLeave);

void BM_NexthopHash(benchmark::State& state) {
   auto nh = flowspecGenNexthopFactory(Afi::afiIpv6, Ovnet::IpGenAddr(), Ovk::String("\x20\x01\x0d\xb8"));
   for (auto _ : state) benchmark::DoNotOptimize(nh->hash());
}
BENCHMARK(BM_NexthopHash);

} // namespace

BENCHMARK_MAIN();
