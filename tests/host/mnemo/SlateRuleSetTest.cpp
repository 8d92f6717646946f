#include "host/mnemo/SlateRuleSet.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <sys/stat.h>

#include "host/mnemo/SlateRecord.h"
#include "host/mnemo/SlateRuleSetReader.h"
#include "tests/host/mnemo/SlateTestHelpers.h"

namespace {

using namespace Mnemo;
using namespace Mnemo::Test;
using Flowspec::Rule;
using Flowspec::RuleIsResult;

Ovk::Ptr<SlateRuleSet> writer(ScopedSegment const& seg, std::uint32_t capacity) {
   auto r = SlateRuleSet::attach(seg.name(), capacity);
   EXPECT_TRUE(r.ok()) << (r.ok() ? "" : toStrep(r.reason()));
   return r.ok() ? r.value() : nullptr;
}

SlateRuleSetReader reader(ScopedSegment const& seg) {
   auto r = SlateRuleSetReader::open(seg.name());
   if (!r) ADD_FAILURE() << "open: " << toStrep(r.reason());
   return std::move(r.value());
}

std::vector<Rule> contents(Flowspec::RuleSet const& set) {
   std::vector<Rule> out;
   set.forEachRule([&](Rule const& r) {
      out.push_back(r);
      return true;
   });
   return out;
}

// The segment as raw words, writable: how a test plays a writer that died at a bad moment
// or a segment that was damaged.
struct RawSegment {
   explicit RawSegment(std::string const& name) {
      fd = ::shm_open(name.c_str(), O_RDWR, 0);
      bytes = segmentFileBytes(fd);
      base = static_cast<std::byte*>(::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
   }
   ~RawSegment() {
      ::munmap(base, bytes);
      ::close(fd);
   }
   SlateLayout::Header& header() { return *reinterpret_cast<SlateLayout::Header*>(base); }
   std::uint64_t& slot(std::uint32_t i) { return reinterpret_cast<std::uint64_t*>(base + header().slotsOffset)[i]; }
   int fd;
   std::uint64_t bytes;
   std::byte* base;
};

TEST(SlateRuleSetTest, SegmentNamesDeriveFromPrefixAndPath) {
   struct Row {
      char const* prefix;
      char const* path;
      char const* name; // nullptr: refused
   };
   std::string const longPath(300, 'a');
   Row const rows[] = {
       {"flowspecd", "routing/bgp/flowspec", "/flowspecd.routing.bgp.flowspec"},
       {"a-b_9", "x", "/a-b_9.x"},
       {"", "routing", nullptr},
       {"p", "", nullptr},
       {"p.q", "x", nullptr},
       {"p/q", "x", nullptr},
       {"p", "/x", nullptr},
       {"p", "x/", nullptr},
       {"p", "x//y", nullptr},
       {"p", "x y", nullptr},
       {"p", longPath.c_str(), nullptr},
   };
   for (auto const& row : rows) {
      SCOPED_TRACE(std::string(row.prefix) + " | " + row.path);
      auto const name = slateSegmentName(row.prefix, row.path);
      if (row.name == nullptr) {
         EXPECT_FALSE(name);
      } else {
         EXPECT_EQ(name.value_or("(none)"), row.name);
      }
   }
}

TEST(SlateRuleSetTest, AFullCollectionRefusesCountsAndLosesNothing) {
   ScopedSegment seg("full");
   auto set = writer(seg, 3);
   ASSERT_TRUE(set);
   for (std::uint32_t i = 0; i < 3; ++i) ASSERT_EQ(set->ruleIs(testRule(i)), RuleIsResult::added);
   auto rd = reader(seg);
   std::uint64_t const g = rd.generation();
   EXPECT_EQ(set->ruleIs(testRule(3)), RuleIsResult::refusedFull);
   EXPECT_EQ(set->ruleIs(testRule(4, 100)), RuleIsResult::refusedFull);
   EXPECT_EQ(rd.generation(), g); // a refusal changes no rule
   EXPECT_EQ(rd.counters().refusals, 2u);
   EXPECT_FALSE(rd.rule(testKey(3, 1)));
   EXPECT_EQ(set->ruleIs(testRule(1, 1, 9)), RuleIsResult::replaced); // full, yet replaces
   ASSERT_TRUE(set->ruleDel(testKey(0, 1)));
   EXPECT_EQ(set->ruleIs(testRule(3)), RuleIsResult::added);
   auto const snap = rd.snapshot();
   EXPECT_EQ(snap.status, SnapshotStatus::consistent);
   std::vector<Rule> const expected = {testRule(1, 1, 9), testRule(2), testRule(3)};
   EXPECT_EQ(snap.rules, expected);
}

TEST(SlateRuleSetTest, KeysOfEveryLengthUpToTheBoundAndStorageFollowsThem) {
   ScopedSegment seg("lengths");
   auto set = writer(seg, 64);
   ASSERT_TRUE(set);
   std::uint64_t const initial = set->segmentBytes();
   std::uint64_t expectedHeap = 0;
   auto const add = [&](Rule const& r) {
      ASSERT_EQ(set->ruleIs(r), RuleIsResult::added);
      auto const words = static_cast<std::uint32_t>(r.key.words().size());
      expectedHeap += SlateLayout::blockClassBytes[SlateLayout::blockClassFor(SlateLayout::recordBytes(words))];
   };
   // Small rules fit the heap the segment starts with.
   for (std::uint32_t i = 0; i < 40; ++i) add(testRule(i));
   EXPECT_EQ(set->segmentBytes(), initial);
   // Each record takes the smallest block class that holds it: the heap grows by what is
   // stored, not by capacity times the longest key.
   unsigned const pairs[] = {0, 1, 2, 13, 100, 1000, 2046, 2046, 2046, 2046, 2046, 2046, 2046, 2046};
   std::uint32_t id = 1000;
   for (unsigned p : pairs) add(testRule(id++, p, p));
   EXPECT_EQ(testKey(0, 2046).words().size(), Flowspec::slateKeyMaxWords);
   EXPECT_EQ(set->heapBytes(), expectedHeap);
   EXPECT_GT(set->segmentBytes(), initial);
   EXPECT_LT(set->segmentBytes(), initial + 2 * expectedHeap);
   auto rd = reader(seg);
   id = 1000;
   for (unsigned p : pairs) {
      auto const r = rd.rule(testKey(id, p));
      ASSERT_TRUE(r) << p;
      EXPECT_EQ(*r, testRule(id++, p, p));
   }
   EXPECT_EQ(rd.snapshot().rules, contents(*set));
}

TEST(SlateRuleSetTest, BehavesAsTheInProcessSetUnderRandomChurn) {
   // Differential test: the same random operations on both sets, over a small key space (so
   // replaces, misses and a full set are frequent) and keys of varied length (so blocks of
   // every size are freed and reused); enough deletes to rebuild the index many times.
   ScopedSegment seg("churn");
   std::uint32_t const capacity = 48;
   auto set = writer(seg, capacity);
   ASSERT_TRUE(set);
   Flowspec::InProcessRuleSet model(capacity);
   auto rd = reader(seg);
   std::mt19937 rng(9);
   std::map<RuleIsResult, std::uint64_t> results;
   std::uint64_t deletes = 0;
   std::uint64_t deleteAlls = 0;
   EXPECT_EQ(rd.capacity(), capacity);
   EXPECT_EQ(rd.formatVersion(), SlateLayout::formatVersion);
   for (int step = 0; step < 40000; ++step) {
      // Every change moves the generation by two (odd while under way); misses, refusals
      // and lookups leave it.
      std::uint64_t const generation = rd.generation();
      std::uint64_t const changes =
          deletes + deleteAlls + results[RuleIsResult::added] + results[RuleIsResult::replaced];
      std::uint32_t const id = draw(rng) % 80;
      unsigned const pairs = id % 7 == 0 ? 1 + id * 7 : id % 5;
      unsigned const op = draw(rng) % 100;
      if (op < 55) {
         Rule const r = testRule(id, pairs, draw(rng) % 1000);
         RuleIsResult const got = set->ruleIs(r);
         ASSERT_EQ(got, model.ruleIs(r)) << "step " << step;
         ++results[got];
      } else if (op < 97) {
         bool const got = set->ruleDel(testKey(id, pairs));
         ASSERT_EQ(got, model.ruleDel(testKey(id, pairs))) << "step " << step;
         deletes += got ? 1 : 0;
      } else if (op < 98) {
         set->ruleDelAll();
         model.ruleDelAll();
         ++deleteAlls;
      } else {
         ASSERT_EQ(rd.rule(testKey(id, pairs)), model.rule(testKey(id, pairs))) << "step " << step;
      }
      std::uint64_t const changed =
          deletes + deleteAlls + results[RuleIsResult::added] + results[RuleIsResult::replaced] - changes;
      ASSERT_EQ(rd.generation(), generation + 2 * changed) << "step " << step;
      ASSERT_EQ(rd.ruleCount(), model.ruleCount()) << "step " << step;
      if (step % 1000 == 0) {
         ASSERT_EQ(contents(*set), contents(model)) << "step " << step;
         ASSERT_EQ(rd.snapshot().rules, contents(model)) << "step " << step;
      }
   }
   EXPECT_EQ(set->ruleCount(), model.ruleCount());
   EXPECT_EQ(rd.counters(), (SlateCounters{results[RuleIsResult::added], results[RuleIsResult::replaced], deletes,
                                           deleteAlls, results[RuleIsResult::refusedFull], 1}));
   EXPECT_GT(results[RuleIsResult::refusedFull], 0u);
   EXPECT_EQ(rd.stats().damaged, 0u);
}

TEST(SlateRuleSetTest, DetachRefusesWritesKeepsRulesAndFreesTheWriterPlace) {
   ScopedSegment seg("detach");
   auto set = writer(seg, 8);
   ASSERT_TRUE(set);
   ASSERT_EQ(set->ruleIs(testRule(1)), RuleIsResult::added);
   auto rd = reader(seg);
   EXPECT_EQ(rd.writerPid(), static_cast<std::uint32_t>(::getpid()));
   set->detach();
   set->detach();
   EXPECT_TRUE(set->isDetached());
   EXPECT_EQ(set->ruleIs(testRule(2)), RuleIsResult::refusedDetached);
   EXPECT_FALSE(set->ruleDel(testKey(1, 1)));
   set->ruleDelAll();
   EXPECT_EQ(rd.writerPid(), 0u);
   EXPECT_EQ(rd.ruleCount(), 1u);
   EXPECT_TRUE(rd.rule(testKey(1, 1)));
   // The next writer finds the rule.
   auto next = writer(seg, 8);
   ASSERT_TRUE(next);
   EXPECT_EQ(next->rule(testKey(1, 1)), testRule(1));
}

TEST(SlateRuleSetTest, ARestartedWriterAttachesToWhatItsPredecessorLeft) {
   ScopedSegment seg("restart");
   {
      auto set = writer(seg, 32);
      ASSERT_TRUE(set);
      for (std::uint32_t i = 0; i < 20; ++i) ASSERT_EQ(set->ruleIs(testRule(i, i)), RuleIsResult::added);
      for (std::uint32_t i = 0; i < 20; i += 3) ASSERT_TRUE(set->ruleDel(testKey(i, i)));
   }
   auto rd = reader(seg);
   auto const before = rd.snapshot();
   auto set = writer(seg, 32);
   ASSERT_TRUE(set);
   EXPECT_EQ(contents(*set), before.rules);
   EXPECT_EQ(rd.counters().writerAttaches, 2u);
   EXPECT_GT(rd.generation(), before.generation);
   // Freed blocks and slots are found again: refilling to capacity needs no more heap.
   std::uint64_t const heap = set->heapBytes();
   for (std::uint32_t i = 0; i < 20; i += 3) ASSERT_EQ(set->ruleIs(testRule(i, i)), RuleIsResult::added);
   EXPECT_EQ(set->heapBytes(), heap);
   for (std::uint32_t i = 100; set->ruleCount() < 32; ++i) ASSERT_EQ(set->ruleIs(testRule(i)), RuleIsResult::added);
   EXPECT_EQ(set->ruleIs(testRule(99)), RuleIsResult::refusedFull);
}

// The rebuilding flag: set and cleared by the writer, seen by readers within one generation,
// left by a writer that dies before it converged, kept through a repair; an older segment is
// taken and marked with the format that has the flag.
TEST(SlateRuleSetTest, TheWriterSaysWhenItHasConverged) {
   ScopedSegment seg("converged");
   {
      auto set = writer(seg, 16);
      ASSERT_TRUE(set);
      EXPECT_FALSE(set->foundExisting());
      EXPECT_TRUE(set->converged());
      ASSERT_EQ(set->ruleIs(testRule(1)), RuleIsResult::added);
      auto rd = reader(seg);
      std::uint64_t const g = rd.generation();
      set->convergedIs(false);
      EXPECT_GT(rd.generation(), g); // readers polling the generation notice
      EXPECT_FALSE(rd.converged());
      EXPECT_FALSE(rd.snapshot().converged);
      EXPECT_FALSE(rd.changesSince(std::vector<std::uint64_t>(rd.capacity(), 0)).converged);
      set->ruleDelAll();
      EXPECT_FALSE(rd.snapshot().converged);
      // The writer goes before it converged: the next one finds the flag, and the rules.
   }
   {
      auto set = writer(seg, 16);
      ASSERT_TRUE(set);
      EXPECT_TRUE(set->foundExisting());
      EXPECT_FALSE(set->converged());
      ASSERT_EQ(set->ruleIs(testRule(2)), RuleIsResult::added);
      // A repair (the segment changed under the writer) keeps the flag.
      {
         RawSegment raw(seg.name());
         raw.header().generation.fetch_add(2);
      }
      ASSERT_EQ(set->ruleIs(testRule(3)), RuleIsResult::added);
      EXPECT_EQ(set->repairs(), 1u);
      auto rd = reader(seg);
      EXPECT_FALSE(rd.converged());
      set->convergedIs(true);
      EXPECT_TRUE(rd.converged());
      EXPECT_TRUE(rd.snapshot().converged);
   }
   // A segment of format version 1 (the same layout, without the flag) is adopted.
   {
      RawSegment raw(seg.name());
      raw.header().formatVersion = 1;
   }
   auto set = writer(seg, 16);
   ASSERT_TRUE(set);
   EXPECT_TRUE(set->foundExisting());
   EXPECT_EQ(set->ruleCount(), 2u);
   EXPECT_EQ(reader(seg).formatVersion(), SlateLayout::formatVersion);
   EXPECT_TRUE(set->attachNotes().empty());
}

// What the writer does not trust it says, for the agent's log.
TEST(SlateRuleSetTest, AttachSaysWhatItFoundAndReplaced) {
   ScopedSegment seg("notes");
   {
      auto set = writer(seg, 16);
      ASSERT_TRUE(set);
      ASSERT_EQ(set->ruleIs(testRule(1)), RuleIsResult::added);
   }
   {
      RawSegment raw(seg.name());
      raw.header().formatVersion = 99;
   }
   auto set = writer(seg, 16);
   ASSERT_TRUE(set);
   EXPECT_FALSE(set->foundExisting());
   EXPECT_EQ(set->ruleCount(), 0u);
   ASSERT_EQ(set->attachNotes().size(), 1u);
   EXPECT_NE(set->attachNotes()[0].find("not an FSIB of a format this writer knows: not trusted, replaced"),
             std::string::npos)
       << set->attachNotes()[0];
}

TEST(SlateRuleSetTest, AWriterThatDiedMidChangeLeavesAReadableTable) {
   ScopedSegment seg("midchange");
   auto set = writer(seg, 16);
   ASSERT_TRUE(set);
   for (std::uint32_t i = 0; i < 5; ++i) ASSERT_EQ(set->ruleIs(testRule(i, 2)), RuleIsResult::added);
   set->detach();
   {
      // Play a writer (a process that no longer exists) stopped inside a change: the
      // generation is odd, one slot points into the middle of a block, another at a block
      // that is not there, and the count is off.
      pid_t const child = ::fork();
      if (child == 0) ::_exit(0);
      ::waitpid(child, nullptr, 0);
      RawSegment raw(seg.name());
      raw.header().writerPid.store(static_cast<std::uint32_t>(child));
      raw.header().generation.fetch_add(1);
      raw.slot(1) += 1;
      raw.slot(2) = SlateLayout::slotWord(SlateLayout::slotVersion(raw.slot(2)) + 1, raw.bytes - 64);
      raw.header().ruleCount.store(7);
   }
   auto rd = reader(seg);
   EXPECT_FALSE(rd.writerAlive());
   auto const snap = rd.snapshot();
   EXPECT_EQ(snap.status, SnapshotStatus::writerGone);
   EXPECT_EQ(snap.rules.size(), 3u);
   for (auto const& r : snap.rules) EXPECT_TRUE(checksumHolds(r)) << r;
   EXPECT_EQ(rd.stats().damaged, 2u);
   // A new writer empties what is not whole and starts from a settled table.
   auto next = writer(seg, 16);
   ASSERT_TRUE(next);
   EXPECT_EQ(contents(*next), snap.rules);
   EXPECT_EQ(rd.ruleCount(), 3u);
   EXPECT_EQ(rd.generation() % 2, 0u);
   EXPECT_EQ(rd.snapshot().status, SnapshotStatus::consistent);
   EXPECT_EQ(next->ruleIs(testRule(1, 2)), RuleIsResult::added);
}

TEST(SlateRuleSetTest, ReadersSurviveADamagedSegment) {
   // Random words written over slots, index and heap: readers must neither crash nor hand
   // out a rule that is not one; a writer attaching afterwards keeps only whole records.
   for (unsigned seed = 0; seed < 20; ++seed) {
      SCOPED_TRACE(seed);
      ScopedSegment seg("damage");
      auto set = writer(seg, 32);
      ASSERT_TRUE(set);
      for (std::uint32_t i = 0; i < 30; ++i) ASSERT_EQ(set->ruleIs(testRule(i, i % 9)), RuleIsResult::added);
      set->detach();
      std::mt19937 rng(seed);
      {
         RawSegment raw(seg.name());
         auto* words = reinterpret_cast<std::uint32_t*>(raw.base + SlateLayout::headerBytes);
         std::size_t const n = (raw.bytes - SlateLayout::headerBytes) / 4;
         for (int k = 0; k < 200; ++k) {
            std::size_t const at = seed % 2 == 0 ? draw(rng) % n : draw(rng) % (2 * 32); // anywhere, or the slots
            words[at] = draw(rng) % 3 == 0 ? 0 : static_cast<std::uint32_t>(draw(rng));
         }
      }
      auto rd = reader(seg);
      auto const snap = rd.snapshot(3);
      rd.forEachRule([](Rule const&) { return true; });
      for (std::uint32_t i = 0; i < 30; ++i) (void)rd.rule(testKey(i, i % 9));
      auto next = writer(seg, 32);
      ASSERT_TRUE(next);
      auto const kept = contents(*next);
      EXPECT_EQ(kept.size(), next->ruleCount());
      EXPECT_EQ(reader(seg).snapshot().rules, kept);
      for (std::uint32_t i = 0; next->ruleCount() < 32; ++i) {
         ASSERT_NE(next->ruleIs(testRule(200 + i, 40)), RuleIsResult::refusedFull);
      }
   }
}

// A writer changed under: whatever was written over the segment, the next change finds it,
// puts the rules it holds into a fresh segment and says so; nothing crashes, nothing is lost.
TEST(SlateRuleSetTest, AWriterFindsItsSegmentChangedUnderItAndReplacesIt) {
   struct Row {
      char const* name;
      std::function<void(RawSegment&)> damage;
      char const* said;
   };
   std::vector<Row> const rows{
       {"slot word", [](RawSegment& r) { r.slot(3) ^= 0x10; }, "slot 3 was overwritten"},
       {"record", [](RawSegment& r) { reinterpret_cast<std::uint32_t*>(r.base + SlateLayout::slotBlockOffset(r.slot(3)))[SlateLayout::recordHeaderWords] ^= 1; },
        "the record of slot 3 was overwritten"},
       {"header", [](RawSegment& r) { r.header().capacity = 7; }, "its header was overwritten"},
       {"writer", [](RawSegment& r) { r.header().writerPid.store(1); }, "its writer's process id was overwritten"},
       {"generation", [](RawSegment& r) { r.header().generation.fetch_add(2); }, "generation"},
       {"cut", [](RawSegment& r) { ASSERT_EQ(::ftruncate(r.fd, 128), 0); }, "it was cut to 128 bytes"},
   };
   for (Row const& row : rows) {
      SCOPED_TRACE(row.name);
      ScopedSegment seg("changed");
      auto set = writer(seg, 16);
      ASSERT_TRUE(set);
      std::vector<std::string> heard;
      set->problemHandlerIs([&](std::string const& text) { heard.push_back(text); });
      for (std::uint32_t i = 0; i < 8; ++i) ASSERT_EQ(set->ruleIs(testRule(i, i)), RuleIsResult::added);
      std::optional<SlateRuleSetReader> old = reader(seg);
      // The slot of rule 3 is the one the next change replaces.
      std::uint32_t slot = 0;
      {
         RawSegment raw(seg.name());
         for (; slot < 16; ++slot) {
            auto const off = SlateLayout::slotBlockOffset(raw.slot(slot));
            if (off != 0 && SlateRecord::keyEquals({reinterpret_cast<std::uint32_t const*>(raw.base + off), 64},
                                                   testKey(3, 3).words())) {
               break;
            }
         }
         ASSERT_EQ(slot, 3u); // slots are handed out from the lowest
         row.damage(raw);
      }
      EXPECT_EQ(set->ruleIs(testRule(3, 3, 99)), RuleIsResult::replaced);
      ASSERT_EQ(heard.size(), 1u);
      EXPECT_NE(heard[0].find(row.said), std::string::npos) << heard[0];
      EXPECT_NE(heard[0].find("replaced by a fresh segment holding its 8 rules"), std::string::npos) << heard[0];
      EXPECT_EQ(set->repairs(), 1u);
      if (std::string(row.name) != "cut") {
         EXPECT_TRUE(old->retired());
      }
      auto const now = reader(seg).snapshot();
      EXPECT_EQ(now.status, SnapshotStatus::consistent);
      EXPECT_EQ(now.rules, contents(*set));
      EXPECT_EQ(now.rules.size(), 8u);
      EXPECT_TRUE(set->ruleDel(testKey(5, 5)));
      EXPECT_EQ(reader(seg).ruleCount(), 7u);
      EXPECT_EQ(heard.size(), 1u);
   }
}

// Random words written over a segment while its writer is attached: it goes on writing, and
// what it holds is what it was told.
TEST(SlateRuleSetTest, AWriterSurvivesRandomDamageUnderIt) {
   for (unsigned seed = 0; seed < 10; ++seed) {
      SCOPED_TRACE(seed);
      ScopedSegment seg("writerdamage");
      auto set = writer(seg, 32);
      ASSERT_TRUE(set);
      std::map<std::uint32_t, std::uint32_t> model; // rule -> its variant
      std::mt19937 rng(seed);
      for (int op = 0; op < 400; ++op) {
         if (op % 50 == 25) {
            RawSegment raw(seg.name());
            auto* words = reinterpret_cast<std::uint32_t*>(raw.base);
            std::size_t const n = raw.bytes / 4;
            for (int k = 0; k < 20; ++k) words[draw(rng) % n] = static_cast<std::uint32_t>(draw(rng));
         }
         std::uint32_t const i = draw(rng) % 40;
         if (draw(rng) % 3 == 0) {
            EXPECT_EQ(set->ruleDel(testKey(i, i % 5)), model.erase(i) == 1);
         } else {
            std::uint32_t const variant = draw(rng) % 4;
            RuleIsResult const r = set->ruleIs(testRule(i, i % 5, variant));
            if (r != RuleIsResult::refusedFull) model[i] = variant;
         }
      }
      std::vector<Rule> expected;
      for (auto const& [i, variant] : model) expected.push_back(testRule(i, i % 5, variant));
      std::sort(expected.begin(), expected.end(), [](Rule const& a, Rule const& b) { return a.key < b.key; });
      EXPECT_EQ(contents(*set), expected);
   }
}

// The writer owns what it writes: a name taken by what it cannot trust is refused, with the
// reason, and left alone.
TEST(SlateRuleSetTest, ASegmentThatIsNotOursIsRefused) {
   {
      ScopedSegment seg("loose");
      int const fd = ::shm_open(seg.name().c_str(), O_RDWR | O_CREAT, 0600);
      ASSERT_GE(fd, 0);
      ASSERT_EQ(::fchmod(fd, 0666), 0);
      ::close(fd);
      std::string why;
      EXPECT_EQ(SlateRuleSet::attach(seg.name(), 8, &why).reason(), SlateError::notOurs);
      EXPECT_EQ(why, segmentPath(seg.name()) + " may be written by other users (mode 0666)");
   }
   {
      ScopedSegment seg("link");
      std::string const target = "/tmp/fsibtest-link-target-" + std::to_string(::getpid());
      ASSERT_EQ(::symlink(target.c_str(), segmentPath(seg.name()).c_str()), 0);
      std::string why;
      EXPECT_EQ(SlateRuleSet::attach(seg.name(), 8, &why).reason(), SlateError::notOurs);
      EXPECT_EQ(why, segmentPath(seg.name()) + " is a symbolic link to " + target + ", not a segment of ours");
      ::unlink(segmentPath(seg.name()).c_str());
   }
   if (::geteuid() != 0) {
      GTEST_SKIP() << "a segment of another user needs root to make (setuid in a child); run as root";
   }
   ScopedSegment seg("squat");
   pid_t const child = ::fork();
   if (child == 0) {
      // An unprivileged user gets there first, with a segment anyone may write.
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
      int const fd = ::shm_open(seg.name().c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
      ::_exit(fd >= 0 && ::ftruncate(fd, 1 << 20) == 0 ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   std::string why;
   EXPECT_EQ(SlateRuleSet::attach(seg.name(), 8, &why).reason(), SlateError::notOurs);
   EXPECT_NE(why.find(segmentPath(seg.name()) + " belongs to user "), std::string::npos) << why;
   EXPECT_NE(why.find("(uid 65534), not to this process's user"), std::string::npos) << why;
   struct stat st {};
   ASSERT_EQ(::stat(segmentPath(seg.name()).c_str(), &st), 0);
   EXPECT_EQ(st.st_uid, 65534u); // left as it was
}

TEST(SlateRuleSetTest, OneWriterAtATime) {
   ScopedSegment seg("onewriter");
   auto set = writer(seg, 8);
   ASSERT_TRUE(set);
   pid_t const child = ::fork();
   if (child == 0) {
      auto other = SlateRuleSet::attach(seg.name(), 8);
      ::_exit(!other.ok() && other.reason() == SlateError::writerActive ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
   // Nor a second writer in the same process.
   EXPECT_EQ(SlateRuleSet::attach(seg.name(), 8).reason(), SlateError::writerActive);
   EXPECT_EQ(set->ruleIs(testRule(1)), RuleIsResult::added);
}

TEST(SlateRuleSetTest, AChangeUnderWayIsNeverASnapshot) {
   // A live writer that stays inside a change: the snapshot gives up, says so, and still
   // hands out the whole rules it found.
   ScopedSegment seg("underway");
   auto set = writer(seg, 8);
   ASSERT_TRUE(set);
   for (std::uint32_t i = 0; i < 3; ++i) ASSERT_EQ(set->ruleIs(testRule(i)), RuleIsResult::added);
   RawSegment raw(seg.name());
   raw.header().generation.fetch_add(1);
   auto rd = reader(seg);
   auto const s = rd.snapshot(3);
   EXPECT_EQ(s.status, SnapshotStatus::unsettled);
   EXPECT_EQ(s.rules.size(), 3u);
   EXPECT_EQ(rd.stats().snapshotRetries, 3u);
   raw.header().generation.fetch_add(1);
   EXPECT_EQ(rd.snapshot(3).status, SnapshotStatus::consistent);
}

TEST(SlateRuleSetTest, ASegmentOfAnotherCapacityIsRetiredAndReplaced) {
   ScopedSegment seg("reshape");
   auto small = writer(seg, 8);
   ASSERT_TRUE(small);
   ASSERT_EQ(small->ruleIs(testRule(1)), RuleIsResult::added);
   small->detach();
   auto old = reader(seg);
   auto big = writer(seg, 64);
   ASSERT_TRUE(big);
   EXPECT_TRUE(old.retired());
   EXPECT_EQ(big->ruleCount(), 0u);
   auto fresh = reader(seg);
   EXPECT_EQ(fresh.capacity(), 64u);
   EXPECT_FALSE(fresh.retired());
}

TEST(SlateRuleSetTest, OpenAndAttachRefuseWhatTheyCannotUse) {
   ScopedSegment seg("refuse");
   EXPECT_EQ(SlateRuleSetReader::open(seg.name()).reason(), SlateError::noSegment);
   EXPECT_EQ(SlateRuleSet::attach(seg.name(), 0).reason(), SlateError::badCapacity);
   EXPECT_EQ(SlateRuleSet::attach(seg.name(), SlateLayout::maxCapacity + 1).reason(), SlateError::badCapacity);
   EXPECT_EQ(SlateRuleSet::attach("no-slash", 8).reason(), SlateError::badName);
   EXPECT_EQ(SlateRuleSet::attach("/a/b", 8).reason(), SlateError::badName);
   // An object that is not a segment: empty, then of another format.
   int const fd = ::shm_open(seg.name().c_str(), O_RDWR | O_CREAT, 0600);
   ASSERT_GE(fd, 0);
   EXPECT_EQ(SlateRuleSetReader::open(seg.name()).reason(), SlateError::notASegment);
   ASSERT_EQ(::ftruncate(fd, 4096), 0);
   std::uint64_t const junk = 0x1234;
   ASSERT_EQ(::pwrite(fd, &junk, sizeof junk, 0), static_cast<ssize_t>(sizeof junk));
   ::close(fd);
   EXPECT_EQ(SlateRuleSetReader::open(seg.name()).reason(), SlateError::notASegment);
   // A writer replaces it.
   auto set = writer(seg, 8);
   ASSERT_TRUE(set);
   EXPECT_TRUE(SlateRuleSetReader::open(seg.name()).ok());
}

} // namespace
