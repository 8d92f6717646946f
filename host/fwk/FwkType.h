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
