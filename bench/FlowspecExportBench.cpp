// The forwarding export: translating one typical rule's best route (three communities:
// traffic rate, DSCP marking and a redirect to a VRF) into its FSIB rule, and programming a
// whole FSIB (12288 rules) from a RIB that receives them, up to the last rule readable in
// shared memory. The plugin runs in a real context, as the agent starts it, over an FSIB of
// the benchmark's own.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <bit>
#include <string>
#include <vector>

#include "BgpFlowspec/FlowspecFsibExport.h"
#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/mnemo/SlateSegment.h"
#include "host/plugin/PluginHost.h"
#include "tests/fakes/PluginContext.h"

namespace {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

constexpr std::uint32_t kFsibRules = 12288;

class Env : public Fakes::PluginContext {
 public:
   Env() : PluginContext("exportbench") {
      // VRF 10 imports route target 65000:100, so the redirect resolves.
      RtToVrfIdList& top = *context->rtToVrfIdList();
      top.set(kIpv4UnicastAfiSafi, AfiSafiRtToVrfIdList::create());
      AfiSafiRtToVrfIdList& byVpn = **top.find(kIpv4UnicastAfiSafi);
      byVpn.set(kVpnIpv4AfiSafi, VpnRtToVrfIdList::create());
      auto list = VrfIdList::create();
      list->vrfs[10] = BgpVrfIdBase(10);
      (*byVpn.find(kVpnIpv4AfiSafi))->set(context->coreDedupTables()->extCommIs(ExtComm::createBase(kRedirect)), list);
      attrs = typicalAttrs();
   }
   RibTable& table() const {
      return *context->allVrfInstanceStatus().at(BgpVrfIdBase{})->ribTable(AfiSafi::ipv4Flowspec());
   }
   FlowspecRouteConfigSm& sm() const {
      auto sm = context->routeConfigSm(ForwardingTarget::flowspec, BgpVrfIdBase{}, AfiSafi::ipv4Flowspec());
      return *dynamic_cast<FlowspecRouteConfigSm*>(sm.ptr());
   }
   // Rule `i`: destination 10.x.y.z/32, TCP, destination port 80.
   FlowspecRouteKey::PtrConst key(std::uint32_t i) const {
      auto const* tables = context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec());
      auto k = flowspecV4RouteKeyFactory();
      k->destPrefixIs(Ovnet::IpGenPrefix(Ovnet::IpGenAddr::ipv4(0x0a000000u | (i & 0xffffff)), 32));
      static std::uint8_t const tcp[] = {0x81, 6};
      static std::uint8_t const http[] = {0x81, 80};
      k->addOpValComponent(Flowspec::ipProtocol_, tcp);
      k->addOpValComponent(Flowspec::destPort_, http);
      auto canonical = k->dedupRouteKey(tables->routeKeyDedupTableRawPtr());
      return FlowspecRouteKey::PtrConst(static_cast<FlowspecRouteKey const*>(canonical.ptr()));
   }

   Ovk::Ptr<RtAttr const> attrs;

 private:
   static constexpr std::uint64_t kRedirect = std::uint64_t{0x8008} << 48 | std::uint64_t{65000} << 32 | 100;

   Ovk::Ptr<RtAttr const> typicalAttrs() const {
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      auto const* rules = context->parseExtCommRuleCollections().ptr();
      std::uint64_t const comms[] = {std::uint64_t{0x8006} << 48 | std::bit_cast<std::uint32_t>(125000.0f),
                                     std::uint64_t{0x8009} << 48 | 10, kRedirect};
      for (std::uint64_t v : comms) c.extCommList.push(context->coreDedupTables()->extCommIs(rules->create(v)));
      auto const* tables = context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec());
      auto nh = flowspecGenNexthopFactory(Afi::afiIpv4, Ovnet::IpGenAddr(), Ovk::String());
      c.nexthop = nh->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(tables->nexthopDedupTableRawPtr()), false);
      return context->rtAttrDedupTable()->rtAttrIs(std::move(c));
   }
};

// One best route translated and written to the FSIB (a replacement of the same rule).
void BM_TranslateTypicalRule(benchmark::State& state) {
   Env env;
   auto const k = env.key(1);
   env.table().pathIs(*k, env.source, env.attrs);
   env.table().flushChanges();
   FlowspecRouteConfigSm& sm = env.sm();
   for (auto _ : state) sm.handleRouteEntry(k.ptr());
   state.SetItemsProcessed(state.iterations());
   state.counters["translations/s"] =
       benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TranslateTypicalRule);

// A RIB receives 12288 rules (one attribute set) and flushes once: every rule is translated
// and written, and the last is readable in the FSIB. Then all are withdrawn.
void BM_ProgramWholeFsib(benchmark::State& state) {
   Env env;
   std::vector<FlowspecRouteKey::PtrConst> keys;
   keys.reserve(kFsibRules);
   for (std::uint32_t i = 0; i < kFsibRules; ++i) keys.push_back(env.key(i));
   Flowspec::FlowspecSlateKey last;
   last.copyInFlowspecKey(keys.back()->slateKey());
   for (auto _ : state) {
      for (auto const& k : keys) env.table().pathIs(*k, env.source, env.attrs);
      env.table().flushChanges();
      if (!env.sm().fsib()->rule(last)) state.SkipWithError("the last rule is not in the FSIB");
      state.PauseTiming();
      for (auto const& k : keys) env.table().pathDel(*k, env.source);
      env.table().flushChanges();
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * kFsibRules);
}
BENCHMARK(BM_ProgramWholeFsib)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
