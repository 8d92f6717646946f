// Originated rules: reading one rule as written (match and actions), and putting a whole
// configuration of rules into the RIB and the FSIB, as at start or at a reload that adds them;
// a reload that changes nothing. The plugin runs in a real context over an FSIB of the
// benchmark's own.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "agent/Origination.h"
#include "tests/fakes/PluginContext.h"

namespace {

using namespace Flowspecd;

// Rule `i`: destination 10.x.y.z/32, TCP, destination port 80, policed and marked.
std::string matchOf(std::uint32_t i) {
   return "destination 10." + std::to_string((i >> 16) & 0xff) + "." + std::to_string((i >> 8) & 0xff) + "." +
          std::to_string(i & 0xff) + "/32 protocol tcp destination-port =80";
}
std::vector<std::string> const kThen{"rate-limit 125000", "mark 10"};

// The plugin library, loaded as the agent loads it (it makes the rules' routes).
void loadPlugin() {
   static bool const loaded = Routing::Bgp::Plugin::loadPluginLibrary(FS_PLUGIN_LIBRARY).ok();
   if (!loaded) std::abort();
}

std::vector<RuleConfig> rules(std::uint32_t n) {
   std::vector<RuleConfig> out;
   out.reserve(n);
   for (std::uint32_t i = 0; i < n; ++i) {
      out.push_back(RuleConfig{originatedRuleOf(kIpv4Flowspec, matchOf(i), kThen).value(), i + 1});
   }
   return out;
}

void BM_OriginatedRuleOf(benchmark::State& state) {
   std::string const match = matchOf(12345);
   for (auto _ : state) {
      auto r = originatedRuleOf(kIpv4Flowspec, match, kThen);
      benchmark::DoNotOptimize(r);
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OriginatedRuleOf);

// Every rule of a configuration into the RIB and the FSIB, then withdrawn again (untimed).
void BM_ConfiguredRulesIs(benchmark::State& state) {
   loadPlugin();
   Routing::Bgp::Fakes::PluginContext env("originationbench");
   auto const all = rules(static_cast<std::uint32_t>(state.range(0)));
   Origination origination(env.context);
   for (auto _ : state) {
      auto const diff = origination.configuredRulesIs(all, "bench.toml");
      benchmark::DoNotOptimize(diff);
      state.PauseTiming();
      state.counters["inForce"] = static_cast<double>(origination.inForce());
      (void)origination.configuredRulesIs({}, "bench.toml");
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfiguredRulesIs)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

// A reload of the same rules: each compared, none touched.
void BM_ConfiguredRulesIsUnchanged(benchmark::State& state) {
   loadPlugin();
   Routing::Bgp::Fakes::PluginContext env("originationbench");
   auto const all = rules(static_cast<std::uint32_t>(state.range(0)));
   Origination origination(env.context);
   (void)origination.configuredRulesIs(all, "bench.toml");
   for (auto _ : state) {
      auto const diff = origination.configuredRulesIs(all, "bench.toml");
      benchmark::DoNotOptimize(diff);
   }
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ConfiguredRulesIsUnchanged)->Arg(10000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
