// The RIB-out: sending a table of a million flowspec rules that share one attribute set to
// one peer, encoded into UPDATEs through an output that takes every message at once (CPU per
// rule, bytes per rule on the wire, how full the messages are, the heap the RIB-out keeps per
// rule sent); and what the RIB-out costs
// the receive path when it has nothing to send (the peer's own rules, split horizon).
//
// Run: build/default/bench/RibOutBench
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <vector>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/AdjRibOut.h"

namespace {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

constexpr std::uint32_t kRules = 1'000'000;

// Rule `i`: destination 10.x.y.z/32, protocol TCP or UDP, one of four destination ports.
Ovk::Ptr<RouteKey const> typicalRule(std::uint32_t i, FlowspecRouteKeyDedupTable const* table) {
   static std::uint8_t const protocols[2][2] = {{0x81, 6}, {0x81, 17}};
   static std::uint8_t const ports[4][3] = {{0x91, 0x01, 0xbb}, {0x81, 80, 0}, {0x91, 0x0d, 0x3d}, {0x81, 53, 0}};
   auto key = flowspecV4RouteKeyFactory();
   key->destPrefixIs(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(0x0a000000u | (i & 0xffffff)), 32));
   key->addOpValComponent(Flowspec::ipProtocol_, protocols[(i >> 3) & 1]);
   std::uint8_t const* port = ports[(i >> 4) & 3];
   key->addOpValComponent(Flowspec::destPort_, std::span<std::uint8_t const>(port, port[0] == 0x91 ? 3 : 2));
   return key->dedupRouteKey(table);
}

// Takes every message at once and counts it.
class CountingOutput : public BgpPeerOutput {
 public:
   void sendUpdate(std::span<std::uint8_t const> m) override {
      ++messages;
      bytes += m.size();
   }
   void sendEndOfRib(AfiSafi) override { ++endOfRibs; }
   void sendRouteRefresh(AfiSafi) override {}
   std::size_t queuedBytes() const override { return 0; }
   void drainedCallbackIs(std::function<void()>) override {}
   std::uint64_t messages = 0;
   std::uint64_t bytes = 0;
   std::uint64_t endOfRibs = 0;
};

struct Table {
   Table() {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      c.extCommList.push(core->extCommIs(ExtComm::create(0x8006000000000000ull)));
      attr = attrs->rtAttrIs(std::move(c));
      keys.reserve(kRules);
      for (std::uint32_t i = 0; i < kRules; ++i) keys.push_back(typicalRule(i, dedup.ptr()));
   }
   ~Table() {
      table->pathDelAll(kLocalRibSource);
      for (RibSource s = 1; s < sources->size(); ++s) table->pathDelAll(s);
   }
   Ovk::Ptr<FlowspecRouteKeyDedupTable> dedup =
       flowspecRouteKeyDedupTableFactory(AfiSafi::ipv4Flowspec(), BgpL3VrfId::defaultVrfId());
   Ovk::Ptr<CoreDedupTables> core = CoreDedupTables::create();
   Ovk::Ptr<RtAttrDedupTable> attrs = RtAttrDedupTable::create();
   Ovk::Ptr<RibSources> sources = RibSources::create(BgpPeer{});
   Ovk::Ptr<RibTable> table = Ovk::makePtr<RibTable>(BgpL3VrfId::defaultVrfId(), kIpv4Flowspec, sources);
   Ovk::Ptr<RtAttr const> attr;
   std::vector<Ovk::Ptr<RouteKey const>> keys;
};

BgpPeer const kPeer{*Ovnet::IpGenAddr::parse("127.0.0.2"), 65002, 65001, 2, BgpL3VrfId::defaultVrfId()};

// The initial table of a new session: a million rules of the agent's own, one attribute set.
void BM_RibOutInitialTable(benchmark::State& state) {
   Table t;
   for (auto const& k : t.keys) t.table->pathIs(*k, kLocalRibSource, t.attr);
   t.table->flushChanges();
   auto scheduler = Ovk::ManualScheduler::create();
   CountingOutput out;
   double heapPerRule = 0;
   for (auto _ : state) {
      out = CountingOutput();
      std::size_t const before = mallinfo2().uordblks;
      SessionRibOut ribOut(kPeer, t.sources->sourceIs(kPeer), UpdateSession{true, false}, t.table, nullptr, t.attrs,
                           out, scheduler, {});
      ribOut.start();
      scheduler->runReady();
      if (out.endOfRibs != 1 || ribOut.advertisedRoutes() != kRules) state.SkipWithError("table not sent");
      state.PauseTiming();
      heapPerRule = static_cast<double>(mallinfo2().uordblks - before) / kRules;
      ribOut.stop();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
   state.counters["bytesPerRule"] = static_cast<double>(out.bytes) / kRules;
   state.counters["updates"] = static_cast<double>(out.messages);
   // What the peer's RIB-out holds per rule it was sent (and its emptied work list).
   state.counters["heapBytesPerRule"] = heapPerRule;
   state.counters["fillRatio"] = static_cast<double>(out.bytes) / static_cast<double>(out.messages * 4096);
}
BENCHMARK(BM_RibOutInitialTable)->Unit(benchmark::kMillisecond)->Iterations(3);

// A peer sends its million rules while it has a RIB-out of its own: they are its own, so the
// RIB-out only looks at each and sends nothing. Compare with BM_IngestWithoutRibOut.
void ingest(benchmark::State& state, bool withRibOut) {
   Table t;
   RibSource const self = t.sources->sourceIs(kPeer);
   auto scheduler = Ovk::ManualScheduler::create();
   CountingOutput out;
   SessionRibOut ribOut(kPeer, self, UpdateSession{true, false}, t.table, nullptr, t.attrs, out, scheduler, {});
   if (withRibOut) ribOut.start();
   scheduler->runReady();
   for (auto _ : state) {
      // As the agent does it: one flush per UPDATE of about 200 rules.
      for (std::uint32_t i = 0; i < kRules; ++i) {
         t.table->pathIs(*t.keys[i], self, t.attr);
         if (i % 200 == 199) t.table->flushChanges();
      }
      t.table->flushChanges();
      state.PauseTiming();
      if (ribOut.pendingRoutes() != 0 || out.messages != 0) state.SkipWithError("sent something");
      t.table->pathDelAll(self);
      t.table->flushChanges();
      state.ResumeTiming();
   }
   ribOut.stop();
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRules);
}
void BM_IngestWithSplitHorizonRibOut(benchmark::State& state) { ingest(state, true); }
void BM_IngestWithoutRibOut(benchmark::State& state) { ingest(state, false); }
BENCHMARK(BM_IngestWithSplitHorizonRibOut)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IngestWithoutRibOut)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
