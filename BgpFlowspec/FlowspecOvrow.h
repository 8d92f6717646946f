// The flowspec show tables.
//
// Hook 18 (FlowspecOvrowPlugin) registers, for a show command of IPv4 or IPv6 flowspec, the
// route table and the peer-egress table of that family in the command's row database:
//   "ov/Bgp/bgpFlowspecIpv4Route", "ov/Bgp/bgpFlowspecIpv4PeerEgress"        (NLRI type 20)
//   "ov/Bgp/bgpFlowspecIpv6Route", "ov/Bgp/bgpFlowspecIpv6PeerEgress"        (NLRI type 21)
// Hook 17 (FlowspecShowPlugin) labels the peer summary's counts "RulesRcd" and "RulesAcc".
//
// BgpFlowspecRouteImpl walks the default VRF's best-path RIB table of the family in rule
// order, one row a rule (host/ovrow/BgpRows.h, "Bgp::bgpFlowspecRoute"): from the first
// rule, from the first rule not before a given rule text, or from the first rule not before
// "<destination host prefix>;*;" for a given destination prefix.
//
// BgpFlowspecPeerEgressImpl answers one point lookup: what the peer named by the row was
// sent for the rule named by the row. It cannot be walked from its beginning.
#pragma once

#include <string>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/bgp/RouteKey.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Ptr.h"
#include "host/ovrow/BgpRows.h"
#include "host/plugin/OvrowPlugin.h"

namespace Routing::Bgp::FlowspecPlugin {

// The key a show command's rule text names in `table`, which must be a flowspec route-key
// table: the table's key, or an orphan of it (FlowspecRouteKeyDedupTable::
// lookupOrCreateOrphanFromRkAttrs).
inline FlowspecRouteKey::PtrConst dedupFlowspecRouteKey(Ovk::Ptr<RouteKeyDedupTable const> const& table,
                                                        std::string const& text) {
   auto const* const flowspecRouteKeyDedupTable = dynamic_cast<FlowspecRouteKeyDedupTable const*>(table.ptr());
   OVK_ASSERT(flowspecRouteKeyDedupTable);
   return flowspecRouteKeyDedupTable->lookupOrCreateOrphanFromRkAttrs(text);
}

inline constexpr char kBgpFlowspecIpv4RoutePath[] = "ov/Bgp/bgpFlowspecIpv4Route";
inline constexpr char kBgpFlowspecIpv6RoutePath[] = "ov/Bgp/bgpFlowspecIpv6Route";
inline constexpr char kBgpFlowspecIpv4PeerEgressPath[] = "ov/Bgp/bgpFlowspecIpv4PeerEgress";
inline constexpr char kBgpFlowspecIpv6PeerEgressPath[] = "ov/Bgp/bgpFlowspecIpv6PeerEgress";

// Hook 18.
class FlowspecOvrowPlugin : public Plugin::OvrowPluginBase {
 public:
   explicit FlowspecOvrowPlugin(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   AfiSafi afiSafi() const { return afiSafi_; }
   // Registers the route and peer-egress tables of the command's family (IPv4 or IPv6
   // flowspec) in `database`, with implementations built over `context`; any other family
   // registers nothing. The row types must be known to the database (Ovrow::Bgp::
   // registerBgpRowTypes).
   void registerOvrowTables(Ovk::Ptr<Plugin::ShowCmdContext const> const& context, Ovrow::LocalOvdb* database) override;

 private:
   AfiSafi afiSafi_;
};

// Hook 17.
class FlowspecShowPlugin : public Plugin::ShowPluginBase {
 public:
   std::string rcvdSummaryStr() const override { return "RulesRcd"; }
   std::string accSummaryStr() const override { return "RulesAcc"; }
   std::uint32_t numExtraSummaryAttrs() const override { return 2; }
   bool shouldResetSummaryPrefixCounts() const override { return false; }
   bool shouldRenderPeerSummary(AfiSafi, NlriType, std::uint32_t, std::uint64_t) const override { return true; }
};

struct BgpFlowspecRouteIterState : Ovrow::IterStateBase {
   Ovk::Ptr<RibTable const> table;
   RouteOrderIndex::Iterator routeIter;
   // The rule at routeIter; held so that a walk can find its place again after a pause.
   FlowspecRouteKey::PtrConst routeKey;
   // Set when resuming found the rule gone: routeIter already stands on the next one.
   bool atNext = false;
};

class BgpFlowspecRouteImpl : public Ovrow::ExternalTable<BgpFlowspecRouteIterState> {
 public:
   explicit BgpFlowspecRouteImpl(Ovk::Ptr<Plugin::ShowCmdContext const> context);

   bool beginIterState(BgpFlowspecRouteIterState& state) override;
   // An exact lookup: a lower-bound search, then row equality (the rule text compared in
   // its canonical form).
   bool getRow(Ovrow::Row* row) override;
   bool lowerBoundIterState(Ovrow::Row* row, BgpFlowspecRouteIterState& state) override;
   bool getNextRow(BgpFlowspecRouteIterState& state) override;
   void resumeIterState(BgpFlowspecRouteIterState& state) override;

   // The key the rule text names in the family's route-key table of the default VRF.
   FlowspecRouteKey::PtrConst getRouteKey(Ovk::Ptr<RouteKeyDedupTable const> const& table,
                                          std::string const& text) const;
   // The key the row's key columns start a lower-bound search at: its rule text, else
   // "<destination host prefix>;*;", else none (the beginning of the table).
   FlowspecRouteKey::PtrConst startKey(Ovrow::Row const& row) const;

 private:
   // The default VRF's best-path RIB table of the family; null when none.
   Ovk::Ptr<RibTable const> bribTable() const;
   Ovk::Ptr<RouteKeyDedupTable const> routeKeyTable() const;
   bool findLowerBound(Ovrow::Row* row, BgpFlowspecRouteIterState& state) const;
   // Fills `row` from the rule at the state's position.
   void getRoute(BgpFlowspecRouteIterState const& state, Ovrow::Row* row) const;

   Ovk::Ptr<Plugin::ShowCmdContext const> context_;
};

struct BgpFlowspecPeerEgressIterState : Ovrow::IterStateBase {};

class BgpFlowspecPeerEgressImpl : public Ovrow::ExternalTable<BgpFlowspecPeerEgressIterState> {
 public:
   // `path` is one of the two peer-egress paths (assertion "Unknown table path").
   BgpFlowspecPeerEgressImpl(Ovk::Ptr<Plugin::ShowCmdContext const> context, std::string const& path);
   NlriType nlriType() const { return nlriType_; }

   // Not supported: traced, no row.
   bool beginIterState(BgpFlowspecPeerEgressIterState& state) override;
   bool getRow(Ovrow::Row* row) override;
   // The lookup: the row's VRF (by name), peer (address) and rule (text); every missing
   // piece is traced and answers false.
   bool lowerBoundIterState(Ovrow::Row* row, BgpFlowspecPeerEgressIterState& state) override;
   // A point lookup has no next row.
   bool getNextRow(BgpFlowspecPeerEgressIterState& state) override;

   static NlriType getNlriTypeFromTablePath(std::string const& path);

 private:
   void getPeerEgress(std::string const& vrfName, Ovrow::Row const& key, FlowspecRouteKey const& routeKey,
                      AdvertisedPath const& path, RibSources const& sources, Ovrow::Row* row) const;

   Ovk::Ptr<Plugin::ShowCmdContext const> context_;
   NlriType nlriType_;
};

} // namespace Routing::Bgp::FlowspecPlugin
