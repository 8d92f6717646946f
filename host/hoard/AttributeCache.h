// The attribute cache: which types it persists, and the readers that rebuild them.
//
// Persisting an object records the type-name string of its attribute-cache entry, found by
// the object's dynamic type; restoring it finds the reader of that name in the name map and
// asks it to rebuild the object from its image (see Store.h). Libraries register their
// readers in the process's name map when they load, and their types in the attribute-cache
// status when they start.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <typeindex>
#include <unordered_map>

#include "host/fwk/FwkType.h"
#include "host/fwk/Ptr.h"
#include "host/fwk/String.h"

namespace Hoard {

// Rebuilds objects of one type from their images. Derived readers add the typed
// dehoard(image, storeManager) of their kind of object.
class Reader : public Ovk::PtrInterface {
 public:
   static Ovk::FwkType const& classFwkType();
   virtual Ovk::FwkType const& fwkType() const;
   // The framework type name of the type this reader rebuilds: the name its objects are
   // stored under.
   virtual std::string_view typeName() const = 0;

 protected:
   ~Reader() override = default;
};

// The map from type name to reader.
class NameMap {
 public:
   // The process's map, which libraries fill when they load.
   static NameMap& instance();

   NameMap() = default;
   NameMap(NameMap const&) = delete;
   NameMap& operator=(NameMap const&) = delete;

   // Enters `reader` under its typeName(). A name has one reader: false, and the map
   // unchanged, when the name has one already.
   bool insert(Ovk::Ptr<Reader const> const& reader);
   // The reader of `typeName`, or empty.
   Ovk::Ptr<Reader const> find(std::string_view typeName) const;
   // The reader of `typeName` if it is an R, or empty.
   template <class R>
   Ovk::Ptr<R const> findAs(std::string_view typeName) const {
      return Ovk::ptrCast<R const>(find(typeName));
   }
   std::size_t size() const { return readers_.size(); }

 private:
   std::map<std::string, Ovk::Ptr<Reader const>, std::less<>> readers_;
};

// The attribute cache's record of one persisted type.
class AttributeCacheEntry : public Ovk::PtrInterface {
 public:
   explicit AttributeCacheEntry(std::type_index type) : type_(type) {}
   static Ovk::Ptr<AttributeCacheEntry> create(std::type_index type) { return Ovk::makePtr<AttributeCacheEntry>(type); }

   // The dynamic type identity the entry is keyed by.
   std::type_index type() const { return type_; }
   // The name the type's objects are stored under; its reader has the same typeName().
   Ovk::String const& typeName() const { return typeName_; }
   void typeNameIs(Ovk::String const& name) { typeName_ = name; }

 private:
   std::type_index type_;
   Ovk::String typeName_;
};

// The persisted types of an agent, keyed by dynamic type identity.
class AttributeCacheStatus : public Ovk::PtrInterface {
 public:
   static Ovk::Ptr<AttributeCacheStatus> create() { return Ovk::makePtr<AttributeCacheStatus>(); }

   // Stores `entry` under its type, replacing any entry of that type.
   void entryIs(Ovk::Ptr<AttributeCacheEntry const> const& entry);
   // The entry of `type`, or empty.
   Ovk::Ptr<AttributeCacheEntry const> entry(std::type_index type) const;
   std::size_t entries() const { return entries_.size(); }

 private:
   std::unordered_map<std::type_index, Ovk::Ptr<AttributeCacheEntry const>> entries_;
};

} // namespace Hoard
