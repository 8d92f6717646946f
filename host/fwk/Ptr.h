// Intrusive, atomically reference-counted pointers.
//
// Every shared entity derives from PtrInterface and is held through Ptr<T>. The count lives
// in the object; Ptr<T const> holds a read-only view of the same object. When the count
// drops to zero the object's onZeroReferences() runs; by default it deletes the object, and
// dedup handles override it to leave their table first.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#include "host/fwk/Assert.h"

namespace Ovk {

class PtrInterface {
 public:
   PtrInterface() = default;
   PtrInterface(PtrInterface const&) : refs_(0) {}
   PtrInterface& operator=(PtrInterface const&) { return *this; }

   // Number of Ptr (and manual) references to this object.
   std::uint32_t references() const { return refs_.load(std::memory_order_relaxed); }

   void newRef() const { refs_.fetch_add(1, std::memory_order_relaxed); }
   void deleteRef() const {
      std::uint32_t const left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
      if (left == 0) {
         const_cast<PtrInterface*>(this)->onZeroReferences();
      } else if (left == anchoredRefs_) {
         const_cast<PtrInterface*>(this)->onOnlyAnchoredReferences();
      }
   }

   // Anchored references are held by the object's own bookkeeping (a dedup table's
   // life-time notifier, for example) and do not keep it alive in the eyes of its users:
   // when every remaining reference is anchored, onOnlyAnchoredReferences() runs so the
   // owner of the anchors can let go of them.
   void anchoredReferenceInc() const { ++anchoredRefs_; }
   void anchoredReferenceDec() const {
      OVK_ASSERT(anchoredRefs_ > 0);
      --anchoredRefs_;
   }
   std::uint32_t anchoredReferences() const { return anchoredRefs_; }

 protected:
   virtual ~PtrInterface() = default;
   // Called once the last reference has gone. Default: delete the object.
   virtual void onZeroReferences() { delete this; }
   // Called when the references left are all anchored ones (never for zero anchors).
   virtual void onOnlyAnchoredReferences() {}

 private:
   mutable std::atomic<std::uint32_t> refs_{0};
   mutable std::uint32_t anchoredRefs_ = 0;
};

template <class T>
class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {} // NOLINT(google-explicit-constructor)
   Ptr(T* p) noexcept : p_(p) {
      if (p_) p_->newRef();
   } // NOLINT(google-explicit-constructor)
   Ptr(Ptr const& o) noexcept : p_(o.p_) {
      if (p_) p_->newRef();
   }
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U> const& o) noexcept : p_(o.ptr()) {
      if (p_) p_->newRef();
   } // NOLINT
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {} // NOLINT
   ~Ptr() {
      if (p_) p_->deleteRef();
   }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* ptr() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   // Gives up ownership without dropping the reference.
   T* release() noexcept { return std::exchange(p_, nullptr); }
   // Adopts a pointer whose reference the caller already holds.
   static Ptr adopt(T* p) noexcept {
      Ptr r;
      r.p_ = p;
      return r;
   }

   template <class U>
   bool operator==(Ptr<U> const& o) const noexcept {
      return p_ == o.ptr();
   }
   bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }
   // By address: interned objects are ordered by identity.
   template <class U>
   bool operator<(Ptr<U> const& o) const noexcept {
      return p_ < o.ptr();
   }

 private:
   T* p_ = nullptr;
};

// Allocates a new entity and returns the first reference to it.
template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

// Checked down-cast: empty when the object is not a T.
template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) {
   return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

// Down-cast that must succeed; a wrong type is a broken invariant.
template <class T, class U>
Ptr<T> ptrCastChecked(Ptr<U> const& p) {
   T* t = dynamic_cast<T*>(p.ptr());
   OVK_ASSERT(p.ptr() == nullptr || t != nullptr);
   return Ptr<T>(t);
}

// Removes constness from a Ptr: for owners that hand out const views of what they keep.
template <class T>
Ptr<T> ptrConstCast(Ptr<T const> const& p) {
   return Ptr<T>(const_cast<T*>(p.ptr()));
}

} // namespace Ovk

template <class T>
struct std::hash<Ovk::Ptr<T>> {
   std::size_t operator()(Ovk::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
