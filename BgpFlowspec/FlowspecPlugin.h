// The plugin's front door: the two plugin objects the library registers when it loads, and
// the main object of each flowspec family, which builds everything else.
//
// Loading libBgpFlowspec.so registers the flowspec next-hop readers with the attribute cache
// and then the plugins "FlowspecIpv4Plugin" and "FlowspecIpv6Plugin" with the agent's default
// loader. The agent's init(context) of each makes a FlowspecPluginMain for its family (IPv4
// flowspec 389, IPv6 flowspec 645), which, in handleInitialized, builds in this order: the
// parse plugin state machine and the extended-community parse state machine; the helper
// object with hook 0 (adjacency RIB-in); the route-key-to-redirect-VRF map; with an entity
// manager, the export's route-config factory as hook 6; hooks 18, 1 and 17; the forwarding
// target helper of target 7, once per context; the attribute-cache entries of the three
// next-hop types; the VRF state machine; then hands the helpers and itself to the context.
#pragma once

#include <string>

#include "BgpFlowspec/FlowspecParseNlri.h"
#include "BgpFlowspec/FlowspecPluginHelpers.h"
#include "BgpFlowspec/FlowspecRedirectVrfId.h"
#include "host/bgp/ExtCommParse.h"
#include "host/plugin/Plugin.h"

namespace Routing::Bgp::FlowspecPlugin {

class FlowspecPluginMain : public Plugin::PluginMainBase {
 public:
   // Stores its arguments and builds the whole plugin of the family (handleInitialized).
   FlowspecPluginMain(Ovk::Ptr<Context> context, AfiSafi afiSafi);
   // Constructs, switches notification on and returns the first reference.
   static Ovk::Ptr<FlowspecPluginMain> FlowspecPluginMainIs(Ovk::Ptr<Context> context, AfiSafi afiSafi);
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;

   Ovk::Ptr<Context> const& context() const { return context_; }
   AfiSafi afiSafi() const { return afiSafi_; }

   // Children. Each ...Is returns the child, building it only when there is none or it was
   // built from another key (the family; the rule collections by identity); ...Del lets it
   // go (switching a state machine's notification off first).
   Ovk::Ptr<FlowspecVrfPluginSm> const& vrfPluginSm() const { return vrfPluginSm_; }
   Ovk::Ptr<FlowspecVrfPluginSm> vrfPluginSmIs(AfiSafi afiSafi, Ovk::Ptr<Context> const& context,
                                               Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> const& tables);
   void vrfPluginSmDel();
   Ovk::Ptr<FlowspecParsePluginSm> const& parsePluginSm() const { return parsePluginSm_; }
   Ovk::Ptr<FlowspecParsePluginSm> parsePluginSmIs(Ovk::Ptr<BgpParseRuleCollections const> const& collections,
                                                   AfiSafi afiSafi);
   void parsePluginSmDel();
   Ovk::Ptr<FlowspecParseExtCommSm> const& parseExtCommSm() const { return parseExtCommSm_; }
   Ovk::Ptr<FlowspecParseExtCommSm> parseExtCommSmIs(Ovk::Ptr<ExtCommParseRuleCollections const> const& collections);
   void parseExtCommSmDel();
   Ovk::Ptr<FlowspecAfiSafiHelpers> const& afiSafiHelpers() const { return afiSafiHelpers_; }
   Ovk::Ptr<FlowspecAfiSafiHelpers> afiSafiHelpersIs(AfiSafi afiSafi);
   void afiSafiHelpersDel();
   Ovk::Ptr<FlowspecRkToRedirVrfId> const& rkToRedirVrfId() const { return rkToRedirVrfId_; }
   Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfIdIs();
   void rkToRedirVrfIdDel();

   // Passes the switch on to the state machines it holds.
   void hasNotificationActiveIs(bool on) override;

 protected:
   // handleDestroy, then the children go in order: VRF state machine, parse state machine,
   // extended-community parse state machine, helpers, redirect-VRF map.
   ~FlowspecPluginMain() override;

 private:
   void handleInitialized();
   void handleDestroy();
   // With an entity manager, the export's route-config factory as hook 6.
   void addExportHooks();
   // Hook 18 (show tables).
   void addShowHooks();
   // Hook 17 (summary labels).
   void addSummaryHook();
   // Registers next-hop type T with the attribute cache ("Orrery is not initialized" when
   // the context has none).
   template <class T, class... Args>
   void registerNexthopType(Args&&... args);

   Ovk::Ptr<Context> context_;
   AfiSafi afiSafi_;
   Ovk::Ptr<FlowspecVrfPluginSm> vrfPluginSm_;
   Ovk::Ptr<FlowspecParsePluginSm> parsePluginSm_;
   Ovk::Ptr<FlowspecParseExtCommSm> parseExtCommSm_;
   Ovk::Ptr<FlowspecAfiSafiHelpers> afiSafiHelpers_;
   Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId_;
};

Ovk::Ptr<FlowspecPluginMain> flowspecPluginMainFactory(Ovk::Ptr<Context> context, AfiSafi afiSafi);
std::ostream& operator<<(std::ostream& os, FlowspecPluginMain const& main);

// The plugin object of one family: registers at construction, builds its main object at init.
class FlowspecFamilyPlugin : public Plugin::PluginBase<Context> {
 public:
   FlowspecFamilyPlugin(char const* name, AfiSafi afiSafi);
   ~FlowspecFamilyPlugin() override;
   // Builds the main object, replacing the one an earlier init built.
   void init(Context* context) override;
   // Drops the main object built for `context`, if it is the current one.
   void tearDown(Context* context) override;
   Ovk::Ptr<FlowspecPluginMain> const& main() const { return main_; }
   std::string const& name() const { return name_; }

 private:
   std::string name_;
   AfiSafi afiSafi_;
   Ovk::Ptr<FlowspecPluginMain> main_;
};

class FlowspecIpv4Plugin : public FlowspecFamilyPlugin {
 public:
   FlowspecIpv4Plugin() : FlowspecFamilyPlugin("FlowspecIpv4Plugin", AfiSafi::ipv4Flowspec()) {}
};

class FlowspecIpv6Plugin : public FlowspecFamilyPlugin {
 public:
   FlowspecIpv6Plugin() : FlowspecFamilyPlugin("FlowspecIpv6Plugin", AfiSafi::ipv6Flowspec()) {}
};

// The library's plugin objects.
FlowspecIpv4Plugin& flowspecIpv4Plugin();
FlowspecIpv6Plugin& flowspecIpv6Plugin();

} // namespace Routing::Bgp::FlowspecPlugin
