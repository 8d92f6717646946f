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
// Not thread-safe: one thread of the writer process uses it, as with every RuleSet.
#pragma once

#include <array>
#include <cstdint>
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
   static Ovk::Result<Ovk::Ptr<SlateRuleSet>, SlateError> attach(std::string const& segmentName,
                                                                 std::uint32_t capacity);

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

   std::string const& segmentName() const { return name_; }
   SlateCounters counters() const { return countersOf(*hdr_); }
   std::uint64_t generation() const;
   // The segment's size now (header, slots, index and the heap as grown so far).
   std::uint64_t segmentBytes() const { return fileBytes_; }
   // Bytes of the heap holding blocks, in use or free.
   std::uint64_t heapBytes() const { return heapUsed_; }

   ~SlateRuleSet() override;

 private:
   SlateRuleSet(std::string name, SlateMapping mapping);
   void initialise(std::uint32_t capacity);
   void recover();

   struct Probe {
      bool found = false;
      std::uint32_t bucket = 0;   // where the key is, when found
      std::uint32_t slot = 0;     // its slot, when found
      std::uint32_t insertAt = 0; // otherwise: the first tombstone or the empty bucket
      bool insertAtEmpty = false;
   };
   Probe probe(std::span<std::uint32_t const> key, std::uint32_t hash) const;
   std::span<std::uint32_t const> blockWords(std::uint64_t offset) const;
   std::optional<std::uint64_t> allocBlock(std::uint32_t bytes);
   void freeBlock(std::uint64_t offset);
   bool grow(std::uint64_t needBytes);
   void slotIs(std::uint32_t slot, std::uint64_t blockOffset);
   void beginChange();
   void endChange();
   void maybeRebuildIndex();
   void rebuildIndex(std::vector<std::pair<std::uint32_t, std::uint32_t>> const& hashAndSlot);
   std::uint64_t* bucketsOf(std::uint64_t epoch) const;
   std::uint64_t* activeBuckets() const;

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
   std::uint32_t indexUsed_ = 0; // live and tombstone buckets of the active index
   bool detached_ = false;
   // Private bookkeeping, rebuilt from the segment on attach.
   std::vector<std::uint32_t> freeSlots_;
   std::array<std::vector<std::uint64_t>, SlateLayout::blockClassBytes.size()> freeBlocks_;
};

} // namespace Mnemo
