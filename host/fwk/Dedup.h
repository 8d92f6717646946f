// Dedup handles and dedup hash tables.
//
// A dedup handle is an immutable shared value (a route key, a next hop) that is interned in
// a dedup table so that every distinct value exists once. A handle is in one of three
// states:
//   never deduplicated - just built and being filled; not in any table;
//   deduplicated       - the canonical instance, entered in its table;
//   orphan             - tied to a table (it holds a reference to it) but never entered;
//                        made for a lookup or a display only.
// The table finds equal values through the handle's hash() and compare(). It holds its
// entries weakly: when the last outside reference to a deduplicated handle goes, the handle
// leaves its table (and its table's notifiee hears handleRemove) before it is deleted.
// Deduplicated handles point back at their table without keeping it alive; a table that
// dies first detaches its remaining entries, so handles and tables may die in either order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "host/fwk/Ptr.h"

namespace Ovk {

class DedupHashTable;

enum class DedupHandleState : std::uint8_t { neverDeduped = 0, deduped = 1, orphan = 2 };

constexpr DedupHandleState dedupHandleStateNeverDeduped() { return DedupHandleState::neverDeduped; }
constexpr DedupHandleState dedupHandleStateDeduped() { return DedupHandleState::deduped; }
constexpr DedupHandleState dedupHandleStateOrphan() { return DedupHandleState::orphan; }
char const* toStrep(DedupHandleState s);

class DedupHandle : public PtrInterface {
 public:
   DedupHandleState dedupState() const { return state_; }
   bool isDeduped() const { return state_ == DedupHandleState::deduped; }
   void assertIsDeduped() const;
   // The table this handle belongs to (deduplicated or orphan); null when never
   // deduplicated, or when its table has died.
   DedupHashTable const* dedupTable() const { return table_; }
   // The table's hash of the handle, stored when it entered its table (dedupHash()).
   std::uint32_t storedHash() const { return hash_; }

   // The value's hash and equality. compare() is called only with handles of one table.
   virtual std::uint32_t hash() const = 0;
   virtual bool compare(DedupHandle const* other) const = 0;
   // The hash the table files the handle under: hash() unless a type has a cheaper one that
   // equal values share as well (the table's own business; hash() stays what callers get).
   virtual std::uint32_t dedupHash() const { return hash(); }

   // Makes this never-deduplicated handle an orphan of `table`: it holds a reference to the
   // table but is not entered in it.
   void orphanIs(Ptr<DedupHashTable const> const& table);

 protected:
   DedupHandle() = default;
   DedupHandle(DedupHandle const&) = delete;
   DedupHandle& operator=(DedupHandle const&) = delete;
   ~DedupHandle() override;
   void onZeroReferences() override;
   void onOnlyAnchoredReferences() override;

 private:
   friend class DedupHashTable;
   DedupHashTable const* table_ = nullptr;
   std::uint32_t hash_ = 0;
   DedupHandleState state_ = DedupHandleState::neverDeduped;
};

// Hears a table's inserts and removes, one for one.
class DedupTableNotifiee : public PtrInterface {
 public:
   // A handle entered the table (it is deduplicated already).
   virtual void handleInsert(Ptr<DedupHandle> const& handle) = 0;
   // A handle left the table: its last outside reference went, or the table died.
   virtual void handleRemove(DedupHandle* handle) = 0;
   // The table stops notifying this notifiee: another notifiee replaced it. (A dying table
   // sends handleRemove for each entry it still holds instead.)
   virtual void handleNotificationStop(Ptr<DedupHashTable const> const& table) = 0;

 protected:
   ~DedupTableNotifiee() override = default;
};

class DedupHashTable : public PtrInterface {
 public:
   // Returns the table's instance equal to `handle`, or enters `handle` (which must be
   // never deduplicated) and returns it.
   Ptr<DedupHandle const> lookupOrInsert(Ptr<DedupHandle> const& handle) const;
   // The table's instance equal to `probe`, or empty.
   Ptr<DedupHandle const> lookup(DedupHandle const& probe) const;
   // lookupOrInsert for each of `handles` (never deduplicated) in turn, each replaced by
   // what lookupOrInsert returns for it (the caller's references stay its own: a handle
   // replaced is not released). Interning many at once lets the index's memory for the
   // handles ahead be fetched while one is entered: the cost of a large table is its cache
   // misses, and they overlap here.
   void lookupOrInsertAll(std::span<DedupHandle*> handles) const;

   std::size_t size() const { return size_; }
   // Slots of the index: it doubles at 3/4 load and halves below 1/8, never below 16, so a
   // table that held a million entries does not keep their index once they have gone.
   std::size_t capacity() const { return slots_.size(); }
   // Bytes of the table's own index (the entries themselves are counted by their owners).
   std::size_t indexBytes() const { return slots_.capacity() * sizeof(Slot); }

   struct Counters {
      std::uint64_t inserts = 0;
      std::uint64_t removes = 0;
      std::uint64_t hits = 0;
   };
   Counters const& counters() const { return counters_; }

   Ptr<DedupTableNotifiee> notifiee() const { return notifiee_; }
   void notifieeIs(Ptr<DedupTableNotifiee> const& n);

   // Calls f(handle) for every entry, in no particular order. f must not change the table.
   template <class F>
   void forEach(F&& f) const {
      for (Slot const s : slots_)
         if (s) f(handleOf(s));
   }

 protected:
   DedupHashTable();
   ~DedupHashTable() override;
   // The last reference went: detach every entry (the notifiee hears handleRemove for each)
   // before any destructor runs, so that tables of derived types may keep entries of their
   // own (singletons) and release them in their destructors without touching the table.
   // Notifiees must not take references to the dying table.
   void onZeroReferences() override;

 private:
   friend class DedupHandle;
   // A slot holds an entry's address and, in the bits an address leaves unused (the 17
   // above the 47 of a user-space address, the 3 below an 8-byte alignment), the top 20 bits
   // of its hash. An entry's home slot is the top bits of its hash, so that probing compares
   // the slot's bits before it reads an entry, and an index of up to 2^20 slots is rebuilt
   // from its own slots, in one pass in order, without reading an entry.
   using Slot = std::uintptr_t;
   static constexpr unsigned kTagBits = 20;
   static constexpr Slot kAddressBits = ((Slot{1} << 47) - 1) & ~Slot{0x7};
   static Slot slotOf(DedupHandle* h, std::uint32_t hash);
   static DedupHandle* handleOf(Slot s) { return reinterpret_cast<DedupHandle*>(s & kAddressBits); }
   static Slot tagOf(std::uint32_t hash) { return (Slot{hash >> 15} << 47) | ((hash >> 12) & 0x7); }
   static bool tagIs(Slot s, std::uint32_t hash) { return (s & ~kAddressBits) == tagOf(hash); }
   // The home slot of a hash, and of the entry a slot holds.
   std::size_t homeOf(std::uint32_t hash) const { return hash >> homeShift_; }
   std::size_t homeOfSlot(Slot s) const;

   void detachEntries();
   void remove(DedupHandle* h) const;
   std::size_t findSlot(DedupHandle const& probe, std::uint32_t hash) const;
   // Finds the entry equal to `handle` (whose hash_ is set) or enters it; returns the entry.
   DedupHandle* lookupOrInsertHashed(DedupHandle* handle) const;
   // Moves every entry into an index of `slots` slots (a power of two, more than size_).
   void rehash(std::size_t slots) const;

   mutable std::vector<Slot> slots_;
   mutable unsigned homeShift_ = 28; // 32 - log2(slots)
   mutable std::size_t size_ = 0;
   mutable Counters counters_;
   Ptr<DedupTableNotifiee> notifiee_;
};

// A plain table of one handle type, for users with nothing to add.
class SimpleDedupHashTable : public DedupHashTable {
 public:
   static Ptr<SimpleDedupHashTable> create() { return makePtr<SimpleDedupHashTable>(); }
};

} // namespace Ovk
