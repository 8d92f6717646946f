// Cost of a trace statement whose level is off, against an empty branch on a flag.
#include <benchmark/benchmark.h>

#include <atomic>

#include "host/fwk/Trace.h"

namespace {

Ovk::TraceFacility benchTrace("Bench", "bench");
std::atomic<bool> flag{false};

void BM_EmptyBranch(benchmark::State& state) {
   int n = 0;
   for (auto _ : state) {
      if (flag.load(std::memory_order_relaxed)) [[unlikely]]
         ++n;
      benchmark::DoNotOptimize(n);
   }
}
BENCHMARK(BM_EmptyBranch);

void BM_DisabledTrace(benchmark::State& state) {
   benchTrace.enabledLevelsIs(0);
   int n = 0;
   for (auto _ : state) {
      OVK_TRACE(benchTrace, 8, "rule " << n << " is equal to " << n + 1);
      benchmark::DoNotOptimize(n);
   }
}
BENCHMARK(BM_DisabledTrace);

void BM_EnabledTrace(benchmark::State& state) {
   benchTrace.enabledLevelsIs(1u << 8);
   int n = 0;
   for (auto _ : state) {
      OVK_TRACE(benchTrace, 8, "rule " << n << " is equal to " << n + 1);
      ++n;
   }
   benchTrace.enabledLevelsIs(0);
}
BENCHMARK(BM_EnabledTrace);

} // namespace

BENCHMARK_MAIN();
