#include "host/bgp/RouteKey.h"
#include "host/fwk/FwkType.h"

#include <new>
#include <ostream>
#include <sstream>
#include <vector>

#include "host/bgp/BgpTrace.h"
#include "host/fwk/Assert.h"
#include "host/fwk/SlabHeap.h"

namespace Routing::Bgp {

namespace {
constexpr char const* kMustOverride = "Must override in derived class";
} // namespace

// ---- RouteKeyBase ----

OVK_FWK_TYPE(RouteKeyBase, "Routing::Bgp::RouteKeyBase")

bool RouteKeyBase::compareByContent(RouteKeyBase const* other) const { return compare(other); }

Afi RouteKeyBase::afi() const { OVK_FATAL(kMustOverride); }

std::uint8_t RouteKeyBase::safi() const { OVK_FATAL(kMustOverride); }

NlriType RouteKeyBase::nlriType() const { OVK_FATAL(kMustOverride); }

void RouteKeyBase::formatDerivedType(std::ostream& os) const { os << fwkType().name(); }

void RouteKeyBase::formatWithoutVrf(std::ostream& os) const { formatDerivedType(os); }

std::string RouteKeyBase::toStrepImpl() const {
   std::ostringstream os;
   formatDerivedType(os);
   return std::move(os).str();
}

std::string RouteKeyBase::displayText() const {
   std::ostringstream os;
   formatWithoutVrf(os);
   return std::move(os).str();
}

void RouteKeyBase::blinkPut(Ovk::Blink& blink) const {
   std::uint32_t const h = hash();
   blink.put(&h, sizeof(h));
}

bool RouteKeyBase::lessThan(Ovk::Ptr<RouteKeyBase const> const&) const { OVK_FATAL(kMustOverride); }

int RouteKeyBase::orderCompare(RouteKeyBase const& other) const {
   // Lend `other` to lessThan without a reference count change per call.
   auto const less = [](RouteKeyBase const& a, RouteKeyBase const& b) {
      Ovk::Ptr<RouteKeyBase const> p = Ovk::Ptr<RouteKeyBase const>::adopt(&b);
      bool const r = a.lessThan(p);
      p.release();
      return r;
   };
   bool const ab = less(*this, other);
   bool const ba = less(other, *this);
   if (ab == ba) return 0;
   return ab ? -1 : 1;
}

Ovk::TraceFacility& RouteKeyBase::traceFacility() const { return bgpTraceFacility(); }

bool RouteKeyBase::isOverlapping(RouteKeyBase const&) const { OVK_FATAL(kMustOverride); }

bool RouteKeyBase::isMoreSpecific(RouteKeyBase const&) const { OVK_FATAL(kMustOverride); }

Ovk::Ptr<RouteKeyBase const> RouteKeyBase::getOneBitShorterMaskRouteKey() const { OVK_FATAL(kMustOverride); }

void RouteKeyBase::formatAdditionalDetail(std::ostream&) const {}

std::ostream& operator<<(std::ostream& os, RouteKeyBase const& key) {
   key.formatDerivedType(os);
   return os;
}

// ---- RouteKey ----

OVK_FWK_TYPE(RouteKey, "Routing::Bgp::RouteKey")

void* RouteKey::operator new(std::size_t size) { return operator new(size, TrailingBytes{0}); }

void* RouteKey::operator new(std::size_t size, TrailingBytes trailing) {
   void* const block = Ovk::SlabHeap::allocate(sizeof(RibRouteSlot) + size + trailing.n);
   new (block) RibRouteSlot();
   return static_cast<char*>(block) + sizeof(RibRouteSlot);
}

void RouteKey::operator delete(void* p) noexcept {
   if (p) Ovk::SlabHeap::deallocate(static_cast<char*>(p) - sizeof(RibRouteSlot));
}

void RouteKey::operator delete(void* p, TrailingBytes) noexcept { operator delete(p); }

Ovk::Ptr<RouteKey const> RouteKey::dedupRouteKey(RouteKeyDedupTableBase const* table) {
   OVK_ASSERT(table != nullptr);
   // Lend the table the caller's reference instead of taking one of our own: every NLRI of
   // an UPDATE passes here, and each reference taken and dropped is an atomic operation.
   Ovk::Ptr<Ovk::DedupHandle> self = Ovk::Ptr<Ovk::DedupHandle>::adopt(this);
   Ovk::Ptr<Ovk::DedupHandle const> canonical = table->lookupOrInsert(self);
   self.release();
   // Every entry of a route-key table is a route key.
   return Ovk::Ptr<RouteKey const>::adopt(static_cast<RouteKey const*>(canonical.release()));
}

Ovk::String RouteKey::serialize(SerializeOperation, Ovk::Ptr<RouteKeySerializeArguments const> const&) const {
   OVK_FATAL(kMustOverride);
}

// ---- RouteKeyDedupTableBase ----

OVK_FWK_TYPE(RouteKeyDedupTableBase, "Routing::Bgp::RouteKeyDedupTableBase")

Ovk::Ptr<RouteKey const> RouteKeyDedupTableBase::lookupRouteKey(RouteKey const& probe) const {
   Ovk::Ptr<Ovk::DedupHandle const> const found = lookup(probe);
   return Ovk::Ptr<RouteKey const>(static_cast<RouteKey const*>(found.ptr()));
}

void RouteKeyDedupTableBase::dedupRouteKeys(std::span<Ovk::Ptr<RouteKey const>* const> keys) const {
   // Scratch kept between calls: the decoder interns a message's keys at a time.
   thread_local std::vector<Ovk::DedupHandle*> handles;
   thread_local std::vector<Ovk::Ptr<RouteKey const>*> owners;
   handles.clear();
   owners.clear();
   for (Ovk::Ptr<RouteKey const>* k : keys) {
      if (!*k || (*k)->dedupState() != Ovk::DedupHandleState::neverDeduped) continue;
      // A key never deduplicated is still its maker's: the table may enter it.
      handles.push_back(const_cast<RouteKey*>(k->ptr()));
      owners.push_back(k);
   }
   lookupOrInsertAll(handles);
   for (std::size_t i = 0; i < handles.size(); ++i) {
      // Every entry of a route-key table is a route key.
      auto const* canonical = static_cast<RouteKey const*>(handles[i]);
      if (canonical != owners[i]->ptr()) *owners[i] = Ovk::Ptr<RouteKey const>(canonical);
   }
}

Ovk::Ptr<RouteKey const> RouteKeyDedupTableBase::dedupFromRule(Flowspec::FlowspecKey const&) const { return nullptr; }

bool RouteKeyDedupTableBase::ruleOf(RouteKey const&, Flowspec::FlowspecKey&) const { return false; }

Ovk::Ptr<RouteKey const> RouteKeyDedupTableBase::dedupFromCommandParams(std::string const&) const {
   OVK_FATAL(kMustOverride);
}

OVK_FWK_TYPE(RouteKeyDedupTable, "Routing::Bgp::RouteKeyDedupTable")

std::ostream& operator<<(std::ostream& os, RouteKeyDedupTableBase const& table) {
   return os << table.fwkType().name() << '(' << table.afiSafi() << " vrf=" << table.vrfId() << ')';
}

} // namespace Routing::Bgp
