// Flowspec next hops, their dedup table and their life-time notifiee.
//
// The next-hop field of a flowspec MP_REACH_NLRI is usually empty, sometimes an address, and
// sometimes neither; flowspec routes are never resolved through the routing table. A
// FlowspecGenNexthop carries whichever it got: an address, or the raw bytes of a field that
// is not one, or nothing. Each table also makes three singletons of its address family: the
// empty next hop, the policy-reject marker and the next-hop-self marker.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpMetricPref.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/GenNexthop.h"
#include "host/fwk/FwkType.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Scheduler.h"
#include "host/fwk/String.h"
#include "host/hoard/Store.h"
#include "host/net/IpGenAddr.h"

namespace Routing::Bgp::FlowspecPlugin {

class FlowspecGenNexthopLifeTimeNotifiee;

class FlowspecGenNexthop : public GenNexthop {
 public:
   // `addr` is the unspecified address when the next hop has none; `nexthopBytes` holds the
   // raw field when it is not an address, and is empty otherwise. No notifier yet.
   FlowspecGenNexthop(Afi afi, Ovnet::IpGenAddr const& addr, Ovk::String nexthopBytes);

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   Afi afi() const { return afi_; }
   Ovnet::IpGenAddr const& addr() const { return addr_; }
   Ovk::String const& nexthopBytes() const { return nexthopBytes_; }
   // Set while the next hop is in a table whose notifiee is a
   // FlowspecGenNexthopLifeTimeNotifiee; empty otherwise.
   Ovk::Ptr<GenNexthopLifeTimeNotifier> lifeTimeNotifier() const { return lifeTimeNotifier_; }

   // Jenkins one-at-a-time over four 32-bit little-endian words: afi, the hash of
   // nexthopBytes (0 when empty), the hash of the address storage, isPolicyReject().
   // isNexthopSelf() takes no part.
   std::uint32_t hash() const override;
   // Equal afi, nexthopBytes, addr and isPolicyReject(), tested in that order.
   // isNexthopSelf() takes no part.
   bool compareDerived(GenNexthop const* other) const override;

   // (afi << 8) | 133.
   AfiSafi afisafi() const override;
   Ovnet::IpGenAddr addrOrNone() const override { return addr_; }
   // Empty when there is neither address nor bytes; else a length byte and the address in
   // network order, or, without an address, a length byte (low 8 bits) and the raw bytes.
   Ovk::String serialize() const override;
   // "addr=<address>", or "addr=0x<hex bytes>" without an address, or nothing.
   void formatDerivedType(std::ostream& os) const override;

   // Flowspec routes are not resolved: always pre-resolved, at the pre-resolved metric.
   bool isPreResolved() const override { return true; }
   BgpMetricPref currentMetric() const override { return preResolvedMetric(); }
   Ovk::Ptr<GenNexthopLifeTimeNotifier> getLifeTimeNotifier() const override { return lifeTimeNotifier_; }

   // Rebuilds a next hop from its image in the attribute cache: afi and address are read,
   // the raw bytes are not (a next hop that had only bytes comes back as the empty next hop
   // of its family). Throws what the store manager reports; leaves nothing behind then.
   static Ovk::Ptr<FlowspecGenNexthop> dehoard(void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager);

 protected:
   ~FlowspecGenNexthop() override;

 private:
   friend class FlowspecGenNexthopLifeTimeNotifiee;

   Afi afi_;
   Ovnet::IpGenAddr addr_;
   Ovk::String nexthopBytes_;
   Ovk::Ptr<GenNexthopLifeTimeNotifier> lifeTimeNotifier_;
};

// The marker of paths rejected by policy: the empty next hop of its family, made distinct by
// isPolicyReject() (which hash and compareDerived include).
class FlowspecPolicyRejectNexthop : public FlowspecGenNexthop {
 public:
   explicit FlowspecPolicyRejectNexthop(Afi afi);

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   bool isPolicyReject() const override { return true; }

   static Ovk::Ptr<FlowspecPolicyRejectNexthop> dehoard(void const* image,
                                                        Ovk::Ptr<Hoard::StoreManager> const& storeManager);

 protected:
   ~FlowspecPolicyRejectNexthop() override;
};

// The next-hop-self marker: the empty next hop of its family, kept distinct from it in a
// table only by its concrete type (GenNexthop::compare).
class FlowspecNexthopSelf : public FlowspecGenNexthop {
 public:
   explicit FlowspecNexthopSelf(Afi afi);

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;
   bool isNexthopSelf() const override { return true; }

   static Ovk::Ptr<FlowspecNexthopSelf> dehoard(void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager);

 protected:
   ~FlowspecNexthopSelf() override;
};

// The next-hop dedup table of one VRF and flowspec family. Construction enters, in this
// order, the empty next hop, the policy-reject next hop and the next-hop-self; the table
// keeps all three until it dies.
class FlowspecGenNexthopDedupTable : public GenNexthopDedupTable {
 public:
   FlowspecGenNexthopDedupTable(BgpVrfIdBase vrfId, AfiSafi afiSafi,
                                Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee,
                                Ovk::Ptr<GenNexthopIdAllocator> idAllocator);

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // The table's next hop without address or bytes.
   Ovk::Ptr<FlowspecGenNexthop const> emptyNexthop() const { return emptyNexthop_; }
   // An originated path's next hop: the empty one without an address, else the next hop of
   // the address, as the next-hop rule reads a field of exactly that address.
   Ovk::Ptr<GenNexthop const> nexthopOfAddress(Ovnet::IpGenAddr const& addr) const override;

 protected:
   ~FlowspecGenNexthopDedupTable() override;

 private:
   Afi afi() const { return afiSafi().afi(); }
   void createEmptyNexthop();
   void handleFlowspecGenNexthopDedupTableInit();

   Ovk::Ptr<FlowspecGenNexthop const> emptyNexthop_;
};

// Gives each flowspec next hop entering a table its life-time notifier, and takes it away
// when the next hop leaves. Every table entry must be a FlowspecGenNexthop.
class FlowspecGenNexthopLifeTimeNotifiee : public GenNexthopLifeTimeNotifiee {
 public:
   FlowspecGenNexthopLifeTimeNotifiee(bool multiThreadedOvbgp, Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler,
                                      Ovk::String taskPrefix);

   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // The next hop must have no notifier yet.
   void handleInsert(Ovk::Ptr<Ovk::DedupHandle> const& handle) override;
   // The next hop must have its notifier.
   void handleRemove(Ovk::DedupHandle* handle) override;
   void handleNotificationStop(Ovk::Ptr<Ovk::DedupHashTable const> const& table) override;

 protected:
   ~FlowspecGenNexthopLifeTimeNotifiee() override;
};

// Factories: each allocates, constructs, switches notifications on and returns the first
// reference.
Ovk::Ptr<FlowspecGenNexthop> flowspecGenNexthopFactory(Afi afi, Ovnet::IpGenAddr const& addr,
                                                       Ovk::String const& nexthopBytes);
Ovk::Ptr<FlowspecPolicyRejectNexthop> flowspecPolicyRejectNexthopFactory(Afi afi);
Ovk::Ptr<FlowspecNexthopSelf> flowspecNexthopSelfFactory(Afi afi);
Ovk::Ptr<FlowspecGenNexthopDedupTable> flowspecGenNexthopDedupTableFactory(
    BgpVrfIdBase vrfId, AfiSafi afiSafi, Ovk::Ptr<GenNexthopLifeTimeNotifiee const> const& lifeTimeNotifiee,
    Ovk::Ptr<GenNexthopIdAllocator> const& idAllocator);
Ovk::Ptr<FlowspecGenNexthopLifeTimeNotifiee> flowspecGenNexthopLifeTimeNotifieeFactory(
    bool multiThreadedOvbgp, Ovk::Ptr<Ovk::TaskScheduler> const& consumerScheduler, Ovk::String const& taskPrefix);

} // namespace Routing::Bgp::FlowspecPlugin
