#include "BgpFlowspec/FlowspecPluginHoardReaders.h"

#include "host/hoard/AttributeCache.h"

namespace Routing::Bgp::FlowspecPlugin {

// ---- FlowspecGenNexthopHoardReader ----

FlowspecGenNexthopHoardReader::~FlowspecGenNexthopHoardReader() = default;

Ovk::FwkType const& FlowspecGenNexthopHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecGenNexthopHoardReader::fwkType() const { return classFwkType(); }

// ---- FlowspecPolicyRejectNexthopHoardReader ----

FlowspecPolicyRejectNexthopHoardReader::~FlowspecPolicyRejectNexthopHoardReader() = default;

Ovk::FwkType const& FlowspecPolicyRejectNexthopHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthopHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecPolicyRejectNexthopHoardReader::fwkType() const { return classFwkType(); }

// ---- FlowspecNexthopSelfHoardReader ----

FlowspecNexthopSelfHoardReader::~FlowspecNexthopSelfHoardReader() = default;

Ovk::FwkType const& FlowspecNexthopSelfHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecNexthopSelfHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecNexthopSelfHoardReader::fwkType() const { return classFwkType(); }

// ---- FlowspecOrreryInitializer ----

void FlowspecOrreryInitializer::initialize() {
   Hoard::NameMap& names = Hoard::NameMap::instance();
   names.insert(Ovk::makePtr<FlowspecGenNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecPolicyRejectNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecNexthopSelfHoardReader>());
}

} // namespace Routing::Bgp::FlowspecPlugin
