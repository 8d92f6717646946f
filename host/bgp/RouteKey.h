// Route keys and their dedup tables.
//
// A route key names one route of an address family: the key under which the RIBs file its
// paths, the show tables its rows, and the adj-RIB-out its advertisement. Keys are dedup
// handles (host/fwk/Dedup.h): built and filled once (never deduplicated), then interned in
// the route-key dedup table of their VRF and address family, after which the one canonical
// instance is shared, immutable, through Ptr. An orphan key belongs to a table without being
// in it; lookups and displays make them.
//
// Each address family derives its own key type and overrides what its keys answer. The
// defaults below are what a key that does not override an operation gets: the questions
// every key must answer (its address family, its order) and the questions only keys of
// prefix families can answer (overlap, specificity) stop the process on the assertion
// "Must override in derived class" when a derived class has not answered them.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Dedup.h"
#include "host/fwk/FwkType.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/String.h"
#include "host/fwk/Trace.h"
#include "host/net/IpGenAddr.h"

namespace Flowspec {
class FlowspecKey;
}

namespace Routing::Bgp {

class RouteKey;
class RouteKeyDedupTableBase;

class RouteKeyBase : public Ovk::DedupHandle {
 public:
   static Ovk::FwkType const& classFwkType();
   // The record of the concrete type.
   virtual Ovk::FwkType const& fwkType() const;

   // Equality of content for callers outside a dedup table (the RIB's checks of a key it
   // already holds). By default the dedup equality, compare().
   virtual bool compareByContent(RouteKeyBase const* other) const;

   // The key's address family. Every concrete key type answers these; the defaults abort.
   virtual Afi afi() const;
   virtual std::uint8_t safi() const;
   virtual NlriType nlriType() const;
   AfiSafi afiSafi() const { return {afi(), safi()}; }

   // Display: the key's own text (formatDerivedType), and the same as shown where the VRF is
   // implied (formatWithoutVrf). Both leave the stream's format state as they found it. By
   // default the type's name, and formatDerivedType.
   virtual void formatDerivedType(std::ostream& os) const;
   virtual void formatWithoutVrf(std::ostream& os) const;
   // formatDerivedType as a string.
   virtual std::string toStrepImpl() const;
   // The key as an operator writes it, without ids (a flowspec rule's text); by default
   // formatWithoutVrf.
   virtual std::string displayText() const;

   // Writes the key into the compact trace ring's current record (Ovk::Blink::begin has been
   // called). By default the key's 32-bit hash.
   virtual void blinkPut(Ovk::Blink& blink) const;

   // The family's route order: true when this key sorts before `other`, a key of the same
   // family and table. Every concrete key type answers; the default aborts.
   virtual bool lessThan(Ovk::Ptr<RouteKeyBase const> const& other) const;
   // A summary of the key's place in that order, for ordered containers: a key whose
   // summary is lower sorts first; keys of equal summaries are ordered by lessThan. By
   // default 0 (lessThan decides alone).
   virtual std::uint64_t orderPrefix() const { return 0; }
   // A summary twice as wide, for families whose keys still differ after the first 64 bits
   // of the order (IPv6 prefixes under one /64): `hi` is orderPrefix(), and between keys of
   // equal `hi` a lower `lo` sorts first in the same way. By default orderPrefix() and 0.
   struct OrderSummary {
      std::uint64_t hi = 0;
      std::uint64_t lo = 0;
      friend auto operator<=>(OrderSummary const&, OrderSummary const&) = default;
   };
   virtual OrderSummary orderSummary() const { return {orderPrefix(), 0}; }
   // The same order as one three-way answer: negative when this key sorts before `other`,
   // positive when after, 0 for keys the order holds equal (lessThan true both ways). The
   // default asks lessThan both ways; a family whose comparison reads the keys' memory
   // answers in one pass, which halves what an ordered index pays per step.
   virtual int orderCompare(RouteKeyBase const& other) const;

   // The facility the host traces this key's table operations on.
   virtual Ovk::TraceFacility& traceFacility() const;

   // Questions of prefix families. Keys without a longest-prefix relation keep the defaults:
   // no overlapping keys, no default prefix, no local label, every filter matches what
   // compare() finds equal.
   virtual bool overlappingRouteKeysSupported() const { return false; }
   virtual bool isDefaultPrefix() const { return false; }
   static constexpr std::uint32_t kNoLocalLabel = 0;
   virtual std::uint32_t getLocalLabelForRkPartitionThread() const { return kNoLocalLabel; }
   virtual bool isValidLocalLabel(std::uint32_t label) const { return label != kNoLocalLabel; }
   virtual bool matchesFilter(RouteKeyBase const& filter) const { return compare(&filter); }
   // Overlap and specificity exist only for prefix families: the defaults abort, and the
   // host never asks a key whose overlappingRouteKeysSupported() is false.
   virtual bool isOverlapping(RouteKeyBase const& other) const;
   virtual bool isMoreSpecific(RouteKeyBase const& other) const;
   virtual Ovk::Ptr<RouteKeyBase const> getOneBitShorterMaskRouteKey() const;

   // For import policy (host/bgp/ImportPolicy.h): the smallest prefix that holds every
   // destination address the key's routes concern, of the key's address family; empty when
   // the key names no destination (a flowspec rule without a destination component, and
   // every key of a family that does not answer: the default).
   virtual std::optional<Ovnet::IpGenPrefix> importDestination() const { return std::nullopt; }
   // For validation against the unicast table (host/bgp/Validation.h): the destination
   // prefix a rule is judged by; empty when it has none that can be judged (none at all, or
   // an IPv6 one with a non-zero offset, whose leading bits are wildcards), and for every
   // key of a family that does not answer (the default).
   virtual std::optional<Ovnet::IpGenPrefix> validationDestination() const { return std::nullopt; }

   // Detail display and comparison for the show commands; by default nothing more, and
   // compare().
   virtual void formatAdditionalDetail(std::ostream& os) const;
   virtual bool compareDetail(RouteKeyBase const* other) const { return compare(other); }
   // The next-hop dependency this key's routes hold on the IGP; none by default.
   virtual Ovk::Ptr<Ovk::PtrInterface const> iarNhlDependencyLink() const { return nullptr; }
   // True for the key of the end-of-RIB marker route; false by default.
   virtual bool isEorReadySignal() const { return false; }

   // Runs once, right after construction, before the key is filled (newRouteKey below).
   virtual void postConstructor() {}

 protected:
   RouteKeyBase() = default;
   ~RouteKeyBase() override = default;
};

// What a family may need, beyond the key, to write it for one peer (labels, path ids).
class RouteKeySerializeArguments : public Ovk::PtrInterface {
 protected:
   ~RouteKeySerializeArguments() override = default;
};

// The host RIB's bookkeeping of a route key: the route's best path and where its other paths
// are. It lies in front of the key, in the same allocation (RouteKey::operator new), so that
// finding a key's route costs no lookup and no memory beyond these 16 bytes. It is the RIB
// table's, not the key's: only RibTable reaches it (the key stays immutable to everyone
// else), and a key has one slot, so one RibTable at most holds the keys of a dedup table
// (RibTable asserts it when a key gets its first path).
struct RibRouteSlot {
   void const* bestAttrs = nullptr; // the best path's RtAttr, referenced; null: no path
   std::uint32_t bestSource = 0;    // the best path's source (RibSources index)
   std::uint32_t state = 0;         // RibTable's: changed bit and the index of other paths
};

class RouteKey : public RouteKeyBase {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // Keys are allocated with their RIB slot in front (zeroed), from the slab heap
   // (host/fwk/SlabHeap.h: a million keys cost their bytes and no more). Every key is made
   // through newRouteKey (below), so that RouteKey lies at the start of the object. A family
   // whose keys keep a variable amount in place asks for that many bytes after the object.
   struct TrailingBytes {
      std::size_t n = 0;
   };
   static void* operator new(std::size_t size);
   static void* operator new(std::size_t size, TrailingBytes trailing);
   static void operator delete(void* p) noexcept;
   static void operator delete(void* p, TrailingBytes) noexcept;

   // Interns this never-deduplicated key in `table` (not null): returns the table's equal
   // key, or enters this one and returns it. The caller holds a reference to this key.
   virtual Ovk::Ptr<RouteKey const> dedupRouteKey(RouteKeyDedupTableBase const* table);

   // Why the adj-RIB-out writes the key: into MP_REACH_NLRI or MP_UNREACH_NLRI.
   enum class SerializeOperation : std::uint8_t { advertise, withdraw };
   // The key's NLRI, as the adj-RIB-out puts it into an UPDATE. Every family that is
   // advertised answers; the default aborts.
   virtual Ovk::String serialize(SerializeOperation operation,
                                 Ovk::Ptr<RouteKeySerializeArguments const> const& arguments) const;

 protected:
   RouteKey() = default;
   ~RouteKey() override = default;

 private:
   friend class RibTable;
   // The slot of a key made by newRouteKey.
   RibRouteSlot& ribSlot() const noexcept {
      return *reinterpret_cast<RibRouteSlot*>(reinterpret_cast<std::uintptr_t>(this) - sizeof(RibRouteSlot));
   }
};

// Constructs a key and runs its postConstructor.
template <class T, class... Args>
Ovk::Ptr<T> newRouteKey(Args&&... args) {
   Ovk::Ptr<T> key = Ovk::makePtr<T>(std::forward<Args>(args)...);
   // The RIB slot lies in front of the RouteKey part: it must start the object.
   OVK_ASSERT(static_cast<void const*>(static_cast<RouteKey const*>(key.ptr())) == static_cast<void const*>(key.ptr()));
   key->postConstructor();
   return key;
}

// The same, with `trailing` bytes allocated right after the object.
template <class T, class... Args>
Ovk::Ptr<T> newRouteKeyWithTrailing(std::size_t trailing, Args&&... args) {
   Ovk::Ptr<T> key(new (RouteKey::TrailingBytes{trailing}) T(std::forward<Args>(args)...));
   OVK_ASSERT(static_cast<void const*>(static_cast<RouteKey const*>(key.ptr())) == static_cast<void const*>(key.ptr()));
   key->postConstructor();
   return key;
}

// The key's formatDerivedType.
std::ostream& operator<<(std::ostream& os, RouteKeyBase const& key);

// The route-key dedup table of one VRF and address family.
class RouteKeyDedupTableBase : public Ovk::DedupHashTable {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   AfiSafi afiSafi() const { return afiSafi_; }
   BgpVrfIdBase vrfId() const { return vrfId_; }

   // The table's key equal to `probe`, or empty.
   Ovk::Ptr<RouteKey const> lookupRouteKey(RouteKey const& probe) const;
   // Interns many keys at once, each as dedupRouteKey would: every non-null key of `keys`
   // that was never deduplicated (filled, and ready to intern as its family's
   // dedupRouteKey leaves it) is replaced by the table's equal key, or entered. The slots and
   // keys ahead are fetched while one is entered (DedupHashTable::lookupOrInsertAll).
   void dedupRouteKeys(std::span<Ovk::Ptr<RouteKey const>* const> keys) const;

   // Builds the key that the parameters of a show command name and interns it. Families
   // whose commands name keys override this; the default aborts.
   virtual Ovk::Ptr<RouteKey const> dedupFromCommandParams(std::string const& params) const;
   // The key of a rule the agent originates (a flowspec match, as the forwarding library
   // reads rule text), interned: the key the family's NLRI rule makes of the NLRI the key
   // writes. Null for a family that originates no such rules (the default).
   virtual Ovk::Ptr<RouteKey const> dedupFromRule(Flowspec::FlowspecKey const& rule) const;
   // The other way: the rule of `key`, a key of this table, as the forwarding library keeps
   // it (the API lists rules by their components). False for a family without such rules (the
   // default), `rule` untouched.
   virtual bool ruleOf(RouteKey const& key, Flowspec::FlowspecKey& rule) const;

   // The RIB table whose paths the table's keys carry (RibRouteSlot): the first to give one
   // of them a path; null before.
   void const* ribOwner() const { return ribOwner_; }
   void ribOwnerIs(void const* owner) const { ribOwner_ = owner; }

 protected:
   RouteKeyDedupTableBase(AfiSafi afiSafi, BgpVrfIdBase vrfId) : afiSafi_(afiSafi), vrfId_(vrfId) {}
   ~RouteKeyDedupTableBase() override = default;

 private:
   AfiSafi afiSafi_;
   BgpVrfIdBase vrfId_;
   mutable void const* ribOwner_ = nullptr;
};

// The table address families derive theirs from.
class RouteKeyDedupTable : public RouteKeyDedupTableBase {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

 protected:
   RouteKeyDedupTable(AfiSafi afiSafi, BgpVrfIdBase vrfId) : RouteKeyDedupTableBase(afiSafi, vrfId) {}
   ~RouteKeyDedupTable() override = default;
};

// "<type name>(<afi-safi> vrf=<id>)".
std::ostream& operator<<(std::ostream& os, RouteKeyDedupTableBase const& table);

} // namespace Routing::Bgp
