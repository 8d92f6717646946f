// Forwarding targets: where best routes go beyond the RIB (for flowspec, the FSIB).
//
// For each forwarding target the host keeps a RouteFwdTgtTable: one
// RibRouteVrfAfiSafiFwdTgtTable per VRF and family whose routes the target takes, a view of
// that RibTable. A family's plugin gives the host a factory of route-config state machines
// (RouteConfigSmFactoryBase); the host instantiates one per VRF table, and the state machine
// hears, one key at a time, every key whose best route changed (handleRouteEntry), and walks
// every key of its table when it asks (handleRouteEntryAll).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/Rib.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"

namespace Routing::Bgp {

enum class ForwardingTarget : std::uint32_t { flowspec = 7 };

// The routes of one VRF and family as a forwarding target sees them: the RibTable's best
// paths.
class RibRouteVrfAfiSafiFwdTgtTable : public Ovk::PtrInterface {
 public:
   RibRouteVrfAfiSafiFwdTgtTable(ForwardingTarget target, Ovk::Ptr<RibTable> table)
       : target_(target), table_(std::move(table)) {}

   ForwardingTarget forwardingTarget() const { return target_; }
   BgpVrfIdBase vrfId() const { return table_->vrfId(); }
   AfiSafi afiSafi() const { return table_->afiSafi(); }
   RibTable& ribTable() const { return *table_; }

   // True when `key` has a best route.
   bool routeKeyPresent(RouteKey const& key) const { return table_->routePresent(key); }
   // The best route's attributes; null when none.
   PathAttributesContents const* getEffectivePathAttrs(RouteKey const& key) const {
      return table_->getEffectivePathAttrs(key);
   }
   // Every key with a best route, in the family's order.
   void forEachRouteKey(std::function<void(RouteKey const*)> const& f) const;

 private:
   ForwardingTarget target_;
   Ovk::Ptr<RibTable> table_;
};

// The next-hop lists a target resolves routes through; flowspec has none.
class NexthopListMapBase : public Ovk::PtrInterface {
 protected:
   ~NexthopListMapBase() override = default;
};

// A forwarding target's tables of every VRF and family.
class RouteFwdTgtTable : public Ovk::PtrInterface {
 public:
   explicit RouteFwdTgtTable(ForwardingTarget target) : target_(target) {}
   ForwardingTarget forwardingTarget() const { return target_; }
   // Adds the view of `table` (replacing the one of its VRF and family).
   Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> tableIs(Ovk::Ptr<RibTable> const& table);
   void tableDel(BgpVrfIdBase vrfId, AfiSafi afiSafi);
   std::map<std::pair<BgpVrfIdBase, AfiSafi>, Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable>> const& tables() const {
      return tables_;
   }

 private:
   ForwardingTarget target_;
   std::map<std::pair<BgpVrfIdBase, AfiSafi>, Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable>> tables_;
};

// The state machine of one forwarding target, VRF and family. While its notification is on
// it hears its table's changes.
class FwdTgtRouteConfigSm : public Ovk::PtrInterface, public Ovk::NotificationSwitch, public RibTable::Reactor {
 public:
   BgpVrfIdBase vrfIdBase() const { return vrfIdBase_; }
   AfiSafi afiSafi() const { return afiSafi_; }
   ForwardingTarget forwardingTarget() const { return target_; }
   Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> const& routeTable() const { return routeTable_; }
   void routeTableIs(Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> table);
   void routeTableDel();

   // The best route of `key` changed.
   void handleRouteEntry(RouteKey const* key) override = 0;
   // Runs handleRouteEntry for every key of the table, in order.
   virtual void handleRouteEntryAll();
   // The state machine is retired (its factory's cleanup): what it made outside goes.
   virtual void handleDestroyed() {}

   // What the target did with the routes, for the agent's show commands.
   struct ExportCounters {
      std::uint64_t added = 0;                                // rules entered in the forwarding table
      std::uint64_t replaced = 0;                             // rules changed there
      std::uint64_t deleted = 0;                              // rules taken out
      std::uint64_t refusedFull = 0;                          // rules the full table refused (displaced included)
      std::uint64_t displaced = 0;   // rules taken out of the full table for rules of higher precedence
      std::uint64_t refilled = 0;    // refused rules that went in later, when room was made
      std::uint64_t notExportable = 0;                        // routes the target cannot take (a won't-export reason)
      // Of them, by the best path's source (RibSources' index; sources past the end: 0).
      std::vector<std::uint64_t> refusedFullBySource;
      std::uint64_t refusedFullOf(RibSource source) const {
         return source < refusedFullBySource.size() ? refusedFullBySource[source] : 0;
      }
   };
   ExportCounters const& exportCounters() const { return counters_; }
   // Why `key`'s best route is not in the target's table; empty when it is there. By
   // default nothing is said.
   virtual std::string notInForwardingReason(RouteKey const& key) const;
   // False while work the target does later (a table that waits for room) can still change
   // what it holds for the routes it was told of. By default nothing waits.
   virtual bool exportSettled() const { return true; }

   void hasNotificationActiveIs(bool on) override;

 protected:
   FwdTgtRouteConfigSm(BgpVrfIdBase vrfIdBase, AfiSafi afiSafi, ForwardingTarget target,
                       Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable);
   ~FwdTgtRouteConfigSm() override;

   ExportCounters counters_;

 private:
   void listen(bool on);

   BgpVrfIdBase vrfIdBase_;
   AfiSafi afiSafi_;
   ForwardingTarget target_;
   Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable_;
   bool listening_ = false;
};

} // namespace Routing::Bgp
