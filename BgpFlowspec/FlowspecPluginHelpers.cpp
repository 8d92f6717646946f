#include "BgpFlowspec/FlowspecPluginHelpers.h"
#include "host/fwk/FwkType.h"

#include <ostream>
#include <sstream>

#include "BgpFlowspec/FlowspecRouteKey.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

std::string nexthopText(GenNexthop const* nh) {
   if (!nh) return "none";
   std::ostringstream os;
   os << *nh;
   return os.str();
}

} // namespace

// ---- FlowspecVrfPluginSm ----

FlowspecVrfPluginSm::FlowspecVrfPluginSm(AfiSafi afiSafi, Ovk::Ptr<Context> context,
                                         Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> tables)
    : VrfSmPluginBase(std::move(context)), afiSafi_(afiSafi), tables_(std::move(tables)) {}

FlowspecVrfPluginSm::~FlowspecVrfPluginSm() { hasNotificationActiveIs(false); }

Ovk::Ptr<FlowspecVrfPluginSm> FlowspecVrfPluginSm::FlowspecVrfPluginSmIs(AfiSafi afiSafi, Ovk::Ptr<Context> context,
                                                                         Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> tables) {
   auto sm = Ovk::makePtr<FlowspecVrfPluginSm>(afiSafi, std::move(context), std::move(tables));
   sm->hasNotificationActiveIs(true);
   return sm;
}

OVK_FWK_TYPE(FlowspecVrfPluginSm, "Routing::Bgp::FlowspecPlugin::FlowspecVrfPluginSm")

void FlowspecVrfPluginSm::handleVrfCreate(BgpVrfIdBase const& vrfId) {
   OVK_TRACE(flowspecTraceFacility(), 8, "Vrf: " << vrfId);
   if (!(vrfId == BgpL3VrfId::defaultVrfId())) return;
   OVK_ASSERT(pluginContext());
   Context const& context = *pluginContext();
   auto routeKeys = flowspecRouteKeyDedupTableFactory(afiSafi_, vrfId);
   auto notifiee =
       flowspecGenNexthopLifeTimeNotifieeFactory(context.multiThreadedOvbgp(), context.taskScheduler(), "Flowspec");
   auto nexthops = flowspecGenNexthopDedupTableFactory(vrfId, afiSafi_, notifiee, context.nexthopIdAllocator());
   tables_->dedupTablesVrfAfiSafiIs(afiSafi_, vrfId, routeKeys, nexthops);
}

void FlowspecVrfPluginSm::handleVrfDelete(BgpVrfIdBase const& vrfId) {
   OVK_TRACE(flowspecTraceFacility(), 8, "Vrf: " << vrfId);
   // Deliberately not symmetric with create: every VRF is let go of.
   tables_->dedupTablesVrfAfiSafiDel(vrfId);
}

// ---- FlowspecConstructAdjRibinPlugin ----

OVK_FWK_TYPE(FlowspecConstructAdjRibinPlugin, "Routing::Bgp::FlowspecPlugin::FlowspecConstructAdjRibinPlugin")

void FlowspecConstructAdjRibinPlugin::instantiateAdjRibin(
    AdjRibinType type, Ovk::Ptr<AdjRibinCollection> const& collection,
    Ovk::Ptr<BgpInputDedupTables const> const& inputTables) const {
   DedupTablesVrf const* const vrf = inputTables ? inputTables->dedupVrfTablesRawPtr() : nullptr;
   OVK_TRACE(flowspecTraceFacility(), 8,
             "Vrf: " << (vrf ? vrf->vrfId() : BgpVrfIdBase{}) << " " << toStrep(type) << ", initialize "
                     << static_cast<unsigned>(fromAfiSafi(afiSafi_)) << " adjribin");
   auto adjRibin = Ovk::makePtr<FlowspecAdjRibin>(type, fromAfiSafi(afiSafi_), instanceEpoch(), inputTables, nullptr);
   adjRibin->hasNotificationActiveIs(true);
   collection->adjRibinIs(adjRibin);
}

// ---- FlowspecAfiSafiHelpers ----

OVK_FWK_TYPE(FlowspecAfiSafiHelpers, "Routing::Bgp::FlowspecPlugin::FlowspecAfiSafiHelpers")

bool FlowspecAfiSafiHelpers::nlriTypeRequiresRibTable(NlriType nlriType) const {
   OVK_ASSERT_MSG((nlriType == NlriType::ipv4Flowspec) || (nlriType == NlriType::ipv6Flowspec),
                  "( nlriType == NlriType::ipv4Flowspec_ ) || ( nlriType == NlriType::ipv6Flowspec_ )");
   return true;
}

// ---- FlowspecTransportNexthopPlugin ----

OVK_FWK_TYPE(FlowspecTransportNexthopPlugin, "Routing::Bgp::FlowspecPlugin::FlowspecTransportNexthopPlugin")

Ovk::Ptr<GenNexthop const> FlowspecTransportNexthopPlugin::transportAddrToLocalNexthop(
    Ovk::Ptr<GenNexthop const> const& transportNh, Ovk::Ptr<DedupTablesVrf const> const& dedupVrfTables) const {
   BgpVrfIdBase const vrfId = dedupVrfTables ? dedupVrfTables->vrfId() : BgpVrfIdBase{};
   OVK_TRACE(flowspecTraceFacility(), 8,
             "afiSafi: " << afiSafi_ << ", vrfId: " << vrfId << ", localNh: " << nexthopText(transportNh.ptr()));
   DedupTablesVrfAfiSafi const* const tables =
       dedupVrfTables ? dedupVrfTables->dedupTablesVrfAfiSafi(afiSafi_) : nullptr;
   if (!tables) return nullptr;
   auto const* ip = dynamic_cast<IpPlugin::IpGenNexthop const*>(transportNh.ptr());
   OVK_ASSERT_MSG(ip, "transportNh");
   Ovnet::IpGenAddr const addr = ip->addr();
   if (addr.isUnspecified()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "no localAddress provided");
      return nullptr;
   }
   if (afiSafi_.afi() == Afi::afiIpv4 && addr.isIpv6()) {
      OVK_TRACE(flowspecTraceFacility(), 8, "Cannot send a v6 nexthop on a v4 transport");
      return nullptr;
   }
   GenNexthopDedupTableBase const* const nexthopDedupTable = tables->nexthopDedupTableRawPtr();
   OVK_ASSERT(nexthopDedupTable);
   Ovk::Ptr<FlowspecGenNexthop> const nh = flowspecGenNexthopFactory(afiSafi_.afi(), addr, Ovk::String());
   Ovk::Ptr<GenNexthop const> const local =
       nh->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(nexthopDedupTable), false);
   OVK_TRACE(flowspecTraceFacility(), 8,
             "afiSafi: " << afiSafi_ << ", vrfId: " << vrfId << ", returning localNh: " << *local);
   return local;
}

// ---- Forwarding target 7 ----

OVK_FWK_TYPE(FlowspecFwdTgtState, "Routing::Bgp::FlowspecPlugin::FlowspecFwdTgtState")

FlowspecFwdTgtSm::FlowspecFwdTgtSm(ForwardingTarget target, Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                                   Ovk::Ptr<Context> const& context)
    : FwdTgtBaseSm(target, state, context) {
   routeConfigRootSmIs(state->routeFwdTgtTable(), state->nexthopListMap(), context->afiSafiTable());
}

FlowspecFwdTgtSm::~FlowspecFwdTgtSm() { routeConfigRootSmDel(); }

Ovk::Ptr<FlowspecFwdTgtSm> FlowspecFwdTgtSm::FlowspecFwdTgtSmIs(Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                                                                Ovk::Ptr<Context> const& context) {
   auto sm = Ovk::makePtr<FlowspecFwdTgtSm>(ForwardingTarget::flowspec, state, context);
   sm->hasNotificationActiveIs(true);
   return sm;
}

OVK_FWK_TYPE(FlowspecFwdTgtSm, "Routing::Bgp::FlowspecPlugin::FlowspecFwdTgtSm")

void FlowspecFwdTgtSm::routeConfigRootSmIs(Ovk::Ptr<RouteFwdTgtTable const> const& table,
                                           Ovk::Ptr<NexthopListMapBase const> const& nexthopListMap,
                                           Ovk::Ptr<Plugin::AfiSafiHelpersTable const> const& afiSafiTable) {
   routeConfigRootSm_ = Plugin::BgpRibRouteConfigRootSm::BgpRibRouteConfigRootSmIs(table, nexthopListMap, afiSafiTable);
}

void FlowspecFwdTgtSm::routeConfigRootSmDel() {
   if (!routeConfigRootSm_) return;
   routeConfigRootSm_->hasNotificationActiveIs(false);
   routeConfigRootSm_ = nullptr;
}

void FlowspecFwdTgtSm::hasNotificationActiveIs(bool on) {
   FwdTgtBaseSm::hasNotificationActiveIs(on);
   if (routeConfigRootSm_) routeConfigRootSm_->hasNotificationActiveIs(on);
}

void FlowspecFwdTgtSm::nonFileDescriptorCleanup() {
   OVK_ASSERT_MSG(routeConfigRootSm_, "routeConfigRootSm_");
   routeConfigRootSm_->detach();
}

void FlowspecFwdTgtSm::handleTables() {
   if (routeConfigRootSm_) routeConfigRootSm_->handleTables();
}

OVK_FWK_TYPE(FlowspecFwdTgtHelper, "Routing::Bgp::FlowspecPlugin::FlowspecFwdTgtHelper")

Ovk::Ptr<Plugin::FwdTgtStateBase> FlowspecFwdTgtHelper::instantiateFwdTgtState(
    Ovk::Ptr<RouteFwdTgtTable const> const& table) const {
   return Ovk::makePtr<FlowspecFwdTgtState>(table);
}

Ovk::Ptr<Plugin::FwdTgtBaseSm> FlowspecFwdTgtHelper::instantiateFwdTgtSm(Ovk::Ptr<Plugin::FwdTgtStateBase> const& state,
                                                                         Ovk::Ptr<Context> const& context) const {
   return FlowspecFwdTgtSm::FlowspecFwdTgtSmIs(state, context);
}

} // namespace Routing::Bgp::FlowspecPlugin
