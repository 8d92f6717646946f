// Costs of the forwarding library's rule key: building it pair by pair as the NLRI parser
// does, reading and printing rule text, flattening it into a slate key and ordering slate
// keys. The memory benchmark reports the bytes a key takes for rules of typical shapes.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "host/flowspec/FlowspecKey.h"
#include "host/flowspec/FlowspecSlateKey.h"

namespace {

using namespace Flowspec;

constexpr char kTypicalRule[] = "10.1.2.0/24;*;protocol =6;destination-port =80 =443;";

FlowspecKey typicalKey() {
   FlowspecKey k;
   k.copyInStrCli(kTypicalRule);
   return k;
}

void BM_SetOpValThreePairs(benchmark::State& state) {
   for (auto _ : state) {
      FlowspecKey k;
      MatchOpValIndex i = k.setOpVal(0, ipProtocol_, 0x81, 6);
      i = k.setOpVal(i, destPort_, 0x01, 80);
      k.setOpVal(i, destPort_, 0x91, 443);
      benchmark::DoNotOptimize(k);
   }
}
BENCHMARK(BM_SetOpValThreePairs);

void BM_CopyInStrCli(benchmark::State& state) {
   for (auto _ : state) {
      FlowspecKey k;
      benchmark::DoNotOptimize(k.copyInStrCli(kTypicalRule));
   }
}
BENCHMARK(BM_CopyInStrCli);

void BM_ToStrepCli(benchmark::State& state) {
   FlowspecKey const k = typicalKey();
   for (auto _ : state) benchmark::DoNotOptimize(k.toStrepCli());
}
BENCHMARK(BM_ToStrepCli);

void BM_CopyInFlowspecKey(benchmark::State& state) {
   FlowspecKey const k = typicalKey();
   for (auto _ : state) {
      FlowspecSlateKey s;
      s.copyInFlowspecKey(k);
      benchmark::DoNotOptimize(s);
   }
}
BENCHMARK(BM_CopyInFlowspecKey);

void BM_SlateKeyCmp(benchmark::State& state) {
   FlowspecKey a = typicalKey();
   FlowspecKey b;
   b.copyInStrCli("10.1.2.0/24;*;protocol =6;destination-port =80 =444;");
   FlowspecSlateKey sa, sb;
   sa.copyInFlowspecKey(a);
   sb.copyInFlowspecKey(b);
   for (auto _ : state) benchmark::DoNotOptimize(FlowspecSlateKey::cmp(sa, sb));
}
BENCHMARK(BM_SlateKeyCmp);

// Bytes per key (the key itself plus what it allocates, rounded to the allocator's 16-byte
// steps with its 8-byte header) for keys of 0 to 6 pairs, as parsed from text.
void BM_KeyBytes(benchmark::State& state) {
   std::string text = "10.1.2.0/24;*;";
   if (state.range(0) > 0) {
      text += "destination-port";
      for (long i = 0; i < state.range(0); ++i) text += " =" + std::to_string(80 + i);
   }
   std::vector<FlowspecKey> keys(1000);
   for (auto _ : state) {
      for (auto& k : keys) k.copyInStrCli(text);
   }
   std::size_t const heap = keys[0].heapBytes();
   std::size_t const chunk = heap == 0 ? 0 : (heap + 8 + 15) / 16 * 16;
   state.counters["sizeof"] = static_cast<double>(sizeof(FlowspecKey));
   state.counters["heapChunk"] = static_cast<double>(chunk);
   state.counters["bytesPerKey"] = static_cast<double>(sizeof(FlowspecKey) + chunk);
}
BENCHMARK(BM_KeyBytes)->DenseRange(0, 6);

} // namespace

BENCHMARK_MAIN();
