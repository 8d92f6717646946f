#include "BgpFlowspec/FlowspecFsibExport.h"

#include <ostream>
#include <vector>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"
#include "host/mnemo/SlateRuleSetMount.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

bool unset(Flowspec::TrafficRedirect const& r) { return r.address == Ovnet::IpGenAddr(); }

// The two address kinds: the family test, then the copy-flag rules.
bool shouldExportAddress(bool wrongFamily, char const* wrongFamilyText, bool copy,
                         Flowspec::TrafficRedirect const& current) {
   if (wrongFamily) {
      OVK_TRACE(flowspecTraceFacility(), 8, wrongFamilyText);
      return false;
   }
   if (unset(current)) return true;
   if (current.copy == copy) return true;
   OVK_TRACE(flowspecTraceFacility(), 8, "preferring non-copy redirect-ip");
   return !copy;
}

} // namespace

bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv4 const* extComm,
                  Flowspec::TrafficRedirect const& current) {
   return shouldExportAddress(afiSafi.afi() == Afi::afiIpv6, "IPv6 flowspec shouldn't use redirect-extcomm-ipv4",
                              extComm->copy(), current);
}

bool shouldExport(AfiSafi afiSafi, FlowspecExtCommRedirectIpv6 const* extComm,
                  Flowspec::TrafficRedirect const& current) {
   return shouldExportAddress(afiSafi.afi() == Afi::afiIpv4, "IPv4 flowspec shouldn't use redirect-extcomm-ipv6",
                              extComm->copy(), current);
}

bool shouldExport(FlowspecExtCommRedirectNexthop const* extComm, Ovnet::IpGenAddr const& nexthopAddr,
                  Flowspec::TrafficRedirect const& current) {
   if (nexthopAddr == Ovnet::IpGenAddr()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "ignoring invalid nexthopAddr");
      return false;
   }
   if (unset(current)) return true;
   if (!extComm->copy() && current.copy) {
      OVK_TRACE(flowspecTraceFacility(), 8, "preferring non-copy redirect-ip");
      return true;
   }
   // Unlike the address kinds, the earlier redirect wins a tie.
   OVK_TRACE(flowspecTraceFacility(), 8, "ignoring " << extComm->toStrep());
   return false;
}

template <class C>
void translateExtComm(FlowspecRouteConfigSm& sm, C const* extComm, PathAttributesContents const& pathAttrs,
                      Flowspec::Rule& rule, Flowspec::ActionFieldSet& actions, bool& redirectNexthopIpSet,
                      FlowspecRouteKey const& routeKey) {
   OVK_ASSERT(extComm->classification() == extCommClassificationFlowspec());
   if (auto const* rate = dynamic_cast<FlowspecExtCommTrafficRate const*>(extComm)) {
      float const r = rate->rateBytesPerSec();
      if (r == 0.0f) {
         actions.set(Flowspec::actionDrop);
      } else {
         // NaN included: only an exact zero drops.
         actions.set(Flowspec::actionPolice);
         rule.rate = r;
      }
   } else if (auto const* action = dynamic_cast<FlowspecExtCommTrafficAction const*>(extComm)) {
      std::uint32_t v = 0;
      if (action->actionFlags() & FlowspecExtCommTrafficAction::sampleFlag) {
         v |= Flowspec::trafficActionSample;
         actions.set(Flowspec::actionTrafficAction);
      }
      if (action->actionFlags() & FlowspecExtCommTrafficAction::terminalFlag) {
         v |= Flowspec::trafficActionTerminal;
         actions.set(Flowspec::actionTrafficAction);
      }
      // Written even when 0: a later community without flags clears an earlier one's.
      rule.trafficAction = v;
   } else if (auto const* marking = dynamic_cast<FlowspecExtCommTrafficMarking const*>(extComm)) {
      actions.set(Flowspec::actionSetDscp);
      rule.dscp = static_cast<std::uint8_t>(marking->dscp() & 0x3f);
   } else if (auto const* v4 = dynamic_cast<FlowspecExtCommRedirectIpv4 const*>(extComm)) {
      if (shouldExport(sm.afiSafi(), v4, rule.trafficRedirect)) {
         rule.trafficRedirect.address = v4->address();
         rule.trafficRedirect.copy = v4->copy();
         actions.set(Flowspec::actionRedirect);
      }
   } else if (auto const* v6 = dynamic_cast<FlowspecExtCommRedirectIpv6 const*>(extComm)) {
      if (shouldExport(sm.afiSafi(), v6, rule.trafficRedirect)) {
         rule.trafficRedirect.address = v6->address();
         rule.trafficRedirect.copy = v6->copy();
         actions.set(Flowspec::actionRedirect);
      }
   } else if (auto const* nh = dynamic_cast<FlowspecExtCommRedirectNexthop const*>(extComm)) {
      auto const* genNexthop = dynamic_cast<FlowspecGenNexthop const*>(pathAttrs.nexthop.ptr());
      OVK_ASSERT(genNexthop);
      if (shouldExport(nh, genNexthop->addr(), rule.trafficRedirect)) {
         actions.set(Flowspec::actionRedirect);
         redirectNexthopIpSet = true;
         rule.trafficRedirect.address = genNexthop->addr();
         rule.trafficRedirect.copy = nh->copy();
      }
   } else if (auto const* vrfAs = dynamic_cast<FlowspecExtCommRedirectVrfRdAs const*>(extComm)) {
      translateRedirVrf(sm, rule, actions, redirectNexthopIpSet, routeKey, vrfAs->isAs4() ? 2 : 0, 0x02,
                        vrfAs->value());
   } else if (auto const* vrfIp = dynamic_cast<FlowspecExtCommRedirectVrfRdIpv4 const*>(extComm)) {
      translateRedirVrf(sm, rule, actions, redirectNexthopIpSet, routeKey, 1, 0x02, vrfIp->value());
   } else {
      OVK_ASSERT(false && "Unhandled rule with classification flowspec");
   }
}

template void translateExtComm<ExtComm>(FlowspecRouteConfigSm&, ExtComm const*, PathAttributesContents const&,
                                        Flowspec::Rule&, Flowspec::ActionFieldSet&, bool&, FlowspecRouteKey const&);
template void translateExtComm<ExtCommIp6>(FlowspecRouteConfigSm&, ExtCommIp6 const*, PathAttributesContents const&,
                                           Flowspec::Rule&, Flowspec::ActionFieldSet&, bool&, FlowspecRouteKey const&);

// ---- FlowspecRouteConfigSm ----

class FlowspecRouteConfigSm::RtAfiSafiReactor : public RtToVrfIdList::Reactor {
 public:
   RtAfiSafiReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<RtToVrfIdList> list) : Reactor(std::move(list)), sm_(sm) {}
   ~RtAfiSafiReactor() override { hasNotificationActiveIs(false); }
   void handleKey(AfiSafi const& afiSafi) override { sm_.handleRtAfiSafi(afiSafi); }

 private:
   FlowspecRouteConfigSm& sm_;
};

FlowspecRouteConfigSm::FlowspecRouteConfigSm(BgpVrfIdBase vrfIdBase, AfiSafi afiSafi,
                                             Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> routeTable,
                                             Ovk::Ptr<Mnemo::EntityManager> entityManager,
                                             Ovk::Ptr<RtToVrfIdList> rtToVrfIdList,
                                             Ovk::Ptr<CoreDedupTables> coreDedupTables,
                                             Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId)
    : FwdTgtRouteConfigSm(vrfIdBase, afiSafi, ForwardingTarget::flowspec, std::move(routeTable)),
      entityManager_(std::move(entityManager)), rtToVrfIdList_(std::move(rtToVrfIdList)),
      coreDedupTables_(std::move(coreDedupTables)), rkToRedirVrfId_(std::move(rkToRedirVrfId)) {
   if (rtToVrfIdList_) rtAfiSafiReactor_ = std::make_unique<RtAfiSafiReactor>(*this, rtToVrfIdList_);
   handleInitialized();
}

FlowspecRouteConfigSm::~FlowspecRouteConfigSm() {
   vpnAfiSafiReactor_ = nullptr;
   rtAfiSafiReactor_ = nullptr;
}

Ovk::FwkType const& FlowspecRouteConfigSm::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecRouteConfigSm");
   return type;
}

Ovk::FwkType const& FlowspecRouteConfigSm::fwkType() const { return classFwkType(); }

AfiSafi FlowspecRouteConfigSm::redirVrfRtAfiSafi() const {
   OVK_ASSERT(afiSafi().afi() == Afi::afiIpv4 || afiSafi().afi() == Afi::afiIpv6);
   return afiSafi().afi() == Afi::afiIpv4 ? kIpv4UnicastAfiSafi : kIpv6UnicastAfiSafi;
}

AfiSafi FlowspecRouteConfigSm::redirVrfVpnAfiSafi() const {
   OVK_ASSERT(afiSafi().afi() == Afi::afiIpv4 || afiSafi().afi() == Afi::afiIpv6);
   return afiSafi().afi() == Afi::afiIpv4 ? kVpnIpv4AfiSafi : kVpnIpv6AfiSafi;
}

void FlowspecRouteConfigSm::vpnAfiSafiReactorIs(std::unique_ptr<FlowspecVpnAfiSafiReactor> reactor) {
   // The old one goes first: it may re-translate while it detaches nothing.
   vpnAfiSafiReactor_ = nullptr;
   vpnAfiSafiReactor_ = std::move(reactor);
   if (vpnAfiSafiReactor_) vpnAfiSafiReactor_->hasNotificationActiveIs(true);
}

FlowspecRouteKeySet* FlowspecRouteConfigSm::rtToRouteKeySet(ExtComm const* rt) const {
   auto const it = rtToRouteKeySet_.find(rt);
   return it == rtToRouteKeySet_.end() ? nullptr : it->second.ptr();
}

FlowspecRouteKeySet& FlowspecRouteConfigSm::rtToRouteKeySetIs(Ovk::Ptr<ExtComm const> const& rt) {
   Ovk::Ptr<FlowspecRouteKeySet>& set = rtToRouteKeySet_[rt.ptr()];
   if (!set) set = Ovk::makePtr<FlowspecRouteKeySet>(rt);
   return *set;
}

void FlowspecRouteConfigSm::rtToRouteKeySetDel(ExtComm const* rt) { rtToRouteKeySet_.erase(rt); }

void FlowspecRouteConfigSm::forgetRedirects(FlowspecRouteKey const& key) {
   for (auto it = rtToRouteKeySet_.begin(); it != rtToRouteKeySet_.end();) {
      it->second->routeKeyDel(&key);
      if (it->second->routeKeys() == 0) {
         it = rtToRouteKeySet_.erase(it);
      } else {
         ++it;
      }
   }
   if (rkToRedirVrfId_) rkToRedirVrfId_->mapDel(&key);
}

void FlowspecRouteConfigSm::retranslateAll() {
   std::vector<Ovk::Ptr<RouteKey const>> keys;
   for (auto const& [rt, set] : rtToRouteKeySet_) {
      for (FlowspecRouteKey const* k : set->routeKey()) keys.emplace_back(k);
   }
   for (auto const& k : keys) handleRouteEntry(k.ptr());
}

void FlowspecRouteConfigSm::handleRouteEntry(RouteKey const* baseRouteKey) {
   if (!fsib_) {
      OVK_TRACE(flowspecTraceFacility(), 8, "FSIB is not initialized yet, deferring");
      return;
   }
   OVK_ASSERT(baseRouteKey);
   auto const* routeKey = dynamic_cast<FlowspecRouteKey const*>(baseRouteKey);
   OVK_ASSERT(routeKey);
   forgetRedirects(*routeKey);
   if (!routeKey->wontExportReason().empty()) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "Ignoring rule with routeKey " << *routeKey << " (" << routeKey->wontExportReason() << ")");
      ++counters_.notExportable;
      return;
   }
   bool const present = routeTable() && routeTable()->routeKeyPresent(*routeKey);
   bool const inFsib = inFsib_.count(routeKey) != 0;
   // A rule the full FSIB would refuse is counted without building its slate key.
   if (present && !inFsib && fsib_->ruleCount() >= fsib_->ruleCapacity()) {
      fsib_->refusalNote();
      countRefusedFull(*routeKey);
      return;
   }
   if (!present && !inFsib) return; // nothing to delete
   Flowspec::FlowspecSlateKey slateKey;
   slateKey.copyInFlowspecKey(routeKey->slateKey());
   if (!present) {
      if (fsib_->ruleDel(slateKey)) ++counters_.deleted;
      inFsib_.erase(routeKey);
      return;
   }
   PathAttributesContents const* pathAttrs = routeTable()->getEffectivePathAttrs(*routeKey);
   OVK_ASSERT(pathAttrs);
   Flowspec::Rule rule;
   rule.key = std::move(slateKey);
   Flowspec::ActionFieldSet actions(Flowspec::actionNone);
   // The two lists have a next-hop flag each: a next-hop redirect of the first list is not
   // withdrawn by a redirect to a VRF in the second.
   bool redirectNexthopIpSet = false;
   for (ExtCommIp6 const* c : pathAttrs->extCommIp6List.classificationList(extCommClassificationFlowspec())) {
      translateExtComm(*this, c, *pathAttrs, rule, actions, redirectNexthopIpSet, *routeKey);
   }
   redirectNexthopIpSet = false;
   for (ExtComm const* c : pathAttrs->extCommList.classificationList(extCommClassificationFlowspec())) {
      translateExtComm(*this, c, *pathAttrs, rule, actions, redirectNexthopIpSet, *routeKey);
   }
   if (actions.any(0x7d)) actions.clear(Flowspec::actionNone);
   // A redirect to an address without a VRF goes to this VRF's table.
   if (actions.has(Flowspec::actionRedirect) && rule.trafficRedirect.vrfId == Flowspec::TrafficRedirect::noVrfId) {
      rule.trafficRedirect.vrfId = vrfIdBase().value();
   }
   rule.actions = actions;
   rule.ruleId = static_cast<std::uint32_t>(routeKey->ruleId());
   switch (fsib_->ruleIs(rule)) {
   case Flowspec::RuleIsResult::added:
      ++counters_.added;
      inFsib_.insert(routeKey);
      break;
   case Flowspec::RuleIsResult::replaced:
      ++counters_.replaced;
      inFsib_.insert(routeKey);
      break;
   case Flowspec::RuleIsResult::refusedFull: countRefusedFull(*routeKey); break;
   case Flowspec::RuleIsResult::refusedDetached: break;
   }
}

void FlowspecRouteConfigSm::countRefusedFull(FlowspecRouteKey const& key) {
   ++counters_.refusedFull;
   if (auto best = routeTable()->ribTable().bestPath(key)) ++counters_.refusedFullBySource[best->source];
}

void FlowspecRouteConfigSm::handleInitialized() {
   OVK_TRACE(flowspecTraceFacility(), 8, "FlowspecRouteConfigSm(" << afiSafi() << " vrf=" << vrfIdBase() << ")");
   OVK_ASSERT(entityManager_);
   Mnemo::mountFsib(*entityManager_);
   fsib_ = Mnemo::fsibOf(*entityManager_);
   OVK_ASSERT_MSG(fsib_, "fsib()");
   // Every start begins from an empty FSIB: an earlier run's rules are removed, not
   // reconciled.
   fsib_->ruleDelAll();
   inFsib_.clear();
   hasNotificationActiveIs(true);
   handleRouteEntryAll();
   handleRtAfiSafiAll();
}

void FlowspecRouteConfigSm::handleDestroyed() {
   OVK_TRACE(flowspecTraceFacility(), 8, "FlowspecRouteConfigSm(" << afiSafi() << " vrf=" << vrfIdBase() << ")");
   if (entityManager_ && fsib_) Mnemo::unmountFsib(*entityManager_);
   fsib_ = nullptr;
   inFsib_.clear();
   vpnAfiSafiReactor_ = nullptr;
   if (rtAfiSafiReactor_) rtAfiSafiReactor_->hasNotificationActiveIs(false);
   rtToRouteKeySet_.clear();
}

void FlowspecRouteConfigSm::handleRtAfiSafi(AfiSafi afiSafi) {
   if (afiSafi != redirVrfRtAfiSafi()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "ignoring " << afiSafi);
      return;
   }
   OVK_TRACE(flowspecTraceFacility(), 8, afiSafi);
   Ovk::Ptr<AfiSafiRtToVrfIdList> const* list = rtToVrfIdList_ ? rtToVrfIdList_->find(afiSafi) : nullptr;
   if (list && *list) {
      vpnAfiSafiReactorIs(std::make_unique<FlowspecVpnAfiSafiReactor>(*this, *list));
      return;
   }
   vpnAfiSafiReactorIs(nullptr);
   retranslateAll();
}

void FlowspecRouteConfigSm::handleRtAfiSafiAll() {
   if (!rtAfiSafiReactor_) return;
   if (!rtAfiSafiReactor_->notificationActive()) {
      // Switching the reactor on runs this for every family of the list.
      rtAfiSafiReactor_->hasNotificationActiveIs(true);
      return;
   }
   std::vector<AfiSafi> families;
   for (auto const& [f, l] : rtToVrfIdList_->entries()) families.push_back(f);
   for (AfiSafi const f : families) handleRtAfiSafi(f);
}

std::string FlowspecRouteConfigSm::notInForwardingReason(RouteKey const& key) const {
   auto const* routeKey = dynamic_cast<FlowspecRouteKey const*>(&key);
   if (!routeKey) return "not a flowspec rule";
   if (!routeKey->wontExportReason().empty()) {
      std::string why;
      FlowspecWontExportReason const r = routeKey->wontExportReason();
      if (r.unrecognizedTail()) why += "unrecognized component";
      if (r.nonZeroIpv6Offset()) why += std::string(why.empty() ? "" : ", ") + "IPv6 prefix offset";
      if (r.componentTypeMoreThanOnce()) why += std::string(why.empty() ? "" : ", ") + "component type repeated";
      return "cannot be forwarded: " + why;
   }
   if (!fsib_) return "FSIB not mounted";
   if (inFsib_.count(routeKey)) return {};
   if (!routeTable() || !routeTable()->routeKeyPresent(key)) return "no best path";
   return "FSIB full";
}

// ---- FlowspecRouteConfigSmFactory ----

FlowspecRouteConfigSmFactory::FlowspecRouteConfigSmFactory(AfiSafi afiSafi,
                                                           Ovk::Ptr<Mnemo::EntityManager> entityManager,
                                                           Ovk::Ptr<RtToVrfIdList> rtToVrfIdList,
                                                           Ovk::Ptr<CoreDedupTables> coreDedupTables,
                                                           Ovk::Ptr<FlowspecRkToRedirVrfId> rkToRedirVrfId)
    : RouteConfigSmFactoryBase(afiSafi), entityManager_(std::move(entityManager)),
      rtToVrfIdList_(std::move(rtToVrfIdList)), coreDedupTables_(std::move(coreDedupTables)),
      rkToRedirVrfId_(std::move(rkToRedirVrfId)) {}

Ovk::FwkType const& FlowspecRouteConfigSmFactory::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecRouteConfigSmFactory");
   return type;
}

Ovk::FwkType const& FlowspecRouteConfigSmFactory::fwkType() const { return classFwkType(); }

Ovk::Ptr<FwdTgtRouteConfigSm> FlowspecRouteConfigSmFactory::instantiate(
    BgpVrfIdBase const& vrfIdBase, Ovk::Ptr<RibRouteVrfAfiSafiFwdTgtTable> const& routeTable,
    Ovk::Ptr<NexthopListMapBase const> const&) {
   return Ovk::makePtr<FlowspecRouteConfigSm>(vrfIdBase, afiSafi(), routeTable, entityManager_, rtToVrfIdList_,
                                              coreDedupTables_, rkToRedirVrfId_);
}

void FlowspecRouteConfigSmFactory::detach(Ovk::Ptr<FwdTgtRouteConfigSm> const& sm) {
   auto const configSm = Ovk::ptrCast<FlowspecRouteConfigSm>(sm);
   OVK_ASSERT_MSG(configSm, "configSm");
   if (configSm->fsib()) configSm->fsib()->detach();
}

} // namespace Routing::Bgp::FlowspecPlugin
