#include "BgpFlowspec/FlowspecRedirectVrfId.h"

#include <ostream>
#include <vector>

#include "BgpFlowspec/FlowspecFsibExport.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

std::string FlowspecRedirVrfId::valueToStrep() const {
   return "Value('Routing::Bgp::FlowspecPlugin::FlowspecRedirVrfId', ** {'vrfId': " + std::to_string(vrfId) +
          ", 'flowspecExtComm': " + std::to_string(flowspecExtComm) + "})";
}

std::ostream& operator<<(std::ostream& os, FlowspecRedirVrfId const& v) { return os << v.valueToStrep(); }

Ovk::FwkType const& FlowspecRkToRedirVrfId::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecRkToRedirVrfId");
   return type;
}

} // namespace Routing::Bgp::FlowspecPlugin

// ---- Redirect to VRF in the export ----

namespace Routing::Bgp::FlowspecPlugin {

void translateRedirVrf(FlowspecRouteConfigSm& sm, Flowspec::Rule& rule, Flowspec::ActionFieldSet& actions,
                       bool redirectNexthopIpSet, FlowspecRouteKey const& routeKey, std::uint8_t rtType,
                       std::uint8_t rtSubtype, std::uint64_t value) {
   if (redirectNexthopIpSet) {
      // A redirect to a VRF beats a next-hop redirect chosen earlier in the same list.
      OVK_TRACE(flowspecTraceFacility(), 8, "redirect-vrf: un-exporting redirect-nexthop-ip");
      actions.clear(Flowspec::actionRedirect);
      rule.trafficRedirect.vrfId = Flowspec::TrafficRedirect::noVrfId;
      rule.trafficRedirect.address = Ovnet::IpGenAddr();
   }
   // The route target: its type, subtype 0x02 and the community's low six bytes.
   std::uint64_t const rtValue =
       std::uint64_t{rtType} << 56 | std::uint64_t{rtSubtype} << 48 | (value & 0xffffffffffffull);
   Ovk::Ptr<ExtComm const> const rt = sm.coreDedupTables()->extCommIs(ExtComm::createBase(rtValue));
   // The dependency comes first: the rule is translated again when the route target's
   // import changes, whether or not it resolves now.
   sm.rtToRouteKeySetIs(rt).routeKeyIs(&routeKey);
   AfiSafi const rtAfiSafi = sm.redirVrfRtAfiSafi();
   AfiSafi const vpnAfiSafi = sm.redirVrfVpnAfiSafi();
   Ovk::Ptr<AfiSafiRtToVrfIdList> const* afiSafiList =
       sm.rtToVrfIdList() ? sm.rtToVrfIdList()->find(rtAfiSafi) : nullptr;
   if (!afiSafiList || !*afiSafiList) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "redirect-vrf: could not find VRF import config for rtAfiSafi: " << rtAfiSafi);
      return;
   }
   Ovk::Ptr<VpnRtToVrfIdList> const* vpnList = (*afiSafiList)->find(vpnAfiSafi);
   if (!vpnList || !*vpnList) {
      OVK_TRACE(flowspecTraceFacility(), 8,
                "redirect-vrf: could not find VRF import config for vpnAfiSafi: " << vpnAfiSafi);
      return;
   }
   Ovk::Ptr<VrfIdList const> const* vrfs = (*vpnList)->find(rt);
   if (!vrfs || !*vrfs || (*vrfs)->vrfs.empty()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "redirect-vrf: could not find VRF import config for rt: " << *rt);
      return;
   }
   std::uint32_t const vrfId = (*vrfs)->vrfs.begin()->first;
   rule.trafficRedirect.vrfId = vrfId;
   actions.set(Flowspec::actionRedirect);
   if (sm.rkToRedirVrfId()) sm.rkToRedirVrfId()->mapIs(&routeKey, FlowspecRedirVrfId{vrfId, value});
}

// ---- Reactors ----

FlowspecRtExtCommReactor::FlowspecRtExtCommReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<VpnRtToVrfIdList> list)
    : Reactor(std::move(list)), sm_(sm) {}

FlowspecRtExtCommReactor::~FlowspecRtExtCommReactor() { hasNotificationActiveIs(false); }

void FlowspecRtExtCommReactor::handleRtExtComm(Ovk::Ptr<ExtComm const> const& rt) {
   Ovk::Ptr<VrfIdList const> const* vrfs = notifier()->find(rt);
   OVK_TRACE(flowspecTraceFacility(), 8,
             "FlowspecRtExtCommReactor " << *rt << ", " << (vrfs && *vrfs ? (*vrfs)->vrfs.size() : 0) << " vrf(s)");
   FlowspecRouteKeySet* const set = sm_.rtToRouteKeySet(rt.ptr());
   if (!set) return;
   OVK_TRACE(flowspecTraceFacility(), 8,
             "afi=" << static_cast<unsigned>(sm_.afiSafi().afi()) << " safi=" << unsigned{sm_.afiSafi().safi()}
                    << " rt=" << rt->toStrep());
   // Collected first: each translation changes the set.
   std::vector<Ovk::Ptr<RouteKey const>> keys(set->routeKey().begin(), set->routeKey().end());
   for (auto const& k : keys) sm_.handleRouteEntry(k.ptr());
}

void FlowspecRtExtCommReactor::handleRtExtCommAll() {
   std::vector<Ovk::Ptr<ExtComm const>> rts;
   for (auto const& [rt, set] : sm_.rtToRouteKeySets()) rts.push_back(set->rtExtComm());
   for (auto const& rt : rts) handleRtExtComm(rt);
}

FlowspecVpnAfiSafiReactor::FlowspecVpnAfiSafiReactor(FlowspecRouteConfigSm& sm, Ovk::Ptr<AfiSafiRtToVrfIdList> list)
    : Reactor(std::move(list)), sm_(sm) {}

FlowspecVpnAfiSafiReactor::~FlowspecVpnAfiSafiReactor() {
   rtExtCommReactor_ = nullptr;
   hasNotificationActiveIs(false);
}

void FlowspecVpnAfiSafiReactor::rtExtCommReactorIs(std::unique_ptr<FlowspecRtExtCommReactor> reactor) {
   rtExtCommReactor_ = nullptr;
   rtExtCommReactor_ = std::move(reactor);
   if (rtExtCommReactor_) rtExtCommReactor_->hasNotificationActiveIs(true);
}

void FlowspecVpnAfiSafiReactor::handleVpnAfiSafi(AfiSafi afiSafi) {
   if (afiSafi != sm_.redirVrfVpnAfiSafi()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "ignoring " << afiSafi);
      return;
   }
   Ovk::Ptr<VpnRtToVrfIdList> const* list = notifier()->find(afiSafi);
   if (list && *list) {
      rtExtCommReactorIs(std::make_unique<FlowspecRtExtCommReactor>(sm_, *list));
      return;
   }
   rtExtCommReactorIs(nullptr);
   sm_.retranslateAll();
}

void FlowspecVpnAfiSafiReactor::handleVpnAfiSafiAll() {
   std::vector<AfiSafi> families;
   for (auto const& [f, l] : notifier()->entries()) families.push_back(f);
   for (AfiSafi const f : families) handleVpnAfiSafi(f);
}

} // namespace Routing::Bgp::FlowspecPlugin
