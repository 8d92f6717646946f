#include "host/plugin/Plugin.h"

#include <algorithm>

#include "host/fwk/Assert.h"

namespace Routing::Bgp::Plugin {

Loader<Context>& DefaultPluginLoader() {
   static auto* const loader = new Loader<Context>("Routing::Bgp::Plugin::Loader", "1");
   return *loader;
}

// ---- Helpers and hooks ----

AfiSafiHelpers::AfiSafiHelpers(AfiSafi afiSafi)
    : afiSafi_(afiSafi), allVrf_(Ovk::makePtr<BgpAfiSafiDedupTablesAllVrf>(afiSafi)) {}

void AfiSafiHelpers::hookIs(HookId id, Ovk::Ptr<Ovk::PtrInterface> hook) { hooks_[id] = std::move(hook); }

Ovk::Ptr<Ovk::PtrInterface> AfiSafiHelpers::hook(HookId id) const {
   auto const it = hooks_.find(id);
   return it == hooks_.end() ? nullptr : it->second;
}

bool AfiSafiHelpers::nlriTypeRequiresRibTable(NlriType) const { return true; }

Ovk::Ptr<AfiSafiHelpers> AfiSafiHelpersTable::helpers(AfiSafi afiSafi) const {
   auto const it = table_.find(afiSafi);
   return it == table_.end() ? nullptr : it->second;
}

Ovk::Ptr<GenNexthop const> TransportNexthopPluginBase::transportAddrToRemoteNexthop(
    Ovnet::IpGenAddr const& addr, bool, bool, Ovk::Ptr<GenNexthopDedupTableBase const> const&) const {
   return IpPlugin::IpGenNexthop::create(addr);
}

void RouteConfigSmFactoryBase::cleanup(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm) {
   if (!sm) return;
   sm->hasNotificationActiveIs(false);
   sm->handleDestroyed();
}

void RouteConfigSmFactoryBase::detach(Ovk::Ptr<FwdTgtRouteConfigSm> const&) {}

// ---- VRF state machines ----

VrfSmPluginBase::~VrfSmPluginBase() {
   if (listening_ && context_) context_->vrfSmDel(this);
}

void VrfSmPluginBase::hasNotificationActiveIs(bool on) {
   NotificationSwitch::hasNotificationActiveIs(on);
   if (on == listening_ || !context_) return;
   listening_ = on;
   if (on) {
      context_->vrfSmIs(this);
   } else {
      context_->vrfSmDel(this);
   }
}

void VrfSmPluginBase::pluginContextIs(Ovk::Ptr<Context> context) {
   bool const on = notificationActive();
   hasNotificationActiveIs(false);
   context_ = std::move(context);
   hasNotificationActiveIs(on);
}

void VrfSmPluginBase::pluginContextDel() {
   hasNotificationActiveIs(false);
   context_ = nullptr;
}

// ---- The route-config root state machine ----

BgpRibRouteConfigRootSm::BgpRibRouteConfigRootSm(Ovk::Ptr<RouteFwdTgtTable const> routeFwdTgtTable,
                                                 Ovk::Ptr<NexthopListMapBase const> nexthopListMap,
                                                 Ovk::Ptr<AfiSafiHelpersTable const> afiSafiTable)
    : routeFwdTgtTable_(std::move(routeFwdTgtTable)), nexthopListMap_(std::move(nexthopListMap)),
      afiSafiTable_(std::move(afiSafiTable)) {}

BgpRibRouteConfigRootSm::~BgpRibRouteConfigRootSm() { retireAll(); }

Ovk::Ptr<BgpRibRouteConfigRootSm> BgpRibRouteConfigRootSm::BgpRibRouteConfigRootSmIs(
    Ovk::Ptr<RouteFwdTgtTable const> routeFwdTgtTable, Ovk::Ptr<NexthopListMapBase const> nexthopListMap,
    Ovk::Ptr<AfiSafiHelpersTable const> afiSafiTable) {
   auto sm = Ovk::makePtr<BgpRibRouteConfigRootSm>(std::move(routeFwdTgtTable), std::move(nexthopListMap),
                                                   std::move(afiSafiTable));
   sm->hasNotificationActiveIs(true);
   return sm;
}

void BgpRibRouteConfigRootSm::hasNotificationActiveIs(bool on) {
   bool const was = notificationActive();
   NotificationSwitch::hasNotificationActiveIs(on);
   if (on && !was) handleTables();
   if (!on && was) retireAll();
}

void BgpRibRouteConfigRootSm::handleTables() {
   if (!notificationActive() || !routeFwdTgtTable_) return;
   auto const& tables = routeFwdTgtTable_->tables();
   // Tables gone: their state machines are retired.
   for (auto it = sms_.begin(); it != sms_.end();) {
      if (tables.count(it->first) == 0) {
         it->second.factory->cleanup(it->second.sm);
         it = sms_.erase(it);
      } else {
         ++it;
      }
   }
   for (auto const& [key, table] : tables) {
      if (sms_.count(key) != 0) continue;
      Ovk::Ptr<AfiSafiHelpers> const helpers = afiSafiTable_ ? afiSafiTable_->helpers(key.second) : nullptr;
      auto factory = helpers ? helpers->hookAs<RouteConfigSmFactoryBase>(HookId::routeConfigSmFactory) : nullptr;
      if (!factory) continue;
      Ovk::Ptr<FwdTgtRouteConfigSm> sm = factory->instantiate(key.first, table, nexthopListMap_);
      if (sm) sms_[key] = {factory, sm};
   }
}

void BgpRibRouteConfigRootSm::retireAll() {
   auto sms = std::move(sms_);
   sms_.clear();
   for (auto& [key, e] : sms) e.factory->cleanup(e.sm);
}

void BgpRibRouteConfigRootSm::detach() {
   auto sms = std::move(sms_);
   sms_.clear();
   for (auto& [key, e] : sms) e.factory->detach(e.sm);
}

Ovk::Ptr<FwdTgtRouteConfigSm> BgpRibRouteConfigRootSm::routeConfigSm(BgpVrfIdBase vrfId, AfiSafi afiSafi) const {
   auto const it = sms_.find({vrfId, afiSafi});
   return it == sms_.end() ? nullptr : it->second.sm;
}

// ---- Context ----

Ovk::Ptr<RibTable> VrfInstanceStatus::ribTable(AfiSafi afiSafi) const {
   auto const it = ribTables_.find(afiSafi);
   return it == ribTables_.end() ? nullptr : it->second;
}

Context::Context(Options options)
    : options_(std::move(options)), extCommRules_(ExtCommParseRuleCollections::create()),
      rtToVrfIdList_(RtToVrfIdList::create()), core_(CoreDedupTables::create()),
      nexthopIds_(GenNexthopIdAllocator::create()), helpers_(Ovk::makePtr<AfiSafiHelpersTable>()),
      sources_(RibSources::create(options_.local)), attrs_(RtAttrDedupTable::create()) {}

Ovk::Ptr<BgpParseRuleCollections> Context::parseRuleCollections(AfiSafi afiSafi) {
   Ovk::Ptr<BgpParseRuleCollections>& c = parseRules_[afiSafi];
   if (!c) c = BgpParseRuleCollections::create(afiSafi);
   return c;
}

void Context::registerForwardingTarget(Ovk::Ptr<FwdTgtHelper> const& helper) {
   fwdTgtHelpers_[helper->forwardingTarget()] = helper;
}

void Context::registerHelpers(Ovk::Ptr<AfiSafiHelpers> const& helpers) {
   OVK_ASSERT(helpers);
   AfiSafi const afiSafi = helpers->afiSafi();
   helpers_->helpersIs(helpers);
   helpers->installedIs(true);
   // The family's tables of each VRF go where that VRF's sessions parse, now and later.
   auto const put = [this, afiSafi](BgpVrfIdBase vrfId, Ovk::Ptr<DedupTablesVrfAfiSafi> const& tables) {
      Ovk::Ptr<DedupTablesVrf> const vrf = dedupTablesVrf(vrfId);
      if (tables) {
         vrf->dedupTablesVrfAfiSafiIs(tables);
      } else {
         vrf->dedupTablesVrfAfiSafiDel(afiSafi);
      }
   };
   for (auto const& [vrfId, tables] : helpers->bgpAfiSafiDedupTablesAllVrf()->all()) put(vrfId, tables);
   helpers->bgpAfiSafiDedupTablesAllVrf()->listenerIs(put);
   for (auto const& [vrfId, vrf] : vrfs_) addRibTables(*vrf);
}

void Context::pluginMainIs(AfiSafi afiSafi, Ovk::Ptr<PluginMainBase> const& main) { mains_[afiSafi] = main; }

Ovk::Ptr<PluginMainBase> Context::pluginMain(AfiSafi afiSafi) const {
   auto const it = mains_.find(afiSafi);
   return it == mains_.end() ? nullptr : it->second;
}

Ovk::Ptr<DedupTablesVrf> Context::dedupTablesVrf(BgpVrfIdBase vrfId) {
   Ovk::Ptr<DedupTablesVrf>& t = dedupVrfs_[vrfId];
   if (!t) t = Ovk::makePtr<DedupTablesVrf>(vrfId);
   return t;
}

Ovk::Ptr<VrfInstanceStatus> Context::vrfIs(BgpVrfIdBase vrfId, std::string name) {
   Ovk::Ptr<VrfInstanceStatus>& vrf = vrfs_[vrfId];
   if (vrf) return vrf;
   vrf = Ovk::makePtr<VrfInstanceStatus>(vrfId, std::move(name));
   Ovk::Ptr<VrfInstanceStatus> const made = vrf;
   auto const sms = vrfSms_;
   for (VrfSmPluginBase* sm : sms) sm->handleVrfCreate(vrfId);
   addRibTables(*made);
   for (auto const& [target, sm] : fwdTgtSms_) sm->handleTables();
   return made;
}

void Context::vrfDel(BgpVrfIdBase vrfId) {
   auto const it = vrfs_.find(vrfId);
   if (it == vrfs_.end()) return;
   for (auto const& [target, table] : fwdTgtTables_) {
      for (auto const& [afiSafi, rib] : it->second->ribTables()) table->tableDel(vrfId, afiSafi);
   }
   for (auto const& [target, sm] : fwdTgtSms_) sm->handleTables();
   auto const sms = vrfSms_;
   for (VrfSmPluginBase* sm : sms) sm->handleVrfDelete(vrfId);
   vrfs_.erase(it);
}

void Context::addRibTables(VrfInstanceStatus& vrf) {
   DedupTablesVrf const* const tables = dedupTablesVrf(vrf.vrfId()).ptr();
   for (auto const& [afiSafi, helpers] : helpers_->all()) {
      if (vrf.ribTable(afiSafi) || !tables->dedupTablesVrfAfiSafi(afiSafi)) continue;
      if (!helpers->nlriTypeRequiresRibTable(fromAfiSafi(afiSafi))) continue;
      auto const rib = Ovk::makePtr<RibTable>(vrf.vrfId(), afiSafi, sources_);
      vrf.ribTableIs(rib);
      // A family that exports (its helpers carry the route-config factory) feeds every
      // forwarding target.
      if (!helpers->hook(HookId::routeConfigSmFactory)) continue;
      for (auto const& [target, helper] : fwdTgtHelpers_) routeFwdTgtTable(target)->tableIs(rib);
   }
}

void Context::vrfSmIs(VrfSmPluginBase* sm) {
   if (std::find(vrfSms_.begin(), vrfSms_.end(), sm) != vrfSms_.end()) return;
   vrfSms_.push_back(sm);
   std::vector<BgpVrfIdBase> ids;
   for (auto const& [id, vrf] : vrfs_) ids.push_back(id);
   for (BgpVrfIdBase const id : ids) sm->handleVrfCreate(id);
}

void Context::vrfSmDel(VrfSmPluginBase* sm) {
   vrfSms_.erase(std::remove(vrfSms_.begin(), vrfSms_.end(), sm), vrfSms_.end());
}

Ovk::Ptr<BgpInputDedupTables const> Context::inputDedupTables(BgpVrfIdBase vrfId) {
   return Ovk::makePtr<BgpInputDedupTables>(dedupTablesVrf(vrfId), attrs_, core_);
}

Ovk::Ptr<RouteFwdTgtTable> Context::routeFwdTgtTable(ForwardingTarget target) {
   Ovk::Ptr<RouteFwdTgtTable>& t = fwdTgtTables_[target];
   if (!t) t = Ovk::makePtr<RouteFwdTgtTable>(target);
   return t;
}

void Context::forwardingTargetsIs() {
   for (auto const& [target, helper] : fwdTgtHelpers_) {
      Ovk::Ptr<FwdTgtBaseSm>& sm = fwdTgtSms_[target];
      if (sm) {
         sm->handleTables();
         continue;
      }
      Ovk::Ptr<FwdTgtStateBase> const state = helper->instantiateFwdTgtState(routeFwdTgtTable(target));
      sm = helper->instantiateFwdTgtSm(state, Ovk::Ptr<Context>(this));
   }
}

Ovk::Ptr<FwdTgtRouteConfigSm> Context::routeConfigSm(ForwardingTarget target, BgpVrfIdBase vrfId,
                                                     AfiSafi afiSafi) const {
   auto const it = fwdTgtSms_.find(target);
   if (it == fwdTgtSms_.end()) return nullptr;
   BgpRibRouteConfigRootSm const* root = it->second->routeConfigRootSmRaw();
   return root ? root->routeConfigSm(vrfId, afiSafi) : nullptr;
}

void Context::detachForwarding() {
   auto sms = std::move(fwdTgtSms_);
   fwdTgtSms_.clear();
   for (auto& [target, sm] : sms) {
      sm->nonFileDescriptorCleanup();
      sm->hasNotificationActiveIs(false);
   }
}

Ovk::Ptr<AdjRibOut const> Context::ribOut(Ovnet::IpGenAddr const& peer, BgpVrfIdBase vrfId, AfiSafi afiSafi) const {
   auto const it = ribOuts_.find({peer, vrfId, afiSafi});
   return it == ribOuts_.end() ? Ovk::Ptr<AdjRibOut const>() : it->second;
}

void Context::ribOutIs(Ovk::Ptr<AdjRibOut const> const& ribOut) {
   OVK_ASSERT(ribOut);
   ribOuts_[{ribOut->peer().address, ribOut->peer().vrfId, ribOut->afiSafi()}] = ribOut;
}

void Context::ribOutDel(AdjRibOut const& ribOut) {
   auto const it = ribOuts_.find({ribOut.peer().address, ribOut.peer().vrfId, ribOut.afiSafi()});
   if (it != ribOuts_.end() && it->second.ptr() == &ribOut) ribOuts_.erase(it);
}

void Context::shutdown() {
   ribOuts_.clear();
   // The export first, while the RIB it reads is whole.
   detachForwarding();
   std::vector<BgpVrfIdBase> ids;
   for (auto const& [id, vrf] : vrfs_) ids.push_back(id);
   for (BgpVrfIdBase const id : ids) vrfDel(id);
   mains_.clear();
   DefaultPluginLoader().tearDownAll(this);
}

Ovk::Ptr<RibTable> getBribTable(Context const&, VrfInstanceStatus const& vrf, AfiSafi afiSafi) {
   return vrf.ribTable(afiSafi);
}

Ovk::Ptr<RibTable> defaultVrfRibTable(Context const& context, AfiSafi afiSafi) {
   auto const& vrfs = context.allVrfInstanceStatus();
   auto const it = vrfs.find(BgpL3VrfId::defaultVrfId());
   return it == vrfs.end() ? nullptr : getBribTable(context, *it->second, afiSafi);
}

} // namespace Routing::Bgp::Plugin
