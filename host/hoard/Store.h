// The attribute cache's store of object images.
//
// The agent keeps deduplicated objects in a persisted store so that a restarted agent finds
// them again. An object's image is the object as it lies in the store, in its in-memory field
// layout; it is named by its address in the store's address space. Reading one back takes:
//   - a Store, which turns an image address into an address this process can read and
//     counts changes per image (a shared-memory store maps its segment and translates
//     offsets; MemoryStore keeps live objects of this process as their own images);
//   - an AnchorValidator, called once after the reader has copied the fields it needs, that
//     rejects the copy when the image changed meanwhile (a seqlock-style check);
//   - a StoreManager that ties the two together for the readers.
// A bad or changing image is reported by exception (StoreError); the attribute cache's
// restore loop catches it and skips the object. Readers catch nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/fwk/Ptr.h"

namespace Hoard {

class StoreError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The store holds no image of the asked size at the asked address.
class ImageNotFound : public StoreError {
 public:
   using StoreError::StoreError;
};

// The image was rewritten while it was being read.
class ImageChanged : public StoreError {
 public:
   using StoreError::StoreError;
};

// Where a read began: the image and its change count at that moment.
struct Anchor {
   void const* image = nullptr;
   std::uint64_t version = 0;
};

class Store : public Ovk::PtrInterface {
 public:
   // The readable address of the `size` bytes of the image at `image`; null when the store
   // has no image there, or a smaller one.
   virtual void const* view(void const* image, std::size_t size) const = 0;
   // The image's change count: it moves whenever the image is rewritten. 0 for no image.
   virtual std::uint64_t version(void const* image) const = 0;

 protected:
   ~Store() override = default;
};

// A store in this process's memory: each image is a live object, kept alive by the store.
class MemoryStore : public Store {
 public:
   static Ovk::Ptr<MemoryStore> create() { return Ovk::makePtr<MemoryStore>(); }

   // Keeps `object` as an image of type T and returns the image address. T is the type its
   // reader reads (the object's concrete type).
   template <class T>
   void const* keep(Ovk::Ptr<T const> const& object) {
      void const* image = static_cast<void const*>(object.ptr());
      images_[image] = Image{sizeof(T), 1, Ovk::Ptr<Ovk::PtrInterface const>(object)};
      return image;
   }
   // Records that a writer rewrote the image.
   void touch(void const* image);
   // Forgets the image and releases its object.
   void forget(void const* image) { images_.erase(image); }
   std::size_t size() const { return images_.size(); }

   void const* view(void const* image, std::size_t size) const override;
   std::uint64_t version(void const* image) const override;

 private:
   struct Image {
      std::size_t size;
      std::uint64_t version;
      Ovk::Ptr<Ovk::PtrInterface const> object;
   };
   std::map<void const*, Image> images_;
};

class AnchorValidator : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<AnchorValidator> create() { return Ovk::makePtr<AnchorValidator>(); }
   // Throws ImageChanged when the image of `anchor` changed since the read began.
   virtual void validate(Store const& store, Anchor const& anchor) const;

 protected:
   ~AnchorValidator() override = default;
};

// A typed view of an image, with the anchor of the read.
template <class T>
class View {
 public:
   View(T const* object, Anchor anchor) : object_(object), anchor_(anchor) {}
   T const* operator->() const { return object_; }
   T const& operator*() const { return *object_; }
   Anchor const& anchor() const { return anchor_; }

 private:
   T const* object_;
   Anchor anchor_;
};

class StoreManager : public Ovk::PtrInterface {
 public:
   StoreManager(Ovk::Ptr<Store const> store, Ovk::Ptr<AnchorValidator const> validator);
   static Ovk::Ptr<StoreManager> create(Ovk::Ptr<Store const> store,
                                        Ovk::Ptr<AnchorValidator const> validator = AnchorValidator::create()) {
      return Ovk::makePtr<StoreManager>(std::move(store), std::move(validator));
   }

   Store const& store() const { return *store_; }

   // A view of the image at `image` as a T, anchored at the image's current change count.
   // Throws ImageNotFound when the store holds no T-sized image there.
   template <class T>
   View<T> translate(void const* image) const {
      // The change count is read before the fields, so a write in between is seen later.
      Anchor const anchor{image, store_->version(image)};
      return View<T>(static_cast<T const*>(viewOrThrow(image, sizeof(T))), anchor);
   }
   // Called once after the fields of a view are copied; throws (ImageChanged, or whatever
   // the validator reports) when the copy must not be used.
   void validateAnchor(Anchor const& anchor) const { validator_->validate(*store_, anchor); }

 protected:
   ~StoreManager() override = default;

 private:
   void const* viewOrThrow(void const* image, std::size_t size) const;

   Ovk::Ptr<Store const> store_;
   Ovk::Ptr<AnchorValidator const> validator_;
};

} // namespace Hoard
