// The agent's plugin interface: how an address-family plugin, loaded as a shared library,
// joins the agent.
//
// Load. A plugin library holds static plugin objects (PluginBase<Context>); constructing one
// registers it with the process's default loader (DefaultPluginLoader) under its name. The
// agent then builds the Context (the plugin's whole view of the agent) and runs init(context)
// of every registered plugin (Loader::initAll). A plugin's init builds its main object, which
// builds the rest and hands the agent, through the context, its per-family helper object
// (AfiSafiHelpers, with hooks) and itself.
//
// Hooks. The agent asks a family's helpers for what only the family knows: hook 0 builds the
// adjacency RIB-in of a session, hook 1 the local next hop of a session, hook 6 the factory
// of the forwarding export's state machines, hooks 17 and 18 the show labels and tables.
//
// VRFs. The context creates and deletes VRFs; plugins' VRF state machines hear of each
// (handleVrfCreate / handleVrfDelete) and register the family's dedup tables of the VRF in
// their helpers' all-VRF tables, which the context puts where the VRF's sessions parse.
//
// Everything runs on the agent's task thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "host/bgp/AdjRibOut.h"
#include "host/bgp/AdjRibin.h"
#include "host/bgp/AfiSafi.h"
#include "host/bgp/BgpParse.h"
#include "host/bgp/BgpParseRules.h"
#include "host/bgp/BgpPeer.h"
#include "host/bgp/BgpVrfId.h"
#include "host/bgp/ExtCommParse.h"
#include "host/bgp/FwdTgt.h"
#include "host/bgp/GenNexthop.h"
#include "host/bgp/PathAttributes.h"
#include "host/bgp/Rib.h"
#include "host/bgp/RtImport.h"
#include "host/fwk/Notification.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/Scheduler.h"
#include "host/hoard/AttributeCache.h"
#include "host/mnemo/EntityManager.h"

namespace Routing::Bgp::Plugin {

class Context;

// ---- Loading ----

template <class ContextT>
class PluginBase;

// What the loader calls to initialise one plugin object.
template <class ContextT>
class PluginBaseInitCaller {
 public:
   explicit PluginBaseInitCaller(PluginBase<ContextT>* plugin) : plugin_(plugin) {}
   void init(ContextT* context) const { plugin_->init(context); }
   void tearDown(ContextT* context) const { plugin_->tearDown(context); }
   PluginBase<ContextT>* plugin() const { return plugin_; }

 private:
   PluginBase<ContextT>* plugin_;
};

template <class ContextT>
class Loader {
 public:
   // The loader's registration of one plugin's init caller.
   class LoaderInitCallerWithContext : public Ovk::PtrInterface {
    public:
      LoaderInitCallerWithContext(Loader* loader, PluginBaseInitCaller<ContextT> const* caller)
          : loader_(loader), caller_(caller) {}
      void init(ContextT* context) const {
         if (caller_) caller_->init(context);
      }
      void tearDown(ContextT* context) const {
         if (caller_) caller_->tearDown(context);
      }
      Loader* loader() const { return loader_; }
      PluginBaseInitCaller<ContextT> const* caller() const { return caller_; }
      // The plugin object went: nothing is left to call.
      void callerDel() { caller_ = nullptr; }

    private:
      Loader* loader_;
      PluginBaseInitCaller<ContextT> const* caller_;
   };

   Loader(std::string firstId, std::string secondId) : firstId_(std::move(firstId)), secondId_(std::move(secondId)) {}
   Loader(Loader const&) = delete;
   Loader& operator=(Loader const&) = delete;

   // The loader's identifying strings, which plugins pass back to registerPlugin.
   std::string const& firstId() const { return firstId_; }
   std::string const& secondId() const { return secondId_; }
   // The init callers plugins appended, in the order they did.
   std::vector<Ovk::Ptr<LoaderInitCallerWithContext>>& initCallers() { return initCallers_; }

   struct Registration {
      std::string name;
      Ovk::Ptr<LoaderInitCallerWithContext> caller;
   };
   // Records a plugin by name. The identifying strings must be this loader's (a plugin built
   // for another loader is not recorded); the two other strings are reserved.
   void registerPlugin(std::string const& firstId, std::string const& name, std::string const& secondId,
                       std::string const&, std::string const&, Ovk::Ptr<LoaderInitCallerWithContext> const& caller) {
      if (firstId != firstId_ || secondId != secondId_) return;
      registrations_.push_back({name, caller});
   }
   std::vector<Registration> const& registrations() const { return registrations_; }

   // Initialises every plugin whose init caller was appended, in that order.
   void initAll(ContextT* context) {
      auto const callers = initCallers_;
      for (auto const& c : callers) c->init(context);
   }
   // The host of `context` goes: every plugin drops what it built for it, in reverse order,
   // so that nothing of the host outlives it in a plugin object that lives to process end.
   void tearDownAll(ContextT* context) {
      auto const callers = initCallers_;
      for (auto it = callers.rbegin(); it != callers.rend(); ++it) (*it)->tearDown(context);
   }
   // A plugin object goes: its registrations stay, and call nothing.
   void callerDel(PluginBaseInitCaller<ContextT> const* caller) {
      for (auto const& c : initCallers_) {
         if (c->caller() == caller) c->callerDel();
      }
   }

 private:
   std::string firstId_;
   std::string secondId_;
   std::vector<Ovk::Ptr<LoaderInitCallerWithContext>> initCallers_;
   std::vector<Registration> registrations_;
};

// The process's loader of agent plugins: plugin libraries register with it when they load.
// It is never destroyed: plugin objects may go after anything else at process end.
Loader<Context>& DefaultPluginLoader();

template <class ContextT>
class PluginBase {
 public:
   PluginBase() : initCaller_(new PluginBaseInitCaller<ContextT>(this)) {}
   virtual ~PluginBase() {
      DefaultPluginLoader().callerDel(initCaller_);
      delete initCaller_;
   }
   PluginBase(PluginBase const&) = delete;
   PluginBase& operator=(PluginBase const&) = delete;

   virtual void init(ContextT* context) = 0;
   // The host of `context` goes: what init built for it is released. By default nothing.
   virtual void tearDown(ContextT*) {}
   PluginBaseInitCaller<ContextT> const* initCaller() const { return initCaller_; }

 private:
   PluginBaseInitCaller<ContextT>* initCaller_;
};

// ---- Hooks and helpers ----

enum class HookId : std::uint32_t {
   constructAdjRibin = 0,    // BgpInputConstructAdjRibinAfiSafiPluginBase
   transportNexthop = 1,     // TransportNexthopPluginBase
   routeConfigSmFactory = 6, // RouteConfigSmFactoryBase
   show = 17,                // ShowPluginBase
   ovrow = 18,               // OvrowPluginBase
};

// The helper object of one address family, carrying its hooks.
class AfiSafiHelpers : public Ovk::PtrInterface {
 public:
   explicit AfiSafiHelpers(AfiSafi afiSafi);
   AfiSafi afiSafi() const { return afiSafi_; }

   // Registers `hook` under `id`, replacing the one there.
   void hookIs(HookId id, Ovk::Ptr<Ovk::PtrInterface> hook);
   Ovk::Ptr<Ovk::PtrInterface> hook(HookId id) const;
   template <class T>
   Ovk::Ptr<T> hookAs(HookId id) const {
      return Ovk::ptrCast<T>(hook(id));
   }
   std::map<HookId, Ovk::Ptr<Ovk::PtrInterface>> const& hooks() const { return hooks_; }

   // The family's dedup tables in every VRF.
   Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> const& bgpAfiSafiDedupTablesAllVrf() const { return allVrf_; }
   // True once the context has taken the helpers (registerHelpers).
   bool installed() const { return installed_; }
   void installedIs(bool installed) { installed_ = installed; }

   // Whether the RIB keeps a table for routes of `nlriType`; by default every type does.
   virtual bool nlriTypeRequiresRibTable(NlriType nlriType) const;

 protected:
   ~AfiSafiHelpers() override = default;

 private:
   AfiSafi afiSafi_;
   std::map<HookId, Ovk::Ptr<Ovk::PtrInterface>> hooks_;
   Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> allVrf_;
   bool installed_ = false;
};

// The context's helpers by family.
class AfiSafiHelpersTable : public Ovk::PtrInterface {
 public:
   Ovk::Ptr<AfiSafiHelpers> helpers(AfiSafi afiSafi) const;
   void helpersIs(Ovk::Ptr<AfiSafiHelpers> const& helpers) { table_[helpers->afiSafi()] = helpers; }
   std::map<AfiSafi, Ovk::Ptr<AfiSafiHelpers>> const& all() const { return table_; }

 private:
   std::map<AfiSafi, Ovk::Ptr<AfiSafiHelpers>> table_;
};

// Hook 0: builds the adjacency RIB-in of a session for the family.
class BgpInputConstructAdjRibinAfiSafiPluginBase : public Ovk::PtrInterface {
 public:
   // Builds the RIB-in and installs it in `collection`.
   virtual void instantiateAdjRibin(AdjRibinType type, Ovk::Ptr<AdjRibinCollection> const& collection,
                                    Ovk::Ptr<BgpInputDedupTables const> const& inputTables) const = 0;
   // The instance epoch new RIB-ins get.
   BgpInstanceEpoch instanceEpoch() const { return {}; }

 protected:
   ~BgpInputConstructAdjRibinAfiSafiPluginBase() override = default;
};

// Hook 1: the next hop the agent puts on routes it sends to a session.
class TransportNexthopPluginBase : public Ovk::PtrInterface {
 public:
   // From the session's local transport address (an IpPlugin::IpGenNexthop) and the dedup
   // tables of its VRF: a next hop of the family's table, or empty for none.
   virtual Ovk::Ptr<GenNexthop const> transportAddrToLocalNexthop(
       Ovk::Ptr<GenNexthop const> const& transportNh, Ovk::Ptr<DedupTablesVrf const> const& dedupVrfTables) const = 0;
   // The peer's next hop from its transport address, for families whose routes the peer may
   // send without one: the address in `table` (unused by flowspec).
   virtual Ovk::Ptr<GenNexthop const> transportAddrToRemoteNexthop(
       Ovnet::IpGenAddr const& addr, bool linkLocal, bool ipv6Transport,
       Ovk::Ptr<GenNexthopDedupTableBase const> const& table) const;

 protected:
   ~TransportNexthopPluginBase() override = default;
};

// Hook 6: makes and retires the route-config state machine of each VRF's table.
class RouteConfigSmFactoryBase : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   explicit RouteConfigSmFactoryBase(AfiSafi afiSafi) : afiSafi_(afiSafi) {}
   AfiSafi afiSafi() const { return afiSafi_; }
   virtual Ovk::Ptr<FwdTgtRouteConfigSm> instantiate(BgpVrfIdBase const& vrfIdBase,
                                                     Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> const& routeTable,
                                                     Ovk::Ptr<NexthopListMapBase const> const& nexthopListMap) = 0;
   // Retires a state machine: its notification off, then its handleDestroyed.
   virtual void cleanup(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm);
   // Lets a state machine go without cleaning up after it (the process is ending).
   virtual void detach(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm);

 protected:
   ~RouteConfigSmFactoryBase() override = default;

 private:
   AfiSafi afiSafi_;
};

// Hook 17: how the peer summary labels and counts the family's routes.
class ShowPluginBase : public Ovk::PtrInterface {
 public:
   virtual std::string rcvdSummaryStr() const { return "PfxRcd"; }
   virtual std::string accSummaryStr() const { return "PfxAcc"; }
   virtual std::uint32_t numExtraSummaryAttrs() const { return 0; }
   virtual bool shouldResetSummaryPrefixCounts() const { return true; }
   virtual bool shouldRenderPeerSummary(AfiSafi, NlriType, std::uint32_t, std::uint64_t) const { return true; }

 protected:
   ~ShowPluginBase() override = default;
};

// ---- Plugin main objects and VRF state machines ----

class PluginMainBase : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   bool doCleanup() const { return doCleanup_; }
   virtual void doCleanupIs(bool on) { doCleanup_ = on; }

 protected:
   ~PluginMainBase() override = default;

 private:
   bool doCleanup_ = false;
};

// Hears the context's VRFs while its notification is on: every VRF there when it is
// switched on, then each one created or deleted.
class VrfSmPluginBase : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   virtual void handleVrfCreate(BgpVrfIdBase const& vrfId) = 0;
   virtual void handleVrfDelete(BgpVrfIdBase const& vrfId) = 0;
   void hasNotificationActiveIs(bool on) override;

   Ovk::Ptr<Context> const& pluginContext() const { return context_; }
   void pluginContextIs(Ovk::Ptr<Context> context);
   void pluginContextDel();

 protected:
   explicit VrfSmPluginBase(Ovk::Ptr<Context> context) : context_(std::move(context)) {}
   ~VrfSmPluginBase() override;

 private:
   Ovk::Ptr<Context> context_;
   bool listening_ = false;
};

// ---- Forwarding targets ----

class FwdTgtStateBase : public Ovk::PtrInterface {
 public:
   ForwardingTarget forwardingTarget() const { return target_; }
   Ovk::Ptr<RouteFwdTgtTable const> const& routeFwdTgtTable() const { return table_; }
   // The next-hop lists routes of the target resolve through; empty for none.
   virtual Ovk::Ptr<NexthopListMapBase const> nexthopListMap() const = 0;

 protected:
   FwdTgtStateBase(ForwardingTarget target, Ovk::Ptr<RouteFwdTgtTable const> table)
       : target_(target), table_(std::move(table)) {}
   ~FwdTgtStateBase() override = default;

 private:
   ForwardingTarget target_;
   Ovk::Ptr<RouteFwdTgtTable const> table_;
};

// Runs a route-config state machine for every table of a forwarding target, each made by the
// factory (hook 6) of its family's helpers.
class BgpRibRouteConfigRootSm : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   BgpRibRouteConfigRootSm(Ovk::Ptr<RouteFwdTgtTable const> routeFwdTgtTable,
                           Ovk::Ptr<NexthopListMapBase const> nexthopListMap,
                           Ovk::Ptr<AfiSafiHelpersTable const> afiSafiTable);
   static Ovk::Ptr<BgpRibRouteConfigRootSm> BgpRibRouteConfigRootSmIs(Ovk::Ptr<RouteFwdTgtTable const> routeFwdTgtTable,
                                                                      Ovk::Ptr<NexthopListMapBase const> nexthopListMap,
                                                                      Ovk::Ptr<AfiSafiHelpersTable const> afiSafiTable);
   // Switching on makes a state machine for every table that has none; off retires them.
   void hasNotificationActiveIs(bool on) override;
   // Makes the state machines of tables added since (the host calls it when it adds one).
   void handleTables();
   // Lets every state machine go (process end): the factories' detach, nothing cleaned up.
   void detach();
   std::size_t routeConfigSms() const { return sms_.size(); }
   Ovk::Ptr<FwdTgtRouteConfigSm> routeConfigSm(BgpVrfIdBase vrfId, AfiSafi afiSafi) const;

 protected:
   ~BgpRibRouteConfigRootSm() override;

 private:
   struct Entry {
      Ovk::Ptr<RouteConfigSmFactoryBase> factory;
      Ovk::Ptr<FwdTgtRouteConfigSm> sm;
   };
   void retireAll();

   Ovk::Ptr<RouteFwdTgtTable const> routeFwdTgtTable_;
   Ovk::Ptr<NexthopListMapBase const> nexthopListMap_;
   Ovk::Ptr<AfiSafiHelpersTable const> afiSafiTable_;
   std::map<std::pair<BgpVrfIdBase, AfiSafi>, Entry> sms_;
};

class FwdTgtBaseSm : public Ovk::PtrInterface, public Ovk::NotificationSwitch {
 public:
   ForwardingTarget forwardingTarget() const { return target_; }
   Ovk::Ptr<FwdTgtStateBase> const& state() const { return state_; }
   Ovk::Ptr<Context> const& context() const { return context_; }
   // Called by the host when the agent shuts down.
   virtual void nonFileDescriptorCleanup() {}
   virtual void preDestroyCleanup() {}
   // The host added tables to the target: the state machine makes what it needs for them.
   virtual void handleTables() {}
   // The root state machine of the target's route-config state machines, if it runs one.
   virtual BgpRibRouteConfigRootSm const* routeConfigRootSmRaw() const { return nullptr; }

 protected:
   FwdTgtBaseSm(ForwardingTarget target, Ovk::Ptr<FwdTgtStateBase> state, Ovk::Ptr<Context> context)
       : target_(target), state_(std::move(state)), context_(std::move(context)) {}
   ~FwdTgtBaseSm() override = default;

 private:
   ForwardingTarget target_;
   Ovk::Ptr<FwdTgtStateBase> state_;
   Ovk::Ptr<Context> context_;
};

// Registered once per forwarding target: builds its state and state machine.
class FwdTgtHelper : public Ovk::PtrInterface {
 public:
   ForwardingTarget forwardingTarget() const { return target_; }
   virtual Ovk::Ptr<FwdTgtStateBase> instantiateFwdTgtState(Ovk::Ptr<RouteFwdTgtTable const> const& table) const = 0;
   virtual Ovk::Ptr<FwdTgtBaseSm> instantiateFwdTgtSm(Ovk::Ptr<FwdTgtStateBase> const& state,
                                                      Ovk::Ptr<Context> const& context) const = 0;

 protected:
   explicit FwdTgtHelper(ForwardingTarget target) : target_(target) {}
   ~FwdTgtHelper() override = default;

 private:
   ForwardingTarget target_;
};

// ---- The context ----

// A VRF as the context knows it: its id, its name, its RIB tables by family.
class VrfInstanceStatus : public Ovk::PtrInterface {
 public:
   VrfInstanceStatus(BgpVrfIdBase vrfId, std::string name) : vrfId_(vrfId), name_(std::move(name)) {}
   BgpVrfIdBase vrfId() const { return vrfId_; }
   std::string const& name() const { return name_; }
   Ovk::Ptr<RibTable> ribTable(AfiSafi afiSafi) const;
   std::map<AfiSafi, Ovk::Ptr<RibTable>> const& ribTables() const { return ribTables_; }
   void ribTableIs(Ovk::Ptr<RibTable> const& table) { ribTables_[table->afiSafi()] = table; }
   void ribTableDel(AfiSafi afiSafi) { ribTables_.erase(afiSafi); }

 private:
   BgpVrfIdBase vrfId_;
   std::string name_;
   std::map<AfiSafi, Ovk::Ptr<RibTable>> ribTables_;
};

class Context : public Ovk::PtrInterface {
 public:
   struct Options {
      // Where the forwarding export mounts the FSIB; null: no export.
      Ovk::Ptr<Mnemo::EntityManager> entityManager;
      // The attribute cache's status; null: none (plugins that persist assert).
      Ovk::Ptr<Hoard::AttributeCacheStatus> attributeCacheStatus;
      Ovk::Ptr<Ovk::TaskScheduler> taskScheduler;
      bool multiThreadedOvbgp = false;
      // The agent itself as a path source (its AS and identifier).
      BgpPeer local;
   };
   explicit Context(Options options);
   static Ovk::Ptr<Context> create(Options options) { return Ovk::makePtr<Context>(std::move(options)); }

   // ---- What plugins read ----

   // The UPDATE parser's rule collections of `afiSafi`, made on first use.
   Ovk::Ptr<BgpParseRuleCollections> parseRuleCollections(AfiSafi afiSafi);
   Ovk::Ptr<ExtCommParseRuleCollections> const& parseExtCommRuleCollections() const { return extCommRules_; }
   Ovk::Ptr<Mnemo::EntityManager> const& entityManager() const { return options_.entityManager; }
   Ovk::Ptr<RtToVrfIdList> const& rtToVrfIdList() const { return rtToVrfIdList_; }
   Ovk::Ptr<CoreDedupTables> const& coreDedupTables() const { return core_; }
   Ovk::Ptr<Hoard::AttributeCacheStatus> const& attributeCacheStatus() const { return options_.attributeCacheStatus; }
   Ovk::Ptr<Ovk::TaskScheduler> const& taskScheduler() const { return options_.taskScheduler; }
   Ovk::Ptr<GenNexthopIdAllocator> const& nexthopIdAllocator() const { return nexthopIds_; }
   bool multiThreadedOvbgp() const { return options_.multiThreadedOvbgp; }

   std::map<ForwardingTarget, Ovk::Ptr<FwdTgtHelper>> const& fwdTgtHelpers() const { return fwdTgtHelpers_; }
   void registerForwardingTarget(Ovk::Ptr<FwdTgtHelper> const& helper);
   // Takes a family's helpers: its dedup tables in every VRF go where the VRF parses.
   void registerHelpers(Ovk::Ptr<AfiSafiHelpers> const& helpers);
   void pluginMainIs(AfiSafi afiSafi, Ovk::Ptr<PluginMainBase> const& main);
   Ovk::Ptr<PluginMainBase> pluginMain(AfiSafi afiSafi) const;
   Ovk::Ptr<AfiSafiHelpersTable> const& afiSafiTable() const { return helpers_; }

   // ---- VRFs ----

   std::map<BgpVrfIdBase, Ovk::Ptr<VrfInstanceStatus>> const& allVrfInstanceStatus() const { return vrfs_; }
   // Creates a VRF (the plugins' VRF state machines hear of it) and its RIB tables of every
   // family that has dedup tables in it.
   Ovk::Ptr<VrfInstanceStatus> vrfIs(BgpVrfIdBase vrfId, std::string name);
   void vrfDel(BgpVrfIdBase vrfId);
   // The dedup tables a VRF's sessions parse in, made on first use.
   Ovk::Ptr<DedupTablesVrf> dedupTablesVrf(BgpVrfIdBase vrfId);
   // VRF state machines.
   void vrfSmIs(VrfSmPluginBase* sm);
   void vrfSmDel(VrfSmPluginBase* sm);

   // ---- The RIB ----

   Ovk::Ptr<RibSources> const& ribSources() const { return sources_; }
   Ovk::Ptr<RtAttrDedupTable> const& rtAttrDedupTable() const { return attrs_; }
   // Graceful restart (RFC 4724): true when the path of `source` for `key` in `table` is stale,
   // kept from a peer whose session went and not yet announced again. The agent's sessions
   // say how (stalePathTestIs); with no test set no path is stale.
   using StalePathTest = std::function<bool(RibTable const& table, RouteKey const& key, RibSource source)>;
   void stalePathTestIs(StalePathTest test) { stalePathTest_ = std::move(test); }
   bool pathIsStale(RibTable const& table, RouteKey const& key, RibSource source) const {
      return source != kLocalRibSource && stalePathTest_ && stalePathTest_(table, key, source);
   }
   // The dedup tables a session in `vrfId` receives into.
   Ovk::Ptr<BgpInputDedupTables const> inputDedupTables(BgpVrfIdBase vrfId);
   // The forwarding target's tables, made on first use.
   Ovk::Ptr<RouteFwdTgtTable> routeFwdTgtTable(ForwardingTarget target);
   // The route-config state machine of a target, VRF and family; null when none runs.
   Ovk::Ptr<FwdTgtRouteConfigSm> routeConfigSm(ForwardingTarget target, BgpVrfIdBase vrfId, AfiSafi afiSafi) const;
   // Builds the state and state machine of every registered forwarding target that has none
   // (after the plugins and the VRFs are there), and tells those built of new tables.
   void forwardingTargetsIs();
   // Stops the forwarding targets' state machines and lets the plugins' objects go: the
   // agent's tear-down, before the context itself goes.
   void shutdown();
   // The forwarding targets stop following the RIB and leave what they wrote for the
   // forwarding plane; later changes of the RIB reach no target. Shutdown starts with it.
   void detachForwarding();

   // ---- Adjacency RIB-outs ----

   // The RIB-out of the established session with `peer` in `vrfId` for `afiSafi`; null when
   // there is none (no session, family not negotiated).
   Ovk::Ptr<AdjRibOut const> ribOut(Ovnet::IpGenAddr const& peer, BgpVrfIdBase vrfId, AfiSafi afiSafi) const;
   // The agent's sessions register their RIB-outs while established.
   void ribOutIs(Ovk::Ptr<AdjRibOut const> const& ribOut);
   void ribOutDel(AdjRibOut const& ribOut);

 private:
   void addRibTables(VrfInstanceStatus& vrf);

   Options options_;
   std::map<AfiSafi, Ovk::Ptr<BgpParseRuleCollections>> parseRules_;
   Ovk::Ptr<ExtCommParseRuleCollections> extCommRules_;
   Ovk::Ptr<RtToVrfIdList> rtToVrfIdList_;
   Ovk::Ptr<CoreDedupTables> core_;
   Ovk::Ptr<GenNexthopIdAllocator> nexthopIds_;
   Ovk::Ptr<AfiSafiHelpersTable> helpers_;
   std::map<AfiSafi, Ovk::Ptr<PluginMainBase>> mains_;
   std::map<ForwardingTarget, Ovk::Ptr<FwdTgtHelper>> fwdTgtHelpers_;
   std::map<ForwardingTarget, Ovk::Ptr<RouteFwdTgtTable>> fwdTgtTables_;
   std::map<ForwardingTarget, Ovk::Ptr<FwdTgtBaseSm>> fwdTgtSms_;
   std::map<BgpVrfIdBase, Ovk::Ptr<VrfInstanceStatus>> vrfs_;
   std::map<BgpVrfIdBase, Ovk::Ptr<DedupTablesVrf>> dedupVrfs_;
   std::vector<VrfSmPluginBase*> vrfSms_;
   Ovk::Ptr<RibSources> sources_;
   Ovk::Ptr<RtAttrDedupTable> attrs_;
   std::map<std::tuple<Ovnet::IpGenAddr, BgpVrfIdBase, AfiSafi>, Ovk::Ptr<AdjRibOut const>> ribOuts_;
   StalePathTest stalePathTest_;
};

// The best-path RIB table of `afiSafi` in a VRF; null when the VRF has none.
Ovk::Ptr<RibTable> getBribTable(Context const& context, VrfInstanceStatus const& vrf, AfiSafi afiSafi);
// The best-path RIB table of the default VRF and `afiSafi`: where sessions and originated
// rules put their paths. Null when no plugin serves the family.
Ovk::Ptr<RibTable> defaultVrfRibTable(Context const& context, AfiSafi afiSafi);

} // namespace Routing::Bgp::Plugin
