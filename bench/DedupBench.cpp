// Dedup table throughput: inserting new values and looking up values already interned.
#include <benchmark/benchmark.h>

#include <vector>

#include "host/fwk/Dedup.h"

namespace {

struct Num : Ovk::DedupHandle {
   explicit Num(std::uint64_t v) : v_(v) {}
   std::uint32_t hash() const override { return static_cast<std::uint32_t>((v_ * 0x9e3779b97f4a7c15ull) >> 32); }
   bool compare(Ovk::DedupHandle const* o) const override { return static_cast<Num const*>(o)->v_ == v_; }
   std::uint64_t v_;
};

void BM_DedupInsert(benchmark::State& state) {
   auto const n = static_cast<std::uint64_t>(state.range(0));
   for (auto _ : state) {
      auto t = Ovk::SimpleDedupHashTable::create();
      std::vector<Ovk::Ptr<Ovk::DedupHandle const>> held;
      held.reserve(n);
      for (std::uint64_t i = 0; i < n; ++i) held.push_back(t->lookupOrInsert(Ovk::makePtr<Num>(i)));
      benchmark::DoNotOptimize(held.data());
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(n));
}
BENCHMARK(BM_DedupInsert)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

void BM_DedupLookupExisting(benchmark::State& state) {
   auto const n = static_cast<std::uint64_t>(state.range(0));
   auto t = Ovk::SimpleDedupHashTable::create();
   std::vector<Ovk::Ptr<Ovk::DedupHandle const>> held;
   for (std::uint64_t i = 0; i < n; ++i) held.push_back(t->lookupOrInsert(Ovk::makePtr<Num>(i)));
   std::uint64_t i = 0;
   for (auto _ : state) {
      Num probe(i++ % n);
      benchmark::DoNotOptimize(t->lookup(probe));
   }
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_DedupLookupExisting)->Arg(1 << 20);

} // namespace

BENCHMARK_MAIN();
