// Route keys in their family's route order: a B+ tree of key pointers.
//
// The order is RouteKeyBase::orderPrefix (or the wider orderSummary), then lessThan (whose
// answer for two equivalent keys, true both ways, is made strict here), then, for keys the
// family's order holds equal (flowspec keys that differ only in what the order does not
// read), the keys' addresses: a total order on the keys of one table. The index does not
// hold references: its owner keeps every key it holds alive.
//
// Each entry keeps the key's order summary beside it, so that most comparisons read the
// index alone: the 64-bit orderPrefix (16 bytes an entry), or the 128-bit orderSummary (24
// bytes) for families whose keys go on differing past their first 64 bits (IPv6 prefixes
// under one /64), which would otherwise make each step of a search read two keys. Inserting
// at the end of the order (a peer sending its table in order) costs one comparison and fills
// leaves whole; an insert or erase next to the last one (the leaf it touched, or the next)
// skips the descent from the root.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "host/bgp/RouteKey.h"

namespace Routing::Bgp {

class RouteOrderIndex {
 public:
   // What each entry keeps of its key's order summary.
   enum class Summary : std::uint8_t { narrow, wide };

   explicit RouteOrderIndex(Summary summary = Summary::narrow);
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
      Iterator(void const* leaf, std::size_t index, bool wide) : leaf_(leaf), index_(index), wide_(wide) {}
      void const* leaf_ = nullptr;
      std::size_t index_ = 0;
      bool wide_ = false;
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
   std::size_t size() const;
   // Bytes of the index's nodes.
   std::size_t bytes() const;
   Summary summary() const { return wide_ ? Summary::wide : Summary::narrow; }

   // The strict order the index keeps (with the address as the last tie-break), whatever
   // its summary: a summary only ever agrees with the family's order.
   static bool less(RouteKey const* a, RouteKey const* b);
   // True when `a` sorts strictly before `b` in the family's order alone.
   static bool orderLess(RouteKey const& a, RouteKey const& b);

 private:
   template <class Entry>
   class Tree;
   struct NarrowEntry;
   struct WideEntry;
   std::unique_ptr<Tree<NarrowEntry>> narrow_;
   std::unique_ptr<Tree<WideEntry>> wide_;
};

} // namespace Routing::Bgp
