#include "BgpFlowspec/FlowspecPluginHoardReaders.h"

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/hoard/AttributeCache.h"

namespace Routing::Bgp::FlowspecPlugin {

// ---- FlowspecGenNexthopHoardReader ----

FlowspecGenNexthopHoardReader::~FlowspecGenNexthopHoardReader() = default;

Ovk::FwkType const& FlowspecGenNexthopHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecGenNexthopHoardReader::fwkType() const { return classFwkType(); }

std::string_view FlowspecGenNexthopHoardReader::typeName() const { return FlowspecGenNexthop::classFwkType().name(); }

Ovk::Ptr<GenNexthop> FlowspecGenNexthopHoardReader::dehoard(void const* image,
                                                            Ovk::Ptr<Hoard::StoreManager> const& storeManager) const {
   return FlowspecGenNexthop::dehoard(image, storeManager);
}

// ---- FlowspecPolicyRejectNexthopHoardReader ----

FlowspecPolicyRejectNexthopHoardReader::~FlowspecPolicyRejectNexthopHoardReader() = default;

Ovk::FwkType const& FlowspecPolicyRejectNexthopHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthopHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecPolicyRejectNexthopHoardReader::fwkType() const { return classFwkType(); }

std::string_view FlowspecPolicyRejectNexthopHoardReader::typeName() const {
   return FlowspecPolicyRejectNexthop::classFwkType().name();
}

Ovk::Ptr<GenNexthop> FlowspecPolicyRejectNexthopHoardReader::dehoard(
    void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager) const {
   return FlowspecPolicyRejectNexthop::dehoard(image, storeManager);
}

// ---- FlowspecNexthopSelfHoardReader ----

FlowspecNexthopSelfHoardReader::~FlowspecNexthopSelfHoardReader() = default;

Ovk::FwkType const& FlowspecNexthopSelfHoardReader::classFwkType() {
   static constexpr Ovk::FwkType type("Routing::Bgp::FlowspecPlugin::FlowspecNexthopSelfHoardReader");
   return type;
}

Ovk::FwkType const& FlowspecNexthopSelfHoardReader::fwkType() const { return classFwkType(); }

std::string_view FlowspecNexthopSelfHoardReader::typeName() const { return FlowspecNexthopSelf::classFwkType().name(); }

Ovk::Ptr<GenNexthop> FlowspecNexthopSelfHoardReader::dehoard(void const* image,
                                                             Ovk::Ptr<Hoard::StoreManager> const& storeManager) const {
   return FlowspecNexthopSelf::dehoard(image, storeManager);
}

// ---- FlowspecOrreryInitializer ----

void FlowspecOrreryInitializer::initialize() {
   Hoard::NameMap& names = Hoard::NameMap::instance();
   names.insert(Ovk::makePtr<FlowspecGenNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecPolicyRejectNexthopHoardReader>());
   names.insert(Ovk::makePtr<FlowspecNexthopSelfHoardReader>());
}

} // namespace Routing::Bgp::FlowspecPlugin
