// The attribute-cache reader base of next-hop types.
#pragma once

#include "host/bgp/GenNexthop.h"
#include "host/hoard/AttributeCache.h"
#include "host/hoard/Store.h"

namespace Routing::Bgp {

class GenNexthopHoardReader : public Hoard::Reader {
 public:
   static Ovk::FwkType const& classFwkType();
   Ovk::FwkType const& fwkType() const override;

   // Rebuilds the next hop whose image is at `image`: a new, never-deduplicated next hop,
   // the caller's only reference. Throws what the store manager reports (a missing or a
   // changed image) and then leaves nothing behind.
   virtual Ovk::Ptr<GenNexthop> dehoard(void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager) const = 0;

 protected:
   ~GenNexthopHoardReader() override = default;
};

} // namespace Routing::Bgp
