#include "host/bgp/GenNexthop.h"
#include "host/fwk/FwkType.h"

#include <ostream>
#include <sstream>
#include <typeinfo>

#include "host/fwk/Assert.h"

namespace Routing::Bgp {

namespace {

// Entries of a next-hop table are next hops; anything else got in through the framework's
// untyped insert, which is a broken invariant.
GenNexthop* nexthopOf(Ovk::DedupHandle* h) {
   auto* nh = dynamic_cast<GenNexthop*>(h);
   OVK_ASSERT(nh != nullptr);
   return nh;
}

} // namespace

// ---- GenNexthop ----

OVK_FWK_TYPE(GenNexthop, "Routing::Bgp::GenNexthop")

Ovk::Ptr<GenNexthop const> GenNexthop::dedup(Ovk::Ptr<GenNexthopDedupTableBase const> const& table, bool lookupOnly) {
   OVK_ASSERT(table != nullptr);
   Ovk::Ptr<GenNexthop> self(this);
   if (!lookupOnly) return table->lookupOrInsertNexthop(self);
   if (auto found = table->lookupNexthop(*this)) return found;
   orphanIs(table);
   return self;
}

bool GenNexthop::compare(Ovk::DedupHandle const* other) const {
   // Derived types that only mark a next hop (next-hop-self) hash and compare like the plain
   // next hop of their content; the type check keeps them distinct entries of one table.
   if (typeid(*this) != typeid(*other)) return false;
   return compareDerived(static_cast<GenNexthop const*>(other));
}

void GenNexthop::formatDerivedType(std::ostream&) const {}

std::ostream& operator<<(std::ostream& os, GenNexthop const& nh) {
   // The derived text is written on a stream of its own, so it neither depends on nor
   // disturbs the caller's format, and an empty one adds no separator.
   std::ostringstream derived;
   nh.formatDerivedType(derived);
   os << nh.fwkType().name() << '(' << nh.afisafi();
   if (nh.isPolicyReject()) os << " policyReject";
   if (nh.isNexthopSelf()) os << " nexthopSelf";
   if (std::string const text = derived.str(); !text.empty()) os << ' ' << text;
   return os << ')';
}

// ---- GenNexthopIdAllocator ----

std::uint32_t GenNexthopIdAllocator::allocate() {
   if (!free_.empty()) {
      std::uint32_t const id = *free_.begin();
      free_.erase(free_.begin());
      return id;
   }
   OVK_ASSERT(next_ != 0xffffffffu);
   return next_++;
}

void GenNexthopIdAllocator::release(std::uint32_t id) {
   OVK_ASSERT(id != 0 && id < next_);
   bool const returned = free_.insert(id).second;
   OVK_ASSERT(returned);
}

// ---- GenNexthopLifeTimeNotifier ----

GenNexthopLifeTimeNotifier::GenNexthopLifeTimeNotifier(Ovk::Ptr<Ovk::DedupHandle> const& nexthop) : nexthop_(nexthop) {
   OVK_ASSERT(nexthop_ != nullptr);
   nexthop_->anchoredReferenceInc();
}

GenNexthopLifeTimeNotifier::~GenNexthopLifeTimeNotifier() {
   // Drop the anchor before the reference, so the release is not taken for a last outside one.
   nexthop_->anchoredReferenceDec();
}

// ---- GenNexthopLifeTimeNotifiee ----

OVK_FWK_TYPE(GenNexthopLifeTimeNotifiee, "Routing::Bgp::GenNexthopLifeTimeNotifiee")

GenNexthopLifeTimeNotifiee::GenNexthopLifeTimeNotifiee(bool multiThreadedOvbgp,
                                                       Ovk::Ptr<Ovk::TaskScheduler> consumerScheduler,
                                                       Ovk::String taskPrefix)
    : multiThreadedOvbgp_(multiThreadedOvbgp), consumerScheduler_(std::move(consumerScheduler)),
      taskPrefix_(std::move(taskPrefix)) {}

// ---- GenNexthopDedupTableBase ----

// The table's own notifiee: gives entering next hops their ids, then tells the life-time
// notifiee; on the way out, the other way round.
class GenNexthopDedupTableBase::EntryNotifiee final : public Ovk::DedupTableNotifiee {
 public:
   EntryNotifiee(Ovk::Ptr<GenNexthopLifeTimeNotifiee> lifeTimeNotifiee, Ovk::Ptr<GenNexthopIdAllocator> idAllocator)
       : lifeTimeNotifiee_(std::move(lifeTimeNotifiee)), idAllocator_(std::move(idAllocator)) {}

   void handleInsert(Ovk::Ptr<Ovk::DedupHandle> const& handle) override {
      if (idAllocator_) nexthopOf(handle.ptr())->nexthopId_ = idAllocator_->allocate();
      if (lifeTimeNotifiee_) lifeTimeNotifiee_->handleInsert(handle);
   }
   // The table keeps `handle` alive through this call.
   void handleRemove(Ovk::DedupHandle* handle) override {
      if (lifeTimeNotifiee_) lifeTimeNotifiee_->handleRemove(handle);
      if (idAllocator_) {
         GenNexthop* nh = nexthopOf(handle);
         idAllocator_->release(nh->nexthopId_);
         nh->nexthopId_ = 0;
      }
   }
   void handleNotificationStop(Ovk::Ptr<Ovk::DedupHashTable const> const& table) override {
      if (lifeTimeNotifiee_) lifeTimeNotifiee_->handleNotificationStop(table);
   }

 private:
   Ovk::Ptr<GenNexthopLifeTimeNotifiee> lifeTimeNotifiee_;
   Ovk::Ptr<GenNexthopIdAllocator> idAllocator_;
};

OVK_FWK_TYPE(GenNexthopDedupTableBase, "Routing::Bgp::GenNexthopDedupTableBase")

GenNexthopDedupTableBase::GenNexthopDedupTableBase(BgpVrfIdBase vrfId, AfiSafi afiSafi,
                                                   Ovk::Ptr<GenNexthopLifeTimeNotifiee const> lifeTimeNotifiee,
                                                   Ovk::Ptr<GenNexthopIdAllocator> idAllocator)
    : vrfId_(vrfId), afiSafi_(afiSafi), lifeTimeNotifiee_(std::move(lifeTimeNotifiee)),
      idAllocator_(std::move(idAllocator)) {
   if (lifeTimeNotifiee_ || idAllocator_) {
      // The notifiee is shared and reached through const views; its callbacks change only
      // the next hops it is told of.
      notifieeIs(Ovk::makePtr<EntryNotifiee>(Ovk::ptrConstCast(lifeTimeNotifiee_), idAllocator_));
   }
}

// The markers were detached with every other entry before this runs (see DedupHashTable).
GenNexthopDedupTableBase::~GenNexthopDedupTableBase() = default;

void GenNexthopDedupTableBase::policyRejectNexthopIs(Ovk::Ptr<GenNexthop const> const& nh) {
   OVK_ASSERT(nh == nullptr || nh->dedupTable() == this);
   OVK_ASSERT(nh == nullptr || nh->isPolicyReject());
   policyRejectNexthop_ = nh;
}

void GenNexthopDedupTableBase::nexthopSelfIs(Ovk::Ptr<GenNexthop const> const& nh) {
   OVK_ASSERT(nh == nullptr || nh->dedupTable() == this);
   OVK_ASSERT(nh == nullptr || nh->isNexthopSelf());
   nexthopSelf_ = nh;
}

Ovk::Ptr<GenNexthop const> GenNexthopDedupTableBase::nexthopOfAddress(Ovnet::IpGenAddr const&) const { return nullptr; }

Ovk::Ptr<GenNexthop const> GenNexthopDedupTableBase::lookupOrInsertNexthop(Ovk::Ptr<GenNexthop> const& nh) const {
   Ovk::Ptr<Ovk::DedupHandle const> entry = lookupOrInsert(nh);
   // Every entry came in through here or through GenNexthop::dedup: it is a next hop.
   return Ovk::Ptr<GenNexthop const>(static_cast<GenNexthop const*>(entry.ptr()));
}

Ovk::Ptr<GenNexthop const> GenNexthopDedupTableBase::lookupNexthop(GenNexthop const& probe) const {
   Ovk::Ptr<Ovk::DedupHandle const> entry = lookup(probe);
   return Ovk::Ptr<GenNexthop const>(static_cast<GenNexthop const*>(entry.ptr()));
}

// ---- GenNexthopDedupTable ----

OVK_FWK_TYPE(GenNexthopDedupTable, "Routing::Bgp::GenNexthopDedupTable")

// ---- IpPlugin::IpGenNexthop ----

namespace IpPlugin {

OVK_FWK_TYPE(IpGenNexthop, "Routing::Bgp::IpPlugin::IpGenNexthop")

AfiSafi IpGenNexthop::afisafi() const { return AfiSafi(addr_.isIpv6() ? Afi::afiIpv6 : Afi::afiIpv4, Safi::unicast); }

Ovk::String IpGenNexthop::serialize() const {
   auto const b = addr_.bytes();
   return Ovk::String(b.data(), b.size());
}

bool IpGenNexthop::compareDerived(GenNexthop const* other) const {
   return static_cast<IpGenNexthop const*>(other)->addr_ == addr_;
}

std::uint32_t IpGenNexthop::hash() const {
   auto const b = addr_.bytes();
   return Ovk::String::hashBytes(b.data(), b.size());
}

void IpGenNexthop::formatDerivedType(std::ostream& os) const { os << "addr=" << addr_.str(); }

} // namespace IpPlugin

} // namespace Routing::Bgp
