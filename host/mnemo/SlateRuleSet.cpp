#include "host/mnemo/SlateRuleSet.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <unordered_map>
#include <unordered_set>

#include "host/mnemo/SlateRecord.h"

namespace Mnemo {

using namespace SlateLayout;

namespace {

// The heap starts this large and at least doubles when it grows.
constexpr std::uint64_t initialHeapBytes = 64 * 1024;
constexpr std::uint64_t growStep = 64 * 1024;

std::uint32_t selfPid() { return static_cast<std::uint32_t>(::getpid()); }

void bump(std::atomic<std::uint64_t>& counter) {
   // One writer: a load and a store, no read-modify-write needed.
   counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Allocates [offset, offset + bytes) of the segment, extending it when needed. fallocate
// rather than ftruncate: shared memory that is not there shows up now as an error rather
// than later as a bus error on first touch.
bool allocateRange(int fd, std::uint64_t offset, std::uint64_t bytes) {
   int const rc = ::posix_fallocate(fd, static_cast<off_t>(offset), static_cast<off_t>(bytes));
   return rc == 0;
}

std::optional<SlateMapping> mapSegment(int fd, std::uint64_t bytes, bool writable) {
   void* p = ::mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
   if (p == MAP_FAILED) return std::nullopt;
   return SlateMapping(fd, static_cast<std::byte*>(p), bytes);
}

} // namespace

SlateRuleSet::SlateRuleSet(std::string name, SlateMapping mapping)
    : name_(std::move(name)), map_(std::move(mapping)), hdr_(reinterpret_cast<Header*>(map_.base())) {}

SlateRuleSet::~SlateRuleSet() {
   if (!detached_) {
      std::uint32_t self = selfPid();
      hdr_->writerPid.compare_exchange_strong(self, 0);
   }
}

Ovk::Result<Ovk::Ptr<SlateRuleSet>, SlateError> SlateRuleSet::attach(std::string const& segmentName,
                                                                     std::uint32_t capacity) {
   if (segmentName.size() < 2 || segmentName[0] != '/' || segmentName.find('/', 1) != std::string::npos) {
      return Ovk::failure(SlateError::badName);
   }
   if (capacity == 0 || capacity > maxCapacity) return Ovk::failure(SlateError::badCapacity);
   Geometry const g = geometryFor(capacity);
   // A few rounds: each may find a segment of another shape and remove it, or lose a race
   // with another process that removes one.
   for (int round = 0; round < 4; ++round) {
      bool fresh = true;
      int fd = ::shm_open(segmentName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
      if (fd < 0) {
         if (errno != EEXIST) return Ovk::failure(SlateError::openFailed);
         fd = ::shm_open(segmentName.c_str(), O_RDWR, 0);
         if (fd < 0) {
            if (errno == ENOENT) continue;
            return Ovk::failure(SlateError::openFailed);
         }
         fresh = false;
      }
      std::optional<SlateMapping> m = mapSegment(fd, g.mapBytes, true);
      if (!m) {
         ::close(fd);
         return Ovk::failure(SlateError::openFailed);
      }
      Header const* h = reinterpret_cast<Header const*>(m->base());
      if (!fresh) {
         std::uint64_t const size = m->fileBytes();
         if (size < headerBytes || h->magic.load(std::memory_order_acquire) == 0 ||
             (headerIsWellFormed(*h) && h->capacity == capacity && size < g.heapOffset)) {
            // Made by a writer that died before it finished; start it again.
            fresh = true;
         } else if (!headerIsWellFormed(*h) || h->capacity != capacity) {
            OVK_TRACE(mnemoTrace(), 3, "replacing segment " << segmentName << " of another format or capacity");
            if (headerIsWellFormed(*h) && size >= g.heapOffset) {
               const_cast<Header*>(h)->flags.fetch_or(flagRetired, std::memory_order_release);
            }
            ::shm_unlink(segmentName.c_str());
            continue;
         }
      }
      if (!fresh) {
         // Our own process id counts too: another SlateRuleSet of this process writes there.
         std::uint32_t const pid = h->writerPid.load(std::memory_order_acquire);
         if (pid != 0 && processAlive(pid)) return Ovk::failure(SlateError::writerActive);
      }
      Ovk::Ptr<SlateRuleSet> set(new SlateRuleSet(segmentName, std::move(*m)));
      if (fresh) {
         if (!allocateRange(fd, 0, g.heapOffset + initialHeapBytes)) return Ovk::failure(SlateError::openFailed);
         set->initialise(capacity);
      }
      // Claim the writer's place; a process that claims it between our check and here wins.
      std::uint32_t expected = set->hdr_->writerPid.load(std::memory_order_acquire);
      if (expected != 0 && processAlive(expected)) {
         set->detached_ = true;
         return Ovk::failure(SlateError::writerActive);
      }
      if (!set->hdr_->writerPid.compare_exchange_strong(expected, selfPid(), std::memory_order_acq_rel)) {
         set->detached_ = true; // not ours to release
         return Ovk::failure(SlateError::writerActive);
      }
      set->recover();
      return set;
   }
   return Ovk::failure(SlateError::openFailed);
}

void SlateRuleSet::initialise(std::uint32_t capacity) {
   Geometry const g = geometryFor(capacity);
   Header* h = hdr_;
   h->magic.store(0, std::memory_order_relaxed);
   std::memset(map_.base() + sizeof(std::atomic<std::uint64_t>), 0, g.heapOffset - sizeof(std::atomic<std::uint64_t>));
   h->formatVersion = formatVersion;
   h->headerBytes = headerBytes;
   h->capacity = capacity;
   h->indexBuckets = g.indexBuckets;
   h->slotsOffset = g.slotsOffset;
   h->indexOffset[0] = g.indexOffset[0];
   h->indexOffset[1] = g.indexOffset[1];
   h->heapOffset = g.heapOffset;
   h->mapBytes = g.mapBytes;
   h->segmentBytes.store(map_.fileBytes(), std::memory_order_relaxed);
   h->magic.store(segmentMagic, std::memory_order_release);
}

void SlateRuleSet::recover() {
   capacity_ = hdr_->capacity;
   bucketMask_ = hdr_->indexBuckets - 1;
   slots_ = reinterpret_cast<std::uint64_t*>(map_.base() + hdr_->slotsOffset);
   heapOffset_ = hdr_->heapOffset;
   fileBytes_ = std::min<std::uint64_t>(map_.fileBytes(), hdr_->mapBytes);
   hdr_->segmentBytes.store(fileBytes_, std::memory_order_release);
   beginChange(); // stays odd if the last writer died mid-change
   // The heap is a sequence of blocks; stop at the first that is not one (a block the last
   // writer had not finished, or nothing at all) and reuse everything from there.
   heapUsed_ = std::min(hdr_->heapUsed.load(std::memory_order_relaxed), fileBytes_ - heapOffset_);
   std::vector<std::uint64_t> blocks;
   std::unordered_map<std::uint64_t, std::size_t> classAt;
   std::uint64_t walked = 0;
   while (walked + 8 <= heapUsed_) {
      auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + heapOffset_ + walked);
      std::size_t const cls = blockClassOf(b[wordBlockBytes]);
      if (cls == blockClassBytes.size() || b[wordBlockMagic] != blockMagic ||
          walked + blockClassBytes[cls] > heapUsed_) {
         break;
      }
      blocks.push_back(heapOffset_ + walked);
      classAt.emplace(heapOffset_ + walked, cls);
      walked += blockClassBytes[cls];
   }
   heapUsed_ = walked;
   hdr_->heapUsed.store(heapUsed_, std::memory_order_release);
   // Keep every slot that holds a whole record of a key not seen before; empty the rest.
   std::unordered_set<std::uint64_t> usedBlocks;
   std::unordered_set<Flowspec::FlowspecSlateKey> keys;
   std::vector<std::pair<std::uint32_t, std::uint32_t>> hashAndSlot;
   std::uint32_t dropped = 0;
   freeSlots_.clear();
   for (std::uint32_t slot = capacity_; slot-- > 0;) {
      std::uint64_t const off = slotBlockOffset(slots_[slot]);
      if (off == 0) {
         freeSlots_.push_back(slot);
         continue;
      }
      std::optional<Flowspec::Rule> r;
      if (classAt.contains(off) && !usedBlocks.contains(off)) r = SlateRecord::decode(blockWords(off));
      if (!r || !keys.insert(r->key).second) {
         slotIs(slot, 0);
         freeSlots_.push_back(slot);
         ++dropped;
         continue;
      }
      usedBlocks.insert(off);
      hashAndSlot.emplace_back(r->key.hash(), slot);
   }
   if (dropped != 0) OVK_TRACE(mnemoTrace(), 3, name_ << ": emptied " << dropped << " slots without a whole record");
   for (auto& list : freeBlocks_) list.clear();
   for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
      if (!usedBlocks.contains(*it)) freeBlocks_[classAt[*it]].push_back(*it);
   }
   hdr_->ruleCount.store(static_cast<std::uint32_t>(hashAndSlot.size()), std::memory_order_relaxed);
   rebuildIndex(hashAndSlot);
   bump(hdr_->writerAttaches);
   endChange();
   OVK_TRACE(mnemoTrace(), 5,
             name_ << ": writer attached with " << hashAndSlot.size() << " rules, generation " << generation_);
}

std::uint64_t SlateRuleSet::generation() const { return hdr_->generation.load(std::memory_order_acquire); }

std::size_t SlateRuleSet::ruleCount() const { return hdr_->ruleCount.load(std::memory_order_relaxed); }

std::uint64_t* SlateRuleSet::bucketsOf(std::uint64_t epoch) const {
   return reinterpret_cast<std::uint64_t*>(map_.base() + hdr_->indexOffset[epoch & 1]);
}

std::uint64_t* SlateRuleSet::activeBuckets() const {
   return bucketsOf(hdr_->indexEpoch.load(std::memory_order_relaxed));
}

std::span<std::uint32_t const> SlateRuleSet::blockWords(std::uint64_t offset) const {
   auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + offset);
   return {b, b[wordBlockBytes] / 4};
}

void SlateRuleSet::beginChange() {
   generation_ = hdr_->generation.load(std::memory_order_relaxed);
   if ((generation_ & 1) == 0) ++generation_;
   hdr_->generation.store(generation_, std::memory_order_relaxed);
   // Whatever follows may be seen only with the odd generation.
   std::atomic_thread_fence(std::memory_order_release);
}

void SlateRuleSet::endChange() {
   ++generation_;
   hdr_->generation.store(generation_, std::memory_order_release);
}

void SlateRuleSet::slotIs(std::uint32_t slot, std::uint64_t blockOffset) {
   std::uint32_t const version = slotVersion(slots_[slot]) + 1;
   storeRelease(&slots_[slot], slotWord(version, blockOffset));
}

SlateRuleSet::Probe SlateRuleSet::probe(std::span<std::uint32_t const> key, std::uint32_t hash) const {
   std::uint64_t const* buckets = activeBuckets();
   Probe p;
   bool tombstoneSeen = false;
   std::uint32_t i = hash & bucketMask_;
   for (std::uint32_t n = 0; n <= bucketMask_; ++n, i = (i + 1) & bucketMask_) {
      std::uint64_t const b = buckets[i];
      std::uint32_t const e = bucketEntry(b);
      if (e == 0) {
         if (!tombstoneSeen) p.insertAt = i;
         p.insertAtEmpty = !tombstoneSeen;
         return p;
      }
      if (e == bucketTombstone) {
         if (!tombstoneSeen) p.insertAt = i;
         tombstoneSeen = true;
         continue;
      }
      if (bucketHash(b) != hash) continue;
      std::uint32_t const slot = e - 1;
      if (SlateRecord::keyEquals(blockWords(slotBlockOffset(slots_[slot])), key)) {
         p.found = true;
         p.bucket = i;
         p.slot = slot;
         return p;
      }
   }
   // The index is never more than three quarters used, so an empty bucket always ends a probe.
   OVK_ASSERT(tombstoneSeen);
   return p;
}

bool SlateRuleSet::grow(std::uint64_t needBytes) {
   std::uint64_t const mapBytes = hdr_->mapBytes;
   if (needBytes > mapBytes) return false;
   std::uint64_t target = std::max(needBytes, fileBytes_ + (fileBytes_ - heapOffset_));
   target = std::min((target + growStep - 1) / growStep * growStep, mapBytes);
   if (!allocateRange(map_.fd(), fileBytes_, target - fileBytes_)) {
      OVK_TRACE(mnemoTrace(), 3, name_ << ": cannot grow to " << target << " bytes: " << std::strerror(errno));
      return false;
   }
   fileBytes_ = target;
   hdr_->segmentBytes.store(fileBytes_, std::memory_order_release);
   return true;
}

std::optional<std::uint64_t> SlateRuleSet::allocBlock(std::uint32_t bytes) {
   std::size_t const cls = blockClassFor(bytes);
   OVK_ASSERT(cls < blockClassBytes.size());
   // A reader may still be copying what a reused block held, under a slot word the writer
   // has since changed: the release fence makes a reader that sees any of the new contents
   // also see that change, so it retries.
   std::atomic_thread_fence(std::memory_order_release);
   if (!freeBlocks_[cls].empty()) {
      std::uint64_t const off = freeBlocks_[cls].back();
      freeBlocks_[cls].pop_back();
      return off;
   }
   std::uint32_t const size = blockClassBytes[cls];
   std::uint64_t const off = heapOffset_ + heapUsed_;
   if (off + size > fileBytes_ && !grow(off + size)) return std::nullopt;
   auto* b = reinterpret_cast<std::uint32_t*>(map_.base() + off);
   storeWord(b + wordBlockBytes, size);
   storeWord(b + wordBlockMagic, blockMagic);
   heapUsed_ += size;
   hdr_->heapUsed.store(heapUsed_, std::memory_order_release);
   return off;
}

void SlateRuleSet::freeBlock(std::uint64_t offset) {
   auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + offset);
   freeBlocks_[blockClassOf(b[wordBlockBytes])].push_back(offset);
}

void SlateRuleSet::refusalNote() {
   if (!detached_) bump(hdr_->refusals);
}

Flowspec::RuleIsResult SlateRuleSet::ruleIs(Flowspec::Rule const& rule) {
   if (detached_) return Flowspec::RuleIsResult::refusedDetached;
   auto const key = rule.key.words();
   std::uint32_t const hash = rule.key.hash();
   Probe const p = probe(key, hash);
   std::optional<std::uint64_t> block;
   if (p.found || !freeSlots_.empty()) block = allocBlock(recordBytes(static_cast<std::uint32_t>(key.size())));
   if (!block) {
      bump(hdr_->refusals);
      return Flowspec::RuleIsResult::refusedFull;
   }
   SlateRecord::store(reinterpret_cast<std::uint32_t*>(map_.base() + *block), rule);
   beginChange();
   if (p.found) {
      std::uint64_t const old = slotBlockOffset(slots_[p.slot]);
      slotIs(p.slot, *block);
      bump(hdr_->replaces);
      endChange();
      freeBlock(old);
      return Flowspec::RuleIsResult::replaced;
   }
   std::uint32_t const slot = freeSlots_.back();
   freeSlots_.pop_back();
   slotIs(slot, *block);
   storeRelease(activeBuckets() + p.insertAt, bucketWord(hash, slot + 1));
   if (p.insertAtEmpty) ++indexUsed_;
   hdr_->ruleCount.store(hdr_->ruleCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   bump(hdr_->adds);
   endChange();
   maybeRebuildIndex();
   return Flowspec::RuleIsResult::added;
}

bool SlateRuleSet::ruleDel(Flowspec::FlowspecSlateKey const& key) {
   if (detached_) return false;
   Probe const p = probe(key.words(), key.hash());
   if (!p.found) return false;
   std::uint64_t const old = slotBlockOffset(slots_[p.slot]);
   beginChange();
   storeRelease(activeBuckets() + p.bucket, bucketWord(0, bucketTombstone));
   slotIs(p.slot, 0);
   hdr_->ruleCount.store(hdr_->ruleCount.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
   bump(hdr_->deletes);
   endChange();
   freeBlock(old);
   freeSlots_.push_back(p.slot);
   maybeRebuildIndex();
   return true;
}

void SlateRuleSet::ruleDelAll() {
   if (detached_) return;
   beginChange();
   for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
      if (slotBlockOffset(slots_[slot]) != 0) slotIs(slot, 0);
   }
   std::uint64_t* buckets = activeBuckets();
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) storeRelaxed(buckets + i, 0);
   indexUsed_ = 0;
   heapUsed_ = 0;
   hdr_->heapUsed.store(0, std::memory_order_relaxed);
   hdr_->ruleCount.store(0, std::memory_order_relaxed);
   bump(hdr_->deleteAlls);
   endChange();
   freeSlots_.clear();
   for (std::uint32_t slot = capacity_; slot-- > 0;) freeSlots_.push_back(slot);
   for (auto& list : freeBlocks_) list.clear();
}

void SlateRuleSet::maybeRebuildIndex() {
   if (std::uint64_t{indexUsed_} * 4 <= (std::uint64_t{bucketMask_} + 1) * 3) return;
   std::vector<std::pair<std::uint32_t, std::uint32_t>> live;
   std::uint64_t const* buckets = activeBuckets();
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) {
      std::uint32_t const e = bucketEntry(buckets[i]);
      if (e != 0 && e != bucketTombstone) live.emplace_back(bucketHash(buckets[i]), e - 1);
   }
   rebuildIndex(live);
}

void SlateRuleSet::rebuildIndex(std::vector<std::pair<std::uint32_t, std::uint32_t>> const& hashAndSlot) {
   std::uint64_t const epoch = hdr_->indexEpoch.load(std::memory_order_relaxed);
   std::uint64_t* target = bucketsOf(epoch + 1);
   // Readers that still probe this buffer from its last turn must see the epoch move once
   // they see any of what follows.
   std::atomic_thread_fence(std::memory_order_release);
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) storeRelaxed(target + i, 0);
   for (auto const& [hash, slot] : hashAndSlot) {
      std::uint32_t i = hash & bucketMask_;
      while (target[i] != 0) i = (i + 1) & bucketMask_;
      storeRelaxed(target + i, bucketWord(hash, slot + 1));
   }
   hdr_->indexEpoch.store(epoch + 1, std::memory_order_release);
   indexUsed_ = static_cast<std::uint32_t>(hashAndSlot.size());
}

std::optional<Flowspec::Rule> SlateRuleSet::rule(Flowspec::FlowspecSlateKey const& key) const {
   Probe const p = probe(key.words(), key.hash());
   if (!p.found) return std::nullopt;
   return SlateRecord::decode(blockWords(slotBlockOffset(slots_[p.slot])));
}

void SlateRuleSet::forEachRule(std::function<bool(Flowspec::Rule const&)> const& visit) const {
   std::vector<Flowspec::Rule> rules;
   rules.reserve(ruleCount());
   for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
      std::uint64_t const off = slotBlockOffset(slots_[slot]);
      if (off == 0) continue;
      if (auto r = SlateRecord::decode(blockWords(off))) rules.push_back(std::move(*r));
   }
   std::sort(rules.begin(), rules.end(),
             [](Flowspec::Rule const& a, Flowspec::Rule const& b) { return a.key < b.key; });
   for (auto const& r : rules) {
      if (!visit(r)) break;
   }
}

void SlateRuleSet::detach() {
   if (detached_) return;
   detached_ = true;
   std::uint32_t self = selfPid();
   hdr_->writerPid.compare_exchange_strong(self, 0, std::memory_order_acq_rel);
}

} // namespace Mnemo
