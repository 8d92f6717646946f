// Flowspec route keys: deduplicating a million distinct rules (keys per second and the heap
// each one costs, object, buffer and table slot included), looking up a million rules already
// in the table, and sorting a million rules in rule order.
//
// The rules are typical three-component ones: a destination prefix, a protocol and a
// destination port (for example "10.1.2.3/32;*;protocol =6;destination-port =443;").
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <algorithm>
#include <random>
#include <vector>

#include "BgpFlowspec/FlowspecRouteKey.h"

namespace {

using namespace Routing::Bgp::FlowspecPlugin;
using Routing::Bgp::AfiSafi;

constexpr std::uint32_t kRules = 1'000'000;

// Rule `i`: destination 10.x.y.z/32 from the low 24 bits of i, protocol TCP or UDP, and a
// destination port from a handful, so that every i below 2^24 gives a distinct rule.
FlowspecRouteKey::Ptr typicalRule(std::uint32_t i) {
   static std::uint8_t const protocols[2][2] = {{0x81, 6}, {0x81, 17}};
   static std::uint8_t const ports[4][3] = {{0x91, 0x01, 0xbb}, {0x81, 80, 0}, {0x91, 0x0d, 0x3d}, {0x81, 53, 0}};
   auto key = flowspecV4RouteKeyFactory();
   key->destPrefixIs(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(0x0a000000u | (i & 0xffffff)), 32));
   key->addOpValComponent(Flowspec::ipProtocol_, protocols[(i >> 3) & 1]);
   std::uint8_t const* port = ports[(i >> 4) & 3];
   key->addOpValComponent(Flowspec::destPort_, std::span<std::uint8_t const>(port, port[0] == 0x91 ? 3 : 2));
   return key;
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

Ovk::Ptr<FlowspecRouteKeyDedupTable> makeTable() {
   return flowspecRouteKeyDedupTableFactory(AfiSafi::ipv4Flowspec(), Routing::Bgp::BgpL3VrfId::defaultVrfId());
}

// Builds and deduplicates kRules distinct keys into a fresh table; the keys are held as a
// RIB would hold them. Reports the heap each key costs: its object, any buffer and its share
// of the table's index (the holders' own vector is left out).
void BM_RouteKeyDedupDistinct(benchmark::State& state) {
   double bytesPerKey = 0;
   for (auto _ : state) {
      std::vector<Ovk::Ptr<Routing::Bgp::RouteKey const>> held;
      held.reserve(kRules);
      std::size_t const before = heapInUse();
      auto table = makeTable();
      for (std::uint32_t i = 0; i < kRules; ++i) held.push_back(typicalRule(i)->dedupRouteKey(table.ptr()));
      bytesPerKey = static_cast<double>(heapInUse() - before) / kRules;
      if (table->size() != kRules) state.SkipWithError("keys were not distinct");
      state.PauseTiming();
      held.clear();
      table = nullptr;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
   state.counters["bytesPerKey"] = bytesPerKey;
   state.counters["objectBytes"] = sizeof(FlowspecV4RouteKey);
}
BENCHMARK(BM_RouteKeyDedupDistinct)->Unit(benchmark::kMillisecond)->Iterations(3);

// A table of n keys; n times a fresh key of a rule already in it is built and deduplicated
// (found), then released: what the parse rule pays for a rule it knows. With 2^10 keys the
// table stays in the caches; with 10^6 each lookup waits for memory.
void BM_RouteKeyDedupExisting(benchmark::State& state) {
   auto const n = static_cast<std::uint32_t>(state.range(0));
   auto table = makeTable();
   std::vector<Ovk::Ptr<Routing::Bgp::RouteKey const>> held;
   held.reserve(n);
   for (std::uint32_t i = 0; i < n; ++i) held.push_back(typicalRule(i)->dedupRouteKey(table.ptr()));
   std::vector<std::uint32_t> order(n);
   for (std::uint32_t i = 0; i < n; ++i) order[i] = i;
   std::shuffle(order.begin(), order.end(), std::mt19937(1));
   for (auto _ : state) {
      for (std::uint32_t i : order) benchmark::DoNotOptimize(typicalRule(i)->dedupRouteKey(table.ptr()));
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_RouteKeyDedupExisting)->Arg(1 << 10)->Arg(kRules)->Unit(benchmark::kMillisecond);

// Building the typical key alone (no table).
void BM_RouteKeyBuild(benchmark::State& state) {
   std::uint32_t i = 0;
   for (auto _ : state) benchmark::DoNotOptimize(typicalRule(i++));
}
BENCHMARK(BM_RouteKeyBuild);

// Only the hash and equality part of a lookup: a probe key already built.
void BM_RouteKeyHash(benchmark::State& state) {
   auto key = typicalRule(12345);
   for (auto _ : state) benchmark::DoNotOptimize(key->hash());
}
BENCHMARK(BM_RouteKeyHash);

// Sorts kRules deduplicated keys in rule order. lessThan answers true for equal keys, so the
// comparator std::sort gets is the strict form: a before b, and not b before a.
void BM_RouteKeySortLessThan(benchmark::State& state) {
   auto table = makeTable();
   std::vector<Ovk::Ptr<Routing::Bgp::RouteKeyBase const>> keys;
   keys.reserve(kRules);
   for (std::uint32_t i = 0; i < kRules; ++i) keys.push_back(typicalRule(i)->dedupRouteKey(table.ptr()));
   auto strictlyBefore = [](auto const& a, auto const& b) { return a->lessThan(b) && !b->lessThan(a); };
   for (auto _ : state) {
      state.PauseTiming();
      std::shuffle(keys.begin(), keys.end(), std::mt19937(2));
      state.ResumeTiming();
      std::sort(keys.begin(), keys.end(), strictlyBefore);
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
}
BENCHMARK(BM_RouteKeySortLessThan)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace

BENCHMARK_MAIN();
