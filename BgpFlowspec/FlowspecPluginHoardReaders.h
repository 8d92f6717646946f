// Attribute-cache readers of the flowspec next-hop types.
//
// A restarting agent finds its persisted next hops by type name: each reader's typeName()
// is the framework type name of the type it rebuilds, the same name the attribute-cache
// entry of that type carries.
#pragma once

#include <string_view>

#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/bgp/GenNexthopHoardReader.h"

namespace Routing::Bgp::FlowspecPlugin {

// The reader of next-hop type T: its name is T's type name, and it rebuilds through
// T::dehoard.
template <class T>
class FlowspecNexthopHoardReaderOf : public GenNexthopHoardReader {
 public:
   std::string_view typeName() const override { return T::classFwkType().name(); }
   Ovk::Ptr<GenNexthop> dehoard(void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager) const override {
      return T::dehoard(image, storeManager);
   }

 protected:
   ~FlowspecNexthopHoardReaderOf() override = default;
};

class FlowspecGenNexthopHoardReader : public FlowspecNexthopHoardReaderOf<FlowspecGenNexthop> {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

 protected:
   ~FlowspecGenNexthopHoardReader() override;
};

class FlowspecPolicyRejectNexthopHoardReader : public FlowspecNexthopHoardReaderOf<FlowspecPolicyRejectNexthop> {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

 protected:
   ~FlowspecPolicyRejectNexthopHoardReader() override;
};

class FlowspecNexthopSelfHoardReader : public FlowspecNexthopHoardReaderOf<FlowspecNexthopSelf> {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

 protected:
   ~FlowspecNexthopSelfHoardReader() override;
};

// Registers the three readers with the process's attribute-cache name map. Runs once from
// the library's static construction, before the plugin objects are built.
class FlowspecOrreryInitializer {
 public:
   // Enters, in this order, the readers of FlowspecGenNexthop, FlowspecPolicyRejectNexthop
   // and FlowspecNexthopSelf. A name that has a reader already keeps it.
   static void initialize();

   friend bool operator==(FlowspecOrreryInitializer const&, FlowspecOrreryInitializer const&) = default;
};

} // namespace Routing::Bgp::FlowspecPlugin
