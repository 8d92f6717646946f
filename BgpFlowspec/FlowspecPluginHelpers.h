// What connects the flowspec families to the agent's RIB:
//   FlowspecVrfPluginSm             makes the default VRF's flowspec dedup tables;
//   FlowspecConstructAdjRibinPlugin hook 0: a FlowspecAdjRibin per session;
//   FlowspecAfiSafiHelpers          the family's helper object, carrying the hooks;
//   FlowspecTransportNexthopPlugin  hook 1: the next hop on rules the agent advertises;
//   FlowspecFwdTgtHelper            forwarding target 7 (the FSIB): its state and state
//                                   machine, which runs the RIB's route-config root state
//                                   machine over the flowspec route tables.
#pragma once

#include "BgpFlowspec/FlowspecAdjRibin.h"
#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/plugin/Plugin.h"

namespace Routing::Bgp::FlowspecPlugin {

using Plugin::Context;

// Flowspec tables exist in the default VRF only, on purpose: other VRFs get nothing.
class FlowspecVrfPluginSm : public Plugin::VrfSmPluginBase {
 public:
   FlowspecVrfPluginSm(AfiSafi afiSafi, Ovk::Ptr<Context> context, Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> tables);
   // Constructs, switches notification on (the VRFs already there are created at once) and
   // returns the first reference.
   static Ovk::Ptr<FlowspecVrfPluginSm> FlowspecVrfPluginSmIs(AfiSafi afiSafi, Ovk::Ptr<Context> context,
                                                              Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> tables);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   AfiSafi afiSafi() const { return afiSafi_; }
   Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> const& dedupTablesAllVrf() const { return tables_; }

   // The default VRF: a route-key dedup table and a next-hop dedup table (with its life-time
   // notifiee), registered in the all-VRF tables. Any other VRF: nothing.
   void handleVrfCreate(BgpVrfIdBase const& vrfId) override;
   // Every VRF: its tables leave the all-VRF tables.
   void handleVrfDelete(BgpVrfIdBase const& vrfId) override;

 protected:
   ~FlowspecVrfPluginSm() override;

 private:
   AfiSafi afiSafi_;
   Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> tables_;
};

class FlowspecConstructAdjRibinPlugin : public Plugin::BgpInputConstructAdjRibinAfiSafiPluginBase {
 public:
   explicit FlowspecConstructAdjRibinPlugin(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   AfiSafi afiSafi() const { return afiSafi_; }

   // Builds the session's FlowspecAdjRibin (notification on) and installs it in `collection`.
   void instantiateAdjRibin(AdjRibinType type, Ovk::Ptr<AdjRibinCollection> const& collection,
                            Ovk::Ptr<BgpInputDedupTables const> const& inputTables) const override;

 protected:
   ~FlowspecConstructAdjRibinPlugin() override = default;

 private:
   AfiSafi afiSafi_;
};

class FlowspecAfiSafiHelpers : public Plugin::AfiSafiHelpers {
 public:
   explicit FlowspecAfiSafiHelpers(AfiSafi afiSafi) : AfiSafiHelpers(afiSafi) {}
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   // True for the two flowspec NLRI types; any other is a broken invariant.
   bool nlriTypeRequiresRibTable(NlriType nlriType) const override;

 protected:
   ~FlowspecAfiSafiHelpers() override = default;
};

class FlowspecTransportNexthopPlugin : public Plugin::TransportNexthopPluginBase {
 public:
   explicit FlowspecTransportNexthopPlugin(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   AfiSafi afiSafi() const { return afiSafi_; }

   // Next-hop-self: a flowspec next hop of the family carrying the session's local address,
   // deduplicated in the VRF's flowspec next-hop table. Empty when the VRF has no flowspec
   // tables, when the address is unspecified, and for an IPv6 address on IPv4 flowspec (an
   // IPv6 flowspec session over IPv4 gets the IPv4 address).
   Ovk::Ptr<GenNexthop const> transportAddrToLocalNexthop(
       Ovk::Ptr<GenNexthop const> const& transportNh,
       Ovk::Ptr<DedupTablesVrf const> const& dedupVrfTables) const override;

 protected:
   ~FlowspecTransportNexthopPlugin() override = default;

 private:
   AfiSafi afiSafi_;
};

class FlowspecFwdTgtState : public Plugin::FwdTgtStateBase {
 public:
   explicit FlowspecFwdTgtState(Ovk::Ptr<RouteFwdTgtTable const> table)
       : FwdTgtStateBase(ForwardingTarget::flowspec, std::move(table)) {}
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   // Flowspec routes resolve through no next-hop lists: always empty.
   Ovk::Ptr<NexthopListMapBase const> nexthopListMap() const override { return nullptr; }

 protected:
   ~FlowspecFwdTgtState() override = default;
};

class FlowspecFwdTgtSm : public Plugin::FwdTgtBaseSm {
 public:
   // Builds the route-config root state machine over the state's tables.
   FlowspecFwdTgtSm(ForwardingTarget target, Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                    Ovk::Ptr<Context> const& context);
   static Ovk::Ptr<FlowspecFwdTgtSm> FlowspecFwdTgtSmIs(Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                                                        Ovk::Ptr<Context> const& context);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   Ovk::Ptr<Plugin::BgpRibRouteConfigRootSm> const& routeConfigRootSm() const { return routeConfigRootSm_; }
   void routeConfigRootSmIs(Ovk::Ptr<RouteFwdTgtTable const> const& table,
                            Ovk::Ptr<NexthopListMapBase const> const& nexthopListMap,
                            Ovk::Ptr<Plugin::AfiSafiHelpersTable const> const& afiSafiTable);
   void routeConfigRootSmDel();

   void hasNotificationActiveIs(bool on) override;
   // Lets the route-config state machines go (the FSIB stays for the forwarding plane).
   void nonFileDescriptorCleanup() override;
   void handleTables() override;
   Plugin::BgpRibRouteConfigRootSm const* routeConfigRootSmRaw() const override { return routeConfigRootSm_.ptr(); }

 protected:
   ~FlowspecFwdTgtSm() override;

 private:
   Ovk::Ptr<Plugin::BgpRibRouteConfigRootSm> routeConfigRootSm_;
};

class FlowspecFwdTgtHelper : public Plugin::FwdTgtHelper {
 public:
   FlowspecFwdTgtHelper() : FwdTgtHelper(ForwardingTarget::flowspec) {}
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   Ovk::Ptr<Plugin::FwdTgtStateBase> instantiateFwdTgtState(
       Ovk::Ptr<RouteFwdTgtTable const> const& table) const override;
   Ovk::Ptr<Plugin::FwdTgtBaseSm> instantiateFwdTgtSm(Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                                                      Ovk::Ptr<Context> const& context) const override;

 protected:
   ~FlowspecFwdTgtHelper() override = default;
};

} // namespace Routing::Bgp::FlowspecPlugin
