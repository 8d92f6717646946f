// The flowspec NLRI parse rule and writer: NLRI per second and MB per second on one core,
// for rules new to the table (parsed, interned and held, as the adj-RIB-in holds them) and
// for rules already in it (parsed, found, released), and the writer's throughput.
//
// The mix is five shapes of mitigation rules as operators send them, each to its own
// destination: a DNS reflection (/32, UDP, source port 53), a SYN flood (/32, TCP, ports 80
// and 443, SYN), large UDP packets (/24, UDP, length >= 1000), fragments (/32, any
// fragment), ICMP from a network (/32, source /24, ICMP). Bodies of 10 to 18 bytes.
#include <benchmark/benchmark.h>

#include <vector>

#include "tests/BgpFlowspec/ParseTestHelpers.h"

namespace {

using namespace FlowspecTest;

// The NLRI of rule `i` of the mix, appended to `out`.
void appendMixedRule(Bytes& out, std::uint32_t i) {
   std::uint8_t const a = static_cast<std::uint8_t>(i >> 16);
   std::uint8_t const b = static_cast<std::uint8_t>(i >> 8);
   std::uint8_t const c = static_cast<std::uint8_t>(i);
   Bytes body;
   switch (i % 5) {
   case 0: body = {0x01, 32, 10, a, b, c, 0x03, 0x81, 17, 0x06, 0x81, 53}; break;
   case 1: body = {0x01, 32, 11, a, b, c, 0x03, 0x81, 6, 0x05, 0x01, 80, 0x91, 0x01, 0xbb, 0x09, 0x81, 0x02}; break;
   case 2: body = {0x01, 24, a, b, c, 0x03, 0x81, 17, 0x0a, 0x93, 0x03, 0xe8}; break;
   case 3: body = {0x01, 32, 12, a, b, c, 0x0c, 0x80, 0x02}; break;
   default: body = {0x01, 32, 13, a, b, c, 0x02, 24, 192, 0, 2, 0x03, 0x81, 1}; break;
   }
   out.push_back(static_cast<std::uint8_t>(body.size()));
   out.insert(out.end(), body.begin(), body.end());
}

struct Mix {
   explicit Mix(std::uint32_t n) {
      for (std::uint32_t i = 0; i < n; ++i) {
         starts.push_back(bytes.size());
         appendMixedRule(bytes, i);
      }
      starts.push_back(bytes.size());
   }
   std::size_t count() const { return starts.size() - 1; }
   Bytes bytes;
   std::vector<std::size_t> starts;
};

// Each NLRI as the whole NLRI field of an attribute, as the host hands it over.
template <class F>
void forEachNlri(Mix const& mix, F&& f) {
   for (std::size_t i = 0; i < mix.count(); ++i) {
      BgpParsePktPosition pos(mix.bytes.data() + mix.starts[i], mix.bytes.data() + mix.starts[i + 1]);
      f(pos);
   }
}

void report(benchmark::State& state, Mix const& mix) {
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mix.count()));
   state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(mix.bytes.size()));
}

// Rules new to the table: every NLRI is interned and held.
void BM_ParseNewRules(benchmark::State& state) {
   Mix const mix(static_cast<std::uint32_t>(state.range(0)));
   for (auto _ : state) {
      state.PauseTiming();
      ParseEnv env;
      std::vector<Ovk::Ptr<RouteKey const>> held;
      held.reserve(mix.count());
      state.ResumeTiming();
      forEachNlri(mix, [&](BgpParsePktPosition& pos) {
         BgpParsePktPosition* p = &pos;
         held.push_back(env.rules[0]->inhale(env.contexts[0], p, true, env.results).routeKey);
      });
      state.PauseTiming();
      if (env.tables[0]->size() != mix.count()) state.SkipWithError("rules were not all new");
      held.clear();
      state.ResumeTiming();
   }
   report(state, mix);
}
BENCHMARK(BM_ParseNewRules)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(3);

// Rules the table has: every NLRI is parsed, found and released.
void BM_ParseKnownRules(benchmark::State& state) {
   Mix const mix(static_cast<std::uint32_t>(state.range(0)));
   ParseEnv env;
   std::vector<Ovk::Ptr<RouteKey const>> held;
   forEachNlri(mix, [&](BgpParsePktPosition& pos) {
      BgpParsePktPosition* p = &pos;
      held.push_back(env.rules[0]->inhale(env.contexts[0], p, true, env.results).routeKey);
   });
   for (auto _ : state) {
      forEachNlri(mix, [&](BgpParsePktPosition& pos) {
         BgpParsePktPosition* p = &pos;
         benchmark::DoNotOptimize(env.rules[0]->inhale(env.contexts[0], p, true, env.results));
      });
   }
   if (env.tables[0]->counters().hits == 0) state.SkipWithError("no rule was found");
   report(state, mix);
}
BENCHMARK(BM_ParseKnownRules)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

// The parse alone on one known rule (the table in cache, the key found at once).
void BM_ParseOneKnownRule(benchmark::State& state) {
   Mix const mix(1);
   ParseEnv env;
   auto const held = env.key(false, toHex(mix.bytes));
   for (auto _ : state) {
      BgpParsePktPosition pos(mix.bytes);
      BgpParsePktPosition* p = &pos;
      benchmark::DoNotOptimize(env.rules[0]->inhale(env.contexts[0], p, true, env.results));
   }
   report(state, mix);
}
BENCHMARK(BM_ParseOneKnownRule);

// Writing the NLRI of interned rules.
void BM_Serialize(benchmark::State& state) {
   Mix const mix(static_cast<std::uint32_t>(state.range(0)));
   ParseEnv env;
   std::vector<FlowspecRouteKey const*> keys;
   std::vector<Ovk::Ptr<RouteKey const>> held;
   forEachNlri(mix, [&](BgpParsePktPosition& pos) {
      BgpParsePktPosition* p = &pos;
      held.push_back(env.rules[0]->inhale(env.contexts[0], p, true, env.results).routeKey);
      keys.push_back(static_cast<FlowspecRouteKey const*>(held.back().ptr()));
   });
   for (auto _ : state) {
      for (FlowspecRouteKey const* k : keys) {
         benchmark::DoNotOptimize(k->serialize(RouteKey::SerializeOperation::advertise, nullptr));
      }
   }
   report(state, mix);
}
BENCHMARK(BM_Serialize)->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
