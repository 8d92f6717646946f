// The FSIB as a Slate table: a Flowspec::RuleSet in a POSIX shared-memory segment that this
// process writes and other processes read (SlateRuleSetReader).
//
// One writer per segment: attach() refuses while another live process is attached as writer.
// Attaching to a segment that already exists keeps its rules (a writer that restarts finds
// what its predecessor left, whole, even if it died mid-change); a segment of another format
// or capacity is marked retired, unlinked and replaced by a fresh one. The segment outlives
// the writer: destroying the SlateRuleSet (or detaching it) unmaps it and leaves the rules
// to the readers; only unlinkSlateSegment() removes it.
//
// Storage: slots and the hash index are sized for the capacity at creation; the records (rule
// fields and key) live in blocks of a heap that grows with what is stored, in size classes
// (SlateLayout.h). Every change bumps the header's generation and counters.
//
// Trust. The writer owns what it writes: it creates the segment itself (mode 0644), and
// attaches to an existing one only when it is a regular file of this process's user that no
// other user may write (else notOurs, with the reason). It decides from a private copy of
// everything it wrote (rules, slot words, index, free blocks) and never from bytes read back
// from shared memory, so a segment changed under it (by hand, a bug elsewhere, a truncation
// by its owner) cannot make it crash or abort. Before each change it checks the header, the
// segment's size and the words it is about to replace against that copy; when they differ the
// segment is retired and unlinked, a fresh one is created and filled from the copy, and the
// problem handler hears why.
//
// Convergence. A writer that starts again (a restarted agent) may empty the table and fill it
// again from its sources; convergedIs(false) tells readers that until convergedIs(true) the
// table may hold fewer rules than are in force (SlateLayout.h, flagRebuilding), so that a
// forwarding plane keeps what it has. The flag lives in the segment: a writer that dies
// before it converged leaves it set, and the next one finds it so.
//
// Not thread-safe: one thread of the writer process uses it, as with every RuleSet.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/flowspec/RuleSet.h"
#include "host/fwk/Result.h"
#include "host/mnemo/SlateSegment.h"

namespace Mnemo {

class SlateRuleSet final : public Flowspec::RuleSet {
 public:
   // Creates the segment `segmentName` (as slateSegmentName gives) for `capacity` rules, or
   // attaches to the one there. Fails with badName, badCapacity,
   // openFailed, or writerActive.
   // `why`, when given, receives a sentence for people when the attach fails with notOurs or
   // openFailed.
   static Ovk::Result<Ovk::Ptr<SlateRuleSet>, SlateError> attach(std::string const& segmentName,
                                                                 std::uint32_t capacity, std::string* why = nullptr);

   // Adds or replaces. A full collection refuses a new key (refusedFull, counted in the
   // header); so does a heap that cannot grow (the system is out of shared memory).
   Flowspec::RuleIsResult ruleIs(Flowspec::Rule const& rule) override;
   void refusalNote() override;
   bool ruleDel(Flowspec::FlowspecSlateKey const& key) override;
   void ruleDelAll() override;
   std::optional<Flowspec::Rule> rule(Flowspec::FlowspecSlateKey const& key) const override;
   std::size_t ruleCount() const override;
   std::size_t ruleCapacity() const override { return capacity_; }
   void forEachRule(std::function<bool(Flowspec::Rule const&)> const& visit) const override;
   // Stops writing: later writes are refused, the rules stay, and the segment is free for
   // another writer to attach.
   void detach() override;
   bool isDetached() const override { return detached_; }

   // True when the attach found a segment an earlier writer had filled (its rules kept, as
   // far as they were whole), false when it made the segment (or replaced one it could not
   // take).
   bool foundExisting() const { return foundExisting_; }
   // What the attach found and did, a sentence each, for the log: a segment of another
   // format or capacity replaced, slots emptied for want of a whole record, the rules found.
   std::vector<std::string> const& attachNotes() const { return attachNotes_; }
   // Tells readers whether the table is complete again after this writer's start (above).
   void convergedIs(bool converged);
   bool converged() const { return converged_; }

   std::string const& segmentName() const { return name_; }
   SlateCounters counters() const { return countersOf(*hdr_); }
   std::uint64_t generation() const;
   // The segment's size now (header, slots, index and the heap as grown so far).
   std::uint64_t segmentBytes() const { return fileBytes_; }
   // Bytes of the heap holding blocks, in use or free.
   std::uint64_t heapBytes() const { return heapUsed_; }
   // Hears, in a sentence, each time the segment was found changed under the writer and
   // replaced (or could not be replaced, and the rule set detached).
   void problemHandlerIs(std::function<void(std::string const&)> handler) { problemHandler_ = std::move(handler); }
   // Segments replaced because they were changed under the writer.
   std::uint64_t repairs() const { return repairs_; }

   ~SlateRuleSet() override;

 private:
   SlateRuleSet(std::string name, SlateMapping mapping);
   // Creates the segment fresh (O_EXCL) and maps it; the reason in `why` otherwise.
   // `err` receives errno when the creation itself fails (EEXIST: the name is taken).
   static Ovk::Result<SlateMapping, SlateError> createSegment(std::string const& name, std::uint32_t capacity,
                                                             std::string* why, int* err = nullptr);
   void initialise(std::uint32_t capacity);
   void recover();
   void adopt(); // the private copy of the geometry, after initialise or recover

   // What the writer stored in a slot.
   struct SlotCopy {
      std::uint64_t word = 0;  // the slot word as stored
      std::uint64_t block = 0; // the block's offset, 0 when empty
      std::uint8_t blockClass = 0;
      std::optional<Flowspec::Rule> rule;
   };
   struct Probe {
      bool found = false;
      std::uint32_t bucket = 0;   // where the key is, when found
      std::uint32_t slot = 0;     // its slot, when found
      std::uint32_t insertAt = 0; // otherwise: the first tombstone or the empty bucket
      bool insertAtEmpty = false;
   };
   Probe probe(std::span<std::uint32_t const> key, std::uint32_t hash) const;
   std::optional<std::uint64_t> allocBlock(std::uint32_t bytes, std::uint8_t& blockClass);
   bool grow(std::uint64_t needBytes);
   void slotIs(std::uint32_t slot, std::uint64_t blockOffset, std::uint8_t blockClass,
               std::optional<Flowspec::Rule> rule);
   void bucketIs(std::uint32_t bucket, std::uint64_t word);
   void beginChange();
   void endChange();
   void maybeRebuildIndex();
   void rebuildIndex(std::vector<std::pair<std::uint32_t, std::uint32_t>> const& hashAndSlot);
   std::uint64_t* sharedBuckets(std::uint64_t epoch) const;
   // Empty when the segment still holds what this writer put there (header, size, and the
   // slot about to change with its record); else what differs.
   std::string damage(std::optional<std::uint32_t> slot) const;
   // Replaces a damaged segment by a fresh one holding the rules of the private copy; false
   // when that failed (the rule set is then detached).
   bool repair(std::string const& what);
   // Checks before a change; true when the change may go ahead.
   bool checked(std::optional<std::uint32_t> slot);
   Flowspec::RuleIsResult store(Flowspec::Rule const& rule);
   void problem(std::string const& text);

   std::string name_;
   SlateMapping map_;
   SlateLayout::Header* hdr_ = nullptr;
   std::uint64_t* slots_ = nullptr;
   std::uint32_t capacity_ = 0;
   std::uint32_t bucketMask_ = 0;
   std::uint64_t heapOffset_ = 0;
   std::uint64_t heapUsed_ = 0;
   std::uint64_t fileBytes_ = 0;
   std::uint64_t generation_ = 0;
   std::uint64_t indexEpoch_ = 0;
   std::uint32_t indexUsed_ = 0; // live and tombstone buckets of the active index
   std::uint32_t ruleCount_ = 0;
   bool detached_ = false;
   bool converged_ = true;
   bool foundExisting_ = false;
   std::vector<std::string> attachNotes_;
   std::uint64_t repairs_ = 0;
   std::function<void(std::string const&)> problemHandler_;
   // The private copy: what every slot and index bucket holds, free slots and blocks. Rebuilt
   // from the segment on attach, never read back from it afterwards.
   std::vector<SlotCopy> slotCopy_;
   std::vector<std::uint64_t> buckets_;
   std::vector<std::uint32_t> freeSlots_;
   std::array<std::vector<std::uint64_t>, SlateLayout::blockClassBytes.size()> freeBlocks_;
};

} // namespace Mnemo
