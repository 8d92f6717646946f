// Route keys in their family's route order: a B+ tree of key pointers.
//
// The order is RouteKeyBase::orderPrefix, then lessThan (whose answer for two equivalent
// keys, true both ways, is made strict here), then, for keys the family's order holds equal
// (flowspec keys that differ only in what the order does not read), the keys' addresses: a
// total order on the keys of one table. The index does not hold references: its owner keeps
// every key it holds alive.
//
// Each entry keeps the key's order prefix beside it, so that most comparisons read the index
// alone. Inserting at the end of the order (a peer sending its table in order) costs one
// comparison and fills leaves whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "host/bgp/RouteKey.h"

namespace Routing::Bgp {

class RouteOrderIndex {
 public:
   RouteOrderIndex();
   ~RouteOrderIndex();
   RouteOrderIndex(RouteOrderIndex const&) = delete;
   RouteOrderIndex& operator=(RouteOrderIndex const&) = delete;

   // A place in the index; valid until the index changes.
   class Iterator {
    public:
      Iterator() = default;
      RouteKey const* operator*() const;
      Iterator& operator++();
      bool operator==(Iterator const& o) const { return leaf_ == o.leaf_ && index_ == o.index_; }

    private:
      friend class RouteOrderIndex;
      Iterator(void const* leaf, std::size_t index) : leaf_(leaf), index_(index) {}
      void const* leaf_ = nullptr;
      std::size_t index_ = 0;
   };

   // Enters `key`, which must not be in the index.
   void insert(RouteKey const* key);
   // Removes `key`, which must be in the index.
   void erase(RouteKey const* key);
   // The first key not before `probe` in the family's order; keys equivalent to `probe`
   // count as not before it, so the probe need not be in the index (a key made from text).
   Iterator lowerBound(RouteKey const& probe) const;
   // The first key for which `before` is false; `before` must be true for a prefix of the
   // order and false after it (a search by a part of the key, such as a rule's destination).
   Iterator lowerBoundWhere(std::function<bool(RouteKey const&)> const& before) const;
   // `key` itself, or end() when it is not in the index.
   Iterator find(RouteKey const* key) const;
   Iterator begin() const;
   Iterator end() const { return {}; }
   std::size_t size() const { return size_; }
   // Bytes of the index's nodes.
   std::size_t bytes() const;

   // The strict order the index keeps (with the address as the last tie-break).
   static bool less(RouteKey const* a, RouteKey const* b);
   // True when `a` sorts strictly before `b` in the family's order alone.
   static bool orderLess(RouteKey const& a, RouteKey const& b);

 private:
   struct Entry;
   struct Node;
   struct Leaf;
   struct Inner;
   static bool entryLess(Entry const& a, Entry const& b);
   Leaf* leafFor(Entry const& e) const;
   template <class Before>
   Iterator lowerBoundOf(Before const& before) const;
   Leaf* lastLeaf() const;

   Node* root_ = nullptr;
   std::size_t size_ = 0;
   std::size_t leaves_ = 0;
   std::size_t inners_ = 0;
};

} // namespace Routing::Bgp
