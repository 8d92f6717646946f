// The plugin's entry: what happens when the agent loads libBgpFlowspec.so, and the main
// object of each family.
#include "BgpFlowspec/FlowspecPlugin.h"
#include "host/fwk/FwkType.h"

#include <cstdlib>
#include <cstring>
#include <ostream>
#include <typeindex>

#include "BgpFlowspec/FlowspecFsibExport.h"
#include "BgpFlowspec/FlowspecOvrow.h"
#include "BgpFlowspec/FlowspecPluginHoardReaders.h"
#include "host/fwk/Assert.h"
#include "host/fwk/Trace.h"

namespace Routing::Bgp::FlowspecPlugin {

// ---- FlowspecPluginMain ----

FlowspecPluginMain::FlowspecPluginMain(Ovk::Ptr<Context> context, AfiSafi afiSafi)
    : context_(std::move(context)), afiSafi_(afiSafi) {
   handleInitialized();
}

FlowspecPluginMain::~FlowspecPluginMain() {
   handleDestroy();
   vrfPluginSmDel();
   parsePluginSmDel();
   parseExtCommSmDel();
   afiSafiHelpersDel();
   rkToRedirVrfIdDel();
}

Ovk::Ptr<FlowspecPluginMain> FlowspecPluginMain::FlowspecPluginMainIs(Ovk::Ptr<Context> context, AfiSafi afiSafi) {
   auto main = Ovk::makePtr<FlowspecPluginMain>(std::move(context), afiSafi);
   main->hasNotificationActiveIs(true);
   return main;
}

Ovk::Ptr<FlowspecPluginMain> flowspecPluginMainFactory(Ovk::Ptr<Context> context, AfiSafi afiSafi) {
   return FlowspecPluginMain::FlowspecPluginMainIs(std::move(context), afiSafi);
}

OVK_FWK_TYPE(FlowspecPluginMain, "Routing::Bgp::FlowspecPlugin::FlowspecPluginMain")

std::ostream& operator<<(std::ostream& os, FlowspecPluginMain const& main) {
   return os << "FlowspecPluginMain(" << main.afiSafi() << ")";
}

void FlowspecPluginMain::hasNotificationActiveIs(bool on) {
   PluginMainBase::hasNotificationActiveIs(on);
   if (vrfPluginSm_) vrfPluginSm_->hasNotificationActiveIs(on);
   if (parsePluginSm_) parsePluginSm_->hasNotificationActiveIs(on);
   if (parseExtCommSm_) parseExtCommSm_->hasNotificationActiveIs(on);
}

template <class T, class... Args>
void FlowspecPluginMain::registerNexthopType(Args&&... args) {
   Ovk::Ptr<Hoard::AttributeCacheStatus> const status = context_->attributeCacheStatus();
   OVK_ASSERT_MSG(status, "Orrery is not initialized");
   // A throw-away instance tells the entry its dynamic type and its type's name; it never
   // enters a table.
   Ovk::Ptr<T> const instance = Ovk::makePtr<T>(std::forward<Args>(args)...);
   instance->hasNotificationActiveIs(true);
   auto entry = Hoard::AttributeCacheEntry::create(std::type_index(typeid(*instance)));
   entry->typeNameIs(Ovk::String(instance->fwkType().name()));
   status->entryIs(entry);
}

void FlowspecPluginMain::handleInitialized() {
   OVK_TRACE(flowspecTraceFacility(), 8, *this << " initializing plugin");
   parsePluginSmIs(context_->parseRuleCollections(afiSafi_), afiSafi_);
   parseExtCommSmIs(context_->parseExtCommRuleCollections());
   afiSafiHelpersIs(afiSafi_);
   afiSafiHelpers_->hookIs(Plugin::HookId::constructAdjRibin, Ovk::makePtr<FlowspecConstructAdjRibinPlugin>(afiSafi_));
   rkToRedirVrfIdIs();
   addExportHooks();
   addShowHooks();
   afiSafiHelpers_->hookIs(Plugin::HookId::transportNexthop, Ovk::makePtr<FlowspecTransportNexthopPlugin>(afiSafi_));
   addSummaryHook();
   // One forwarding-target helper per context: the first family to start registers it.
   if (context_->fwdTgtHelpers().count(ForwardingTarget::flowspec) == 0) {
      context_->registerForwardingTarget(Ovk::makePtr<FlowspecFwdTgtHelper>());
   }
   registerNexthopType<FlowspecGenNexthop>(Afi::afiIpv4, Ovnet::IpGenAddr::ipv4(0u), Ovk::String());
   registerNexthopType<FlowspecPolicyRejectNexthop>(Afi::afiIpv4);
   registerNexthopType<FlowspecNexthopSelf>(Afi::afiIpv4);
   vrfPluginSmIs(afiSafi_, context_, afiSafiHelpers_->bgpAfiSafiDedupTablesAllVrf());
   context_->registerHelpers(afiSafiHelpers_);
   context_->pluginMainIs(afiSafi_, Ovk::Ptr<Plugin::PluginMainBase>(this));
}

void FlowspecPluginMain::addExportHooks() {
   if (!context_->entityManager()) {
      OVK_TRACE(flowspecTraceFacility(), 3, "No entityManager, not creating routeConfigSmFactory");
      return;
   }
   auto factory = Ovk::makePtr<FlowspecRouteConfigSmFactory>(
       afiSafi_, context_->entityManager(), context_->rtToVrfIdList(), context_->coreDedupTables(), rkToRedirVrfId_,
       context_->taskScheduler());
   factory->hasNotificationActiveIs(true);
   afiSafiHelpers_->hookIs(Plugin::HookId::routeConfigSmFactory, factory);
}

void FlowspecPluginMain::addShowHooks() {
   afiSafiHelpers_->hookIs(Plugin::HookId::ovrow, Ovk::makePtr<FlowspecOvrowPlugin>(afiSafi_));
}

void FlowspecPluginMain::addSummaryHook() {
   afiSafiHelpers_->hookIs(Plugin::HookId::show, Ovk::makePtr<FlowspecShowPlugin>());
}

void FlowspecPluginMain::handleDestroy() { OVK_TRACE(flowspecTraceFacility(), 8, *this); }

Ovk::Ptr<FlowspecVrfPluginSm> FlowspecPluginMain::vrfPluginSmIs(AfiSafi afiSafi, Ovk::Ptr<Context> const& context,
                                                                Ovk::Ptr<BgpAfiSafiDedupTablesAllVrf> const& tables) {
   if (vrfPluginSm_ && vrfPluginSm_->afiSafi() == afiSafi) return vrfPluginSm_;
   vrfPluginSmDel();
   vrfPluginSm_ = FlowspecVrfPluginSm::FlowspecVrfPluginSmIs(afiSafi, context, tables);
   return vrfPluginSm_;
}

void FlowspecPluginMain::vrfPluginSmDel() {
   if (!vrfPluginSm_) return;
   vrfPluginSm_->hasNotificationActiveIs(false);
   vrfPluginSm_ = nullptr;
}

Ovk::Ptr<FlowspecParsePluginSm> FlowspecPluginMain::parsePluginSmIs(
    Ovk::Ptr<BgpParseRuleCollections const> const& collections, AfiSafi afiSafi) {
   if (parsePluginSm_ && parsePluginSm_->afiSafi() == afiSafi && parsePluginSm_->ruleCollections() == collections) {
      return parsePluginSm_;
   }
   parsePluginSmDel();
   parsePluginSm_ = FlowspecParsePluginSm::FlowspecParsePluginSmIs(collections, afiSafi);
   return parsePluginSm_;
}

void FlowspecPluginMain::parsePluginSmDel() {
   if (!parsePluginSm_) return;
   parsePluginSm_->hasNotificationActiveIs(false);
   parsePluginSm_ = nullptr;
}

Ovk::Ptr<FlowspecParseExtCommSm> FlowspecPluginMain::parseExtCommSmIs(
    Ovk::Ptr<ExtCommParseRuleCollections const> const& collections) {
   if (parseExtCommSm_ && parseExtCommSm_->ruleCollections() == collections) return parseExtCommSm_;
   parseExtCommSmDel();
   parseExtCommSm_ = FlowspecParseExtCommSm::FlowspecParseExtCommSmIs(collections);
   return parseExtCommSm_;
}

void FlowspecPluginMain::parseExtCommSmDel() {
   if (!parseExtCommSm_) return;
   parseExtCommSm_->hasNotificationActiveIs(false);
   parseExtCommSm_ = nullptr;
}

Ovk::Ptr<FlowspecAfiSafiHelpers> FlowspecPluginMain::afiSafiHelpersIs(AfiSafi afiSafi) {
   if (afiSafiHelpers_ && afiSafiHelpers_->afiSafi() == afiSafi) return afiSafiHelpers_;
   afiSafiHelpers_ = Ovk::makePtr<FlowspecAfiSafiHelpers>(afiSafi);
   return afiSafiHelpers_;
}

void FlowspecPluginMain::afiSafiHelpersDel() { afiSafiHelpers_ = nullptr; }

Ovk::Ptr<FlowspecRkToRedirVrfId> FlowspecPluginMain::rkToRedirVrfIdIs() {
   if (!rkToRedirVrfId_) rkToRedirVrfId_ = Ovk::makePtr<FlowspecRkToRedirVrfId>();
   return rkToRedirVrfId_;
}

void FlowspecPluginMain::rkToRedirVrfIdDel() { rkToRedirVrfId_ = nullptr; }

// ---- The plugin objects ----

FlowspecFamilyPlugin::FlowspecFamilyPlugin(char const* name, AfiSafi afiSafi) : name_(name), afiSafi_(afiSafi) {
   auto& loader = Plugin::DefaultPluginLoader();
   using Caller = Plugin::Loader<Context>::LoaderInitCallerWithContext;
   auto const caller = Ovk::makePtr<Caller>(&loader, initCaller());
   loader.initCallers().push_back(caller);
   loader.registerPlugin(loader.firstId(), name_, loader.secondId(), "", "", caller);
}

FlowspecFamilyPlugin::~FlowspecFamilyPlugin() { main_ = nullptr; }

void FlowspecFamilyPlugin::init(Context* context) {
   main_ = FlowspecPluginMain::FlowspecPluginMainIs(Ovk::Ptr<Context>(context), afiSafi_);
   OVK_TRACE(flowspecTraceFacility(), 5, name_ << " loaded!!");
}

void FlowspecFamilyPlugin::tearDown(Context* context) {
   if (main_ && main_->context().ptr() == context) main_ = nullptr;
}

namespace {

// Read once when the library loads; the transport next hop does not consult it.
[[maybe_unused]] bool const ipv6LinkLocalPeeringToggle = [] {
   char const* v = std::getenv("OvBgpIpv6LinkLocalPeeringToggle");
   return v && std::strcmp(v, "1") == 0;
}();

// Static construction of the library registers, in this order, the attribute-cache readers
// of the flowspec next hops (so that a restarting agent can rebuild persisted next hops
// before any plugin runs) and then the two plugin objects. Registration only.
struct LoadTimeRegistration {
   LoadTimeRegistration() { FlowspecOrreryInitializer::initialize(); }
};
LoadTimeRegistration const loadTimeRegistration;
FlowspecIpv4Plugin ipv4Plugin;
FlowspecIpv6Plugin ipv6Plugin;

} // namespace

FlowspecIpv4Plugin& flowspecIpv4Plugin() { return ipv4Plugin; }
FlowspecIpv6Plugin& flowspecIpv6Plugin() { return ipv6Plugin; }

} // namespace Routing::Bgp::FlowspecPlugin
