#include "BgpFlowspec/FlowspecNexthop.h"
#include "host/fwk/FwkType.h"

#include <iomanip>
#include <ostream>
#include <utility>

#include "host/bgp/Serialize.h"
#include "host/fwk/Assert.h"

namespace Routing::Bgp::FlowspecPlugin {

namespace {

// Switches a new entity's notifications on and hands it out.
template <class T>
Ovk::Ptr<T> activated(Ovk::Ptr<T> p) {
   p->hasNotificationActiveIs(true);
   return p;
}

// A marker next hop has only its family to restore.
template <class Marker>
Ovk::Ptr<Marker> dehoardMarker(void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager) {
   auto const view = storeManager->translate<Marker>(image);
   auto nh = Ovk::makePtr<Marker>(view->afi());
   storeManager->validateAnchor(view.anchor());
   return nh;
}

} // namespace

// ---- FlowspecGenNexthop ----

FlowspecGenNexthop::FlowspecGenNexthop(Afi afi, Ovnet::IpGenAddr const& addr, Ovk::String nexthopBytes)
    : afi_(afi), addr_(addr), nexthopBytes_(std::move(nexthopBytes)) {}

FlowspecGenNexthop::~FlowspecGenNexthop() = default;

OVK_FWK_TYPE(FlowspecGenNexthop, "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthop")

std::uint32_t FlowspecGenNexthop::hash() const {
   std::uint32_t const words[4] = {
       static_cast<std::uint32_t>(afi_),
       nexthopBytes_.empty() ? 0u : nexthopBytes_.hash(),
       addr_.hash(),
       isPolicyReject() ? 1u : 0u,
   };
   // Each word as its four bytes, least significant first, whatever the machine's order.
   std::uint8_t bytes[sizeof(words)];
   for (std::size_t i = 0; i < sizeof(bytes); ++i) {
      bytes[i] = static_cast<std::uint8_t>(words[i / 4] >> (8 * (i % 4)));
   }
   return Ovnet::oneAtATimeFinal(Ovnet::oneAtATimeMix(0, bytes, sizeof(bytes)));
}

bool FlowspecGenNexthop::compareDerived(GenNexthop const* other) const {
   // GenNexthop::compare has checked that `other` is of this object's concrete type.
   auto const* o = static_cast<FlowspecGenNexthop const*>(other);
   return afi_ == o->afi_ && nexthopBytes_ == o->nexthopBytes_ && addr_ == o->addr_ &&
          isPolicyReject() == o->isPolicyReject();
}

AfiSafi FlowspecGenNexthop::afisafi() const { return AfiSafi(afi_, Safi::flowspec); }

Ovk::String FlowspecGenNexthop::serialize() const {
   if (addr_.isUnspecified() && nexthopBytes_.empty()) return {};
   Serialize buf;
   if (addr_.isUnspecified()) {
      // A length byte cannot say more than 255; the bytes go out whole all the same, as
      // they came in.
      buf.addU8(static_cast<std::uint8_t>(nexthopBytes_.size() & 0xff));
      buf.addString(nexthopBytes_);
   } else {
      buf.addU8(static_cast<std::uint8_t>(addr_.size()));
      buf.addIpGenAddr(addr_);
   }
   return buf.serializedString();
}

void FlowspecGenNexthop::formatDerivedType(std::ostream& os) const {
   std::ios_base::fmtflags const flags = os.flags();
   char const fill = os.fill();
   std::streamsize const width = os.width(0);
   if (!addr_.isUnspecified()) {
      os << "addr=" << addr_;
   } else if (!nexthopBytes_.empty()) {
      os << "addr=0x";
      os.flags(std::ios_base::hex | std::ios_base::right);
      os.fill('0');
      for (std::uint8_t b : nexthopBytes_.span()) os << std::setw(2) << static_cast<unsigned>(b);
   }
   os.flags(flags);
   os.fill(fill);
   os.width(width);
}

Ovk::Ptr<FlowspecGenNexthop> FlowspecGenNexthop::dehoard(void const* image,
                                                         Ovk::Ptr<Hoard::StoreManager> const& storeManager) {
   auto const view = storeManager->translate<FlowspecGenNexthop>(image);
   // Only the plain fields are read. The raw bytes are not: a long byte string lives on the
   // heap of the process that stored the image, out of the store's reach.
   auto nh = Ovk::makePtr<FlowspecGenNexthop>(view->afi_, view->addr_, Ovk::String());
   // Throws when the image changed under the copy; nh then goes with the stack.
   storeManager->validateAnchor(view.anchor());
   return nh;
}

// ---- FlowspecPolicyRejectNexthop ----

FlowspecPolicyRejectNexthop::FlowspecPolicyRejectNexthop(Afi afi)
    : FlowspecGenNexthop(afi, Ovnet::IpGenAddr(), Ovk::String()) {}

FlowspecPolicyRejectNexthop::~FlowspecPolicyRejectNexthop() = default;

OVK_FWK_TYPE(FlowspecPolicyRejectNexthop, "Routing::Bgp::FlowspecPlugin::FlowspecPolicyRejectNexthop")

Ovk::Ptr<FlowspecPolicyRejectNexthop> FlowspecPolicyRejectNexthop::dehoard(
    void const* image, Ovk::Ptr<Hoard::StoreManager> const& storeManager) {
   return dehoardMarker<FlowspecPolicyRejectNexthop>(image, storeManager);
}

// ---- FlowspecNexthopSelf ----

FlowspecNexthopSelf::FlowspecNexthopSelf(Afi afi) : FlowspecGenNexthop(afi, Ovnet::IpGenAddr(), Ovk::String()) {}

FlowspecNexthopSelf::~FlowspecNexthopSelf() = default;

OVK_FWK_TYPE(FlowspecNexthopSelf, "Routing::Bgp::FlowspecPlugin::FlowspecNexthopSelf")

Ovk::Ptr<FlowspecNexthopSelf> FlowspecNexthopSelf::dehoard(void const* image,
                                                           Ovk::Ptr<Hoard::StoreManager> const& storeManager) {
   return dehoardMarker<FlowspecNexthopSelf>(image, storeManager);
}

// ---- FlowspecGenNexthopDedupTable ----

FlowspecGenNexthopDedupTable::FlowspecGenNexthopDedupTable(BgpVrfIdBase vrfId, AfiSafi afiSafi,
                                                           Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee,
                                                           Ovk::Ptr<GenNexthopIdAllocator> idAllocator)
    : GenNexthopDedupTable(vrfId, afiSafi, std::move(lifeTimeNotifiee), std::move(idAllocator)) {
   createEmptyNexthop();
   handleFlowspecGenNexthopDedupTableInit();
}

// The singletons left the table before this runs (see DedupHashTable::onZeroReferences).
FlowspecGenNexthopDedupTable::~FlowspecGenNexthopDedupTable() = default;

OVK_FWK_TYPE(FlowspecGenNexthopDedupTable, "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopDedupTable")

Ovk::Ptr<GenNexthop const> FlowspecGenNexthopDedupTable::nexthopOfAddress(Ovnet::IpGenAddr const& addr) const {
   if (addr.isUnspecified()) return emptyNexthop_;
   return flowspecGenNexthopFactory(afi(), addr, Ovk::String())
       ->dedup(Ovk::Ptr<GenNexthopDedupTableBase const>(this), false);
}

// The singletons enter through lookupOrInsertNexthop, not GenNexthop::dedup: a constructor
// must not hand out Ptrs to the table it builds (the first release would delete it).
void FlowspecGenNexthopDedupTable::createEmptyNexthop() {
   auto nh = Ovk::makePtr<FlowspecGenNexthop>(afi(), Ovnet::IpGenAddr(), Ovk::String());
   emptyNexthop_ = Ovk::ptrCast<FlowspecGenNexthop const>(lookupOrInsertNexthop(nh));
}

void FlowspecGenNexthopDedupTable::handleFlowspecGenNexthopDedupTableInit() {
   policyRejectNexthopIs(lookupOrInsertNexthop(Ovk::makePtr<FlowspecPolicyRejectNexthop>(afi())));
   nexthopSelfIs(lookupOrInsertNexthop(Ovk::makePtr<FlowspecNexthopSelf>(afi())));
}

// ---- FlowspecGenNexthopLifeTimeNotifiee ----

FlowspecGenNexthopLifeTimeNotifiee::FlowspecGenNexthopLifeTimeNotifiee(bool multiThreadedOvbgp,
                                                                       Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler,
                                                                       Ovk::String taskPrefix)
    : GenNexthopLifeTimeNotifiee(multiThreadedOvbgp, std::move(consumerScheduler), std::move(taskPrefix)) {}

FlowspecGenNexthopLifeTimeNotifiee::~FlowspecGenNexthopLifeTimeNotifiee() = default;

OVK_FWK_TYPE(FlowspecGenNexthopLifeTimeNotifiee, "Routing::Bgp::FlowspecPlugin::FlowspecGenNexthopLifeTimeNotifiee")

void FlowspecGenNexthopLifeTimeNotifiee::handleInsert(Ovk::Ptr<Ovk::DedupHandle> const& handle) {
   auto* const nh = dynamic_cast<FlowspecGenNexthop*>(handle.ptr());
   OVK_ASSERT(nh != nullptr);
   OVK_ASSERT(nh->lifeTimeNotifier() == nullptr);
   // The notifier anchors its reference: the next hop still leaves the table when its last
   // outside reference goes, and handleRemove then breaks the cycle.
   nh->lifeTimeNotifier_ = Ovk::makePtr<GenNexthopLifeTimeNotifier>(handle);
}

void FlowspecGenNexthopLifeTimeNotifiee::handleRemove(Ovk::DedupHandle* handle) {
   auto* const nh = dynamic_cast<FlowspecGenNexthop*>(handle);
   OVK_ASSERT(nh != nullptr);
   // Released at the end of this scope, after the field is clear.
   Ovk::Ptr<GenNexthopLifeTimeNotifier> const lifeTimeNotifier = std::exchange(nh->lifeTimeNotifier_, nullptr);
   OVK_ASSERT(lifeTimeNotifier != nullptr);
}

void FlowspecGenNexthopLifeTimeNotifiee::handleNotificationStop(Ovk::Ptr<Ovk::DedupHashTable const> const&) {}

// ---- Factories ----

Ovk::Ptr<FlowspecGenNexthop> flowspecGenNexthopFactory(Afi afi, Ovnet::IpGenAddr const& addr,
                                                       Ovk::String const& nexthopBytes) {
   return activated(Ovk::makePtr<FlowspecGenNexthop>(afi, addr, nexthopBytes));
}

Ovk::Ptr<FlowspecPolicyRejectNexthop> flowspecPolicyRejectNexthopFactory(Afi afi) {
   return activated(Ovk::makePtr<FlowspecPolicyRejectNexthop>(afi));
}

Ovk::Ptr<FlowspecNexthopSelf> flowspecNexthopSelfFactory(Afi afi) {
   return activated(Ovk::makePtr<FlowspecNexthopSelf>(afi));
}

Ovk::Ptr<FlowspecGenNexthopDedupTable> flowspecGenNexthopDedupTableFactory(
    BgpVrfIdBase vrfId, AfiSafi afiSafi, Ovk::Ptr<GenNexthopLifeTimeNotifiee const> const& lifeTimeNotifiee,
    Ovk::Ptr<GenNexthopIdAllocator> const& idAllocator) {
   return activated(Ovk::makePtr<FlowspecGenNexthopDedupTable>(vrfId, afiSafi, lifeTimeNotifiee, idAllocator));
}

Ovk::Ptr<FlowspecGenNexthopLifeTimeNotifiee> flowspecGenNexthopLifeTimeNotifieeFactory(
    bool multiThreadedOvbgp, Ovk::Ptr<Ovk::TaskScheduler> const& consumerScheduler, Ovk::String const& taskPrefix) {
   return activated(
       Ovk::makePtr<FlowspecGenNexthopLifeTimeNotifiee>(multiThreadedOvbgp, consumerScheduler, taskPrefix));
}

} // namespace Routing::Bgp::FlowspecPlugin
