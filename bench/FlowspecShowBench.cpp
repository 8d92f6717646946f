// The flowspec route table served as the agent serves it (agent/ShowTables): the first page
// of 100 rows of a table of a million rules, a lower-bound start at an arbitrary rule in
// tables of growing size (a search, not a walk), and the whole table streamed as JSON.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "BgpFlowspec/FlowspecOvrow.h"
#include "BgpFlowspec/FlowspecRouteKey.h"
#include "agent/ShowTables.h"
#include "host/plugin/PluginHost.h"

namespace {

using namespace Routing::Bgp;
using namespace Routing::Bgp::FlowspecPlugin;

// A context without FSIB (no export: the table alone is measured) whose IPv4 flowspec RIB
// holds `rules` rules of one peer: host destinations 10.0.0.0 upwards, every fourth with a
// protocol, so that keys differ in more than their prefix.
class Env {
 public:
   explicit Env(std::size_t rules) {
      Plugin::Context::Options o;
      o.attributeCacheStatus = Hoard::AttributeCacheStatus::create();
      context = Plugin::startPlugins(std::move(o));
      RibSource const peer = context->ribSources()->sourceIs(
          BgpPeer{*Ovnet::IpGenAddr::parse("192.0.2.9"), 65002, 65001, 9, BgpVrfIdBase{}});
      auto const* tables = context->dedupTablesVrf(BgpVrfIdBase{})->dedupTablesVrfAfiSafi(AfiSafi::ipv4Flowspec());
      PathAttributesContents c;
      c.origin = BgpOrigin::igp;
      c.asPath = Ovk::String(std::string{2, 1, 0, 0, static_cast<char>(0xfd), static_cast<char>(0xea)});
      c.asPathLength = 1;
      c.neighborAs = 65002;
      auto const attrs = context->rtAttrDedupTable()->rtAttrIs(std::move(c));
      RibTable& table = *context->allVrfInstanceStatus().at(BgpVrfIdBase{})->ribTable(AfiSafi::ipv4Flowspec());
      for (std::size_t i = 0; i < rules; ++i) {
         auto const addr = static_cast<std::uint32_t>(0x0a000000u + i);
         std::string text = Ovnet::IpGenAddr::ipv4(addr).str() + "/32;*;";
         if (i % 4 == 0) text += "proto=6";
         auto k = flowspecRouteKeyFactory(Afi::afiIpv4);
         k->copyInStrCli(text);
         auto key = k->dedupRouteKey(tables->routeKeyDedupTableRawPtr());
         table.pathIs(*key, peer, attrs);
         texts.push_back(std::move(text));
      }
      table.flushChanges();
   }
   ~Env() { context->shutdown(); }

   // The whole answer to `request`, chunk by chunk, as the agent writes it.
   std::size_t answer(nlohmann::json const& request) const {
      auto stream = Flowspecd::showTableStream(context, request.dump(), [](Ovnet::IpGenAddr const&) { return true; });
      std::string chunk;
      std::size_t bytes = 0;
      bool more = true;
      while (more) {
         chunk.clear();
         more = stream->next(chunk);
         bytes += chunk.size();
      }
      return bytes;
   }

   Ovk::Ptr<Plugin::Context> context;
   std::vector<std::string> texts;
};

Env& env(std::size_t rules) {
   static std::map<std::size_t, std::unique_ptr<Env>> all;
   auto& e = all[rules];
   if (!e) e = std::make_unique<Env>(rules);
   return *e;
}

constexpr std::size_t kMillion = 1u << 20;

void BM_FirstPage(benchmark::State& state) {
   Env& e = env(kMillion);
   bool const json = state.range(0) != 0;
   nlohmann::json const request{
       {"show", "flowspec"}, {"family", "ipv4"}, {"format", json ? "json" : "text"}, {"limit", 100}};
   for (auto _ : state) benchmark::DoNotOptimize(e.answer(request));
   state.SetLabel(json ? "json" : "text");
}
BENCHMARK(BM_FirstPage)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// One row from a rule given as text, at spread-out places of tables of growing size.
void BM_LowerBound(benchmark::State& state) {
   Env& e = env(static_cast<std::size_t>(state.range(0)));
   auto db = Ovk::makePtr<Ovrow::Ovdb>();
   Ovrow::Bgp::registerBgpRowTypes(*db);
   Ovrow::LocalOvdb local(db);
   FlowspecOvrowPlugin(AfiSafi::ipv4Flowspec())
       .registerOvrowTables(Ovk::makePtr<Plugin::ShowCmdContext>(e.context, AfiSafi::ipv4Flowspec()), &local);
   auto table = db->table(kBgpFlowspecIpv4RoutePath);
   std::size_t i = 0;
   for (auto _ : state) {
      Ovrow::Row start(table->rowType());
      start.columnIs("rule", e.texts[(i * 7919) % e.texts.size()]);
      benchmark::DoNotOptimize(table->cursorLowerBound(start));
      ++i;
   }
}
BENCHMARK(BM_LowerBound)->Arg(1 << 10)->Arg(1 << 15)->Arg(kMillion)->Unit(benchmark::kMicrosecond);

void BM_JsonWholeTable(benchmark::State& state) {
   Env& e = env(kMillion);
   nlohmann::json const request{{"show", "flowspec"}, {"family", "ipv4"}, {"format", "json"}};
   std::size_t bytes = 0;
   for (auto _ : state) bytes += e.answer(request);
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kMillion));
   state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(BM_JsonWholeTable)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace

BENCHMARK_MAIN();
