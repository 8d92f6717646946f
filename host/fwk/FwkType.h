// The framework record of an entity type.
//
// Every entity type that is persisted, shown or looked up by name has one record, a
// statically allocated FwkType holding the type's full name ("Routing::Bgp::GenNexthop").
// Entities return it from their virtual fwkType(); the attribute cache and its readers meet
// on that name. Records are compared by name, so two libraries that each hold a record of
// one type still agree.
#pragma once

#include <string_view>

namespace Ovk {

class FwkType {
 public:
   explicit constexpr FwkType(std::string_view name) noexcept : name_(name) {}
   FwkType(FwkType const&) = delete;
   FwkType& operator=(FwkType const&) = delete;

   // The full type name, namespaces included.
   constexpr std::string_view name() const noexcept { return name_; }

   friend constexpr bool operator==(FwkType const& a, FwkType const& b) noexcept { return a.name_ == b.name_; }

 private:
   std::string_view name_;
};

} // namespace Ovk

// Defines Class::classFwkType(), the type's record named `name` (its full name, as a string
// literal), and Class::fwkType(), which returns it: what every entity type with a record
// writes in its source file.
#define OVK_FWK_TYPE(Class, name)                                                                                      \
   ::Ovk::FwkType const& Class::classFwkType() {                                                                       \
      static constexpr ::Ovk::FwkType type(name);                                                                      \
      return type;                                                                                                     \
   }                                                                                                                   \
   ::Ovk::FwkType const& Class::fwkType() const { return classFwkType(); }
