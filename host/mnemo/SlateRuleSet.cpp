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
// Readers of any user read the segment; only its owner writes it.
constexpr mode_t segmentMode = 0644;

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

void say(std::string* why, std::string text) {
   if (why) *why = std::move(text);
}

} // namespace

SlateRuleSet::SlateRuleSet(std::string name, SlateMapping mapping)
    : name_(std::move(name)), map_(std::move(mapping)), hdr_(reinterpret_cast<Header*>(map_.base())) {}

SlateRuleSet::~SlateRuleSet() { detach(); }

Ovk::Result<SlateMapping, SlateError> SlateRuleSet::createSegment(std::string const& name, std::uint32_t capacity,
                                                                  std::string* why, int* err) {
   Geometry const g = geometryFor(capacity);
   int const fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, segmentMode);
   if (fd < 0) {
      if (err) *err = errno;
      say(why, "cannot create " + segmentPath(name) + ": " + std::strerror(errno));
      return Ovk::failure(SlateError::openFailed);
   }
   // Whatever the umask says: readers of other users read it.
   (void)::fchmod(fd, segmentMode);
   std::optional<SlateMapping> m = mapSegment(fd, g.mapBytes, true);
   if (!m) {
      say(why, "cannot map " + segmentPath(name) + ": " + std::strerror(errno));
      ::close(fd);
      ::shm_unlink(name.c_str());
      return Ovk::failure(SlateError::openFailed);
   }
   if (!allocateRange(fd, 0, g.heapOffset + initialHeapBytes)) {
      say(why, "no shared memory for " + segmentPath(name));
      ::shm_unlink(name.c_str());
      return Ovk::failure(SlateError::openFailed);
   }
   return std::move(*m);
}

Ovk::Result<Ovk::Ptr<SlateRuleSet>, SlateError> SlateRuleSet::attach(std::string const& segmentName,
                                                                     std::uint32_t capacity, std::string* why) {
   if (segmentName.size() < 2 || segmentName[0] != '/' || segmentName.find('/', 1) != std::string::npos) {
      return Ovk::failure(SlateError::badName);
   }
   if (capacity == 0 || capacity > maxCapacity) return Ovk::failure(SlateError::badCapacity);
   Geometry const g = geometryFor(capacity);
   // A few rounds: each may find a segment of another shape and remove it, or lose a race
   // with another process that removes one.
   std::vector<std::string> notes;
   for (int round = 0; round < 4; ++round) {
      std::string reason;
      int err = 0;
      auto created = createSegment(segmentName, capacity, &reason, &err);
      bool fresh = created.ok();
      std::optional<SlateMapping> m;
      if (fresh) {
         m = std::move(created.value());
      } else {
         if (err != EEXIST) {
            say(why, reason);
            return Ovk::failure(SlateError::openFailed);
         }
         int const fd = ::shm_open(segmentName.c_str(), O_RDWR, 0);
         if (fd < 0) {
            if (errno == ENOENT) continue;
            int const openErr = errno;
            if (std::string const trust = segmentTrustProblem(segmentName, -1); !trust.empty()) {
               say(why, trust);
               return Ovk::failure(SlateError::notOurs);
            }
            say(why, "cannot open " + segmentPath(segmentName) + ": " + std::strerror(openErr));
            return Ovk::failure(SlateError::openFailed);
         }
         // Whoever could create the name first could feed the forwarding plane rules, or cut
         // the segment under us: only a segment of our own is adopted.
         if (std::string const trust = segmentTrustProblem(segmentName, fd); !trust.empty()) {
            ::close(fd);
            say(why, trust);
            return Ovk::failure(SlateError::notOurs);
         }
         m = mapSegment(fd, g.mapBytes, true);
         if (!m) {
            say(why, "cannot map " + segmentPath(segmentName) + ": " + std::strerror(errno));
            ::close(fd);
            return Ovk::failure(SlateError::openFailed);
         }
         Header const* h = reinterpret_cast<Header const*>(m->base());
         std::uint64_t const size = m->fileBytes();
         if (size < headerBytes || h->magic.load(std::memory_order_acquire) == 0 ||
             (headerIsWellFormed(*h) && h->capacity == capacity && size < g.heapOffset)) {
            // Made by a writer that died before it finished; start it again.
            if (!allocateRange(m->fd(), 0, g.heapOffset + initialHeapBytes)) {
               say(why, "no shared memory for " + segmentPath(segmentName));
               return Ovk::failure(SlateError::openFailed);
            }
            notes.push_back(segmentPath(segmentName) + " was left unfinished by its maker: made again, empty");
            fresh = true;
         } else if (!headerIsWellFormed(*h) || h->capacity != capacity) {
            OVK_TRACE(mnemoTrace(), 3, "replacing segment " << segmentName << " of another format or capacity");
            notes.push_back(segmentPath(segmentName) + " is " +
                            (headerIsWellFormed(*h) ? "an FSIB of capacity " + std::to_string(h->capacity)
                                                    : std::string("not an FSIB of a format this writer knows")) +
                            ": not trusted, replaced by an empty one");
            if (headerIsWellFormed(*h) && size >= g.heapOffset) {
               const_cast<Header*>(h)->flags.fetch_or(flagRetired, std::memory_order_release);
            }
            ::shm_unlink(segmentName.c_str());
            continue;
         } else {
            // Our own process id counts too: another SlateRuleSet of this process writes there.
            std::uint32_t const pid = h->writerPid.load(std::memory_order_acquire);
            if (pid != 0 && processAlive(pid)) return Ovk::failure(SlateError::writerActive);
         }
      }
      Ovk::Ptr<SlateRuleSet> set(new SlateRuleSet(segmentName, std::move(*m)));
      if (fresh) set->initialise(capacity);
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
      set->foundExisting_ = !fresh;
      set->recover();
      set->attachNotes_.insert(set->attachNotes_.begin(), notes.begin(), notes.end());
      return set;
   }
   say(why, "cannot attach to " + segmentPath(segmentName) + ": other processes keep replacing it");
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

void SlateRuleSet::adopt() {
   capacity_ = hdr_->capacity;
   bucketMask_ = hdr_->indexBuckets - 1;
   slots_ = reinterpret_cast<std::uint64_t*>(map_.base() + hdr_->slotsOffset);
   heapOffset_ = hdr_->heapOffset;
   fileBytes_ = std::min<std::uint64_t>(map_.fileBytes(), hdr_->mapBytes);
   generation_ = hdr_->generation.load(std::memory_order_relaxed);
   indexEpoch_ = hdr_->indexEpoch.load(std::memory_order_relaxed);
   slotCopy_.assign(capacity_, SlotCopy{});
   buckets_.assign(std::size_t{bucketMask_} + 1, 0);
   indexUsed_ = 0;
   ruleCount_ = 0;
   freeSlots_.clear();
   for (auto& list : freeBlocks_) list.clear();
}

void SlateRuleSet::recover() {
   adopt();
   hdr_->segmentBytes.store(fileBytes_, std::memory_order_release);
   beginChange(); // stays odd if the last writer died mid-change
   // Same layout; from now on the rebuilding flag means what version 2 says.
   hdr_->formatVersion = formatVersion;
   converged_ = (hdr_->flags.load(std::memory_order_relaxed) & flagRebuilding) == 0;
   // The heap is a sequence of blocks; stop at the first that is not one (a block the last
   // writer had not finished, or nothing at all) and reuse everything from there.
   heapUsed_ = std::min(hdr_->heapUsed.load(std::memory_order_relaxed), fileBytes_ - heapOffset_);
   std::vector<std::uint64_t> blocks;
   std::unordered_map<std::uint64_t, std::uint8_t> classAt;
   std::uint64_t walked = 0;
   while (walked + 8 <= heapUsed_) {
      auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + heapOffset_ + walked);
      std::size_t const cls = blockClassOf(b[wordBlockBytes]);
      if (cls == blockClassBytes.size() || b[wordBlockMagic] != blockMagic ||
          walked + blockClassBytes[cls] > heapUsed_) {
         break;
      }
      blocks.push_back(heapOffset_ + walked);
      classAt.emplace(heapOffset_ + walked, static_cast<std::uint8_t>(cls));
      walked += blockClassBytes[cls];
   }
   heapUsed_ = walked;
   hdr_->heapUsed.store(heapUsed_, std::memory_order_release);
   // Keep every slot that holds a whole record of a key not seen before; empty the rest.
   std::unordered_set<std::uint64_t> usedBlocks;
   std::unordered_set<Flowspec::FlowspecSlateKey> keys;
   std::vector<std::pair<std::uint32_t, std::uint32_t>> hashAndSlot;
   std::uint32_t dropped = 0;
   for (std::uint32_t slot = capacity_; slot-- > 0;) {
      std::uint64_t const word = loadAcquire(&slots_[slot]);
      slotCopy_[slot].word = word;
      std::uint64_t const off = slotBlockOffset(word);
      if (off == 0) {
         freeSlots_.push_back(slot);
         continue;
      }
      std::optional<Flowspec::Rule> r;
      auto const cls = classAt.find(off);
      if (cls != classAt.end() && !usedBlocks.contains(off)) {
         auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + off);
         r = SlateRecord::decode({b, blockClassBytes[cls->second] / 4});
      }
      if (!r || !keys.insert(r->key).second) {
         slotIs(slot, 0, 0, std::nullopt);
         freeSlots_.push_back(slot);
         ++dropped;
         continue;
      }
      usedBlocks.insert(off);
      hashAndSlot.emplace_back(r->key.hash(), slot);
      slotCopy_[slot].block = off;
      slotCopy_[slot].blockClass = cls->second;
      slotCopy_[slot].rule = std::move(r);
   }
   if (dropped != 0) {
      OVK_TRACE(mnemoTrace(), 3, name_ << ": emptied " << dropped << " slots without a whole record");
      attachNotes_.push_back(segmentPath(name_) + ": " + std::to_string(dropped) +
                             " slot(s) held no whole record of a rule of their own: emptied");
   }
   for (auto it = blocks.rbegin(); it != blocks.rend(); ++it) {
      if (!usedBlocks.contains(*it)) freeBlocks_[classAt[*it]].push_back(*it);
   }
   ruleCount_ = static_cast<std::uint32_t>(hashAndSlot.size());
   hdr_->ruleCount.store(ruleCount_, std::memory_order_relaxed);
   rebuildIndex(hashAndSlot);
   bump(hdr_->writerAttaches);
   endChange();
   OVK_TRACE(mnemoTrace(), 5,
             name_ << ": writer attached with " << hashAndSlot.size() << " rules, generation " << generation_);
}

void SlateRuleSet::convergedIs(bool converged) {
   if (converged == converged_ || !checked(std::nullopt)) return;
   converged_ = converged;
   beginChange();
   if (converged) {
      hdr_->flags.fetch_and(~flagRebuilding, std::memory_order_relaxed);
   } else {
      hdr_->flags.fetch_or(flagRebuilding, std::memory_order_relaxed);
   }
   endChange();
}

std::uint64_t SlateRuleSet::generation() const { return generation_; }

std::size_t SlateRuleSet::ruleCount() const { return ruleCount_; }

std::uint64_t* SlateRuleSet::sharedBuckets(std::uint64_t epoch) const {
   return reinterpret_cast<std::uint64_t*>(map_.base() + hdr_->indexOffset[epoch & 1]);
}

void SlateRuleSet::beginChange() {
   if ((generation_ & 1) == 0) ++generation_;
   hdr_->generation.store(generation_, std::memory_order_relaxed);
   // Whatever follows may be seen only with the odd generation.
   std::atomic_thread_fence(std::memory_order_release);
}

void SlateRuleSet::endChange() {
   ++generation_;
   hdr_->generation.store(generation_, std::memory_order_release);
}

void SlateRuleSet::slotIs(std::uint32_t slot, std::uint64_t blockOffset, std::uint8_t blockClass,
                          std::optional<Flowspec::Rule> rule) {
   SlotCopy& c = slotCopy_[slot];
   c.word = slotWord(slotVersion(c.word) + 1, blockOffset);
   storeRelease(&slots_[slot], c.word);
   c.block = blockOffset;
   c.blockClass = blockClass;
   c.rule = std::move(rule);
}

void SlateRuleSet::bucketIs(std::uint32_t bucket, std::uint64_t word) {
   buckets_[bucket] = word;
   storeRelease(sharedBuckets(indexEpoch_) + bucket, word);
}

SlateRuleSet::Probe SlateRuleSet::probe(std::span<std::uint32_t const> key, std::uint32_t hash) const {
   Probe p;
   bool tombstoneSeen = false;
   std::uint32_t i = hash & bucketMask_;
   for (std::uint32_t n = 0; n <= bucketMask_; ++n, i = (i + 1) & bucketMask_) {
      std::uint64_t const b = buckets_[i];
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
      auto const stored = slotCopy_[slot].rule->key.words();
      if (std::equal(stored.begin(), stored.end(), key.begin(), key.end())) {
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
   std::uint64_t const mapBytes = map_.bytes();
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

std::optional<std::uint64_t> SlateRuleSet::allocBlock(std::uint32_t bytes, std::uint8_t& blockClass) {
   std::size_t const cls = blockClassFor(bytes);
   OVK_ASSERT(cls < blockClassBytes.size());
   blockClass = static_cast<std::uint8_t>(cls);
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

void SlateRuleSet::refusalNote() {
   if (!detached_) bump(hdr_->refusals);
}

std::string SlateRuleSet::damage(std::optional<std::uint32_t> slot) const {
   // Nothing past the size the file system confirms is touched.
   std::uint64_t const size = map_.fileBytes();
   if (size < fileBytes_) {
      return "it was cut to " + std::to_string(size) + " bytes from " + std::to_string(fileBytes_);
   }
   Header const& h = *hdr_;
   if (h.magic.load(std::memory_order_acquire) != segmentMagic || !headerIsWellFormed(h) || h.capacity != capacity_ ||
       h.heapOffset != heapOffset_) {
      return "its header was overwritten";
   }
   if (h.writerPid.load(std::memory_order_relaxed) != selfPid()) return "its writer's process id was overwritten";
   if (h.generation.load(std::memory_order_relaxed) != generation_ ||
       h.indexEpoch.load(std::memory_order_relaxed) != indexEpoch_) {
      return "its generation or index epoch was overwritten";
   }
   if (!slot) return {};
   SlotCopy const& c = slotCopy_[*slot];
   if (loadRelaxed(&slots_[*slot]) != c.word) return "slot " + std::to_string(*slot) + " was overwritten";
   if (c.block == 0) return {};
   std::uint32_t const bytes = blockClassBytes[c.blockClass];
   auto const* b = reinterpret_cast<std::uint32_t const*>(map_.base() + c.block);
   std::span<std::uint32_t const> const words(b, bytes / 4);
   if (loadWord(b + wordBlockBytes) != bytes || loadWord(b + wordBlockMagic) != blockMagic ||
       !SlateRecord::keyEquals(words, c.rule->key.words())) {
      return "the record of slot " + std::to_string(*slot) + " was overwritten";
   }
   return {};
}

void SlateRuleSet::problem(std::string const& text) {
   OVK_TRACE(mnemoTrace(), 3, text);
   if (problemHandler_) problemHandler_(text);
}

bool SlateRuleSet::repair(std::string const& what) {
   ++repairs_;
   std::vector<Flowspec::Rule> rules;
   for (SlotCopy const& c : slotCopy_) {
      if (c.rule) rules.push_back(*c.rule);
   }
   // The old segment: retired for its readers (when its header is still there to say so),
   // and its name freed, unless the name no longer leads to it.
   if (map_.fileBytes() >= headerBytes) hdr_->flags.fetch_or(flagRetired, std::memory_order_release);
   struct stat mine {};
   struct stat named {};
   if (::fstat(map_.fd(), &mine) == 0 && ::stat(segmentPath(name_).c_str(), &named) == 0 &&
       mine.st_dev == named.st_dev && mine.st_ino == named.st_ino) {
      ::shm_unlink(name_.c_str());
   }
   std::string why;
   auto fresh = createSegment(name_, capacity_, &why);
   if (!fresh) {
      problem("FSIB segment " + segmentPath(name_) + " was changed under its writer (" + what +
              ") and cannot be replaced (" + why + "): no more rules are written to it");
      detached_ = true;
      return false;
   }
   map_ = std::move(fresh.value());
   hdr_ = reinterpret_cast<Header*>(map_.base());
   bool const converged = converged_;
   initialise(capacity_);
   if (!converged) hdr_->flags.store(flagRebuilding, std::memory_order_relaxed);
   hdr_->writerPid.store(selfPid(), std::memory_order_release);
   recover();
   for (Flowspec::Rule const& r : rules) (void)store(r);
   problem("FSIB segment " + segmentPath(name_) + " was changed under its writer (" + what +
           "): replaced by a fresh segment holding its " + std::to_string(ruleCount_) + " rules");
   return true;
}

bool SlateRuleSet::checked(std::optional<std::uint32_t> slot) {
   if (detached_) return false;
   std::string const what = damage(slot);
   return what.empty() || repair(what);
}

Flowspec::RuleIsResult SlateRuleSet::ruleIs(Flowspec::Rule const& rule) {
   if (detached_) return Flowspec::RuleIsResult::refusedDetached;
   Probe const p = probe(rule.key.words(), rule.key.hash());
   if (!checked(p.found ? std::optional(p.slot) : std::nullopt)) return Flowspec::RuleIsResult::refusedDetached;
   return store(rule);
}

Flowspec::RuleIsResult SlateRuleSet::store(Flowspec::Rule const& rule) {
   auto const key = rule.key.words();
   std::uint32_t const hash = rule.key.hash();
   Probe const p = probe(key, hash);
   std::optional<std::uint64_t> block;
   std::uint8_t cls = 0;
   if (p.found || !freeSlots_.empty()) block = allocBlock(recordBytes(static_cast<std::uint32_t>(key.size())), cls);
   if (!block) {
      bump(hdr_->refusals);
      return Flowspec::RuleIsResult::refusedFull;
   }
   SlateRecord::store(reinterpret_cast<std::uint32_t*>(map_.base() + *block), rule);
   beginChange();
   if (p.found) {
      SlotCopy& c = slotCopy_[p.slot];
      std::uint64_t const old = c.block;
      std::uint8_t const oldClass = c.blockClass;
      slotIs(p.slot, *block, cls, rule);
      bump(hdr_->replaces);
      endChange();
      freeBlocks_[oldClass].push_back(old);
      return Flowspec::RuleIsResult::replaced;
   }
   std::uint32_t const slot = freeSlots_.back();
   freeSlots_.pop_back();
   slotIs(slot, *block, cls, rule);
   bucketIs(p.insertAt, bucketWord(hash, slot + 1));
   if (p.insertAtEmpty) ++indexUsed_;
   ++ruleCount_;
   hdr_->ruleCount.store(ruleCount_, std::memory_order_relaxed);
   bump(hdr_->adds);
   endChange();
   maybeRebuildIndex();
   return Flowspec::RuleIsResult::added;
}

bool SlateRuleSet::ruleDel(Flowspec::FlowspecSlateKey const& key) {
   if (detached_) return false;
   Probe p = probe(key.words(), key.hash());
   if (!p.found) return false;
   if (!checked(p.slot)) return false;
   p = probe(key.words(), key.hash()); // a repair builds the index again
   SlotCopy& c = slotCopy_[p.slot];
   std::uint64_t const old = c.block;
   std::uint8_t const oldClass = c.blockClass;
   beginChange();
   bucketIs(p.bucket, bucketWord(0, bucketTombstone));
   slotIs(p.slot, 0, 0, std::nullopt);
   --ruleCount_;
   hdr_->ruleCount.store(ruleCount_, std::memory_order_relaxed);
   bump(hdr_->deletes);
   endChange();
   freeBlocks_[oldClass].push_back(old);
   freeSlots_.push_back(p.slot);
   maybeRebuildIndex();
   return true;
}

void SlateRuleSet::ruleDelAll() {
   if (!checked(std::nullopt)) return;
   beginChange();
   for (std::uint32_t slot = 0; slot < capacity_; ++slot) {
      if (slotCopy_[slot].block != 0) slotIs(slot, 0, 0, std::nullopt);
   }
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) bucketIs(i, 0);
   indexUsed_ = 0;
   heapUsed_ = 0;
   hdr_->heapUsed.store(0, std::memory_order_relaxed);
   ruleCount_ = 0;
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
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) {
      std::uint32_t const e = bucketEntry(buckets_[i]);
      if (e != 0 && e != bucketTombstone) live.emplace_back(bucketHash(buckets_[i]), e - 1);
   }
   rebuildIndex(live);
}

void SlateRuleSet::rebuildIndex(std::vector<std::pair<std::uint32_t, std::uint32_t>> const& hashAndSlot) {
   std::uint64_t* target = sharedBuckets(indexEpoch_ + 1);
   // Readers that still probe this buffer from its last turn must see the epoch move once
   // they see any of what follows.
   std::atomic_thread_fence(std::memory_order_release);
   std::fill(buckets_.begin(), buckets_.end(), 0);
   for (auto const& [hash, slot] : hashAndSlot) {
      std::uint32_t i = hash & bucketMask_;
      while (buckets_[i] != 0) i = (i + 1) & bucketMask_;
      buckets_[i] = bucketWord(hash, slot + 1);
   }
   for (std::uint32_t i = 0; i <= bucketMask_; ++i) storeRelaxed(target + i, buckets_[i]);
   ++indexEpoch_;
   hdr_->indexEpoch.store(indexEpoch_, std::memory_order_release);
   indexUsed_ = static_cast<std::uint32_t>(hashAndSlot.size());
}

std::optional<Flowspec::Rule> SlateRuleSet::rule(Flowspec::FlowspecSlateKey const& key) const {
   Probe const p = probe(key.words(), key.hash());
   if (!p.found) return std::nullopt;
   return slotCopy_[p.slot].rule;
}

void SlateRuleSet::forEachRule(std::function<bool(Flowspec::Rule const&)> const& visit) const {
   std::vector<Flowspec::Rule const*> rules;
   rules.reserve(ruleCount_);
   for (SlotCopy const& c : slotCopy_) {
      if (c.rule) rules.push_back(&*c.rule);
   }
   std::sort(rules.begin(), rules.end(), [](Flowspec::Rule const* a, Flowspec::Rule const* b) { return a->key < b->key; });
   for (Flowspec::Rule const* r : rules) {
      if (!visit(*r)) break;
   }
}

void SlateRuleSet::detach() {
   if (detached_) return;
   detached_ = true;
   // A segment cut below its header has no writer's place left to free.
   if (map_.fileBytes() < headerBytes) return;
   std::uint32_t self = selfPid();
   hdr_->writerPid.compare_exchange_strong(self, 0, std::memory_order_acq_rel);
}

} // namespace Mnemo
