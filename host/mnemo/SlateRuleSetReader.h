// Reads a Slate rule-set segment (the FSIB) from any process, while its writer changes it.
//
// This is the library a forwarding process links to read the rules the flowspec export
// writes; it needs neither the agent nor its scheduler. The mapping is read-only.
//
// Guarantees:
// - Every rule handed out is whole: the writer never changes a record in place, and a copy
//   is kept only when the slot word was the same before and after it (SlateLayout.h).
// - snapshot() gives the whole table at one generation when the writer pauses long enough
//   for one pass over the slots; otherwise it retries, and after maxAttempts says so.
// - Nothing waits on the writer: a writer that died mid-change is noticed (its process is
//   gone) and the table is read as it lies.
// - Nothing from the segment is trusted: offsets, sizes and keys are checked before use, so a
//   damaged segment yields fewer rules (counted in stats().damaged), never a crash.
//
// One thread uses a reader at a time; several readers (in any number of processes) may read
// one segment.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/flowspec/Rule.h"
#include "host/fwk/Result.h"
#include "host/mnemo/SlateSegment.h"

namespace Mnemo {

enum class SnapshotStatus : std::uint8_t {
   consistent, // the table as it was at `generation`
   writerGone, // the writer died mid-change; the table as it lies, which no one changes now
   unsettled,  // the writer kept changing the table; each rule is whole, the set may be mixed
};
char const* toStrep(SnapshotStatus s);

enum class SnapshotOrder : std::uint8_t {
   keyOrder,  // FlowspecSlateKey::cmp: rule precedence, as RuleSet::forEachRule visits
   slotOrder, // as the rules lie in the segment; saves the sort (most of a large snapshot's cost)
};

struct SlateSnapshot {
   std::uint64_t generation = 0;
   SnapshotStatus status = SnapshotStatus::unsettled;
   bool converged = true; // the writer's rebuilding flag was clear (SlateLayout.h)
   std::uint32_t ruleCount = 0; // the header's count, read with the rules
   SlateCounters counters;
   std::vector<Flowspec::Rule> rules; // in the order asked for
};

// A slot whose word moved since the caller last looked, with what it holds now.
struct SlotChange {
   std::uint32_t slot = 0;
   std::uint64_t word = 0;             // the slot word the rule was copied under
   std::optional<Flowspec::Rule> rule; // empty: the slot is empty (or damaged, and counted)
};

struct SlateChanges {
   std::uint64_t generation = 0;
   SnapshotStatus status = SnapshotStatus::unsettled;
   // The writer's rebuilding flag was clear at that generation: the table is complete. When
   // false, rules missing from it may still be in force (SlateLayout.h).
   bool converged = true;
   std::vector<SlotChange> changes; // in slot order
};

struct SlateReadStats {
   std::uint64_t slotReads = 0;       // slot reads that gave a rule or found the slot empty
   std::uint64_t slotRetries = 0;     // copies thrown away because the slot changed meanwhile
   std::uint64_t indexRetries = 0;    // lookups repeated because the index was rebuilt meanwhile
   std::uint64_t snapshotRetries = 0; // passes repeated because the generation moved
   std::uint64_t damaged = 0;         // records that are not records although their slot held still
};

class SlateRuleSetReader {
 public:
   // Opens the segment `segmentName` read-only. Fails with noSegment, openFailed or
   // notASegment (not this format, or its writer has not finished creating it).
   static Ovk::Result<SlateRuleSetReader, SlateError> open(std::string const& segmentName);

   SlateRuleSetReader(SlateRuleSetReader&&) noexcept = default;
   SlateRuleSetReader& operator=(SlateRuleSetReader&&) noexcept = default;

   std::string const& segmentName() const { return name_; }
   std::uint32_t formatVersion() const { return hdr().formatVersion; }
   std::uint32_t capacity() const { return capacity_; }
   std::uint64_t generation() const;
   std::uint32_t ruleCount() const;
   SlateCounters counters() const { return countersOf(hdr()); }
   std::uint64_t segmentBytes() const;
   // The writer's process id, 0 when none is attached.
   std::uint32_t writerPid() const;
   bool writerAlive() const;
   // True when a writer replaced the segment by one of another shape: open the name again.
   bool retired() const;
   // False while the writer is rebuilding the table after its start (SlateLayout.h).
   bool converged() const;

   // The rule with `key`, or empty (also when the writer kept moving it for a long time).
   std::optional<Flowspec::Rule> rule(Flowspec::FlowspecSlateKey const& key);
   // Each rule in slot order, each whole, until `visit` returns false. Not a snapshot: rules
   // changed during the walk may be seen old or new.
   void forEachRule(std::function<bool(Flowspec::Rule const&)> const& visit);
   // The whole table at one generation; see SnapshotStatus. Only the copy of the records
   // needs the writer to hold still; decoding and sorting come after.
   SlateSnapshot snapshot(unsigned maxAttempts = 100, SnapshotOrder order = SnapshotOrder::keyOrder);
   // The slots whose word is not the one in `seen` (one word per slot, capacity() of them;
   // all 0 before the first look, when every rule is a change), each with its rule, from a
   // pass of one generation as snapshot() takes it (or unsettled after maxAttempts, then
   // possibly mixed). Comparing costs one load per slot; only changed slots are copied.
   // `seen` is not touched: the caller stores each change's word once it applied it.
   SlateChanges changesSince(std::vector<std::uint64_t> const& seen, unsigned maxAttempts = 100);

   SlateReadStats const& stats() const { return stats_; }

 private:
   SlateRuleSetReader(std::string name, SlateMapping mapping);
   SlateLayout::Header const& hdr() const { return *reinterpret_cast<SlateLayout::Header const*>(map_.base()); }
   enum class SlotRead : std::uint8_t { empty, copied, damaged, unsettled };
   // Appends the words of the slot's record to `out` (from its block's size word on).
   // `word`, when given, receives the slot word the copy was taken under.
   SlotRead copySlot(std::uint32_t slot, std::vector<std::uint32_t>& out, std::uint64_t* word = nullptr);
   bool copyBlock(std::uint64_t offset, std::vector<std::uint32_t>& out);
   bool within(std::uint64_t end);
   // Runs `pass` (a copy of slots; false when some slot would not hold still) until one run
   // lies within one even generation, or a dead writer's odd one; the generation and how it
   // went.
   template <class Pass>
   std::pair<std::uint64_t, SnapshotStatus> atOneGeneration(unsigned maxAttempts, Pass&& pass);

   std::string name_;
   SlateMapping map_;
   SlateLayout::Geometry geometry_{};
   std::uint32_t capacity_ = 0;
   std::uint64_t const* slots_ = nullptr;
   std::uint64_t knownBytes_ = 0; // how much of the segment is safe to touch
   std::vector<std::uint32_t> scratch_;
   SlateReadStats stats_;
};

} // namespace Mnemo
