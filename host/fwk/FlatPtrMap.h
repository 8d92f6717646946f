// A hash map keyed by pointers, flat: one array of (pointer, value) entries, open addressing
// with linear probing and backward-shift deletion, at most half full. A lookup reads one cache
// line most of the time, where a node-based map chases a bucket and a node; an entry costs
// its own bytes, with no node or bucket around it. A value type without state (FlatPtrSet)
// takes no room. Null is no key. Not for use while it is being iterated.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "host/fwk/Assert.h"

namespace Ovk {

template <class K, class V>
class FlatPtrMap {
 public:
   struct Entry {
      K const* key = nullptr;
      [[no_unique_address]] V value{};
   };

   std::size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   // Bytes of the entry array.
   std::size_t bytes() const { return entries_.capacity() * sizeof(Entry); }

   V* find(K const* key) {
      if (size_ == 0) return nullptr;
      std::size_t const i = slotOf(key);
      return entries_[i].key ? &entries_[i].value : nullptr;
   }
   V const* find(K const* key) const { return const_cast<FlatPtrMap*>(this)->find(key); }
   bool contains(K const* key) const { return find(key) != nullptr; }

   // The entry of `key`, made with a default value when there is none; true when made.
   std::pair<V*, bool> insert(K const* key) {
      OVK_ASSERT(key != nullptr);
      if ((size_ + 1) * 2 > entries_.size()) grow();
      std::size_t const i = slotOf(key);
      if (entries_[i].key) return {&entries_[i].value, false};
      entries_[i].key = key;
      entries_[i].value = V{};
      ++size_;
      return {&entries_[i].value, true};
   }

   // Removes `key`'s entry; false when there was none.
   bool erase(K const* key) {
      if (size_ == 0) return false;
      std::size_t i = slotOf(key);
      if (!entries_[i].key) return false;
      std::size_t const mask = entries_.size() - 1;
      // Backward shift: each entry after the hole whose home is not between the hole and it
      // moves into the hole, so that no probe chain is cut.
      for (std::size_t j = i;;) {
         j = (j + 1) & mask;
         if (!entries_[j].key) break;
         std::size_t const home = homeOf(entries_[j].key);
         bool const between = i <= j ? (home > i && home <= j) : (home > i || home <= j);
         if (!between) {
            entries_[i] = std::move(entries_[j]);
            i = j;
         }
      }
      entries_[i] = Entry{};
      --size_;
      // Shrinks at an eighth full, as tables that held a million keys must not keep their room.
      if (entries_.size() > kMinEntries && size_ * 8 < entries_.size()) rebuild(entries_.size() / 2);
      return true;
   }

   void clear() {
      entries_.clear();
      entries_.shrink_to_fit();
      size_ = 0;
   }

   // Calls f(key, value) for every entry, in no particular order; f must not change the map.
   template <class F>
   void forEach(F&& f) const {
      for (Entry const& e : entries_) {
         if (e.key) f(e.key, e.value);
      }
   }

 private:
   static constexpr std::size_t kMinEntries = 16;

   std::size_t homeOf(K const* key) const {
      // Pointers to objects are 8-byte aligned at least: their low bits say nothing.
      auto const p = reinterpret_cast<std::uintptr_t>(key) >> 3;
      return static_cast<std::size_t>((p * 0x9e3779b97f4a7c15ull) >> shift_);
   }
   // The slot holding `key`, or the empty slot where it would go.
   std::size_t slotOf(K const* key) const {
      std::size_t const mask = entries_.size() - 1;
      std::size_t i = homeOf(key);
      while (entries_[i].key && entries_[i].key != key) i = (i + 1) & mask;
      return i;
   }
   void grow() { rebuild(entries_.empty() ? kMinEntries : entries_.size() * 2); }
   void rebuild(std::size_t slots) {
      std::vector<Entry> old(slots);
      old.swap(entries_);
      shift_ = 64;
      for (std::size_t s = slots; s > 1; s >>= 1) --shift_;
      for (Entry& e : old) {
         if (e.key) entries_[slotOf(e.key)] = std::move(e);
      }
   }

   std::vector<Entry> entries_;
   std::size_t size_ = 0;
   unsigned shift_ = 64;
};

// A set of pointers: a map whose values take no room.
template <class K>
class FlatPtrSet {
 public:
   std::size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   std::size_t bytes() const { return map_.bytes(); }
   bool contains(K const* key) const { return map_.contains(key); }
   // True when `key` was not in the set.
   bool insert(K const* key) { return map_.insert(key).second; }
   bool erase(K const* key) { return map_.erase(key); }
   void clear() { map_.clear(); }
   template <class F>
   void forEach(F&& f) const {
      map_.forEach([&](K const* key, Empty) { f(key); });
   }

 private:
   struct Empty {};
   FlatPtrMap<K, Empty> map_;
};

} // namespace Ovk
