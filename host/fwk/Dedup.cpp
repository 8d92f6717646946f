#include "host/fwk/Dedup.h"

#include <bit>

namespace Ovk {

namespace {
constexpr std::size_t kInitialSlots = 16;
constexpr std::size_t kNone = ~std::size_t{0};
} // namespace

char const* toStrep(DedupHandleState s) {
   switch (s) {
   case DedupHandleState::neverDeduped: return "neverDeduped";
   case DedupHandleState::deduped: return "deduped";
   case DedupHandleState::orphan: return "orphan";
   }
   return "?";
}

void DedupHandle::assertIsDeduped() const { OVK_ASSERT(state_ == DedupHandleState::deduped); }

void DedupHandle::orphanIs(Ptr<DedupHashTable const> const& table) {
   OVK_ASSERT(state_ == DedupHandleState::neverDeduped);
   OVK_ASSERT(table);
   table->newRef(); // released in the destructor
   table_ = table.ptr();
   state_ = DedupHandleState::orphan;
}

DedupHandle::~DedupHandle() {
   if (state_ == DedupHandleState::orphan && table_) table_->deleteRef();
}

void DedupHandle::onZeroReferences() {
   if (state_ == DedupHandleState::deduped && table_) {
      // Keep the object alive through the removal callbacks.
      newRef();
      table_->remove(this);
      // Anything the notifiee held was anchored; what is left is our own reference.
      OVK_ASSERT(references() == 1);
      state_ = DedupHandleState::neverDeduped;
      table_ = nullptr;
   }
   delete this;
}

void DedupHandle::onOnlyAnchoredReferences() {
   if (state_ != DedupHandleState::deduped || !table_) return;
   // Only the table's own bookkeeping holds this handle: leave the table. The notifiee's
   // handleRemove lets go of the anchored references, and the last release deletes us.
   Ptr<DedupHandle> self(this);
   DedupHashTable const* table = table_;
   table->newRef();
   state_ = DedupHandleState::neverDeduped;
   table_ = nullptr;
   table->remove(this);
   table->deleteRef();
}

DedupHashTable::DedupHashTable() : slots_(kInitialSlots, 0) {}

DedupHashTable::Slot DedupHashTable::slotOf(DedupHandle* h, std::uint32_t hash) {
   auto const address = reinterpret_cast<Slot>(h);
   // User-space addresses use the low 47 bits on the machines this runs on, and handles are
   // allocated 8-byte aligned at least.
   OVK_ASSERT((address & ~kAddressBits) == 0);
   return address | tagOf(hash);
}

std::size_t DedupHashTable::homeOfSlot(Slot s) const {
   if (homeShift_ >= 32 - kTagBits) {
      Slot const tag = ((s >> 47) << 3) | (s & 0x7); // the hash's top 20 bits
      return static_cast<std::size_t>(tag >> (homeShift_ - (32 - kTagBits)));
   }
   return homeOf(handleOf(s)->hash_);
}

DedupHashTable::~DedupHashTable() { detachEntries(); }

void DedupHashTable::onZeroReferences() {
   detachEntries();
   delete this;
}

void DedupHashTable::detachEntries() {
   // Entries still referenced from outside outlive the table: detach them.
   Ptr<DedupTableNotifiee> n = std::move(notifiee_);
   for (Slot& s : slots_) {
      if (!s) continue;
      DedupHandle* e = handleOf(s);
      s = 0;
      --size_;
      e->table_ = nullptr;
      if (n) {
         Ptr<DedupHandle> keep(e);
         n->handleRemove(e);
      }
   }
}

void DedupHashTable::notifieeIs(Ptr<DedupTableNotifiee> const& n) {
   if (notifiee_ == n) return;
   if (notifiee_) notifiee_->handleNotificationStop(Ptr<DedupHashTable const>(this));
   notifiee_ = n;
}

std::size_t DedupHashTable::findSlot(DedupHandle const& probe, std::uint32_t hash) const {
   std::size_t const mask = slots_.size() - 1;
   for (std::size_t i = homeOf(hash);; i = (i + 1) & mask) {
      Slot const s = slots_[i];
      if (!s) return kNone;
      if (!tagIs(s, hash)) continue;
      DedupHandle* h = handleOf(s);
      if (h->hash_ == hash && h != &probe && h->compare(&probe)) return i;
   }
}

Ptr<DedupHandle const> DedupHashTable::lookup(DedupHandle const& probe) const {
   std::size_t const i = findSlot(probe, probe.dedupHash());
   if (i == kNone) return nullptr;
   ++counters_.hits;
   return Ptr<DedupHandle const>(handleOf(slots_[i]));
}

DedupHandle* DedupHashTable::lookupOrInsertHashed(DedupHandle* handle) const {
   std::uint32_t const hash = handle->hash_;
   std::size_t const mask = slots_.size() - 1;
   std::size_t i = homeOf(hash);
   for (;; i = (i + 1) & mask) {
      Slot const s = slots_[i];
      if (!s) break;
      if (!tagIs(s, hash)) continue;
      DedupHandle* h = handleOf(s);
      if (h->hash_ == hash && h->compare(handle)) {
         ++counters_.hits;
         return h;
      }
   }
   // Grow at 3/4 load, then find the free slot again in the larger index.
   if ((size_ + 1) * 4 > slots_.size() * 3) {
      rehash(slots_.size() * 2);
      std::size_t const m = slots_.size() - 1;
      for (i = homeOf(hash); slots_[i]; i = (i + 1) & m) {}
   }
   slots_[i] = slotOf(handle, hash);
   ++size_;
   ++counters_.inserts;
   handle->table_ = this;
   handle->state_ = DedupHandleState::deduped;
   if (notifiee_) notifiee_->handleInsert(Ptr<DedupHandle>(handle));
   return handle;
}

Ptr<DedupHandle const> DedupHashTable::lookupOrInsert(Ptr<DedupHandle> const& handle) const {
   OVK_ASSERT(handle);
   OVK_ASSERT(handle->state_ == DedupHandleState::neverDeduped);
   handle->hash_ = handle->dedupHash();
   return Ptr<DedupHandle const>(lookupOrInsertHashed(handle.ptr()));
}

void DedupHashTable::lookupOrInsertAll(std::span<DedupHandle*> handles) const {
   for (DedupHandle* h : handles) {
      OVK_ASSERT(h && h->state_ == DedupHandleState::neverDeduped);
      h->hash_ = h->dedupHash();
   }
   // Three steps in flight: the home slot of a handle far ahead is fetched, then the entry
   // that slot names for a handle nearer (an equal key is compared, not only its slot), then
   // the handle is entered. The first slot of a probe holds what it needs most of the time.
   constexpr std::size_t kSlotAhead = 8;
   constexpr std::size_t kEntryAhead = 4;
   std::size_t const n = handles.size();
   for (std::size_t k = 0; k < n; ++k) {
      if (k + kSlotAhead < n) __builtin_prefetch(&slots_[homeOf(handles[k + kSlotAhead]->hash_)]);
      if (k + kEntryAhead < n) {
         std::uint32_t const hash = handles[k + kEntryAhead]->hash_;
         Slot const s = slots_[homeOf(hash)];
         if (s && tagIs(s, hash)) __builtin_prefetch(handleOf(s));
      }
      handles[k] = lookupOrInsertHashed(handles[k]);
   }
}

void DedupHashTable::rehash(std::size_t slots) const {
   std::vector<Slot> old(slots, 0);
   old.swap(slots_);
   homeShift_ = 32;
   for (std::size_t n = slots; n > 1; n >>= 1) --homeShift_;
   std::size_t const mask = slots_.size() - 1;
   // Homes are the top bits of the hashes, so the old index holds its entries in the order of
   // their homes (but for a probe chain that wrapped around its end), and so will the new:
   // the pass reads and writes both in order. Where the slots hold too few bits of the hash
   // for the new index, each entry is read: fetch it far ahead.
   constexpr std::size_t kEntryAhead = 16;
   bool const readsEntries = homeShift_ < 32 - kTagBits;
   for (std::size_t k = 0; k < old.size(); ++k) {
      if (readsEntries && k + kEntryAhead < old.size() && old[k + kEntryAhead]) {
         __builtin_prefetch(handleOf(old[k + kEntryAhead]));
      }
      Slot const s = old[k];
      if (!s) continue;
      std::size_t i = homeOfSlot(s);
      while (slots_[i]) i = (i + 1) & mask;
      slots_[i] = s;
   }
}

void DedupHashTable::remove(DedupHandle* h) const {
   std::size_t const mask = slots_.size() - 1;
   std::size_t i = homeOf(h->hash_);
   while (handleOf(slots_[i]) != h) {
      OVK_ASSERT(slots_[i] != 0);
      i = (i + 1) & mask;
   }
   // Backward-shift deletion keeps every probe chain unbroken without tombstones.
   std::size_t j = i;
   for (;;) {
      j = (j + 1) & mask;
      Slot const e = slots_[j];
      if (!e) break;
      std::size_t const home = homeOfSlot(e);
      // Move e into the hole when its home is not cyclically in (i, j].
      bool const between = (i <= j) ? (home > i && home <= j) : (home > i || home <= j);
      if (!between) {
         slots_[i] = e;
         i = j;
      }
   }
   slots_[i] = 0;
   --size_;
   ++counters_.removes;
   if (slots_.size() > kInitialSlots && size_ * 8 < slots_.size()) rehash(slots_.size() / 2);
   if (notifiee_) notifiee_->handleRemove(h);
}

} // namespace Ovk
