// Costs of the FSIB in shared memory: programming all 12288 rules (the goal is well under
// 50 ms), replacing and deleting them, a reader's snapshot of the full table and its lookups,
// and how often a reader must copy a rule again while a writer in another process storms.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "host/mnemo/SlateRuleSet.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using namespace Mnemo;
using Flowspec::Rule;

// Rules shaped like the export's: a /24 destination and three port pairs (a five-word key).
std::vector<Rule> const& fullTable(std::uint32_t variant) {
   static std::vector<Rule> tables[2];
   auto& t = tables[variant & 1];
   if (t.empty()) {
      for (std::uint32_t i = 0; i < fsibRuleCount; ++i) t.push_back(Test::testRule(i, 3, variant + i));
   }
   return t;
}

Ovk::Ptr<SlateRuleSet> attached(Test::ScopedSegment const& seg) {
   auto set = SlateRuleSet::attach(seg.name(), fsibRuleCount);
   return set.ok() ? set.value() : nullptr;
}

void BM_ProgramFullTable(benchmark::State& state) {
   Test::ScopedSegment seg("bench");
   auto set = attached(seg);
   auto const& rules = fullTable(0);
   for (auto const& r : rules) (void)set->ruleIs(r); // grow the heap once
   for (auto _ : state) {
      state.PauseTiming();
      set->ruleDelAll();
      state.ResumeTiming();
      for (auto const& r : rules) benchmark::DoNotOptimize(set->ruleIs(r));
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rules.size()));
}
BENCHMARK(BM_ProgramFullTable)->Unit(benchmark::kMillisecond);

// As the agent's first export after start: a new segment that grows as the rules go in.
void BM_ProgramFullTableIntoNewSegment(benchmark::State& state) {
   auto const& rules = fullTable(0);
   for (auto _ : state) {
      state.PauseTiming();
      {
         Test::ScopedSegment seg("benchnew");
         auto set = attached(seg);
         state.ResumeTiming();
         for (auto const& r : rules) benchmark::DoNotOptimize(set->ruleIs(r));
         state.PauseTiming();
      }
      state.ResumeTiming();
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rules.size()));
}
BENCHMARK(BM_ProgramFullTableIntoNewSegment)->Unit(benchmark::kMillisecond);

void BM_ProgramFullTableInProcess(benchmark::State& state) {
   auto const& rules = fullTable(0);
   for (auto _ : state) {
      Flowspec::InProcessRuleSet set;
      for (auto const& r : rules) benchmark::DoNotOptimize(set.ruleIs(r));
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rules.size()));
}
BENCHMARK(BM_ProgramFullTableInProcess)->Unit(benchmark::kMillisecond);

void BM_ReplaceFullTable(benchmark::State& state) {
   Test::ScopedSegment seg("bench");
   auto set = attached(seg);
   std::uint32_t v = 0;
   for (auto const& r : fullTable(v)) (void)set->ruleIs(r);
   for (auto _ : state) {
      for (auto const& r : fullTable(++v)) benchmark::DoNotOptimize(set->ruleIs(r));
   }
   state.SetItemsProcessed(state.iterations() * fsibRuleCount);
}
BENCHMARK(BM_ReplaceFullTable)->Unit(benchmark::kMillisecond);

void BM_DeleteFullTable(benchmark::State& state) {
   Test::ScopedSegment seg("bench");
   auto set = attached(seg);
   auto const& rules = fullTable(0);
   for (auto _ : state) {
      state.PauseTiming();
      for (auto const& r : rules) (void)set->ruleIs(r);
      state.ResumeTiming();
      for (auto const& r : rules) benchmark::DoNotOptimize(set->ruleDel(r.key));
   }
   state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rules.size()));
}
BENCHMARK(BM_DeleteFullTable)->Unit(benchmark::kMillisecond);

void BM_SnapshotFullTable(benchmark::State& state) {
   Test::ScopedSegment seg("bench");
   auto set = attached(seg);
   for (auto const& r : fullTable(0)) (void)set->ruleIs(r);
   auto rd = SlateRuleSetReader::open(seg.name());
   auto const order = state.range(0) == 0 ? SnapshotOrder::slotOrder : SnapshotOrder::keyOrder;
   for (auto _ : state) {
      auto s = rd.value().snapshot(1, order);
      if (s.rules.size() != fsibRuleCount || s.status != SnapshotStatus::consistent) state.SkipWithError("short");
      benchmark::DoNotOptimize(s);
   }
   state.SetItemsProcessed(state.iterations() * fsibRuleCount);
   state.SetLabel(order == SnapshotOrder::slotOrder ? "slot order" : "key order");
}
BENCHMARK(BM_SnapshotFullTable)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void BM_ReaderLookup(benchmark::State& state) {
   Test::ScopedSegment seg("bench");
   auto set = attached(seg);
   auto const& rules = fullTable(0);
   for (auto const& r : rules) (void)set->ruleIs(r);
   auto rd = SlateRuleSetReader::open(seg.name());
   std::size_t i = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(rd.value().rule(rules[i].key));
      i = (i * 7 + 1) % rules.size();
   }
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReaderLookup);

// One reader pass over every slot while a writer process adds, replaces and deletes without
// pause; reports the share of slot copies thrown away and of snapshots that did not settle.
void BM_ReaderUnderStorm(benchmark::State& state) {
   Test::ScopedSegment seg("benchstorm");
   {
      auto set = attached(seg);
      for (auto const& r : fullTable(0)) (void)set->ruleIs(r);
      set->detach();
   }
   pid_t const writer = ::fork();
   if (writer == 0) {
      auto set = attached(seg);
      std::mt19937 rng(3);
      auto const& rules = fullTable(0);
      for (std::uint32_t v = 0;; ++v) {
         Rule const& r = rules[rng() % rules.size()];
         if (v % 4 == 0) {
            (void)set->ruleDel(r.key);
         } else {
            Rule changed = r;
            changed.rate = static_cast<float>(v);
            changed.ruleId = Test::ruleChecksum(changed);
            (void)set->ruleIs(changed);
         }
      }
   }
   auto rd = SlateRuleSetReader::open(seg.name());
   while (rd.value().writerPid() != static_cast<std::uint32_t>(writer)) ::usleep(100);
   std::uint64_t torn = 0;
   std::uint64_t snapshots = 0;
   std::uint64_t settled = 0;
   for (auto _ : state) {
      rd.value().forEachRule([&](Rule const& r) {
         torn += Test::checksumHolds(r) ? 0u : 1u;
         return true;
      });
      if (state.iterations() % 16 == 0) {
         ++snapshots;
         settled += rd.value().snapshot(1).status == SnapshotStatus::consistent ? 1u : 0u;
      }
   }
   ::kill(writer, SIGKILL);
   ::waitpid(writer, nullptr, 0);
   auto const& st = rd.value().stats();
   state.counters["slotRetryRate"] = static_cast<double>(st.slotRetries) / static_cast<double>(st.slotReads + 1);
   state.counters["slotRetries"] = static_cast<double>(st.slotRetries);
   state.counters["torn"] = static_cast<double>(torn);
   state.counters["snapshotSettledShare"] =
       snapshots == 0 ? 0.0 : static_cast<double>(settled) / static_cast<double>(snapshots);
   state.SetItemsProcessed(state.iterations() * fsibRuleCount);
}
BENCHMARK(BM_ReaderUnderStorm)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
