#include "host/mnemo/SlateRuleSetReader.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <tuple>

#include "host/mnemo/SlateRecord.h"

namespace Mnemo {

using namespace SlateLayout;

namespace {

// How often one slot is copied again before the reader gives up on it for this pass. A
// writer replaces a rule in well under a microsecond, so this is only reached by a writer
// that hammers one rule or is stopped in the middle of it.
constexpr unsigned maxSlotAttempts = 1000;
constexpr unsigned maxLookupAttempts = 100;

} // namespace

char const* toStrep(SnapshotStatus s) {
   switch (s) {
   case SnapshotStatus::consistent: return "consistent";
   case SnapshotStatus::writerGone: return "writerGone";
   case SnapshotStatus::unsettled: return "unsettled";
   }
   return "?";
}

SlateRuleSetReader::SlateRuleSetReader(std::string name, SlateMapping mapping)
    : name_(std::move(name)), map_(std::move(mapping)) {
   // The geometry as checked at open; the header's copy is not read again, so damage to it
   // cannot lead the reader outside the mapping.
   geometry_ = SlateLayout::geometryFor(hdr().capacity);
   capacity_ = geometry_.capacity;
   slots_ = reinterpret_cast<std::uint64_t const*>(map_.base() + geometry_.slotsOffset);
}

Ovk::Result<SlateRuleSetReader, SlateError> SlateRuleSetReader::open(std::string const& segmentName) {
   int const fd = ::shm_open(segmentName.c_str(), O_RDONLY, 0);
   if (fd < 0) return Ovk::failure(errno == ENOENT ? SlateError::noSegment : SlateError::openFailed);
   auto const fail = [fd](SlateError e) {
      ::close(fd);
      return Ovk::failure(e);
   };
   if (segmentFileBytes(fd) < headerBytes) return fail(SlateError::notASegment);
   void* p = ::mmap(nullptr, headerBytes, PROT_READ, MAP_SHARED, fd, 0);
   if (p == MAP_FAILED) return fail(SlateError::openFailed);
   auto const* h = static_cast<Header const*>(p);
   bool const wellFormed = headerIsWellFormed(*h);
   std::uint64_t const mapBytes = wellFormed ? h->mapBytes : 0;
   std::uint64_t const heapOffset = wellFormed ? h->heapOffset : 0;
   ::munmap(p, headerBytes);
   if (!wellFormed || segmentFileBytes(fd) < heapOffset) return fail(SlateError::notASegment);
   // Map as much as the segment can ever grow to: pages past its present end are never
   // touched (within() checks), and growth needs no remapping.
   p = ::mmap(nullptr, mapBytes, PROT_READ, MAP_SHARED, fd, 0);
   if (p == MAP_FAILED) return fail(SlateError::openFailed);
   SlateRuleSetReader r(segmentName, SlateMapping(fd, static_cast<std::byte*>(p), mapBytes));
   r.within(heapOffset);
   return r;
}

std::uint64_t SlateRuleSetReader::generation() const { return hdr().generation.load(std::memory_order_acquire); }
std::uint32_t SlateRuleSetReader::ruleCount() const { return hdr().ruleCount.load(std::memory_order_relaxed); }
std::uint64_t SlateRuleSetReader::segmentBytes() const { return hdr().segmentBytes.load(std::memory_order_acquire); }
std::uint32_t SlateRuleSetReader::writerPid() const { return hdr().writerPid.load(std::memory_order_acquire); }
bool SlateRuleSetReader::writerAlive() const { return processAlive(writerPid()); }
bool SlateRuleSetReader::retired() const { return (hdr().flags.load(std::memory_order_acquire) & flagRetired) != 0; }
bool SlateRuleSetReader::converged() const {
   return (hdr().flags.load(std::memory_order_acquire) & flagRebuilding) == 0;
}

bool SlateRuleSetReader::within(std::uint64_t end) {
   if (end <= knownBytes_) return true;
   // The segment grew since we last looked (or the offset is wrong): believe the smaller of
   // what the header says and what the file system says, so a damaged header cannot lead us
   // past the end of the object.
   std::uint64_t const said = hdr().segmentBytes.load(std::memory_order_acquire);
   knownBytes_ = std::min({said, map_.fileBytes(), std::uint64_t{map_.bytes()}});
   return end <= knownBytes_;
}

bool SlateRuleSetReader::copyBlock(std::uint64_t offset, std::vector<std::uint32_t>& out) {
   if (offset < geometry_.heapOffset || !within(offset + recordBytes(0))) return false;
   auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + offset);
   std::uint32_t const blockBytes = loadWord(b + wordBlockBytes);
   std::uint32_t const keyWords = loadWord(b + wordKeyWords);
   if (blockClassOf(blockBytes) == blockClassBytes.size() || keyWords > Flowspec::slateKeyMaxWords ||
       recordBytes(keyWords) > blockBytes || !within(offset + blockBytes)) {
      return false;
   }
   std::size_t const n = recordHeaderWords + std::size_t{keyWords};
   std::size_t const start = out.size();
   out.resize(start + n);
   for (std::size_t i = 0; i < n; ++i) out[start + i] = loadWord(b + i);
   return true;
}

SlateRuleSetReader::SlotRead SlateRuleSetReader::copySlot(std::uint32_t slot, std::vector<std::uint32_t>& out,
                                                          std::uint64_t* word) {
   std::size_t const start = out.size();
   for (unsigned attempt = 0; attempt < maxSlotAttempts; ++attempt) {
      std::uint64_t const before = loadAcquire(slots_ + slot);
      if (word != nullptr) *word = before;
      std::uint64_t const offset = slotBlockOffset(before);
      if (offset == 0) {
         ++stats_.slotReads;
         return SlotRead::empty;
      }
      bool const ok = copyBlock(offset, out);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (loadRelaxed(slots_ + slot) == before) {
         if (ok) {
            ++stats_.slotReads;
            return SlotRead::copied;
         }
         // The slot held still and still points at something that is not a record.
         ++stats_.damaged;
         out.resize(start);
         return SlotRead::damaged;
      }
      out.resize(start);
      ++stats_.slotRetries;
      if (attempt % 64 == 63) std::this_thread::yield();
   }
   return SlotRead::unsettled;
}

std::optional<Flowspec::Rule> SlateRuleSetReader::rule(Flowspec::FlowspecSlateKey const& key) {
   auto const words = key.words();
   std::uint32_t const hash = key.hash();
   Header const& h = hdr();
   std::uint32_t const mask = geometry_.indexBuckets - 1;
   for (unsigned attempt = 0; attempt < maxLookupAttempts; ++attempt) {
      std::uint64_t const epoch = h.indexEpoch.load(std::memory_order_acquire);
      auto const* buckets = reinterpret_cast<std::uint64_t const*>(map_.base() + geometry_.indexOffset[epoch & 1]);
      std::uint32_t i = hash & mask;
      for (std::uint32_t n = 0; n <= mask; ++n, i = (i + 1) & mask) {
         std::uint64_t const b = loadAcquire(buckets + i);
         std::uint32_t const e = bucketEntry(b);
         if (e == 0) break;
         if (e == bucketTombstone || bucketHash(b) != hash || e > capacity_) continue;
         scratch_.clear();
         if (copySlot(e - 1, scratch_) != SlotRead::copied || !SlateRecord::keyEquals(scratch_, words)) continue;
         auto r = SlateRecord::decode(scratch_);
         if (!r) ++stats_.damaged;
         return r;
      }
      // A miss counts only if the index was not rebuilt under us.
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h.indexEpoch.load(std::memory_order_relaxed) == epoch) return std::nullopt;
      ++stats_.indexRetries;
   }
   return std::nullopt;
}

void SlateRuleSetReader::forEachRule(std::function<bool(Flowspec::Rule const&)> const& visit) {
   for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
      scratch_.clear();
      if (copySlot(slot, scratch_) != SlotRead::copied) continue;
      auto r = SlateRecord::decode(scratch_);
      if (!r) {
         ++stats_.damaged;
         continue;
      }
      if (!visit(*r)) return;
   }
}

template <class Pass>
std::pair<std::uint64_t, SnapshotStatus> SlateRuleSetReader::atOneGeneration(unsigned maxAttempts, Pass&& pass) {
   Header const& h = hdr();
   std::uint64_t generation = 0;
   unsigned const attempts = std::max(maxAttempts, 1u);
   for (unsigned attempt = 0; attempt < attempts; ++attempt) {
      std::uint64_t const before = h.generation.load(std::memory_order_acquire);
      generation = before;
      bool const midChange = (before & 1) != 0;
      bool const writerGone = midChange && !writerAlive();
      bool const lastAttempt = attempt + 1 == attempts;
      if (midChange && !writerGone && !lastAttempt) {
         ++stats_.snapshotRetries;
         std::this_thread::yield();
         continue;
      }
      // (The last attempt copies in any case, so that an unsettled pass still has rules.)
      bool const settled = pass();
      std::atomic_thread_fence(std::memory_order_acquire);
      if (h.generation.load(std::memory_order_relaxed) == before && settled && (!midChange || writerGone))
         return {generation, writerGone ? SnapshotStatus::writerGone : SnapshotStatus::consistent};
      ++stats_.snapshotRetries;
   }
   return {generation, SnapshotStatus::unsettled};
}

SlateSnapshot SlateRuleSetReader::snapshot(unsigned maxAttempts, SnapshotOrder order) {
   Header const& h = hdr();
   SlateSnapshot s;
   // Copy the raw records first and decode after the generation check: the pass the writer
   // must leave alone is as short as it can be.
   std::vector<std::uint32_t> words;
   std::vector<std::size_t> starts;
   std::tie(s.generation, s.status) = atOneGeneration(maxAttempts, [&] {
      words.clear();
      starts.clear();
      s.counters = countersOf(h);
      s.converged = (h.flags.load(std::memory_order_relaxed) & flagRebuilding) == 0;
      s.ruleCount = h.ruleCount.load(std::memory_order_relaxed);
      bool settled = true;
      for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
         std::size_t const start = words.size();
         SlotRead const r = copySlot(slot, words);
         if (r == SlotRead::copied) starts.push_back(start);
         if (r == SlotRead::unsettled) settled = false;
      }
      return settled;
   });
   starts.push_back(words.size());
   s.rules.reserve(starts.size() - 1);
   for (std::size_t i = 0; i + 1 < starts.size(); ++i) {
      auto r = SlateRecord::decode(std::span<std::uint32_t const>(words).subspan(starts[i], starts[i + 1] - starts[i]));
      if (r) {
         s.rules.push_back(std::move(*r));
      } else {
         ++stats_.damaged;
      }
   }
   if (order == SnapshotOrder::keyOrder) {
      std::sort(s.rules.begin(), s.rules.end(),
                [](Flowspec::Rule const& a, Flowspec::Rule const& b) { return a.key < b.key; });
   }
   return s;
}

SlateChanges SlateRuleSetReader::changesSince(std::vector<std::uint64_t> const& seen, unsigned maxAttempts) {
   SlateChanges c;
   struct Raw {
      std::uint32_t slot;
      std::uint64_t word;
      std::size_t start;
      bool copied;
   };
   std::vector<Raw> raw;
   std::vector<std::uint32_t> words;
   std::tie(c.generation, c.status) = atOneGeneration(maxAttempts, [&] {
      raw.clear();
      words.clear();
      // The flag changes only within a change: one generation has one value of it.
      c.converged = (hdr().flags.load(std::memory_order_relaxed) & flagRebuilding) == 0;
      bool settled = true;
      for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
         std::uint64_t const known = slot < seen.size() ? seen[slot] : 0;
         if (loadRelaxed(slots_ + slot) == known) continue;
         Raw r{slot, 0, words.size(), false};
         SlotRead const got = copySlot(slot, words, &r.word);
         if (got == SlotRead::unsettled) settled = false;
         r.copied = got == SlotRead::copied;
         raw.push_back(r);
      }
      return settled;
   });
   c.changes.reserve(raw.size());
   for (std::size_t i = 0; i < raw.size(); ++i) {
      SlotChange sc{raw[i].slot, raw[i].word, std::nullopt};
      if (raw[i].copied) {
         std::size_t const end = i + 1 < raw.size() ? raw[i + 1].start : words.size();
         sc.rule = SlateRecord::decode(std::span<std::uint32_t const>(words).subspan(raw[i].start, end - raw[i].start));
         if (!sc.rule) ++stats_.damaged;
      }
      c.changes.push_back(std::move(sc));
   }
   return c;
}

} // namespace Mnemo
