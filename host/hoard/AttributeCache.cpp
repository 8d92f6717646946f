#include "host/hoard/AttributeCache.h"
#include "host/fwk/FwkType.h"

#include "host/fwk/Assert.h"

namespace Hoard {

OVK_FWK_TYPE(Reader, "Hoard::Reader")

NameMap& NameMap::instance() {
   // Built on first use, so libraries may register from their static constructors in any
   // order; never destroyed, so readers stay valid while other libraries unload.
   static NameMap* map = new NameMap();
   return *map;
}

bool NameMap::insert(Ovk::Ptr<Reader const> const& reader) {
   OVK_ASSERT(reader != nullptr);
   return readers_.try_emplace(std::string(reader->typeName()), reader).second;
}

Ovk::Ptr<Reader const> NameMap::find(std::string_view typeName) const {
   auto it = readers_.find(typeName);
   return it == readers_.end() ? nullptr : it->second;
}

void AttributeCacheStatus::entryIs(Ovk::Ptr<AttributeCacheEntry const> const& entry) {
   OVK_ASSERT(entry != nullptr);
   entries_.insert_or_assign(entry->type(), entry);
}

Ovk::Ptr<AttributeCacheEntry const> AttributeCacheStatus::entry(std::type_index type) const {
   auto it = entries_.find(type);
   return it == entries_.end() ? nullptr : it->second;
}

} // namespace Hoard
