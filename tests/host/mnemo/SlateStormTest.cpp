// Many processes on one segment: a writer storms while readers check every rule they see,
// and a writer killed mid-storm leaves a table that readers and the next writer can use.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "host/mnemo/SlateRuleSet.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using namespace Mnemo;
using namespace Mnemo::Test;
using Clock = std::chrono::steady_clock;

constexpr int readerCount = 2;
constexpr std::uint32_t keySpace = 3000;

struct ReaderTally {
   std::atomic<std::uint64_t> rules{0}; // rules checked
   std::atomic<std::uint64_t> torn{0};  // rules whose checksum did not hold, or of the wrong key
   std::atomic<std::uint64_t> damaged{0};
   std::atomic<std::uint64_t> passes{0};
   std::atomic<std::uint64_t> slotReads{0};
   std::atomic<std::uint64_t> slotRetries{0};
   std::atomic<std::uint64_t> snapshots{0};
   std::atomic<std::uint64_t> consistentSnapshots{0};
};

// Shared by the test and its child processes.
struct Control {
   std::atomic<int> stop{0};
   std::atomic<std::uint64_t> writerOps{0};
   ReaderTally readers[readerCount];
};

Control* sharedControl() {
   void* p = ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   return p == MAP_FAILED ? nullptr : new (p) Control;
}

// Mostly short keys, some long ones, so blocks of many sizes are freed and reused.
unsigned pairsFor(std::uint32_t id) { return id % 97 == 0 ? 300 + id % 200 : 1 + id % 40; }

// Adds, replaces and deletes at random until `ops` operations or `until`. The rules are built
// beforehand, so that the writer spends its time inside changes (where a kill hurts most).
std::uint64_t storm(Flowspec::RuleSet& set, unsigned seed, std::uint64_t ops, Clock::time_point until) {
   std::vector<Flowspec::Rule> rules;
   for (std::uint32_t variant = 0; variant < 3; ++variant) {
      for (std::uint32_t id = 0; id < keySpace; ++id) rules.push_back(testRule(id, pairsFor(id), variant * 7919 + id));
   }
   std::mt19937 rng(seed);
   std::uint64_t n = 0;
   for (; n < ops && (n % 1024 != 0 || Clock::now() < until); ++n) {
      Flowspec::Rule const& r = rules[draw(rng) % rules.size()];
      unsigned const op = draw(rng) % 10000;
      if (op < 6000) {
         (void)set.ruleIs(r);
      } else if (op < 9999) {
         (void)set.ruleDel(r.key);
      } else {
         set.ruleDelAll();
      }
   }
   return n;
}

[[noreturn]] void readerProcess(std::string const& name, ReaderTally& tally, Control const& control) {
   auto opened = SlateRuleSetReader::open(name);
   if (!opened) ::_exit(2);
   SlateRuleSetReader& rd = opened.value();
   std::mt19937 rng(static_cast<unsigned>(::getpid()));
   auto const check = [&tally](Flowspec::Rule const& r) {
      tally.rules.fetch_add(1, std::memory_order_relaxed);
      if (!checksumHolds(r)) tally.torn.fetch_add(1, std::memory_order_relaxed);
   };
   while (control.stop.load() == 0) {
      rd.forEachRule([&](Flowspec::Rule const& r) {
         check(r);
         return true;
      });
      for (int i = 0; i < 200; ++i) {
         std::uint32_t const id = draw(rng) % keySpace;
         auto const key = testKey(id, pairsFor(id));
         if (auto r = rd.rule(key)) {
            check(*r);
            if (r->key != key) tally.torn.fetch_add(1, std::memory_order_relaxed);
         }
      }
      if (tally.passes.load() % 8 == 0) {
         auto const s = rd.snapshot(3);
         for (auto const& r : s.rules) check(r);
         tally.snapshots.fetch_add(1);
         if (s.status == SnapshotStatus::consistent) {
            tally.consistentSnapshots.fetch_add(1);
            if (s.rules.size() != s.ruleCount) tally.torn.fetch_add(1);
         }
      }
      tally.passes.fetch_add(1);
   }
   tally.damaged = rd.stats().damaged;
   tally.slotReads = rd.stats().slotReads;
   tally.slotRetries = rd.stats().slotRetries;
   ::_exit(0);
}

int waitExit(pid_t pid) {
   int status = 0;
   if (::waitpid(pid, &status, 0) != pid) return -1;
   return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void expectWholeTable(SlateRuleSetReader& rd, SlateSnapshot const& s) {
   for (auto const& r : s.rules) ASSERT_TRUE(checksumHolds(r)) << r;
   EXPECT_EQ(rd.stats().damaged, 0u);
}

TEST(SlateStormTest, ReadersNeverSeeATornRuleWhileTheWriterStorms) {
   ScopedSegment seg("storm");
   Control* control = sharedControl();
   ASSERT_NE(control, nullptr);
   {
      auto created = SlateRuleSet::attach(seg.name(), fsibRuleCount);
      ASSERT_TRUE(created.ok());
      created.value()->detach();
   }
   pid_t readers[readerCount];
   for (int i = 0; i < readerCount; ++i) {
      readers[i] = ::fork();
      if (readers[i] == 0) readerProcess(seg.name(), control->readers[i], *control);
   }
   pid_t const writer = ::fork();
   if (writer == 0) {
      auto set = SlateRuleSet::attach(seg.name(), fsibRuleCount);
      if (!set) ::_exit(2);
      control->writerOps = storm(*set.value(), 1, 3000000, Clock::now() + std::chrono::milliseconds(1500));
      set.value()->detach();
      ::_exit(0);
   }
   EXPECT_EQ(waitExit(writer), 0);
   control->stop = 1;
   for (pid_t r : readers) EXPECT_EQ(waitExit(r), 0);

   std::uint64_t rules = 0, slotReads = 0, slotRetries = 0, snapshots = 0, consistent = 0;
   for (auto const& t : control->readers) {
      EXPECT_EQ(t.torn.load(), 0u);
      EXPECT_EQ(t.damaged.load(), 0u);
      EXPECT_GT(t.passes.load(), 0u);
      rules += t.rules;
      slotReads += t.slotReads;
      slotRetries += t.slotRetries;
      snapshots += t.snapshots;
      consistent += t.consistentSnapshots;
   }
   EXPECT_GT(rules, 0u);
   std::cout << "writer ops " << control->writerOps << ", rules checked " << rules << ", slot reads " << slotReads
             << ", slot retries " << slotRetries << ", snapshots " << snapshots << " (" << consistent
             << " consistent)\n";
   auto rd = SlateRuleSetReader::open(seg.name());
   ASSERT_TRUE(rd.ok());
   auto const s = rd.value().snapshot();
   EXPECT_EQ(s.status, SnapshotStatus::consistent);
   EXPECT_EQ(s.rules.size(), s.ruleCount);
   expectWholeTable(rd.value(), s);
   ::munmap(control, sizeof(Control));
}

TEST(SlateStormTest, AWriterKilledMidStormLeavesATableReadersAndTheNextWriterUse) {
   ScopedSegment seg("kill");
   std::mt19937 rng(5);
   std::optional<SlateRuleSetReader> rd;
   unsigned writerGone = 0;
   unsigned const rounds = 8;
   for (unsigned round = 0; round < rounds; ++round) {
      SCOPED_TRACE(round);
      std::uint64_t const base = rd ? rd->generation() : 0;
      pid_t const writer = ::fork();
      if (writer == 0) {
         auto set = SlateRuleSet::attach(seg.name(), fsibRuleCount);
         if (!set) ::_exit(2);
         (void)storm(*set.value(), 100 + round, ~0ull, Clock::time_point::max());
         ::_exit(0);
      }
      // Let it get going, then kill it wherever it is.
      auto const deadline = Clock::now() + std::chrono::seconds(5);
      std::uint64_t const target = base + 20000 + draw(rng) % 200000;
      while (Clock::now() < deadline) {
         if (!rd) {
            if (auto r = SlateRuleSetReader::open(seg.name())) rd.emplace(std::move(r.value()));
         }
         if (rd && rd->generation() >= target) break;
         std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      ASSERT_EQ(::kill(writer, SIGKILL), 0);
      EXPECT_EQ(waitExit(writer), 128 + SIGKILL);
      ASSERT_TRUE(rd);
      EXPECT_FALSE(rd->writerAlive());
      auto const s = rd->snapshot();
      ASSERT_NE(s.status, SnapshotStatus::unsettled);
      writerGone += s.status == SnapshotStatus::writerGone ? 1 : 0;
      expectWholeTable(*rd, s);
      if (s.status == SnapshotStatus::consistent) {
         EXPECT_EQ(s.rules.size(), s.ruleCount);
         for (auto const& r : s.rules) EXPECT_EQ(rd->rule(r.key), r);
      }
      // The next writer attaches to what is there.
      auto next = SlateRuleSet::attach(seg.name(), fsibRuleCount);
      ASSERT_TRUE(next.ok());
      std::vector<Flowspec::Rule> kept;
      next.value()->forEachRule([&](Flowspec::Rule const& r) {
         kept.push_back(r);
         return true;
      });
      EXPECT_EQ(kept, s.rules);
      EXPECT_EQ(rd->ruleCount(), kept.size());
      for (auto const& r : kept) EXPECT_EQ(rd->rule(r.key), r);
      next.value()->detach();
   }
   std::cout << writerGone << " of " << rounds << " writers were killed inside a change\n";
}

} // namespace
