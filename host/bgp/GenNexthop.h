// Generic next hops, their dedup tables, and their life-time notification.
//
// Every BGP path carries a generic next hop: an immutable value, deduplicated in the dedup
// table of its VRF and address family, shared through Ptr and gone from its table when the
// last outside reference goes. Address families derive their own next-hop types.
//
// Each table may have a life-time notifiee, which hears every next hop that enters or leaves
// the table. A notifiee typically gives an entering next hop a GenNexthopLifeTimeNotifier,
// which holds the next hop through an anchored reference while the next hop holds the
// notifier; the anchor lets the next hop leave its table all the same when its last outside
// reference goes, and the notifiee's handleRemove breaks the cycle.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <set>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpMetricPref.h"
#include "host/bgp/BgpVrfId.h"
#include "host/fwk/Dedup.h"
#include "host/fwk/FwkType.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Scheduler.h"
#include "host/fwk/String.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp {

class GenNexthopDedupTableBase;
class GenNexthopLifeTimeNotifier;

class GenNexthop : public Ovk::DedupHandle, public Ovk::NotificationSwitch {
 public:
   static Ovk::FwkType const& classFwkType();
   // The record of the concrete type; its name is the type's name in the attribute cache.
   virtual Ovk::FwkType const& fwkType() const;

   // Deduplicates this never-deduplicated next hop in `table`. Returns the table's equal
   // next hop, or enters this one and returns it. With `lookupOnly`, nothing is entered: an
   // absent next hop becomes an orphan of the table (for a lookup or a display) and is
   // returned as it is. The caller keeps its own reference to this object either way.
   Ovk::Ptr<GenNexthop const> dedup(Ovk::Ptr<GenNexthopDedupTableBase const> const& table, bool lookupOnly);

   // Equality in a table: only next hops of the same concrete type are equal, and then
   // compareDerived() decides. Marker next hops of a derived type (next-hop-self, say) thus
   // stay apart from a plain next hop of equal content.
   bool compare(Ovk::DedupHandle const* other) const override;
   // Content equality; `other` has the concrete type of this object.
   virtual bool compareDerived(GenNexthop const* other) const = 0;

   // The address family of the paths that carry this next hop.
   virtual AfiSafi afisafi() const = 0;
   // The next hop's address; the unspecified address when it has none.
   virtual Ovnet::IpGenAddr addrOrNone() const { return {}; }
   // The next hop's wire form, as written into a next-hop field.
   virtual Ovk::String serialize() const = 0;

   // True for the table's marker of paths rejected by policy.
   virtual bool isPolicyReject() const { return false; }
   // True for the table's marker of "next hop is this router".
   virtual bool isNexthopSelf() const { return false; }

   // True when the next hop needs no resolution through the routing table.
   virtual bool isPreResolved() const { return false; }
   // The cost of reaching the next hop. By default: unresolved.
   virtual BgpMetricPref currentMetric() const { return BgpMetricPref::unresolved(); }
   // The cost the host gives pre-resolved next hops: preference 0, metric 0.
   BgpMetricPref preResolvedMetric() const { return {0, 0}; }

   // The life-time notifier the table's notifiee gave this next hop, if any (a new
   // reference). By default next hops have none.
   virtual Ovk::Ptr<GenNexthopLifeTimeNotifier> getLifeTimeNotifier() const { return nullptr; }

   // The text form after the generic prefix (see operator<<); nothing by default. Leaves the
   // stream's format as it found it.
   virtual void formatDerivedType(std::ostream& os) const;

   // The id the table's id allocator gave this next hop while it is in the table; 0 for none.
   std::uint32_t nexthopId() const { return nexthopId_; }

 protected:
   GenNexthop() = default;
   ~GenNexthop() override = default;

 private:
   friend class GenNexthopDedupTableBase;
   std::uint32_t nexthopId_ = 0;
};

// "<type name>(<afi-safi>[ policyReject][ nexthopSelf][ <derived text>])", for example
// "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthop(ipv4Flowspec addr=10.1.1.1)".
std::ostream& operator<<(std::ostream& os, GenNexthop const& nh);

// Hands out next-hop ids, unique among the tables that share the allocator: the lowest free
// id first, starting at 1.
class GenNexthopIdAllocator : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<GenNexthopIdAllocator> create() { return Ovk::makePtr<GenNexthopIdAllocator>(); }

   std::uint32_t allocate();
   // Returns an id handed out earlier; returning an id twice is a broken invariant.
   void release(std::uint32_t id);
   // Ids handed out and not yet returned.
   std::size_t inUse() const { return next_ - 1 - free_.size(); }

 private:
   std::uint32_t next_ = 1;
   std::set<std::uint32_t> free_; // returned ids below next_
};

// Holds a next hop while it is in its table, through an anchored reference (see above).
class GenNexthopLifeTimeNotifier : public Ovk::PtrInterface {
 public:
   explicit GenNexthopLifeTimeNotifier(Ovk::Ptr<Ovk::DedupHandle> const& nexthop);
   // The next hop; never null.
   Ovk::DedupHandle const* nexthop() const { return nexthop_.ptr(); }

 protected:
   ~GenNexthopLifeTimeNotifier() override;

 private:
   Ovk::Ptr<Ovk::DedupHandle> nexthop_;
};

// Hears the next hops that enter (handleInsert) and leave (handleRemove) the tables it is
// given to, one remove for each insert. One notifiee may serve several tables.
//
// multiThreadedOvbgp and consumerScheduler describe the agent's threading: with the flag
// set, an agent that runs its tables on several threads would move these callbacks onto
// the consumer's task. This agent runs every table on its one task thread, so the callbacks
// run on the caller's task, inside the table operation, whatever the flag; a deduplicated
// next hop thus has its notifier as soon as dedup() returns.
class GenNexthopLifeTimeNotifiee : public Ovk::DedupTableNotifiee, public Ovk::NotificationSwitch {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   bool multiThreadedOvbgp() const { return multiThreadedOvbgp_; }
   Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler() const { return consumerScheduler_; }
   Ovk::String const& taskPrefix() const { return taskPrefix_; }

 protected:
   GenNexthopLifeTimeNotifiee(bool multiThreadedOvbgp, Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler,
                              Ovk::String taskPrefix);
   ~GenNexthopLifeTimeNotifiee() override = default;

 private:
   bool multiThreadedOvbgp_;
   Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler_;
   Ovk::String taskPrefix_;
};

// The next-hop dedup table of one VRF and address family, with its two marker next hops.
//
// While a next hop is in the table it has an id from the table's id allocator (when the
// table has one) and the table's life-time notifiee (when it has one) has heard of it. The
// marker next hops are entries of the table, kept by it until it dies.
class GenNexthopDedupTableBase : public Ovk::DedupHashTable, public Ovk::NotificationSwitch {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   BgpVrfIdBase vrfId() const { return vrfId_; }
   AfiSafi afiSafi() const { return afiSafi_; }
   Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee() const { return lifeTimeNotifiee_; }
   Ovk::Ptr<GenNexthopIdAllocator> idAllocator() const { return idAllocator_; }
   bool uniqueNexthopIdsEnabled() const { return idAllocator_ != nullptr; }

   // The table's marker of paths rejected by policy: a deduplicated next hop of this table
   // whose isPolicyReject() is true, or empty.
   Ovk::Ptr<GenNexthop const> policyRejectNexthop() const { return policyRejectNexthop_; }
   void policyRejectNexthopIs(Ovk::Ptr<GenNexthop const> const& nh);
   // The table's next-hop-self: a deduplicated next hop of this table whose isNexthopSelf()
   // is true, or empty.
   Ovk::Ptr<GenNexthop const> nexthopSelf() const { return nexthopSelf_; }
   void nexthopSelfIs(Ovk::Ptr<GenNexthop const> const& nh);

   // Enters `nh` (never deduplicated) or returns the equal next hop the table has.
   Ovk::Ptr<GenNexthop const> lookupOrInsertNexthop(Ovk::Ptr<GenNexthop> const& nh) const;
   // The table's next hop of a path the agent originates with next hop `addr` (unspecified:
   // none): the next hop the family's next-hop rule makes of a next-hop field holding that
   // address (empty). Null for a family that originates no paths (the default).
   virtual Ovk::Ptr<GenNexthop const> nexthopOfAddress(Ovnet::IpGenAddr const& addr) const;
   // The table's next hop equal to `probe`, or empty.
   Ovk::Ptr<GenNexthop const> lookupNexthop(GenNexthop const& probe) const;

 protected:
   GenNexthopDedupTableBase(BgpVrfIdBase vrfId, AfiSafi afiSafi,
                            Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee,
                            Ovk::Ptr<GenNexthopIdAllocator> idAllocator);
   ~GenNexthopDedupTableBase() override;

 private:
   class EntryNotifiee;

   BgpVrfIdBase vrfId_;
   AfiSafi afiSafi_;
   Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee_;
   Ovk::Ptr<GenNexthopIdAllocator> idAllocator_;
   Ovk::Ptr<GenNexthop const> policyRejectNexthop_;
   Ovk::Ptr<GenNexthop const> nexthopSelf_;
};

// The table address families derive theirs from.
class GenNexthopDedupTable : public GenNexthopDedupTableBase {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

 protected:
   GenNexthopDedupTable(BgpVrfIdBase vrfId, AfiSafi afiSafi,
                        Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee,
                        Ovk::Ptr<GenNexthopIdAllocator> idAllocator)
       : GenNexthopDedupTableBase(vrfId, afiSafi, std::move(lifeTimeNotifiee), std::move(idAllocator)) {}
   ~GenNexthopDedupTable() override = default;
};

namespace IpPlugin {

// The host's plain IP next hop: an address, as a session's transport address is given to a
// family's transport next-hop hook.
class IpGenNexthop : public GenNexthop {
 public:
   explicit IpGenNexthop(Ovnet::IpGenAddr addr) : addr_(addr) {}
   static Ovk::Ptr<IpGenNexthop> create(Ovnet::IpGenAddr addr) { return Ovk::makePtr<IpGenNexthop>(addr); }
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   Ovnet::IpGenAddr const& addr() const { return addr_; }
   Ovnet::IpGenAddr addrOrNone() const override { return addr_; }
   AfiSafi afisafi() const override;
   Ovk::String serialize() const override;
   bool compareDerived(GenNexthop const* other) const override;
   std::uint32_t hash() const override;
   bool isPreResolved() const override { return true; }
   void formatDerivedType(std::ostream& os) const override;

 protected:
   ~IpGenNexthop() override = default;

 private:
   Ovnet::IpGenAddr addr_;
};

} // namespace IpPlugin

} // namespace Routing::Bgp
